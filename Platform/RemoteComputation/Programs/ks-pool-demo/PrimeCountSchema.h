#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"

namespace Kestrane {

// The prime counter's own request types: its run request, its result, and its input reply.
class PrimeCountSchema : public AbstractRequestSchema {
public:
    PrimeCountSchema();
};

} // namespace Kestrane
