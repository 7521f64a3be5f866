#include "Platform/RemoteComputation/Service/RequestHandling/TestRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

TestRequest::TestRequest(const xercesc::DOMElement* element)
    : Request(element), m_command(XmlUtils::getContent(XmlUtils::getElement("command", element))),
      m_data(XmlUtils::getElementContent("data", element)) {
    if (auto file = XmlUtils::getElement("file", element))
        m_file = KSData(file).getFilePath();
    if (auto attachment = XmlUtils::getElement("attachment", element))
        m_attachment = std::make_shared<KSData>(attachment);
}

TestRequest::~TestRequest() = default;

} // namespace Kestrane
