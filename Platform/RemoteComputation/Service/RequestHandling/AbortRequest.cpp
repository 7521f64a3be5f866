#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

namespace Kestrane {

AbortRequest::AbortRequest(const xercesc::DOMElement* element)
    : Request(element), m_requestId(XmlUtils::getElementContent("requestId", element)),
      m_jobId(XmlUtils::getElementContent("jobId", element)) {}

AbortRequest::~AbortRequest() = default;

} // namespace Kestrane
