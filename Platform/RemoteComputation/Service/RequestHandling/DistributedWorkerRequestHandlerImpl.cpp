#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandlerImpl.h"

namespace Kestrane {

DistributedWorkerRequestHandlerImpl::~DistributedWorkerRequestHandlerImpl() = default;

} // namespace Kestrane
