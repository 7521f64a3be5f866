#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

namespace Kestrane {

RemoteServiceClient::RemoteServiceClient(const std::string& host, int port)
    : m_host(host), m_port(port) {}

std::string RemoteServiceClient::address() const {
    return m_host + ":" + std::to_string(m_port);
}

bool RemoteServiceClient::call(const std::string& command, std::string& answer,
                               std::string& error) const {
    using Protocol = RemoteServiceProtocol;
    RemoteServiceKey key;
    std::string keyError;
    // Without a key nothing is sent: the service would refuse it anyway.
    if (!key.load(RemoteServiceKey::configuredPath(), keyError)) {
        error = "No key for the remote service at " + address() + ": " + keyError;
        return false;
    }
    try {
        Computing::ClientSocket socket;
        socket.connect(m_host, m_port);
        socket.setTimeout(c_answerTimeoutMs);
        Protocol::Frame frame;
        std::string readError;
        auto expect = [&](const char* type) {
            if (Protocol::readFrame(socket, frame, readError) != Protocol::ReadResult::Ok) {
                error = "The remote service at " + address() + " did not answer: " + readError;
                return false;
            }
            if (frame.type == Protocol::c_error) {
                error =
                    "The remote service at " + address() + " refused the command: " + frame.payload;
                return false;
            }
            if (frame.type != type) {
                error = "The remote service at " + address() + " sent '" + frame.type +
                        "' where '" + type + "' was expected";
                return false;
            }
            return true;
        };
        if (!expect(Protocol::c_nonce))
            return false;
        Protocol::writeFrame(socket, Protocol::c_command, command);
        Protocol::writeFrame(socket, Protocol::c_auth, key.sign(frame.payload, command));
        if (!expect(Protocol::c_ok))
            return false;
        answer = frame.payload;
        return true;
    } catch (const std::exception& e) {
        error = "Cannot talk to the remote service at " + address() + ": " + e.what();
        return false;
    }
}

} // namespace Kestrane
