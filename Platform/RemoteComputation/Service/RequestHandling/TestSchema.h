#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"

namespace Kestrane {

class TestSchema : public AbstractRequestSchema {
public:
    TestSchema();
};

} // namespace Kestrane
