#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsStreams.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLEntityResolver.hpp>
#include <xercesc/util/XMLException.hpp>
#include <xercesc/util/XMLResourceIdentifier.hpp>

#include <set>
#include <sstream>
#include <utility>

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

namespace {

const char* const c_source = "Configuration";

[[noreturn]] void fail(const std::string& message, const char* function) {
    throw KsExceptionNested(message.c_str(), c_source, function, __FILE__, __LINE__);
}

// Keeps the first error with its position; the parser stops at the first fatal one.
class ParseErrorCollector : public xercesc::ErrorHandler {
public:
    void warning(const xercesc::SAXParseException&) override {}
    void error(const xercesc::SAXParseException& e) override { record(e); }
    void fatalError(const xercesc::SAXParseException& e) override { record(e); }
    void resetErrors() override {}

    bool hasError() const { return m_hasError; }
    const std::string& getMessage() const { return m_message; }

private:
    void record(const xercesc::SAXParseException& e) {
        if (m_hasError)
            return;
        m_hasError = true;
        std::ostringstream text;
        text << "line " << e.getLineNumber() << ", column " << e.getColumnNumber() << ": "
             << toUtf8(e.getMessage());
        m_message = text.str();
    }

    bool m_hasError = false;
    std::string m_message;
};

// A configuration file never needs anything from outside itself: every external entity reads
// as empty, so that parsing cannot be made to open other files or URLs.
class NoExternalEntities : public xercesc::XMLEntityResolver {
public:
    xercesc::InputSource* resolveEntity(xercesc::XMLResourceIdentifier*) override {
        static const XMLByte c_nothing[] = {0};
        return new xercesc::MemBufInputSource(c_nothing, 0, "external entity");
    }
};

bool isNamed(const xercesc::DOMElement* element, const char* name) {
    return toUtf8(element->getTagName()) == name;
}

std::string attribute(const xercesc::DOMElement* element, const char* name) {
    return toUtf8(element->getAttribute(XercesString(name)));
}

bool hasNonEmptyAttribute(const xercesc::DOMElement* element, const char* name) {
    return !attribute(element, name).empty();
}

std::string describe(const xercesc::DOMElement* element) {
    std::string text = "<" + toUtf8(element->getTagName());
    for (const char* name : {"key", "tag", "id", "name"}) {
        if (element->hasAttribute(XercesString(name)))
            text += std::string(" ") + name + "=\"" + attribute(element, name) + "\"";
    }
    return text + ">";
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

// Text that is not inside a <value> must be layout only.
void checkNoStrayText(const xercesc::DOMElement* element, const std::string& sourceName,
                      const char* function) {
    for (auto* node = element->getFirstChild(); node; node = node->getNextSibling()) {
        auto type = node->getNodeType();
        if ((type == xercesc::DOMNode::TEXT_NODE || type == xercesc::DOMNode::CDATA_SECTION_NODE) &&
            !isBlank(toUtf8(node->getNodeValue())))
            fail("Configuration '" + sourceName + "' has unexpected text in " + describe(element),
                 function);
        if (type == xercesc::DOMNode::ENTITY_REFERENCE_NODE)
            fail("Configuration '" + sourceName + "' has an entity reference in " +
                     describe(element),
                 function);
    }
}

// Checks an <object> or nested <class> element and all below it.
void checkContainer(const xercesc::DOMElement* container, const std::string& sourceName,
                    const char* function) {
    checkNoStrayText(container, sourceName, function);
    std::set<std::string> valueNames;
    std::set<std::pair<std::string, std::string>> entries;
    for (auto* child = container->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (isNamed(child, "value")) {
            if (!hasNonEmptyAttribute(child, "name"))
                fail("Configuration '" + sourceName + "' has a <value> without a name in " +
                         describe(container),
                     function);
            if (child->getFirstElementChild())
                fail("Configuration '" + sourceName + "': " + describe(child) + " in " +
                         describe(container) + " holds elements instead of text",
                     function);
            if (!valueNames.insert(attribute(child, "name")).second)
                fail("Configuration '" + sourceName + "' holds " + describe(child) + " twice in " +
                         describe(container),
                     function);
        } else if (isNamed(child, "class")) {
            if (!hasNonEmptyAttribute(child, "tag") || !hasNonEmptyAttribute(child, "id"))
                fail("Configuration '" + sourceName +
                         "' has a <class> entry without tag or id in " + describe(container),
                     function);
            if (!entries.emplace(attribute(child, "tag"), attribute(child, "id")).second)
                fail("Configuration '" + sourceName + "' holds " + describe(child) + " twice in " +
                         describe(container),
                     function);
            checkContainer(child, sourceName, function);
        } else {
            fail("Configuration '" + sourceName + "' has the unexpected element " +
                     describe(child) + " in " + describe(container),
                 function);
        }
    }
}

void checkDocument(const xercesc::DOMDocument* document, const std::string& sourceName,
                   const char* function) {
    if (document->getDoctype())
        fail("Configuration '" + sourceName + "' has a document type declaration", function);
    const xercesc::DOMElement* root = document->getDocumentElement();
    if (!root)
        fail("Configuration '" + sourceName + "' has no root element", function);
    if (!isNamed(root, "configuration"))
        fail("'" + sourceName + "' is not a configuration: its root element is " + describe(root),
             function);
    checkNoStrayText(root, sourceName, function);
    std::set<std::string> keys;
    for (auto* child = root->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (!isNamed(child, "object"))
            fail("Configuration '" + sourceName + "' has the unexpected top-level element " +
                     describe(child),
                 function);
        if (!hasNonEmptyAttribute(child, "key"))
            fail("Configuration '" + sourceName + "' has an <object> without a key", function);
        if (!keys.insert(attribute(child, "key")).second)
            fail("Configuration '" + sourceName + "' holds " + describe(child) + " twice",
                 function);
        checkContainer(child, sourceName, function);
    }
}

xercesc::DOMElement* findChild(const xercesc::DOMElement* parent, const char* elementName,
                               const char* keyAttribute, const std::string& key,
                               const std::string& tag = std::string()) {
    for (auto* child = parent->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (!isNamed(child, elementName) || attribute(child, keyAttribute) != key)
            continue;
        if (!tag.empty() && attribute(child, "tag") != tag)
            continue;
        return child;
    }
    return nullptr;
}

} // namespace

ConfigReader::ConfigReader(std::shared_ptr<xercesc::DOMDocument> document,
                           xercesc::DOMElement* element, const std::string& sourceName)
    : m_document(std::move(document)), m_element(element), m_sourceName(sourceName) {}

ConfigReader::~ConfigReader() = default;

ConfigReader ConfigReader::parse(const std::string& text, const std::string& sourceName) {
    XercesPlatform::ensureInitialized();
    ParseErrorCollector errors;
    NoExternalEntities resolver;
    xercesc::SecurityManager limits;
    limits.setEntityExpansionLimit(100);
    std::shared_ptr<xercesc::DOMDocument> document;
    std::string failure;
    try {
        xercesc::XercesDOMParser parser;
        parser.setValidationScheme(xercesc::XercesDOMParser::Val_Never);
        parser.setDoNamespaces(false);
        parser.setDoSchema(false);
        parser.setLoadExternalDTD(false);
        parser.setCreateEntityReferenceNodes(false);
        parser.setSecurityManager(&limits);
        parser.setXMLEntityResolver(&resolver);
        parser.setErrorHandler(&errors);
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                          text.size(), sourceName.c_str());
        parser.parse(source);
        if (!errors.hasError() && parser.getDocument())
            document.reset(parser.adoptDocument(), [](xercesc::DOMDocument* d) { d->release(); });
    } catch (const xercesc::SAXParseException& e) {
        errors.fatalError(e);
    } catch (const xercesc::XMLException& e) {
        failure = toUtf8(e.getMessage());
    } catch (const xercesc::DOMException& e) {
        failure = toUtf8(e.getMessage());
    }
    if (errors.hasError())
        failure = errors.getMessage();
    if (!failure.empty() || !document) {
        KS_ERROR("Can't read configuration '" << sourceName << "': " << failure);
        fail("Malformed configuration '" + sourceName + "': " + failure, __PRETTY_FUNCTION__);
    }
    checkDocument(document.get(), sourceName, __PRETTY_FUNCTION__);
    xercesc::DOMElement* root = document->getDocumentElement();
    return ConfigReader(std::move(document), root, sourceName);
}

