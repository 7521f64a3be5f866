#pragma once

#include <xercesc/dom/DOMDocument.hpp>

namespace Kestrane {

// A parsed package document until a package object takes it over: released here unless
// release() handed it on, so that every road releases it exactly once.
class PackageDocument {
public:
    explicit PackageDocument(xercesc::DOMDocument* document) : m_document(document) {}
    ~PackageDocument() {
        if (m_document)
            m_document->release();
    }
    PackageDocument(const PackageDocument&) = delete;
    PackageDocument& operator=(const PackageDocument&) = delete;

    xercesc::DOMDocument* get() const { return m_document; }
    xercesc::DOMDocument* release() {
        xercesc::DOMDocument* document = m_document;
        m_document = nullptr;
        return document;
    }

private:
    xercesc::DOMDocument* m_document;
};

} // namespace Kestrane
