#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

#include <cstdlib>
#include <cstring>

namespace Kestrane {

namespace {

void* addressBehind(const std::string& href, const std::string& prefix) {
    if (href.size() < prefix.size() || href.compare(0, prefix.size(), prefix) != 0)
        return nullptr;
    return XLinkUtils::getAddressFromString(href.substr(prefix.size()));
}

} // namespace

KSData::KSData(const xercesc::DOMElement* element) {
    if (!element)
        return;
    m_tag = XmlUtils::transcode(element->getNodeName());
    m_id = XmlUtils::getAttribute("id", element);
    m_name = XmlUtils::getAttribute("name", element);
    m_dataPtrType = XmlUtils::getAttribute("dataPtrType", element);
    m_dataType = XmlUtils::getAttribute("dataType", element);
    m_href = XmlUtils::getAttribute("href", element);
    m_fileTransfered = XmlUtils::toBool(XmlUtils::getAttribute("fileTransfered", element));
    bool hasSize = XmlUtils::hasAttribute("dataSize", element);
    if (hasSize)
        m_dataSize = boost::lexical_cast<uint64_t>(XmlUtils::getAttribute("dataSize", element));
    m_valid = XmlUtils::hasAttribute("name", element) &&
              XmlUtils::hasAttribute("dataPtrType", element) &&
              XmlUtils::hasAttribute("dataType", element) && hasSize &&
              XmlUtils::hasAttribute("href", element);
}

void KSData::setHref(const HrefProtocol& protocol, const std::string& address) {
    std::string href;
    if (protocol == HrefProtocol::dha)
        href = "dha://#" + address;
    else if (protocol == HrefProtocol::hdfs)
        href = "hdfs://#" + address;
    (void)href;
}

void KSData::setHref(const HrefProtocol& protocol, const void* address) {
    setHref(protocol, XLinkUtils::getAddressString(address, false));
}

void* KSData::getDhaPointer() const {
    return addressBehind(m_href, "dha://#");
}

void* KSData::getHdfsPointer() const {
    return addressBehind(m_href, "hdfs://#");
}

FileName KSData::getFilePath() const {
    return FileName(m_href.substr(8));
}

std::shared_ptr<std::vector<unsigned char>> KSData::getArchiverBufferPtr() {
    void* block = addressBehind(m_href, "arch://#");
    if (!block)
        return nullptr;
    auto bytes = std::make_shared<std::vector<unsigned char>>(static_cast<std::size_t>(m_dataSize));
    if (!bytes->empty())
        std::memcpy(bytes->data(), block, bytes->size());
    LargeBlockCache::release(block);
    m_href.clear();
    return bytes;
}

std::string KSData::getXLinkNodeString() const {
    std::string text = "<" + m_tag + " id=\"" + m_id + "\" name=\"" + m_name + "\" dataPtrType=\"" +
                       m_dataPtrType + "\" dataType=\"" + m_dataType + "\" dataSize=\"" +
                       std::to_string(m_dataSize) + "\" href=\"" + m_href + "\"";
    if (m_fileTransfered)
        text += " fileTransfered=\"false\"";
    return text + "/>";
}

} // namespace Kestrane
