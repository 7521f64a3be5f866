#include "Platform/RemoteComputation/Service/RequestHandling/ShutdownRequest.h"

namespace Kestrane {

ShutdownRequest::ShutdownRequest(const xercesc::DOMElement* element) : Request(element) {}

ShutdownRequest::~ShutdownRequest() = default;

} // namespace Kestrane
