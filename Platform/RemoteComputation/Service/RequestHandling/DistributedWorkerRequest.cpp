#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequest.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

DistributedWorkerRequest::DistributedWorkerRequest(const xercesc::DOMElement* element)
    : Request(element), m_poolId(XmlUtils::getElementContent("poolId", element)) {}

DistributedWorkerRequest::~DistributedWorkerRequest() = default;

} // namespace Kestrane
