#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <xercesc/util/XercesDefs.hpp>

#include <memory>
#include <string>
#include <vector>

XERCES_CPP_NAMESPACE_BEGIN
class DOMDocument;
class DOMElement;
XERCES_CPP_NAMESPACE_END

namespace Kestrane {

class ConfigurationObject;
class ConfigWriter;

// Reads a stored configuration in the layout that ConfigWriter describes. A reader stands
// either at the top level of a document or inside one object or nested entry; getClassContents
// and getObjectContents hand an object a reader that stands inside its element.
//
// The whole document is checked when it is read, so that a file of the wrong shape is refused
// before any object has taken something from it. Failures throw KsExceptionNested.
class ConfigReader {
public:
    // Parses a document (non-validating; no DTD is allowed).
    static ConfigReader fromString(const std::string& text);
    static ConfigReader fromFile(const FileName& file);
    // Reads what a writer holds so far, without going through text.
    static ConfigReader fromWriter(const ConfigWriter& writer);

    ConfigReader(const ConfigReader&) = default;
    ConfigReader& operator=(const ConfigReader&) = default;
    ~ConfigReader();

    // Values of the object this reader stands in.
    bool hasValue(const std::string& name) const;
    // Throws when there is no such value.
    std::string getValue(const std::string& name) const;
    std::vector<std::string> getValueNames() const;

    // The ids of the nested entries of that class tag, in document order.
    std::vector<std::string> getEntryNames(const std::string& classTag) const;
    bool hasClassContents(const std::string& classTag, const std::string& id) const;
    // Lets the object load itself from that nested entry; throws when there is none.
    void getClassContents(const std::string& classTag, const std::string& id,
                          ConfigurationObject& object) const;

    // Keys of the top-level objects, in document order (top level only).
    std::vector<std::string> getObjectKeys() const;
    bool hasObjectContents(const std::string& key) const;
    // Lets the object load itself from the top-level object of that key; throws when there is
    // none.
    void getObjectContents(const std::string& key, ConfigurationObject& object) const;

    // Where the document came from, for messages.
    const std::string& getSourceName() const { return m_sourceName; }

private:
    ConfigReader(std::shared_ptr<xercesc::DOMDocument> document, xercesc::DOMElement* element,
                 const std::string& sourceName);
    static ConfigReader parse(const std::string& text, const std::string& sourceName);

    std::shared_ptr<xercesc::DOMDocument> m_document;
    xercesc::DOMElement* m_element;
    std::string m_sourceName;
};

} // namespace Kestrane
