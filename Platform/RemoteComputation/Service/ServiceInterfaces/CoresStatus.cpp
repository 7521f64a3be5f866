#include "Platform/RemoteComputation/Service/ServiceInterfaces/CoresStatus.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"

#include <sstream>

namespace Kestrane {
namespace Computing {

CoresStatus::CoresStatus(const std::string& host, int port) : m_host(host), m_port(port) {}

bool CoresStatus::get(unsigned int& cores, unsigned int& freeCores, std::string& message) {
    RemoteServiceClient client(m_host, m_port);
    std::string answer;
    if (!client.call(RemoteServiceProtocol::c_cores, answer, message))
        return false;
    std::istringstream in(answer);
    unsigned int all = 0, free = 0;
    std::string rest;
    if (!(in >> all >> free) || (in >> rest) || free > all ||
        answer.find('-') != std::string::npos) {
        message = "The remote service at " + client.address() + " answered '" + answer +
                  "' instead of '<cores> <free cores>'";
        return false;
    }
    cores = all;
    freeCores = free;
    return true;
}

} // namespace Computing
} // namespace Kestrane
