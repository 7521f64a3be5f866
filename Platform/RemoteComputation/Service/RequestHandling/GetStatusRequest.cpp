#include "Platform/RemoteComputation/Service/RequestHandling/GetStatusRequest.h"

namespace Kestrane {

GetStatusRequest::GetStatusRequest(const xercesc::DOMElement* element) : Request(element) {}

GetStatusRequest::~GetStatusRequest() = default;

} // namespace Kestrane
