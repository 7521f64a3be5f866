#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AttachmentBinder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/PackageDocument.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

// The reply side's exceptions carry this source word.
[[noreturn]] void fail(const std::string& message, const char* function) {
    throw KsExceptionNested(message.c_str(), "Requesthandling", function, __FILE__, __LINE__);
}
} // namespace

std::shared_ptr<ReplyPackage>
ReplyPackage::decode(const std::string& text,
                     std::map<std::string, std::shared_ptr<Attachment>>* attachments) {
    const char* function = "Kestrane::ReplyPackage::decode";
    if (text.empty()) {
        KS_DEBUG("Error decoding reply package: replyPackageString is empty.");
        fail("Error decoding reply package: replyPackageString is empty.", function);
    }
    try {
        auto document = PackageDocument::parse(text, attachments);
        xercesc::DOMElement* root = document->getRoot();
        return std::make_shared<ReplyPackage>(document->release(), root);
    } catch (...) {
        KS_DEBUG("Exception while decoding reply package.");
        throw;
    }
}

ReplyPackage::ReplyPackage(xercesc::DOMDocument* domDocument, xercesc::DOMElement* root) {
    // The words name a root that is not the one checked for; they stay so.
    static const PackageDocument::Words c_words{"KS_ReplyPackage",
                                                "The root element is not 'KSOrvel_ReplyPackage'. ",
                                                "The root element is no 'KSOrvel_ReplyPackage'.",
                                                "reply",
                                                "Requesthandling",
                                                "Kestrane::ReplyPackage::ReplyPackage"};
    PackageDocument document(domDocument);
    xercesc::DOMElement* replyElement = document.checkedMessage(root, c_words);
    // The reply owns the document once it is made; until then a failure must release it here.
    m_reply = std::make_shared<Reply>(document.get(), replyElement);
    document.release();
    m_version = XmlUtils::getAttribute("version", root);
    m_serial = boost::lexical_cast<uint32_t>(XmlUtils::getAttribute("serial", root));
    m_timestamp = XmlUtils::getAttribute("timestamp", root);
    m_origin = XmlUtils::getAttribute("origin", root);
}

ReplyPackage::~ReplyPackage() = default;

RequestServerUnreachableReplyPackage::RequestServerUnreachableReplyPackage(
    const std::string& errorMessage) {
    m_reply = std::make_shared<RequestServerUnreachableReply>(errorMessage);
}

} // namespace Kestrane
