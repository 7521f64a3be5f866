// ks-watch: follows the publisher of a running process and prints its heartbeats and log
// messages, and a clear line when the heartbeat stops or stops changing.
#include "WatchOptions.h"
#include "WatchPrinter.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <iostream>
#include <thread>

using namespace Kestrane;

namespace {
std::atomic<bool> s_stop{false};
void onSignal(int) {
    s_stop = true;
}
} // namespace

int main(int argc, char** argv) {
    Logging::setLevel(LogLevel::Warn);
    WatchOptions options;
    try {
        auto config = RequestServerConfiguration::getRegisteredInstance();
        options = WatchOptions::parse(std::vector<std::string>(argv + 1, argv + argc),
                                      config->getMaxAliveAge(), config->getMaxChangeAge());
    } catch (const std::exception& e) {
        std::cerr << "ks-watch: " << e.what() << "\n" << WatchOptions::usage();
        return 2;
    }
    if (options.help) {
        std::cout << WatchOptions::usage();
        return 0;
    }
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);

    HostInfo publisher;
    publisher.setIpOrName(options.host);
    publisher.setPublisherPort(options.port);
    std::string target = options.host + ":" + std::to_string(options.port);

    WatchPrinter printer(publisher, options.topics, std::cout);
    LivingProcessWatcher watcher(publisher, 0, 0, false); // ages only; the reporter judges
    AgeReporter reporter(watcher, options.maxAliveAge, options.maxChangeAge, target);
    printer.note("Watching " + target + " (topics " +
                 [&] {
                     std::string list;
                     for (const auto& t : options.topics)
                         list += (list.empty() ? "" : ",") + t;
                     return list;
                 }() +
                 ", max alive age " + std::to_string(options.maxAliveAge) + " s, max change age " +
                 std::to_string(options.maxChangeAge) + " s)");
    printer.start(true);
    watcher.start(true);

    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(options.duration);
    while (!s_stop && (options.duration == 0 || std::chrono::steady_clock::now() < end)) {
        for (const auto& line : reporter.check())
            printer.note(line);
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    printer.note("Stopped watching " + target);
    return 0;
}
