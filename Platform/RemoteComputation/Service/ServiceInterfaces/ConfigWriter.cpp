#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsStreams.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/framework/MemBufFormatTarget.hpp>
#include <xercesc/util/XMLException.hpp>

#include <boost/filesystem.hpp>

#include <cstdio>

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

namespace {

const char* const c_source = "Configuration";

[[noreturn]] void fail(const std::string& message, const char* function) {
    throw KsExceptionNested(message.c_str(), c_source, function, __FILE__, __LINE__);
}

// XML 1.0 has no way to carry most control characters, not even as character references; a
// document holding one could not be read back.
void checkStorable(const std::string& text, const std::string& what, const char* function) {
    for (unsigned char c : text) {
        if (c < 0x20 && c != '\t' && c != '\n' && c != '\r') {
            char code[8];
            std::snprintf(code, sizeof(code), "0x%02X", static_cast<unsigned int>(c));
            fail("Can't store " + what + ": it contains the control character " + code, function);
        }
    }
}

xercesc::DOMImplementation* implementation() {
    XercesPlatform::ensureInitialized();
    return xercesc::DOMImplementationRegistry::getDOMImplementation(XercesString("LS"));
}

std::string childDescription(const xercesc::DOMElement* element) {
    std::string text = "<" + toUtf8(element->getTagName());
    for (const char* attribute : {"key", "tag", "id", "name"}) {
        XercesString name(attribute);
        if (element->hasAttribute(name))
            text +=
                std::string(" ") + attribute + "=\"" + toUtf8(element->getAttribute(name)) + "\"";
    }
    return text + ">";
}

// The first child element of that element name whose attributes match, or null.
xercesc::DOMElement* findChild(const xercesc::DOMElement* parent, const char* elementName,
                               const char* attribute, const std::string& value,
                               const std::string& tag = std::string()) {
    XercesString elementNameX(elementName);
    XercesString attributeX(attribute);
    XercesString tagX("tag");
    for (auto* child = parent->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        if (!xercesc::XMLString::equals(child->getTagName(), elementNameX))
            continue;
        if (toUtf8(child->getAttribute(attributeX)) != value)
            continue;
        if (!tag.empty() && toUtf8(child->getAttribute(tagX)) != tag)
            continue;
        return child;
    }
    return nullptr;
}

// Runs a DOM operation and turns the exceptions of Xerces into our own.
template <typename F> void guarded(const std::string& what, const char* function, F&& operation) {
    try {
        operation();
    } catch (const xercesc::XMLException& e) {
        fail("Can't " + what + ": " + toUtf8(e.getMessage()), function);
    } catch (const xercesc::DOMException& e) {
        fail("Can't " + what + ": " + toUtf8(e.getMessage()), function);
    }
}

} // namespace

ConfigWriter::ConfigWriter() : m_element(nullptr) {
    guarded("create a configuration document", __PRETTY_FUNCTION__, [this] {
        xercesc::DOMDocument* document =
            implementation()->createDocument(nullptr, XercesString("configuration"), nullptr);
        m_document.reset(document, [](xercesc::DOMDocument* d) { d->release(); });
        m_element = document->getDocumentElement();
    });
}

ConfigWriter::ConfigWriter(std::shared_ptr<xercesc::DOMDocument> document,
                           xercesc::DOMElement* element)
    : m_document(std::move(document)), m_element(element) {}

ConfigWriter::~ConfigWriter() = default;

bool ConfigWriter::isTopLevel() const {
    return m_element == m_document->getDocumentElement();
}

void ConfigWriter::putValue(const std::string& name, const std::string& value) {
    if (isTopLevel())
        fail("Can't store value '" + name + "' outside of a configuration object",
             __PRETTY_FUNCTION__);
    if (name.empty())
        fail("Can't store a value without a name in " + childDescription(m_element),
             __PRETTY_FUNCTION__);
    checkStorable(name, "a value name", __PRETTY_FUNCTION__);
    checkStorable(value, "value '" + name + "'", __PRETTY_FUNCTION__);
    if (findChild(m_element, "value", "name", name))
        fail("Value '" + name + "' is stored twice in " + childDescription(m_element),
             __PRETTY_FUNCTION__);
    guarded("store value '" + name + "'", __PRETTY_FUNCTION__, [&] {
        xercesc::DOMElement* element = m_document->createElement(XercesString("value"));
        element->setAttribute(XercesString("name"), XercesString(name));
        if (!value.empty())
            element->appendChild(m_document->createTextNode(XercesString(value)));
        m_element->appendChild(element);
    });
}

