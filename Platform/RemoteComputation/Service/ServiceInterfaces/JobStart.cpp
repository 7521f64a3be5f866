#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStart.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"

#include <cctype>

namespace Kestrane {
namespace Computing {

JobStart::JobStart(const std::string& host, int port) : m_host(host), m_port(port) {}

bool JobStart::execute(const std::vector<std::string>& arguments) {
    m_pid = -1;
    if (arguments.empty()) {
        setErrorMessage("Nothing to start: the command line is empty");
        return false;
    }
    RemoteServiceClient client(m_host, m_port);
    std::string answer, error;
    if (!client.call(RemoteServiceProtocol::c_start +
                         RemoteServiceProtocol::encodeArguments(arguments),
                     answer, error)) {
        setErrorMessage(error);
        return false;
    }
    bool numeric = !answer.empty() && answer.size() < 10;
    for (char c : answer)
        numeric = numeric && std::isdigit(static_cast<unsigned char>(c));
    if (!numeric) {
        setErrorMessage("The remote service at " + client.address() + " answered the start with '" +
                        answer + "' instead of a process id");
        return false;
    }
    m_pid = static_cast<pid_t>(std::stol(answer));
    return true;
}

} // namespace Computing
} // namespace Kestrane