ConfigReader ConfigReader::fromString(const std::string& text) {
    return parse(text, "text");
}

ConfigReader ConfigReader::fromFile(const FileName& file) {
    const std::string path = file.toNativeString();
    if (!FileUtilities::exists(file) || FileUtilities::isDirectory(file))
        fail("Configuration file '" + path + "' does not exist", __PRETTY_FUNCTION__);
    KsIfstream in(file, KsOpenMode::in | KsOpenMode::binary);
    if (!in)
        fail("Can't open configuration file '" + path + "'", __PRETTY_FUNCTION__);
    std::ostringstream content;
    content << in.rdbuf();
    if (in.bad())
        fail("Can't read configuration file '" + path + "'", __PRETTY_FUNCTION__);
    KS_DEBUG("Reading configuration '" << path << "'");
    return parse(content.str(), path);
}

ConfigReader ConfigReader::fromWriter(const ConfigWriter& writer) {
    return ConfigReader(writer.m_document, writer.m_element, "configuration being written");
}

bool ConfigReader::hasValue(const std::string& name) const {
    return findChild(m_element, "value", "name", name) != nullptr;
}

std::string ConfigReader::getValue(const std::string& name) const {
    const xercesc::DOMElement* element = findChild(m_element, "value", "name", name);
    if (!element)
        fail("Configuration '" + m_sourceName + "' has no value '" + name + "' in " +
                 describe(m_element),
             __PRETTY_FUNCTION__);
    return toUtf8(element->getTextContent());
}

