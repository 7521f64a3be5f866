#include "Platform/RemoteComputation/Service/RequestHandling/RemoteJobStatusInterface.h"

namespace Kestrane {

RemoteJobStatusInterface::~RemoteJobStatusInterface() = default;

} // namespace Kestrane
