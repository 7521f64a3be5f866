#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

DistributedWorkerResultRequest::DistributedWorkerResultRequest(const xercesc::DOMElement* element)
    : DistributedWorkerRequest(element), m_taskId(XmlUtils::getElementContent("taskId", element)),
      m_status(XmlUtils::getElementContent("status", element)) {
    if (auto message = XmlUtils::getElement("errorMessage", element))
        m_errorMessage = XmlUtils::fromXml(XmlUtils::getContent(message));
}

DistributedWorkerResultRequest::~DistributedWorkerResultRequest() = default;

} // namespace Kestrane
