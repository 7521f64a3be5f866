#pragma once

#include <string>

namespace Kestrane {
namespace Computing {

// Asks the starter service at host:port how many cores its host has, and how many of them are
// free for new workers.
class CoresStatus {
public:
    CoresStatus(const std::string& host, int port);

    // False with `message` when the service can't be asked or gives no usable answer.
    bool get(unsigned int& cores, unsigned int& freeCores, std::string& message);

private:
    std::string m_host;
    int m_port;
};

} // namespace Computing
} // namespace Kestrane
