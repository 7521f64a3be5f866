#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Task.h"

#include <memory>
#include <string>

namespace Kestrane {

class RequestServer;
class SocketPacket;

// Reads the packets of one accepted connection in a loop and dispatches them, until the peer
// closes the conversation or something goes wrong. Runs on a worker of the server's pool.
class HandleConnectionTask : public Tasks::Task {
public:
    HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                         RequestServer* requestServer);
    ~HandleConnectionTask() override;

    void execute() override;

private:
    enum class Next { Continue, Leave };

    HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                         RequestServer* requestServer, const std::string& clientAddress);

    void readLoop();
    Next dispatch(const std::shared_ptr<SocketPacket>& packet);
    Next dispatchCommand(const std::shared_ptr<SocketPacket>& packet);

    std::string m_clientAddress;
    std::shared_ptr<Computing::ServerSocket> m_socket;
    RequestServer* m_requestServer;
};

} // namespace Kestrane
