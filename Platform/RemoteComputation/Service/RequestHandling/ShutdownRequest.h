#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

namespace Kestrane {

// Asks a server to stop; it answers first.
class ShutdownRequest : public Request {
public:
    explicit ShutdownRequest(const xercesc::DOMElement* element);
    ~ShutdownRequest() override;
};

} // namespace Kestrane
