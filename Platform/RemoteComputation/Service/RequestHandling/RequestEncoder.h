#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

namespace Kestrane {

// Builds the XML of a `request` element: `<request xsi:type="TYPE" id="ID" ...>` with its
// attributes and body entries in the order they were added. Ids are 50 characters long, and the
// static text operations rely on that.
class RequestEncoder {
public:
    using Attributes = std::deque<std::pair<std::string, std::string>>;

    // No type and no id: encodes to the empty string.
    RequestEncoder();
    explicit RequestEncoder(const std::string& type);
    RequestEncoder(const RequestEncoder&) = default;
    RequestEncoder& operator=(const RequestEncoder&) = default;
    virtual ~RequestEncoder();

    void addAttribute(const std::string& name, const std::string& value);
    void addAttribute(const std::string& name, const int& value);
    void addAttribute(const std::string& name, const unsigned int& value);
    void addAttribute(const std::string& name, const float& value);
    void addAttribute(const std::string& name, const double& value);

    void addElement(const std::string& name, const std::string& value, const std::string& indent);
    void addElement(const std::string& name, const int& value, const std::string& indent);
    void addElement(const std::string& name, const unsigned int& value, const std::string& indent);
    void addElement(const std::string& name, const float& value, const std::string& indent);
    void addElement(const std::string& name, const double& value, const std::string& indent);
    void addElement(const std::string& name, const uint64_t& value, const std::string& indent);
    // A bool is written as "true" or "false".
    void addElement(const std::string& name, const bool& value, const std::string& indent);
    // Only a string literal goes to the text form (and not to the bool one).
    void addElement(const std::string& name, const char* value, const std::string& indent) {
        addElement(name, std::string(value ? value : ""), indent);
    }

    void addAttributedElement(const std::string& name, const std::string& value,
                              const Attributes& attributes, const std::string& indent);
    void addAttributedElement(const std::string& name, const int& value,
                              const Attributes& attributes, const std::string& indent);
    void addAttributedElement(const std::string& name, const unsigned int& value,
                              const Attributes& attributes, const std::string& indent);
    void addAttributedElement(const std::string& name, const float& value,
                              const Attributes& attributes, const std::string& indent);
    void addAttributedElement(const std::string& name, const double& value,
                              const Attributes& attributes, const std::string& indent);

    // A file data element (forceTransfer: send the file even where the peer could read it).
    void addFilePath(const std::string& name, const FileName& file, bool forceTransfer,
                     const std::string& indent);
    // Ready XML (a data element, for example) as it is: one entry, or with `perLine` one entry
    // holding every line with the indent in front and a line feed behind.
    void addText(const std::string& text, const std::string& indent, bool perLine);

    const std::string& getId() const { return m_id; }
    const std::string& getType() const { return m_type; }
    std::string getEncodedRequest() const;
    // The same without the id and the core id: what two equal requests share.
    std::string getEncodedUndecoratedRequest() const;
    // Hash of the body, cached.
    const std::string& getBodyHash() const;

    // Hash of the body of an encoded request, whatever its whitespace; empty without a body.
    static std::string getBodyHash(const std::string& text);
    // The 50-character id, or empty.
    static std::string getRequestId(const std::string& text);
    // The type; throws std::out_of_range on a text shorter than 18 characters without the marker.
    static std::string getRequestType(const std::string& text);
    static void setCoreId(std::string& text, const std::string& coreId);
    static std::string getDecoratedRequest(std::string& text, const std::string& coreId);

    // Numbers as request texts carry them.
    static std::string numberText(const int& value);
    static std::string numberText(const unsigned int& value);
    static std::string numberText(const uint64_t& value);
    static std::string numberText(const float& value);
    static std::string numberText(const double& value);

protected:
    std::string encode(size_t firstAttribute, bool withCoreId) const;

    std::string m_id;
    std::string m_type;
    std::vector<std::string> m_attributes;
    std::vector<std::string> m_elements;
    mutable std::string m_bodyHash;

    static UniqueID s_idGenerator;
};

// A request of the family of result requests.
class ResultRequestEncoder : public RequestEncoder {
public:
    ResultRequestEncoder(const std::string& type, const std::string& postVar, int procStep,
                         int layer, const char* aux, const char* text);
};

} // namespace Kestrane
