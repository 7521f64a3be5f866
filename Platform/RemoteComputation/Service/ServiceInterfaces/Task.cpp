#include "Platform/RemoteComputation/Service/ServiceInterfaces/Task.h"

namespace Kestrane {
namespace Tasks {

Task::~Task() = default;

} // namespace Tasks
} // namespace Kestrane
