#include "WatchOptions.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/CommandLineValue.h"

#include <algorithm>
#include <cctype>
#include <sstream>
#include <stdexcept>

namespace Kestrane {

namespace {
unsigned long parseNumber(const std::string& what, const std::string& value, unsigned long lowest,
                          unsigned long highest) {
    return CommandLineValue::parseNumber(what, value, lowest, highest);
}
} // namespace

WatchOptions WatchOptions::parse(const std::vector<std::string>& args, unsigned int defaultAliveAge,
                                 unsigned int defaultChangeAge) {
    WatchOptions options;
    options.maxAliveAge = defaultAliveAge;
    options.maxChangeAge = defaultChangeAge;
    bool haveTarget = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        auto value = [&]() -> const std::string& { return CommandLineValue::takeValue(args, i); };
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--topics") {
            options.topics.clear();
            std::stringstream list(value());
            std::string topic;
            while (std::getline(list, topic, ','))
                if (!topic.empty())
                    options.topics.push_back(topic);
            if (options.topics.empty())
                throw std::invalid_argument("Option --topics needs at least one topic");
        } else if (arg == "--max-alive-age") {
            options.maxAliveAge = parseNumber("option --max-alive-age", value(), 0, 1000000);
        } else if (arg == "--max-change-age") {
            options.maxChangeAge = parseNumber("option --max-change-age", value(), 0, 1000000);
        } else if (arg == "--duration") {
            options.duration = parseNumber("option --duration", value(), 0, 1000000);
        } else if (!arg.empty() && arg[0] == '-') {
            throw std::invalid_argument("Unknown option '" + arg + "'");
        } else if (!haveTarget) {
            size_t colon = arg.rfind(':');
            if (colon == std::string::npos || colon == 0)
                throw std::invalid_argument("Expected HOST:PORT, not '" + arg + "'");
            options.host = arg.substr(0, colon);
            options.port = static_cast<int>(
                parseNumber("the port of '" + arg + "'", arg.substr(colon + 1), 1, 65535));
            haveTarget = true;
        } else {
            throw std::invalid_argument("Unexpected argument '" + arg + "'");
        }
    }
    if (!haveTarget && !options.help)
        throw std::invalid_argument("Missing HOST:PORT of the publisher to watch");
    return options;
}

std::string WatchOptions::usage() {
    return "Usage: ks-watch HOST:PORT [--topics alive,logMsg] [--max-alive-age S]\n"
           "                [--max-change-age S] [--duration S]\n"
           "  HOST:PORT          the publisher of the process to watch (its PUBLISHER port)\n"
           "  --topics LIST      topics to show, comma-separated (default alive,logMsg)\n"
           "  --max-alive-age S  say so when no heartbeat came for more than S seconds\n"
           "                     (default: the maxAliveAge setting; 0: never)\n"
           "  --max-change-age S say so when the heartbeat did not change for more than S\n"
           "                     seconds (default: the maxChangeAge setting; 0: never)\n"
           "  --duration S       stop after S seconds (default: run until SIGINT or SIGTERM)\n";
}

} // namespace Kestrane
