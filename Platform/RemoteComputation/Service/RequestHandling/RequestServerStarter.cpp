#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"

namespace Kestrane {

RequestServerStarter::RequestServerStarter(const std::string& executable, const GenericJobId& jobId,
                                           const std::string& logFileSuffix)
    : executable(executable), jobId(jobId), logFileSuffix(logFileSuffix) {
    if (auto* server = RequestServer::getInstance(-1, 0))
        localHost = server->getHostName();
}

RequestServerStarter::~RequestServerStarter() = default;

std::string RequestServerStarter::getDescription() const {
    return requestServerHost + ":" + std::to_string(requestServerPort);
}

std::shared_ptr<RequestServerStarter>
RequestServerStarter::createFromReconnectString(const std::string& /*text*/) {
    // No starter that can be rebuilt from its string is part of this build yet; a job
    // scheduler job can never be restarted from its string.
    return nullptr;
}

} // namespace Kestrane
