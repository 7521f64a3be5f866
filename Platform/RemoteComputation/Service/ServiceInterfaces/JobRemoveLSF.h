#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <string>

namespace Kestrane {
namespace Computing {

// Ends a job, pending or running, through the adapter `cluster` (the job scheduler script):
//   SCRIPT kill <number>
class JobRemoveLSF : public ErrorMessage {
public:
    // `message` is what the adapter printed, and on false also why it failed.
    bool execute(int job, const std::string& cluster, std::string& message);
};

} // namespace Computing
} // namespace Kestrane
