#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"

namespace Kestrane {

class ServerRequestSchema : public AbstractRequestSchema {
public:
    ServerRequestSchema();
};

} // namespace Kestrane
