#include "Platform/RemoteComputation/Service/RequestHandling/PackageDocument.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AttachmentBinder.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

[[noreturn]] void fail(const std::string& message, const PackageDocument::Words& words) {
    throw KsExceptionNested(message.c_str(), words.source, words.function, __FILE__, __LINE__);
}
} // namespace

std::unique_ptr<PackageDocument>
PackageDocument::parse(const std::string& text,
                       std::map<std::string, std::shared_ptr<Attachment>>* attachments) {
    auto document = std::make_unique<PackageDocument>(RequestXmlHelper::getInstance()->parse(text));
    if (attachments && document->get())
        AttachmentBinder::bind(document->get(), *attachments);
    return document;
}

xercesc::DOMElement* PackageDocument::checkedMessage(xercesc::DOMElement* root,
                                                     const Words& words) const {
    if (!m_document) {
        KS_WARN("The domDocument is NULL.");
        fail("The domDocument is NULL.", words);
    }
    if (!root) {
        KS_WARN("The root element is NULL.");
        fail("The root element is NULL.", words);
    }
    if (XmlUtils::transcode(root->getLocalName()) != words.root) {
        KS_WARN(words.wrongRootLine);
        fail(words.wrongRoot, words);
    }
    xercesc::DOMElement* message = XmlUtils::getElement(words.child, root);
    if (!message)
        fail(std::string("Element '") + words.child + "' not found in " + words.root + ".", words);
    return message;
}

} // namespace Kestrane
