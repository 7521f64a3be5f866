#include "Platform/RemoteComputation/Service/RequestHandling/SendCachedReplyTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <chrono>
#include <thread>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
}

SendCachedReplyTask::SendCachedReplyTask(
    const std::string& requestId,
    std::shared_ptr<std::vector<std::shared_ptr<AbstractSocketPacket>>> packets,
    bool transferFileAttachments)
    : Tasks::Task("SendCachedReplyTask"), requestId(requestId), packets(std::move(packets)),
      transferFileAttachments(transferFileAttachments) {}

void SendCachedReplyTask::execute() {
    // Gives the reconnecting client time to be ready for the reply.
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    KS_DEBUG("Sending cached replies for request " << requestId << "...");
    RequestServer::getInstance(-1, 0)->sendSocketPackets(requestId, packets,
                                                         transferFileAttachments, {});
}

} // namespace Kestrane
