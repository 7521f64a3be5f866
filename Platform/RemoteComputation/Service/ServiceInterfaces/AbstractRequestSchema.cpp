#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"

namespace Kestrane {

// Out of line, so that the vtable has one home.
AbstractRequestSchema::~AbstractRequestSchema() = default;

} // namespace Kestrane
