#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

StartQueuedJobRequest::StartQueuedJobRequest(const xercesc::DOMElement* element)
    : Request(element), m_jobId(XmlUtils::getElementContent("jobId", element)) {
    if (auto cancel = XmlUtils::getElement("cancelJob", element))
        m_cancelJob = XmlUtils::getContentAsBool(cancel);
    if (auto message = XmlUtils::getElement("errorMessage", element))
        m_errorMessage = XmlUtils::getContent(message);
}

StartQueuedJobRequest::~StartQueuedJobRequest() = default;

} // namespace Kestrane
