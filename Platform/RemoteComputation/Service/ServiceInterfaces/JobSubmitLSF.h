#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LSFSubmitInfo.h"

#include <string>
#include <vector>

namespace Kestrane {
namespace Computing {

// Submits a command line as a job through the adapter of info.script:
//   SCRIPT submit --job-name NAME --cores N --min-cores M --tmp DIR -- ARG...
// which prints "JOB <number>".
class JobSubmitLSF : public ErrorMessage {
public:
    // The job's number, or 0 with getErrorMessage(). `message` is what the adapter printed.
    int execute(const std::vector<std::string>& command, const LSFSubmitInfo& info,
                std::string& message);
};

} // namespace Computing
} // namespace Kestrane