void ConfigWriter::putClassContents(const std::string& classTag, const std::string& id,
                                    const ConfigurationObject& object,
                                    const std::string& description) {
    if (isTopLevel())
        fail("Can't store entry '" + classTag + "' '" + id + "' outside of a configuration object",
             __PRETTY_FUNCTION__);
    if (classTag.empty() || id.empty())
        fail("Can't store an entry without class tag or id (tag '" + classTag + "', id '" + id +
                 "')",
             __PRETTY_FUNCTION__);
    checkStorable(classTag, "a class tag", __PRETTY_FUNCTION__);
    checkStorable(id, "the id of a '" + classTag + "' entry", __PRETTY_FUNCTION__);
    checkStorable(description, "the description of '" + id + "'", __PRETTY_FUNCTION__);
    if (findChild(m_element, "class", "id", id, classTag))
        fail("Entry '" + classTag + "' with id '" + id + "' is stored twice in " +
                 childDescription(m_element),
             __PRETTY_FUNCTION__);
    xercesc::DOMElement* element = nullptr;
    guarded("store entry '" + classTag + "' '" + id + "'", __PRETTY_FUNCTION__, [&] {
        element = m_document->createElement(XercesString("class"));
        element->setAttribute(XercesString("tag"), XercesString(classTag));
        element->setAttribute(XercesString("id"), XercesString(id));
        if (!description.empty())
            element->setAttribute(XercesString("description"), XercesString(description));
        m_element->appendChild(element);
    });
    ConfigWriter nested(m_document, element);
    object.saveContent(nested);
}

void ConfigWriter::putObjectContents(const std::string& key, const ConfigurationObject& object,
                                     const std::string& description) {
    if (!isTopLevel())
        fail("Configuration object '" + key + "' can only be stored at the top level",
             __PRETTY_FUNCTION__);
    if (key.empty())
        fail("Can't store a configuration object without a key", __PRETTY_FUNCTION__);
    checkStorable(key, "a configuration key", __PRETTY_FUNCTION__);
    checkStorable(description, "the description of '" + key + "'", __PRETTY_FUNCTION__);
    if (findChild(m_element, "object", "key", key))
        fail("Configuration object '" + key + "' is stored twice", __PRETTY_FUNCTION__);
    xercesc::DOMElement* element = nullptr;
    guarded("store configuration object '" + key + "'", __PRETTY_FUNCTION__, [&] {
        element = m_document->createElement(XercesString("object"));
        element->setAttribute(XercesString("key"), XercesString(key));
        if (!description.empty())
            element->setAttribute(XercesString("description"), XercesString(description));
        m_element->appendChild(element);
    });
    ConfigWriter nested(m_document, element);
    object.saveContent(nested);
}

std::string ConfigWriter::toString() const {
    std::string text;
    guarded("write the configuration document", __PRETTY_FUNCTION__, [&] {
        auto* ls = implementation();
        std::unique_ptr<xercesc::DOMLSSerializer, void (*)(xercesc::DOMLSSerializer*)> serializer(
            ls->createLSSerializer(), [](xercesc::DOMLSSerializer* s) { s->release(); });
        std::unique_ptr<xercesc::DOMLSOutput, void (*)(xercesc::DOMLSOutput*)> output(
            ls->createLSOutput(), [](xercesc::DOMLSOutput* o) { o->release(); });
        xercesc::DOMConfiguration* config = serializer->getDomConfig();
        if (config->canSetParameter(xercesc::XMLUni::fgDOMWRTFormatPrettyPrint, true))
            config->setParameter(xercesc::XMLUni::fgDOMWRTFormatPrettyPrint, true);
        xercesc::MemBufFormatTarget target;
        output->setByteStream(&target);
        XercesString encoding("UTF-8");
        output->setEncoding(encoding);
        if (!serializer->write(m_document.get(), output.get()))
            fail("Can't write the configuration document", __PRETTY_FUNCTION__);
        text.assign(reinterpret_cast<const char*>(target.getRawBuffer()), target.getLen());
    });
    return text;
}

void ConfigWriter::saveToFile(const FileName& file) const {
    const std::string text = toString();
    // Write beside the target and rename, so that a failed save leaves the old file whole.
    const FileName temporary(file.toString() + ".saving");
    {
        KsOfstream out(temporary, KsOpenMode::out | KsOpenMode::trunc | KsOpenMode::binary);
        if (!out)
            fail("Can't open '" + temporary.toNativeString() + "' for writing",
                 __PRETTY_FUNCTION__);
        out.write(text.data(), static_cast<std::streamsize>(text.size()));
        out.close();
        if (!out)
            fail("Can't write '" + temporary.toNativeString() + "'", __PRETTY_FUNCTION__);
    }
    boost::system::error_code ec;
    boost::filesystem::rename(temporary.toNativeString(), file.toNativeString(), ec);
    if (ec) {
        boost::system::error_code ignored;
        boost::filesystem::remove(temporary.toNativeString(), ignored);
        fail("Can't replace '" + file.toNativeString() + "': " + ec.message(), __PRETTY_FUNCTION__);
    }
    KS_DEBUG("Saved configuration to '" << file.toNativeString() << "'");
}

} // namespace Kestrane
