#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XTagger.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

namespace {

const char* const c_archDataType = "1-byte unsigned char";

bool isInvalid(const std::string& dataType, const void* data, XLinkProtocol protocol,
               const char* path) {
    int number = static_cast<int>(protocol);
    if (number < 0 || number > 4)
        return true;
    if (!data && (!path || number < 2 || protocol == XLinkProtocol::arch))
        return true;
    if (data && protocol == XLinkProtocol::arch && dataType != c_archDataType)
        return true;
    if (!path && (protocol == XLinkProtocol::file || protocol == XLinkProtocol::plain))
        return true;
    return false;
}

void setValue(XTagger::AttributeList& list, const std::string& key, const std::string& value) {
    for (auto& attribute : list)
        if (attribute.first == key)
            attribute.second = value;
}

void removeKey(XTagger::AttributeList& list, const std::string& key) {
    for (auto it = list.begin(); it != list.end(); ++it)
        if (it->first == key) {
            list.erase(it);
            return;
        }
}

} // namespace

std::shared_ptr<std::string> XLinkDataEncoder::write(const std::string& name,
                                                     const std::string& dataType,
                                                     const std::string& dataPtrType,
                                                     const void* data, uint64_t count,
                                                     bool nameAsTag, XLinkProtocol protocol,
                                                     const char* path, bool forceTransfer) {
    bool nameIsTag = nameAsTag && !name.empty();
    XTagger::AttributeList list{{"id", "invalid"},          {"name", XmlUtils::toXml(name)},
                                {"dataPtrType", "invalid"}, {"dataType", "invalid"},
                                {"dataSize", "0"},          {"href", "invalid"}};
    if (isInvalid(dataType, data, protocol, path))
        return XTagger::emptyTag(nameIsTag ? name : "XLinkData", &list, 0);

    setValue(list, "id", UniqueID::generateId());
    setValue(list, "dataSize", std::to_string(count));
    std::string href;
    switch (protocol) {
    case XLinkProtocol::dha:
        href = "dha://" + XLinkUtils::getAddressString(data, true);
        break;
    case XLinkProtocol::hdfs:
        href = "hdfs://" + XLinkUtils::getAddressString(data, true);
        break;
    case XLinkProtocol::arch:
        href = "arch://" + XLinkUtils::getAddressString(data, true);
        break;
    case XLinkProtocol::file:
        href = "file:///" + FileName(path).toString();
        break;
    case XLinkProtocol::plain:
        href = path;
        break;
    }
    if (protocol == XLinkProtocol::file || protocol == XLinkProtocol::plain) {
        removeKey(list, "dataPtrType");
        removeKey(list, "dataType");
    } else {
        setValue(list, "dataPtrType", dataPtrType);
        setValue(list, "dataType", XmlUtils::toXml(dataType));
    }
    setValue(list, "href", XmlUtils::toXml(href));
    if (forceTransfer)
        list.emplace_back("forceTransfer", "true");
    return XTagger::emptyTag(nameIsTag ? name : "data", &list, 0);
}

} // namespace Kestrane
