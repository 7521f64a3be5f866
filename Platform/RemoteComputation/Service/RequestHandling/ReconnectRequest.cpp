#include "Platform/RemoteComputation/Service/RequestHandling/ReconnectRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

ReconnectRequest::ReconnectRequest(const xercesc::DOMElement* element)
    : Request(element),
      m_originalRequestId(XmlUtils::getElementContent("originalRequestId", element)) {}

ReconnectRequest::~ReconnectRequest() = default;

} // namespace Kestrane
