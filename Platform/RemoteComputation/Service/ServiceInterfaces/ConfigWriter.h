#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <memory>
#include <string>

#include <xercesc/util/XercesDefs.hpp>

XERCES_CPP_NAMESPACE_BEGIN
class DOMDocument;
class DOMElement;
XERCES_CPP_NAMESPACE_END

namespace Kestrane {

class ConfigurationObject;

// Builds a stored configuration as an XML document:
//
//   <configuration>
//     <object key="FileShareMappingsConfiguration" description="...">
//       <value name="someValue">text</value>
//       <class tag="fileShare" id="..." description="...">
//         <value name="id">...</value>
//         <value name="prefix">...</value>
//       </class>
//     </object>
//   </configuration>
//
// The top level holds one <object> per registered configuration object, keyed by its
// registration key. An object (or a nested <class> entry) holds <value> elements keyed by name
// and nested entries keyed by class tag and id; nesting may go on. Value texts are element
// content, so line breaks and surrounding blanks survive; the DOM writer does the escaping.
// Characters XML cannot carry (control characters other than tab, line feed and carriage
// return) are refused with a KsExceptionNested.
class ConfigWriter {
public:
    ConfigWriter();
    ~ConfigWriter();
    ConfigWriter(const ConfigWriter&) = delete;
    ConfigWriter& operator=(const ConfigWriter&) = delete;

    // A value of the object being written. Not at the top level; names are unique per object.
    void putValue(const std::string& name, const std::string& value);
    // A nested entry keyed by class tag and id, filled by the object's saveContent. Not at the
    // top level; a tag and id pair is unique per object.
    void putClassContents(const std::string& classTag, const std::string& id,
                          const ConfigurationObject& object, const std::string& description = "");
    // A top-level object under its key, filled by its saveContent. Only at the top level.
    void putObjectContents(const std::string& key, const ConfigurationObject& object,
                           const std::string& description = "");

    // The document as UTF-8 text.
    std::string toString() const;
    // Writes the document; the file is replaced only once the whole text has been written.
    void saveToFile(const FileName& file) const;

private:
    friend class ConfigReader;
    ConfigWriter(std::shared_ptr<xercesc::DOMDocument> document, xercesc::DOMElement* element);
    bool isTopLevel() const;

    std::shared_ptr<xercesc::DOMDocument> m_document;
    xercesc::DOMElement* m_element;
};

} // namespace Kestrane
