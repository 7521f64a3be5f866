#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"

namespace Kestrane {

// Out of line, so that the class has a home for its vtable.
Progress::~Progress() = default;

} // namespace Kestrane
