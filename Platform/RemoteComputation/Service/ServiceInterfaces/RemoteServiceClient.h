#pragma once

#include <string>

namespace Kestrane {

// One authenticated command to the starter service at host:port, on a connection of its own:
// what JobStart and CoresStatus send. The key comes from the remoteServiceKeyFile setting.
class RemoteServiceClient {
public:
    // How long the client waits for each packet of the service.
    static constexpr unsigned int c_answerTimeoutMs = 30000;

    RemoteServiceClient(const std::string& host, int port);

    // Sends `command` and returns the text of the service's OK in `answer`. False with `error`
    // when there is no usable key, no connection, a refusal (the service's reason) or no answer.
    bool call(const std::string& command, std::string& answer, std::string& error) const;

    // "host:port", for messages.
    std::string address() const;

private:
    std::string m_host;
    int m_port;
};

} // namespace Kestrane
