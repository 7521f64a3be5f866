#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

namespace Kestrane {

// Asks a server how it is: version, job, free temporary space, its addresses and ports.
class GetStatusRequest : public Request {
public:
    explicit GetStatusRequest(const xercesc::DOMElement* element);
    ~GetStatusRequest() override;
};

} // namespace Kestrane
