#pragma once

#include <xercesc/dom/DOMElement.hpp>

#include <string>
#include <vector>

namespace Kestrane {

// Identifies a computation job: a unique id and an optional name. The id travels to a started
// process on its command line and inside reconnect strings, whose fields are split at ':', so
// that its text form never holds one.
class GenericJobId {
public:
    // Option that precedes the id on a command line.
    static const std::string c_tag; // "-jobId"

    // An invalid id.
    GenericJobId() = default;
    GenericJobId(const std::string& uid, const std::string& name);
    // Reads an element of the schema type KSJobId; a null element gives an invalid id.
    explicit GenericJobId(const xercesc::DOMElement* element);

    // Whether the uid has the form of a UniqueID.
    bool isValid() const;
    const std::string& getUid() const { return m_uid; }
    const std::string& getName() const { return m_name; }

    // "UID" or "UID.NAME"; empty for an invalid id. A ':' in the name is written as '_'.
    std::string toString() const;
    // Inverse of toString. On a text that is not a valid id, sets `message` and returns an
    // invalid id; on success `message` is left alone.
    static GenericJobId fromString(std::string& text, std::string& message);

    // The element jobId of the schema type KSJobId, one child per line:
    //   {indent}<jobId>
    //   {indent}{indentStep}<uid>...</uid>
    //   {indent}{indentStep}<name>...</name>   (only with a name)
    //   {indent}</jobId>
    // Every line ends with a line feed. Empty for an invalid id, which the type can't hold.
    std::string toXml(const std::string& indent, const std::string& indentStep) const;

    // Appends c_tag and toString() when the id is valid; nothing otherwise.
    void toCmd(std::vector<std::string>& args) const;

    bool operator==(const GenericJobId& other) const {
        return m_uid == other.m_uid && m_name == other.m_name;
    }
    bool operator!=(const GenericJobId& other) const { return !(*this == other); }

private:
    std::string m_uid;
    std::string m_name;
};

} // namespace Kestrane