std::vector<std::string> ConfigReader::getValueNames() const {
    std::vector<std::string> names;
    for (auto* child = m_element->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (isNamed(child, "value"))
            names.push_back(attribute(child, "name"));
    }
    return names;
}

std::vector<std::string> ConfigReader::getEntryNames(const std::string& classTag) const {
    std::vector<std::string> ids;
    for (auto* child = m_element->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (isNamed(child, "class") && attribute(child, "tag") == classTag)
            ids.push_back(attribute(child, "id"));
    }
    return ids;
}

bool ConfigReader::hasClassContents(const std::string& classTag, const std::string& id) const {
    return !classTag.empty() && findChild(m_element, "class", "id", id, classTag) != nullptr;
}

void ConfigReader::getClassContents(const std::string& classTag, const std::string& id,
                                    ConfigurationObject& object) const {
    xercesc::DOMElement* element =
        classTag.empty() ? nullptr : findChild(m_element, "class", "id", id, classTag);
    if (!element)
        fail("Configuration '" + m_sourceName + "' has no entry '" + classTag + "' with id '" + id +
                 "' in " + describe(m_element),
             __PRETTY_FUNCTION__);
    ConfigReader nested(m_document, element, m_sourceName);
    object.loadContent(nested);
}

std::vector<std::string> ConfigReader::getObjectKeys() const {
    std::vector<std::string> keys;
    if (m_element != m_document->getDocumentElement())
        return keys;
    for (auto* child = m_element->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (isNamed(child, "object"))
            keys.push_back(attribute(child, "key"));
    }
    return keys;
}

bool ConfigReader::hasObjectContents(const std::string& key) const {
    return m_element == m_document->getDocumentElement() &&
           findChild(m_element, "object", "key", key) != nullptr;
}

void ConfigReader::getObjectContents(const std::string& key, ConfigurationObject& object) const {
    xercesc::DOMElement* element = m_element == m_document->getDocumentElement()
                                       ? findChild(m_element, "object", "key", key)
                                       : nullptr;
    if (!element)
        fail("Configuration '" + m_sourceName + "' has no object '" + key + "'",
             __PRETTY_FUNCTION__);
    ConfigReader nested(m_document, element, m_sourceName);
    object.loadContent(nested);
}

} // namespace Kestrane
