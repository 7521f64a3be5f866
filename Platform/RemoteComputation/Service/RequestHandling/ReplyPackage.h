#pragma once

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace Kestrane {

class Attachment;
class Reply;

// A decoded reply package: the reply and its envelope.
class ReplyPackage {
public:
    // Parses and validates the text and binds the attachments that arrived beside it. Throws
    // KsExceptionNested, or boost::bad_lexical_cast for a bad serial.
    static std::shared_ptr<ReplyPackage>
    decode(const std::string& text,
           std::map<std::string, std::shared_ptr<Attachment>>* attachments);

    // Takes the document over (the reply keeps it).
    ReplyPackage(xercesc::DOMDocument* document, xercesc::DOMElement* root);
    ReplyPackage(const ReplyPackage&) = default;
    ReplyPackage& operator=(const ReplyPackage&) = default;
    virtual ~ReplyPackage();

    std::shared_ptr<Reply> getReply() const { return m_reply; }
    const std::string& getVersion() const { return m_version; }
    unsigned int getSerial() const { return m_serial; }
    const std::string& getTimestamp() const { return m_timestamp; }
    const std::string& getOrigin() const { return m_origin; }

protected:
    ReplyPackage() = default;

    std::shared_ptr<Reply> m_reply;
    std::string m_version;
    uint32_t m_serial = 0;
    std::string m_timestamp;
    std::string m_origin;
};

// The package a client makes for itself when no reply can come.
class RequestServerUnreachableReplyPackage : public ReplyPackage {
public:
    explicit RequestServerUnreachableReplyPackage(const std::string& errorMessage);
};

} // namespace Kestrane
