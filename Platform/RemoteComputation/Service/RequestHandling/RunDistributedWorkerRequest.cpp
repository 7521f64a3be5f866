#include "Platform/RemoteComputation/Service/RequestHandling/RunDistributedWorkerRequest.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <boost/lexical_cast.hpp>

namespace Kestrane {

RunDistributedWorkerRequest::RunDistributedWorkerRequest(const xercesc::DOMElement* element)
    : DistributedWorkerRequest(element), m_name(XmlUtils::getElementContent("name", element)),
      m_jobId(XmlUtils::getElement("jobId", element)),
      m_cores(boost::lexical_cast<unsigned int>(XmlUtils::getElementContent("cores", element))),
      m_releaseCores(XmlUtils::getContentAsBool(XmlUtils::getElement("releaseCores", element))) {}

RunDistributedWorkerRequest::~RunDistributedWorkerRequest() = default;

} // namespace Kestrane
