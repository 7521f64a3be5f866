#include "Platform/RemoteComputation/Service/RequestHandling/DisconnectRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

DisconnectRequest::DisconnectRequest(const xercesc::DOMElement* element)
    : Request(element),
      m_originalRequestId(XmlUtils::getElementContent("originalRequestId", element)) {}

DisconnectRequest::~DisconnectRequest() = default;

} // namespace Kestrane
