#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkFileEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOM.hpp>

#include <memory>
#include <sstream>
#include <typeinfo>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

std::string element(const std::string& indent, const std::string& name, const std::string& text) {
    return indent + "<" + name + ">" + XmlUtils::toXml(text) + "</" + name + ">\n";
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// A parsed document released when it goes out of scope.
struct ParsedDocument {
    xercesc::DOMDocument* document;
    explicit ParsedDocument(const std::string& text)
        : document(RequestXmlHelper::getInstance()->parse(text)) {}
    ~ParsedDocument() {
        if (document)
            document->release();
    }
    // Every element in document order, root included.
    template <typename Visit> void visitElements(Visit visit) {
        xercesc::DOMNodeIterator* it = document->createNodeIterator(
            document->getDocumentElement(), xercesc::DOMNodeFilter::SHOW_ELEMENT, nullptr, true);
        for (xercesc::DOMNode* node = it->nextNode(); node; node = it->nextNode())
            visit(static_cast<xercesc::DOMElement*>(node));
        it->release();
    }
};
} // namespace

ReplyEncoder::ReplyEncoder(const std::string& type, const std::string& requestId) : m_type(type) {
    m_attributes["requestId"] = XmlUtils::toXml(requestId);
}

ReplyEncoder::ReplyEncoder(const std::string& type, const Request& request)
    : ReplyEncoder(type, request.getId()) {}

void ReplyEncoder::addAttribute(const std::string& name, const std::string& value) {
    m_attributes[name] = XmlUtils::toXml(value);
}

void ReplyEncoder::addAttribute(const std::string& name, const int& value) {
    m_attributes[name] = std::to_string(value);
}

void ReplyEncoder::addElement(const std::string& name, const std::string& value) {
    m_elements.push_back("<" + name + ">" + XmlUtils::toXml(value) + "</" + name + ">");
}

void ReplyEncoder::addElement(const std::string& name, const int& value) {
    addElement(name, std::to_string(value));
}

void ReplyEncoder::addElement(const std::string& name, const double& value) {
    std::ostringstream text;
    text << value;
    addElement(name, text.str());
}

void ReplyEncoder::addFilePath(const std::string& name, const FileName& file, bool forceTransfer) {
    m_elements.push_back(*XLinkFileEncoder::encode(name, file, true, forceTransfer));
}

void ReplyEncoder::addIntArrayElement(const std::string& name, const int* data, uint64_t count) {
    m_elements.push_back(*XLinkDataEncoder::encode<int>(name, XLinkTypeNames::dataTypeOf<int>(),
                                                        data, count, false, XLinkProtocol::dha,
                                                        nullptr, false));
}

void ReplyEncoder::addDoubleArrayElement(const std::string& name, const double* data,
                                         uint64_t count) {
    m_elements.push_back(
        *XLinkDataEncoder::encode<double>(name, XLinkTypeNames::dataTypeOf<double>(), data, count,
                                          false, XLinkProtocol::dha, nullptr, false));
}

void ReplyEncoder::addAnyObjectElement(const std::string& name, const void* data,
                                       const std::string& typeName, uint64_t count) {
    m_elements.push_back(*XLinkDataEncoder::encode<unsigned char>(
        name, XmlUtils::toXml(typeName), static_cast<const unsigned char*>(data), count, false,
        XLinkProtocol::dha, nullptr, false));
}

void ReplyEncoder::addText(const std::string& text) {
    m_elements.push_back(text);
}

void ReplyEncoder::addTextLines(const std::string& text) {
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line))
        m_elements.push_back(line);
}

void ReplyEncoder::addExceptionEntry(const std::string& exceptionStr, const std::string& content) {
    m_elements.push_back("<exceptionStr>" + XmlUtils::toXml(exceptionStr) +
                         "</exceptionStr>\n<exception>\n" + content + "</exception>\n");
}

void ReplyEncoder::addKsException(const KsException& exception) {
    addExceptionEntry(exception.log(), exceptionToXml(exception, "   ", "   "));
}

void ReplyEncoder::addStdException(const std::exception& exception) {
    addExceptionEntry(exception.what(), exceptionToXml(exception, "   ", "   "));
}

void ReplyEncoder::addException(const void* exception) {
    addExceptionEntry(demangle(typeid(exception).name()), exceptionToXml(exception, "   ", "   "));
}

std::string ReplyEncoder::exceptionToXml(const KsException& exception, const std::string& indent,
                                         const std::string& furtherIndent) {
    std::string xml = element(indent, "type", exception.getTypeName()) +
                      element(indent, "message", exception.what());
    auto nested = dynamic_cast<const KsExceptionNested*>(&exception);
    if (!nested)
        return xml;
    xml += element(indent, "name", nested->getName()) +
           element(indent, "source", nested->getSource()) +
           element(indent, "file", nested->getFile()) +
           element(indent, "function", nested->getFunction()) +
           element(indent, "line", nested->getLineString());
    if (const KsException* inner = nested->getInnerException())
        xml += indent + "<innerException>\n" +
               exceptionToXml(*inner, indent + furtherIndent, furtherIndent) + indent +
               "</innerException>\n";
    return xml;
}

