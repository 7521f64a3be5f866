#include "Platform/RemoteComputation/Service/RequestHandling/AttachmentBinder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOM.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

template <typename T>
T* find(std::map<std::string, std::shared_ptr<Attachment>>& attachments, const std::string& id) {
    auto entry = attachments.find(id);
    return entry == attachments.end() ? nullptr : dynamic_cast<T*>(entry->second.get());
}
} // namespace

void AttachmentBinder::bind(xercesc::DOMDocument* document,
                            std::map<std::string, std::shared_ptr<Attachment>>& attachments) {
    xercesc::DOMNodeIterator* it = document->createNodeIterator(
        document->getDocumentElement(), xercesc::DOMNodeFilter::SHOW_ELEMENT, nullptr, true);
    for (xercesc::DOMNode* node = it->nextNode(); node; node = it->nextNode()) {
        auto element = static_cast<xercesc::DOMElement*>(node);
        std::string id = XmlUtils::getAttribute("id", element);
        std::string href = XmlUtils::getAttribute("href", element);
        if (id.empty() || href.size() < 8)
            continue;
        std::string scheme = href.substr(0, 7);
        if (scheme == "file://") {
            auto file = find<FileAttachment>(attachments, id);
            if (!file) {
                KS_INFO("No file attachment for id " << id << " (file not transfered).");
                continue;
            }
            XmlUtils::setAttribute("href", "file:///" + file->getFileName().toString(), element);
            if (file->getFileTransfered())
                XmlUtils::setAttribute("fileTransfered", "true", element);
        } else if (scheme == "hdfs://") {
            auto hdfs = find<HdfsAttachment>(attachments, id);
            if (!hdfs) {
                KS_ERROR("No hdfs attachment for id " << id << ".");
                continue;
            }
            XmlUtils::setAttribute("href", "hdfs://" + hdfs->getAddressString(true), element);
            // The size is that of the block that arrived, not what the peer wrote: the reader
            // of the block trusts it as the block's length.
            XmlUtils::setAttribute("dataSize", std::to_string(hdfs->getDataSize()), element);
        } else if (scheme == "arch://") {
            auto arch = find<ArchAttachment>(attachments, id);
            if (!arch) {
                KS_ERROR("No arch attachment for id " << id << ".");
                continue;
            }
            XmlUtils::setAttribute("href", "arch://" + arch->getAddressString(true), element);
        } else {
            continue;
        }
        // The block now belongs to the reader of the message that links it.
        if (auto block = dynamic_cast<BlockAttachment*>(attachments[id].get()))
            block->releaseBlock();
        attachments.erase(id);
    }
    it->release();
}

} // namespace Kestrane
