// ks: the command-line client of a request server: ping, status, test requests with live
// progress, abort and shutdown; and the start of a server here, on another host or as a job.
#include "ClientOptions.h"
#include "KsClient.h"

#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <pthread.h>
#include <thread>

using namespace Kestrane;

namespace {
std::atomic<KsClient*> s_client{nullptr};

// Ctrl-C during a test request asks the server to abort it; a second one stops waiting for the
// reply. Anything else ends the program. The signals are blocked in every thread, so that only
// this one receives them.
void watchSignals(sigset_t signals) {
    int count = 0;
    for (;;) {
        int signal = 0;
        if (sigwait(&signals, &signal) != 0)
            return;
        KsClient* client = s_client.load();
        ++count;
        if (signal == SIGINT && client && count == 1 && client->abortRunning()) {
            std::cerr << "ks: asking the server to abort the request, or removing the submitted "
                         "job (Ctrl-C again: stop waiting)"
                      << std::endl;
            continue;
        }
        if (client && client->stopWaiting()) {
            std::cerr << "ks: no longer waiting for the reply" << std::endl;
            continue;
        }
        std::_Exit(128 + signal);
    }
}
} // namespace

int main(int argc, char** argv) {
    // ks reports every failure itself; the library's own log lines come only when KS_LOG_LEVEL
    // asks for them.
    Logging::setLevel(LogLevel::Off);
    ClientOptions options;
    try {
        LoggingSettings::get()->applyEnvironment();
        options = ClientOptions::parse(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        std::cerr << "ks: " << e.what() << "\n" << ClientOptions::usage();
        return KsExit::BadCommandLine;
    }
    if (options.help) {
        std::cout << ClientOptions::usage();
        return KsExit::Success;
    }

    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::thread(watchSignals, signals).detach();

    KsClient client(options.host, options.port, std::cout);
    s_client = &client;
    int code = client.execute(options, std::cerr);
    s_client = nullptr;
    // Stop the process's own request server before the singletons go.
    if (client.startedOwnServer()) {
        if (auto server = RequestServer::getInstance(-1, 0)) {
            server->stop();
            server->waitForShutdown();
        }
    }
    Logging::flush();
    return code;
}
