#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerTask.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

namespace Kestrane {

DistributedWorkerTask::DistributedWorkerTask(int task4UId)
    : id(UniqueID::generateId()), task4UId(task4UId) {}

DistributedWorkerTask::~DistributedWorkerTask() = default;

} // namespace Kestrane
