#pragma once

#include <string>
#include <vector>

namespace Kestrane {

// Command line of ks-watch: HOST:PORT [--topics a,b] [--max-alive-age S] [--max-change-age S]
// [--duration S].
struct WatchOptions {
    std::string host;
    int port = 0;
    std::vector<std::string> topics{"alive", "logMsg"};
    // Seconds; 0 switches the check off. Defaults come from the configuration.
    unsigned int maxAliveAge = 0;
    unsigned int maxChangeAge = 0;
    // Seconds to watch; 0: until SIGINT or SIGTERM.
    unsigned int duration = 0;
    bool help = false;

    // Throws std::invalid_argument naming what is wrong.
    static WatchOptions parse(const std::vector<std::string>& args, unsigned int defaultAliveAge,
                              unsigned int defaultChangeAge);
    static std::string usage();
};

} // namespace Kestrane
