#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Task.h"

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractSocketPacket;

// Sends the cached packets of a reply again, after a client has reconnected.
class SendCachedReplyTask : public Tasks::Task {
public:
    SendCachedReplyTask(const std::string& requestId,
                        std::shared_ptr<std::vector<std::shared_ptr<AbstractSocketPacket>>> packets,
                        bool transferFileAttachments);

    void execute() override;

private:
    std::string requestId;
    std::shared_ptr<std::vector<std::shared_ptr<AbstractSocketPacket>>> packets;
    bool transferFileAttachments;
};

} // namespace Kestrane
