#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"

namespace Kestrane {

// Out of line, so that the vtable has one home.
AbstractJobLog::~AbstractJobLog() = default;

} // namespace Kestrane
