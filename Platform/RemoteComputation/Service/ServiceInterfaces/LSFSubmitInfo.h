#pragma once

#include <string>

namespace Kestrane {
namespace Computing {

// What a job submission asks of the job scheduler besides the command line.
struct LSFSubmitInfo {
    std::string jobName;
    // Cores wanted, and the fewest the job can do with (0: the same as `cores`).
    int cores = 0;
    int minimumCores = 0;
    // Path of the adapter executable that speaks to the job scheduler (submit, status, kill).
    std::string script;
    // A directory that the job's host sees too; the job's output goes there.
    std::string tmpPath;
};

} // namespace Computing
} // namespace Kestrane
