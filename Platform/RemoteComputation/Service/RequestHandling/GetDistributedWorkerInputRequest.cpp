#include "Platform/RemoteComputation/Service/RequestHandling/GetDistributedWorkerInputRequest.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

GetDistributedWorkerInputRequest::GetDistributedWorkerInputRequest(
    const xercesc::DOMElement* element)
    : DistributedWorkerRequest(element), m_name(XmlUtils::getElementContent("name", element)) {}

GetDistributedWorkerInputRequest::~GetDistributedWorkerInputRequest() = default;

} // namespace Kestrane
