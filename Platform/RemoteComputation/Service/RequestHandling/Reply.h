#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// A decoded reply: its content by element name, including the arrays and files that travel as
// data elements. Owns its document.
class Reply {
public:
    // Takes the document over.
    Reply(xercesc::DOMDocument* document, xercesc::DOMElement* reply);
    virtual ~Reply();
    Reply(const Reply&) = delete;
    Reply& operator=(const Reply&) = delete;

    // Parses a bare `reply` element (validating it). Throws KsExceptionNested.
    static std::shared_ptr<Reply> decode(const std::string& text);

    const std::string& getType() const { return m_type; }
    const std::string& getRequestId() const { return m_requestId; }
    std::string getAttribute(const std::string& name) const;
    // The text of the first child of that name.
    std::string getElement(const std::string& name) const;
    std::vector<std::string> getElements(const std::string& name) const;
    bool hasElement(const std::string& name) const;
    xercesc::DOMElement* getDomElement(const std::string& name) const;
    std::vector<xercesc::DOMElement*> getDomElements(const std::string& name) const;
    xercesc::DOMElement* getRootDomElement() const { return m_replyElement; }

    std::shared_ptr<KSData> getKSData(const std::string& name) const;
    std::vector<std::shared_ptr<KSData>> getKSDatas(const std::string& name) const;
    FileName getFilePath(const std::string& name) const;
    // The valid data elements among the children, in document order.
    const std::vector<KSData>& getData() const { return m_data; }

    uint64_t getArraySize(const std::string& name, const std::string& dataType);
    // Typed arrays of data elements; a memory file is turned into an array first (once). The
    // caller owns what a conversion allocated. Null for every mismatch.
    char* getCharArray(const std::string& name);
    unsigned char* getUnsignedCharArray(const std::string& name);
    int* getIntArray(const std::string& name);
    unsigned int* getUnsignedIntArray(const std::string& name);
    float* getFloatArray(const std::string& name);
    double* getDoubleArray(const std::string& name);

    std::string getReplyTmpDirName() const { return getReplyTmpDirName(m_requestId); }
    // "Reply_" followed by the first 10 characters of the id.
    static std::string getReplyTmpDirName(const std::string& requestId);
    FileName getReplyTmpDir() const { return getReplyTmpDir(m_requestId); }
    static FileName getReplyTmpDir(const std::string& requestId);
    void deleteReplyTmpDir();

protected:
    explicit Reply(const std::string& type);

private:
    void* getTypedArray(int kind, const std::string& name);
    void* getAnyObjectArray(const std::string& dataType, const std::string& name);
    // Turns a memory file element into an array element.
    static void convertMemoryFile(KSData& data);

    std::string m_requestId;
    std::string m_type;
    xercesc::DOMDocument* m_document = nullptr;
    xercesc::DOMElement* m_replyElement = nullptr;
    std::vector<KSData> m_data;
};

// A reply that no server wrote: the client's verdict that no reply can come.
class RequestServerUnreachableReply : public Reply {
public:
    explicit RequestServerUnreachableReply(const std::string& message);
    const std::string& getErrorMessage() const { return m_errorMessage; }

private:
    std::string m_errorMessage;
};

} // namespace Kestrane