std::string ReplyEncoder::exceptionToXml(const std::exception& exception, const std::string& indent,
                                         const std::string&) {
    return element(indent, "type", demangle(typeid(exception).name())) +
           element(indent, "message", exception.what());
}

std::string ReplyEncoder::exceptionToXml(const void* exception, const std::string& indent,
                                         const std::string&) {
    // Nothing is known of the object but the pointer's static type: no message.
    return element(indent, "type", exception ? demangle(typeid(exception).name()) : "Unknown");
}

std::string ReplyEncoder::getEncodedReply(const std::string& indent,
                                          const std::string& elementIndent) const {
    std::string text = indent + "<reply xsi:type=\"" + m_type + "\" ";
    for (const auto& attribute : m_attributes)
        text += attribute.first + "=\"" + attribute.second + "\" ";
    if (m_elements.empty())
        return text + "/>\n";
    text += ">\n";
    for (const auto& entry : m_elements)
        text += indent + elementIndent + entry + "\n";
    return text + indent + "</reply>\n";
}

std::string ReplyEncoder::getType(const std::string& text) {
    static const std::string c_mark = "xsi:type=\"";
    size_t start = text.find(c_mark);
    if (start == std::string::npos)
        return std::string();
    start += c_mark.size();
    size_t end = text.find('"', start);
    return end == std::string::npos ? std::string() : text.substr(start, end - start);
}

std::string ReplyEncoder::wrap(const std::string& replyText) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Reply " +
           RequestXmlHelper::getNamespaceDeclarations() + ">\n" + replyText + "</KS_Reply>\n";
}

std::vector<std::string> ReplyEncoder::getAttachmentIds(const std::string& text) {
    std::vector<std::string> ids;
    try {
        ParsedDocument parsed(startsWith(text, "<?xml") ? text : wrap(text));
        parsed.visitElements([&](xercesc::DOMElement* e) {
            std::string id = XmlUtils::getAttribute("id", e);
            std::string href = XmlUtils::getAttribute("href", e);
            if (!id.empty() && href.size() >= 8 &&
                (startsWith(href, "file://") || startsWith(href, "hdfs://")))
                ids.push_back(id);
        });
    } catch (const std::exception& e) {
        KS_DEBUG("Exception while getting attachment ids: " << e.what());
        throw;
    }
    KS_TRACE("Found " << ids.size() << " ids.");
    return ids;
}

void ReplyEncoder::updateAttachments(
    std::string& text, std::map<std::string, std::shared_ptr<Attachment>>& attachments) {
    try {
        ParsedDocument parsed(startsWith(text, "<?xml") ? text : wrap(text));
        parsed.visitElements([&](xercesc::DOMElement* e) {
            std::string id = XmlUtils::getAttribute("id", e);
            std::string href = XmlUtils::getAttribute("href", e);
            if (id.empty() || href.size() < 8)
                return;
            auto entry = attachments.find(id);
            std::string replacement;
            if (startsWith(href, "file://")) {
                auto file = entry == attachments.end()
                                ? nullptr
                                : dynamic_cast<FileAttachment*>(entry->second.get());
                if (!file) {
                    KS_ERROR("No mapping for id " << id << " (FILE_XLNK type).");
                    return;
                }
                replacement = "file:///" + file->getFileName().toString();
            } else if (startsWith(href, "hdfs://")) {
                auto hdfs = entry == attachments.end()
                                ? nullptr
                                : dynamic_cast<HdfsAttachment*>(entry->second.get());
                if (!hdfs) {
                    KS_ERROR("No hdfs attachment for id " << id << ".");
                    return;
                }
                replacement = "hdfs://" + XLinkUtils::getAddressString(hdfs->getData(), true);
                // The text's reader now holds the block.
                hdfs->releaseBlock();
            } else {
                return;
            }
            size_t at = text.find(href);
            if (at != std::string::npos)
                text.replace(at, href.size(), replacement);
        });
    } catch (...) {
        KS_DEBUG("Exception while updating attachments.");
        throw;
    }
}

std::map<std::string, std::string> ReplyEncoder::createHrefMapping(std::string& text) {
    std::map<std::string, std::string> mapping;
    try {
        ParsedDocument parsed(wrap(text));
        parsed.visitElements([&](xercesc::DOMElement* e) {
            std::string id = XmlUtils::getAttribute("id", e);
            std::string href = XmlUtils::getAttribute("href", e);
            if (id.empty())
                return;
            if (href.size() >= 9 && startsWith(href, "file:///"))
                mapping[id] = href.substr(8);
            else if (href.size() >= 8 && startsWith(href, "hdfs://"))
                mapping[id] = href.substr(7);
        });
    } catch (...) {
        KS_DEBUG("Exception while creating Href mappings.");
        throw;
    }
    return mapping;
}

} // namespace Kestrane
