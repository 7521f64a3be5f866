#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerErrorLogger.h"

namespace Kestrane {

RequestServerErrorLogger::~RequestServerErrorLogger() = default;

} // namespace Kestrane
