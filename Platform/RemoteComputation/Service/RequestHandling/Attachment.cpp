#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"

#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>
#include <xercesc/sax2/Attributes.hpp>

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

namespace {

// The attributes of an element that may name an attachment.
struct Link {
    std::string id;
    std::string href;
    std::string dataSize;
    bool forceTransfer = false;
};

std::string attributeValue(const xercesc::Attributes& attributes, const XMLCh* name) {
    return XmlUtils::transcode(attributes.getValue(name));
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// Replaces the dha link of the element with this id in `text` by an hdfs link, and gives the
// new href and dataSize. False when the element is not found or does not convert; the text then
// stays as it is.
bool makePortable(std::string& text, const std::string& id, std::string& href,
                  std::string& dataSize) {
    std::size_t match = text.find(" id=\"" + XmlUtils::toXml(id) + "\"");
    if (match == std::string::npos)
        return false;
    std::size_t start = text.rfind('<', match);
    std::size_t end = text.find('>', match);
    if (start == std::string::npos || end == std::string::npos)
        return false;
    std::string oldElement = text.substr(start, end - start + 1);
    std::string newElement = oldElement;
    if (!XLinkTranscoder::dhaToHdfs(newElement, true, 3))
        return false;
    std::size_t hrefAt = newElement.find("hdfs://");
    std::size_t sizeAt = newElement.find("dataSize=\"");
    if (hrefAt != std::string::npos)
        href = newElement.substr(hrefAt, newElement.find('"', hrefAt) - hrefAt);
    if (sizeAt != std::string::npos) {
        sizeAt += 10;
        dataSize = newElement.substr(sizeAt, newElement.find('"', sizeAt) - sizeAt);
    }
    text.replace(text.find(oldElement), oldElement.size(), newElement);
    return true;
}

void visit(Link link, std::string& text, bool& hasFiles,
           std::vector<std::shared_ptr<Attachment>>& attachments) {
    const std::string& id = link.id;
    std::string& href = link.href;
    std::string& dataSize = link.dataSize;
    const bool forceTransfer = link.forceTransfer;

    const bool converted = !id.empty() && !dataSize.empty() && href.size() > 6 &&
                           startsWith(href, "dha://") && makePortable(text, id, href, dataSize);

    if (!id.empty() && href.size() >= 9 && startsWith(href, "file:///")) {
        FileName path(href.substr(8));
        if (!FileUtilities::exists(path)) {
            std::string message =
                "Trying to create file FileAttachment for file that does not exist: '" +
                path.toNativeString() + "'.";
            KS_ERROR(message);
            KS_THROW(message.c_str(), "Attachment", "Kestrane::Attachment::createAttachments");
        }
        attachments.push_back(std::make_shared<FileAttachment>(id, path, true, forceTransfer));
        hasFiles = true;
    } else if (!id.empty() && !dataSize.empty() && href.size() > 8 &&
               startsWith(href, "hdfs://#")) {
        auto size = boost::lexical_cast<uint32_t>(dataSize);
        auto* address =
            static_cast<unsigned char*>(XLinkUtils::getAddressFromString(href.substr(8)));
        auto hdfs = std::make_shared<HdfsAttachment>(id, address, size);
        // The memory file made from a dha link is ours; an hdfs link's block is its maker's.
        if (converted)
            hdfs->adoptBlock();
        attachments.push_back(hdfs);
    } else if (!id.empty() && !dataSize.empty() && href.size() > 8 &&
               startsWith(href, "arch://#")) {
        auto size = boost::lexical_cast<uint32_t>(dataSize);
        auto* address =
            static_cast<unsigned char*>(XLinkUtils::getAddressFromString(href.substr(8)));
        attachments.push_back(std::make_shared<ArchAttachment>(id, address, size));
    }
}

} // namespace

std::shared_ptr<std::vector<std::shared_ptr<Attachment>>>
Attachment::createAttachments(std::string& text, bool& hasFiles, bool isRequest) {
    hasFiles = false;
    auto attachments = std::make_shared<std::vector<std::shared_ptr<Attachment>>>();
    const char* root = isRequest ? "KS_Request" : "KS_Reply";
    std::string document = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + std::string(root) +
                           " " + RequestXmlHelper::getNamespaceDeclarations() + ">\n" + text +
                           "</" + root + ">\n";
    try {
        // Only a valid document makes attachments: the links are collected while it validates
        // and acted on once the whole of it has.
        std::vector<Link> links;
        RequestXmlHelper::getInstance()->scan(document, [&](const xercesc::Attributes& element) {
            Link link{attributeValue(element, u"id"), attributeValue(element, u"href"),
                      attributeValue(element, u"dataSize"),
                      XmlUtils::toBool(attributeValue(element, u"forceTransfer"))};
            if (!link.id.empty())
                links.push_back(std::move(link));
        });
        for (Link& link : links)
            visit(std::move(link), text, hasFiles, *attachments);
    } catch (const KsExceptionNested& e) {
        KS_ERROR("Exception parsing attachments: " << e.what());
        throw;
    } catch (const std::exception& e) {
        KS_ERROR("Unknown exception while parsing attachments: " << e.what());
        throw;
    } catch (...) {
        KS_ERROR("Unknown exception while parsing attachments: ");
        throw;
    }
    return attachments;
}

} // namespace Kestrane
