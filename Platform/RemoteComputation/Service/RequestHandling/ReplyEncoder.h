#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class Attachment;
class Request;

// Builds the XML of a `reply` element: attributes in the order of their names, body entries in
// the order they were added. It also writes an exception with its chain of causes.
class ReplyEncoder {
public:
    ReplyEncoder(const std::string& type, const std::string& requestId);
    ReplyEncoder(const std::string& type, const Request& request);

    void addAttribute(const std::string& name, const std::string& value);
    void addAttribute(const std::string& name, const int& value);
    void addElement(const std::string& name, const std::string& value);
    void addElement(const std::string& name, const char* value) {
        addElement(name, std::string(value ? value : ""));
    }
    void addElement(const std::string& name, const int& value);
    // Six significant digits, as a default output stream writes them.
    void addElement(const std::string& name, const double& value);
    void addFilePath(const std::string& name, const FileName& file, bool forceTransfer);
    // A data element named `name` that points to the array in this process; the array must
    // stay valid until the reply has been sent.
    void addIntArrayElement(const std::string& name, const int* data, uint64_t count);
    void addDoubleArrayElement(const std::string& name, const double* data, uint64_t count);
    void addText(const std::string& text);
    void addTextLines(const std::string& text);

    // The exception as `exceptionStr` and `exception` elements.
    void addKsException(const KsException& exception);
    void addStdException(const std::exception& exception);
    // For an unknown exception object: only the pointer's static type is known.
    void addException(const void* exception);

    std::string getEncodedReply(const std::string& indent, const std::string& elementIndent) const;
    const std::string& getType() const { return m_type; }

    // The xsi:type of an encoded reply, empty when there is none.
    static std::string getType(const std::string& text);
    // Ids of the file and hdfs data elements of an encoded reply, in document order.
    static std::vector<std::string> getAttachmentIds(const std::string& text);
    // Id to path of the file data elements, id to address text of the hdfs ones.
    static std::map<std::string, std::string> createHrefMapping(std::string& text);
    // Rewrites the hrefs of file and hdfs data elements in the text to the local copies. A block
    // an attachment owned goes to the text's reader.
    static void updateAttachments(std::string& text,
                                  std::map<std::string, std::shared_ptr<Attachment>>& attachments);
    // The document that holds a bare reply element for parsing.
    static std::string wrap(const std::string& replyText);

    static std::string exceptionToXml(const KsException& exception, const std::string& indent,
                                      const std::string& furtherIndent);
    static std::string exceptionToXml(const std::exception& exception, const std::string& indent,
                                      const std::string& furtherIndent);
    static std::string exceptionToXml(const void* exception, const std::string& indent,
                                      const std::string& furtherIndent);

private:
    void addAnyObjectElement(const std::string& name, const void* data, const std::string& typeName,
                             uint64_t count);
    void addExceptionEntry(const std::string& exceptionStr, const std::string& content);

    std::string m_type;
    std::map<std::string, std::string> m_attributes;
    std::vector<std::string> m_elements;
};

} // namespace Kestrane
