#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/DeletePathThread.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

[[noreturn]] void decodeError(const char* message) {
    KS_DEBUG(message);
    throw KsExceptionNested(message, "RequestHandling", "Kestrane::Reply::decode", __FILE__,
                            __LINE__);
}
} // namespace

Reply::Reply(const std::string& type) : m_type(type) {}

Reply::Reply(xercesc::DOMDocument* document, xercesc::DOMElement* reply)
    : m_requestId(XmlUtils::getAttribute("requestId", reply)),
      m_type(XmlUtils::getAttribute("xsi:type", reply)), m_document(document),
      m_replyElement(reply) {
    for (xercesc::DOMElement* child = reply ? reply->getFirstElementChild() : nullptr; child;
         child = child->getNextElementSibling()) {
        KSData data(child);
        if (data.isValid())
            m_data.push_back(data);
    }
}

Reply::~Reply() {
    if (m_document)
        m_document->release();
}

std::shared_ptr<Reply> Reply::decode(const std::string& text) {
    if (text.empty())
        decodeError("Error decoding reply: replyString is empty.");
    xercesc::DOMDocument* document =
        RequestXmlHelper::getInstance()->parse(ReplyEncoder::wrap(text));
    try {
        if (!document)
            decodeError("Error decoding reply: Parsing reply failed.");
        xercesc::DOMElement* root = document->getDocumentElement();
        xercesc::DOMElement* reply = root ? XmlUtils::getElement("reply", root) : nullptr;
        if (!reply)
            decodeError("Error decoding reply: Reply element not found.");
        return std::make_shared<Reply>(document, reply);
    } catch (...) {
        if (document)
            document->release();
        throw;
    }
}

std::string Reply::getAttribute(const std::string& name) const {
    return XmlUtils::getAttribute(name, m_replyElement);
}

std::string Reply::getElement(const std::string& name) const {
    return XmlUtils::getElementContent(name, m_replyElement);
}

std::vector<std::string> Reply::getElements(const std::string& name) const {
    std::vector<std::string> texts;
    for (auto element : getDomElements(name))
        texts.push_back(XmlUtils::getContent(element));
    return texts;
}

bool Reply::hasElement(const std::string& name) const {
    return getDomElement(name) != nullptr;
}

xercesc::DOMElement* Reply::getDomElement(const std::string& name) const {
    return m_replyElement ? XmlUtils::getElement(name, m_replyElement) : nullptr;
}

std::vector<xercesc::DOMElement*> Reply::getDomElements(const std::string& name) const {
    if (!m_replyElement)
        return {};
    return XmlUtils::getElements(name, m_replyElement);
}

std::shared_ptr<KSData> Reply::getKSData(const std::string& name) const {
    xercesc::DOMElement* element = getDomElement(name);
    return element ? std::make_shared<KSData>(element) : nullptr;
}

std::vector<std::shared_ptr<KSData>> Reply::getKSDatas(const std::string& name) const {
    std::vector<std::shared_ptr<KSData>> result;
    for (auto element : getDomElements(name))
        result.push_back(std::make_shared<KSData>(element));
    return result;
}

FileName Reply::getFilePath(const std::string& name) const {
    auto data = getKSData(name);
    return data ? data->getFilePath() : FileName();
}

void Reply::convertMemoryFile(KSData& data) {
    if (data.getHdfsPointer())
        XLinkTranscoder::hdfsToDha(data, true);
}

void* Reply::getTypedArray(int kind, const std::string& name) {
    std::string longName = XLinkTypeNames::dataType(kind);
    std::string shortName = XLinkTypeNames::shortName(kind);
    for (KSData& data : m_data) {
        bool typeMatches = data.getDataType() == longName || data.getDataType() == shortName;
        if (!typeMatches || (!name.empty() && data.getName() != name))
            continue;
        convertMemoryFile(data);
        void* pointer = data.getDhaPointer();
        if (!pointer)
            return nullptr;
        // The short name alone is found but not accepted: only a conversion writes the long one.
        if (data.getDataPtrType() == XLinkTypeNames::dataPtrType(kind) &&
            data.getDataType() == longName && data.getDataSize() != 0)
            return pointer;
        return nullptr;
    }
    return nullptr;
}

void* Reply::getAnyObjectArray(const std::string& dataType, const std::string& name) {
    for (KSData& data : m_data) {
        if (data.getDataType() != dataType || (!name.empty() && data.getName() != name))
            continue;
        convertMemoryFile(data);
        void* pointer = data.getDhaPointer();
        return pointer && data.getDataSize() != 0 ? pointer : nullptr;
    }
    return nullptr;
}

uint64_t Reply::getArraySize(const std::string& name, const std::string& dataType) {
    if (name.empty())
        return 0;
    for (KSData& data : m_data) {
        if (data.getName() != name || (!dataType.empty() && data.getDataType() != dataType))
            continue;
        convertMemoryFile(data);
        return data.getDhaPointer() ? data.getDataSize() : 0;
    }
    return 0;
}

char* Reply::getCharArray(const std::string& name) {
    return static_cast<char*>(getTypedArray(XLinkTypeKind<char>::value, name));
}
unsigned char* Reply::getUnsignedCharArray(const std::string& name) {
    return static_cast<unsigned char*>(getTypedArray(XLinkTypeKind<unsigned char>::value, name));
}
int* Reply::getIntArray(const std::string& name) {
    return static_cast<int*>(getTypedArray(XLinkTypeKind<int>::value, name));
}
unsigned int* Reply::getUnsignedIntArray(const std::string& name) {
    return static_cast<unsigned int*>(getTypedArray(XLinkTypeKind<unsigned int>::value, name));
}
float* Reply::getFloatArray(const std::string& name) {
    return static_cast<float*>(getTypedArray(XLinkTypeKind<float>::value, name));
}
double* Reply::getDoubleArray(const std::string& name) {
    return static_cast<double*>(getTypedArray(XLinkTypeKind<double>::value, name));
}

std::string Reply::getReplyTmpDirName(const std::string& requestId) {
    return "Reply_" + requestId.substr(0, 10);
}

FileName Reply::getReplyTmpDir(const std::string& requestId) {
    return PathConfiguration::getKsPathTmp() / getReplyTmpDirName(requestId);
}

void Reply::deleteReplyTmpDir() {
    FileName dir = getReplyTmpDir();
    if (FileUtilities::exists(dir)) {
        KS_TRACE("Deleting reply tmp dir '" << dir.toString() << "'...");
        DeletePathThread::deletePath(
            dir, RequestServerConfiguration::getRegisteredInstance()->keepTempFiles());
    } else {
        KS_TRACE("Reply tmp dir '" << dir.toString() << "' does not exist: nothing to delete.");
    }
}

RequestServerUnreachableReply::RequestServerUnreachableReply(const std::string& message)
    : Reply("RequestServerUnreachableReply"), m_errorMessage(message) {}

} // namespace Kestrane
