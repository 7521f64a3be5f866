#include "Platform/RemoteComputation/Service/RequestHandling/HandleConnectionTask.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

std::string clientAddressOf(const std::shared_ptr<Computing::ServerSocket>& socket) {
    return socket ? socket->getClientIPaddress() : std::string();
}
} // namespace

HandleConnectionTask::HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                                           RequestServer* requestServer)
    : HandleConnectionTask(socket, requestServer, clientAddressOf(socket)) {}

HandleConnectionTask::HandleConnectionTask(std::shared_ptr<Computing::ServerSocket> socket,
                                           RequestServer* requestServer,
                                           const std::string& clientAddress)
    : Tasks::Task("HandleConnectionTask from " + clientAddress), m_clientAddress(clientAddress),
      m_socket(std::move(socket)), m_requestServer(requestServer) {}

HandleConnectionTask::~HandleConnectionTask() = default;

void HandleConnectionTask::execute() {
    KS_TRACE("Handling connection from " << m_clientAddress << "...");
    try {
        readLoop();
    } catch (const KsExceptionNested& e) {
        KS_ERROR("KsExceptionNested handling connection from " << m_clientAddress << ": "
                                                               << e.log());
    } catch (const std::exception& e) {
        KS_ERROR("std::exception handling connection from " << m_clientAddress << ": " << e.what());
    } catch (...) {
        KS_ERROR("Exception handling connection from " << m_clientAddress << "!");
    }
    KS_TRACE("Connection from " << m_clientAddress << " handled.");
}

void HandleConnectionTask::readLoop() {
    for (;;) {
        auto packet = SocketPacket::receive(*m_socket, m_clientAddress);
        KS_TRACE("Packet received (type = " << packet->getType() << ")");
        if (dispatch(packet) == Next::Leave)
            return;
    }
}

HandleConnectionTask::Next
HandleConnectionTask::dispatch(const std::shared_ptr<SocketPacket>& packet) {
    const std::string& type = packet->getType();
    if (type == "C")
        return dispatchCommand(packet);
    KS_ERROR("Unknown packet type: " << type << " " << *packet->getData());
    return Next::Leave;
}

HandleConnectionTask::Next
HandleConnectionTask::dispatchCommand(const std::shared_ptr<SocketPacket>& packet) {
    const std::string& data = *packet->getData();
    if (data == "PING") {
        KS_DEBUG("Ping packet received.");
        SocketPacket::send("C", "PONG", *m_socket, m_clientAddress);
        return Next::Continue;
    }
    if (data == "CLOSE_CONNECTION") {
        KS_TRACE("Connection from " << m_clientAddress << " closed by remote host.");
        return Next::Leave;
    }
    KS_ERROR("Unknown command: " << packet->getType() << " " << data);
    return Next::Leave;
}

} // namespace Kestrane
