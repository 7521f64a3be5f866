#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"

namespace Kestrane {

class StandardRequestSchema : public AbstractRequestSchema {
public:
    StandardRequestSchema();
};

} // namespace Kestrane
