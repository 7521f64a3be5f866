#include "Platform/RemoteComputation/Service/RequestHandling/LivingRequestJobLog.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"

namespace Kestrane {

LivingRequestJobLog::~LivingRequestJobLog() = default;

int LivingRequestJobLog::logMessage(const std::string& text, int64_t /*value*/, bool /*flag*/) {
    LivingProcess::alive(prefix + text, "");
    return 0;
}

} // namespace Kestrane
