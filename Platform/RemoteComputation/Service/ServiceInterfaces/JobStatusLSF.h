#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LSFJobStatus.h"

#include <string>

namespace Kestrane {
namespace Computing {

// Asks the adapter `cluster` (the job scheduler script) for a job's state:
//   SCRIPT status <number>
// which prints "STATUS <word>".
class JobStatusLSF : public ErrorMessage {
public:
    // False when the job scheduler could not be asked; `message` is what the adapter printed,
    // and on false also why it failed.
    bool execute(int job, const std::string& cluster, LSFJobStatus& status, std::string& message);
};

} // namespace Computing
} // namespace Kestrane
