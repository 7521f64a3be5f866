#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <cstring>

namespace Kestrane {
namespace Computing {

Error::Error(const std::string& call, int errorNumber)
    : std::runtime_error(call + ": " + std::strerror(errorNumber)), m_call(call),
      m_errorNumber(errorNumber) {}

Error::Error(const std::string& call, const std::string& reason)
    : std::runtime_error(call + ": " + reason), m_call(call) {}

} // namespace Computing
} // namespace Kestrane
