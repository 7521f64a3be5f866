#include "Platform/RemoteComputation/Service/ServiceInterfaces/LSFJobStatus.h"

#include <array>
#include <utility>

namespace Kestrane {
namespace Computing {

namespace {
const std::array<std::pair<LSFJobStatus, const char*>, 5> c_words = {{
    {LSFJobStatus::Pending, "PENDING"},
    {LSFJobStatus::Running, "RUNNING"},
    {LSFJobStatus::Done, "DONE"},
    {LSFJobStatus::Exit, "EXIT"},
    {LSFJobStatus::Unknown, "UNKNOWN"},
}};
} // namespace

std::string toString(LSFJobStatus status) {
    for (const auto& [value, word] : c_words)
        if (value == status)
            return word;
    return "UNKNOWN";
}

bool fromString(const std::string& word, LSFJobStatus& status) {
    for (const auto& [value, text] : c_words)
        if (word == text) {
            status = value;
            return true;
        }
    return false;
}

} // namespace Computing
} // namespace Kestrane
