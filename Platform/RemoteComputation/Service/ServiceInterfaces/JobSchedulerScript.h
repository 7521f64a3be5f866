#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingError.h"

#include <string>
#include <vector>

namespace Kestrane {
namespace Computing {

// One verb of a job scheduler adapter: the executable at `script` run directly (no shell), with
// its standard output and error together as the text shown to users. Adapters talk to cluster
// daemons that can hang, so a run that takes longer than the jobSchedulerCommandTimeout setting
// is stopped together with everything it started.
class JobSchedulerScript : public ErrorMessage {
public:
    explicit JobSchedulerScript(const std::string& script);

    // True when the adapter ran and exited with 0. `output` is everything it printed, also on
    // false, when getErrorMessage() says what went wrong.
    bool run(const std::vector<std::string>& arguments, std::string& output);
    // The same, with the reason of a failure on a line of its own behind the output, for
    // callers that have only the one text to show.
    bool runTellingWhy(const std::vector<std::string>& arguments, std::string& output);

    // The rest of the first line of `output` that starts with `word` and one space.
    static bool findValue(const std::string& output, const std::string& word, std::string& value);
    // The same, read as a whole number from 1 to INT_MAX.
    static bool findNumber(const std::string& output, const std::string& word, int& value);
    // Puts `error` on a line of its own behind `message`.
    static void appendLine(std::string& message, const std::string& error);

private:
    std::string m_script;
};

} // namespace Computing
} // namespace Kestrane
