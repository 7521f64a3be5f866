#pragma once

#include <string>

namespace Kestrane {
namespace Computing {

// The state of a job scheduler job. The order matters to its readers: a job at Pending or
// Running may still call back; every later value means it will not.
enum class LSFJobStatus : int { Pending = 0, Running = 1, Done = 2, Exit = 3, Unknown = 4 };

// The word of an adapter's "STATUS <word>" line: PENDING, RUNNING, DONE, EXIT, UNKNOWN.
std::string toString(LSFJobStatus status);
// False for a word that is none of them.
bool fromString(const std::string& word, LSFJobStatus& status);

} // namespace Computing
} // namespace Kestrane
