#pragma once

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <map>
#include <memory>
#include <string>

namespace Kestrane {

class Attachment;

// A parsed package document until a package object takes it over: released here unless
// release() handed it on, so that every road releases it exactly once. Also what the request and
// reply package decoders share: parsing with attachment binding, and the checks of the root.
class PackageDocument {
public:
    // The words a decoder reports its failures with.
    struct Words {
        const char* root;          // "KS_RequestPackage"
        const char* wrongRootLine; // logged when the root is another element
        const char* wrongRoot;     // thrown then
        const char* child;         // "request"
        const char* source;        // source word of the exceptions
        const char* function;
    };

    explicit PackageDocument(xercesc::DOMDocument* document) : m_document(document) {}
    ~PackageDocument() {
        if (m_document)
            m_document->release();
    }
    PackageDocument(const PackageDocument&) = delete;
    PackageDocument& operator=(const PackageDocument&) = delete;

    // Parses (validating) and, with a map, binds the attachments to the data elements.
    static std::unique_ptr<PackageDocument>
    parse(const std::string& text, std::map<std::string, std::shared_ptr<Attachment>>* attachments);

    // Checks the document and its root and returns the root's message element; throws
    // KsExceptionNested with the given words (the document is released then).
    xercesc::DOMElement* checkedMessage(xercesc::DOMElement* root, const Words& words) const;

    xercesc::DOMDocument* get() const { return m_document; }
    xercesc::DOMElement* getRoot() const {
        return m_document ? m_document->getDocumentElement() : nullptr;
    }
    xercesc::DOMDocument* release() {
        xercesc::DOMDocument* document = m_document;
        m_document = nullptr;
        return document;
    }

private:
    xercesc::DOMDocument* m_document;
};

} // namespace Kestrane
