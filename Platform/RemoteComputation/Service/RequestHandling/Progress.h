#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"

namespace Kestrane {

// Implemented by a host that runs requests in its own process and wants to hear the log
// messages that their handlers send while they run. Called in the thread of the handler.
class Progress {
public:
    virtual ~Progress();

    // One message of the running request. The result is the host's own affair.
    virtual bool handleLogMessage(const LogMessage& message) = 0;
};

} // namespace Kestrane
