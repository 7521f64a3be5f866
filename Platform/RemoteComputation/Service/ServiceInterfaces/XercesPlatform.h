#pragma once

#include <xercesc/util/XMLString.hpp>

#include <string>

namespace Kestrane {

// Xerces-C must be initialised once before any thread uses it; every user of Xerces calls
// ensureInitialized() first. It is never terminated: documents and grammars may live until the
// process ends.
class XercesPlatform {
public:
    static void ensureInitialized();
};

// UTF-16 text of Xerces from a UTF-8 string, released on destruction.
class XercesString {
public:
    explicit XercesString(const std::string& text);
    explicit XercesString(const char* text);
    ~XercesString();
    XercesString(const XercesString&) = delete;
    XercesString& operator=(const XercesString&) = delete;
    const XMLCh* get() const { return m_text; }
    operator const XMLCh*() const { return m_text; }

private:
    XMLCh* m_text;
};

// UTF-8 string from Xerces' UTF-16 text (empty for null).
std::string toUtf8(const XMLCh* text);

} // namespace Kestrane
