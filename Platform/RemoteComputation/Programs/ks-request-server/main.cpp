// ks-request-server: runs the process's RequestServer until a signal, or the idle watchdog, stops
// it.
#include "RequestServerProgramOptions.h"

#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LivingProcess.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <pthread.h>
#include <thread>

using namespace Kestrane;

namespace {
Logging s_logging(__FILE__);

// Stops the server on SIGINT or SIGTERM. The signals are blocked in every thread, so that only
// this one receives them.
void watchSignals(sigset_t signals, RequestServer* server) {
    int signal = 0;
    if (sigwait(&signals, &signal) == 0) {
        KS_INFO("Received signal " << signal << ", stopping the request server");
        server->stop();
    }
}

// Tells the waiting starter why this server does not come, so that it need not wait for its
// whole callback time-out. Without a server the callback's schema type is not known yet: the
// server registers it.
void reportStartFailure(const std::string& callback, const std::string& error) {
    if (callback.empty())
        return;
    RequestHandler::getDefaultRequestHandler()->addRequestSchema(ServerRequestSchema());
    CallbackRequest::sendCallbackRequest(callback, error);
}

// The value of "-c" in a command line that could not be parsed as a whole.
std::string callbackOf(const std::vector<std::string>& args) {
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == "-c")
            return args[i + 1];
    return std::string();
}

RequestServer* startServer(const RequestServerProgramOptions& options) {
    auto config = RequestServerConfiguration::getRegisteredInstance();
    if (options.portRange) {
        config->setValue("portRange", std::to_string(*options.portRange));
        if (options.port != 0)
            config->setValue("listenPort", std::to_string(options.port));
        return RequestServer::getInstance(-1, 0);
    }
    return RequestServer::getInstance(-1, options.port);
}
} // namespace

int main(int argc, char** argv) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    RequestServerProgramOptions options;
    const std::vector<std::string> commandLine(argv + 1, argv + argc);
    try {
        std::vector<std::string> args = commandLine;
        LoggingSettings::get()->applyEnvironment();
        LoggingSettings::get()->parseCommandLine(args);
        options = RequestServerProgramOptions::parse(args);
        RequestServerConfiguration::getRegisteredInstance();
    } catch (const std::exception& e) {
        std::cerr << "ks-request-server: " << e.what() << "\n"
                  << RequestServerProgramOptions::usage();
        try {
            reportStartFailure(callbackOf(commandLine),
                               std::string("ks-request-server: ") + e.what());
        } catch (const std::exception&) {
            // A setting that can't be read leaves no way to call back; the exit code tells.
        }
        Logging::flush();
        return 2;
    }
    if (options.help) {
        std::cout << RequestServerProgramOptions::usage();
        return 0;
    }

    RequestServer* server = nullptr;
    std::string startError;
    try {
        server = startServer(options);
        if (!server)
            startError = RequestServer::getErrorMessage();
    } catch (const std::exception& e) {
        startError = e.what();
    }
    if (!server) {
        std::cerr << "ks-request-server: " << startError << "\n";
        reportStartFailure(options.callback, startError);
        Logging::flush();
        return 1;
    }
    // Set before the port is announced, so that no status query sees the server without them.
    server->setExecutableName(argv[0]);
    if (!options.jobId.empty()) {
        std::string text = options.jobId, message;
        server->setJobId(GenericJobId::fromString(text, message));
    }
    std::printf("PORT %u\n", static_cast<unsigned int>(server->getPort()));
    std::fflush(stdout);
    // Heartbeat from the start, so that watchers can tell a busy server from a lost one.
    std::printf("PUBLISHER %d\n", Publisher::getInstance()->getPort());
    std::fflush(stdout);
    LivingProcess::alive("RequestServer running", "");
    // The callback's acknowledgement comes back through this process's own server. A starter
    // that stops the server before then (it has the port as soon as the callback arrives) would
    // leave a callback in the main thread waiting for ever, so it runs beside the wait.
    std::atomic<bool> callbackEnded{false};
    std::atomic<bool> callbackFailed{false};
    std::thread callback;
    if (!options.callback.empty()) {
        callback = std::thread([&] {
            const bool sent = CallbackRequest::sendCallbackRequest(options.callback, "");
            // Both flags before the stop, which the main thread may act on at once.
            callbackFailed = !sent;
            callbackEnded = true;
            if (!sent) {
                KS_ERROR("Callback to " << options.callback << " failed; stopping.");
                std::cerr << "ks-request-server: callback to " << options.callback << " failed\n";
                server->stop();
            }
        });
    }
    std::thread(watchSignals, signals, server).detach();
    server->waitForShutdown();
    LivingProcess::shutdown();
    if (callback.joinable() && !callbackEnded) {
        // Nothing can answer the callback any more; its thread holds the process's statics.
        KS_WARN("Stopped before the callback to " << options.callback << " was acknowledged.");
        Logging::flush();
        std::fflush(stdout);
        std::_Exit(0);
    }
    if (callback.joinable())
        callback.join();
    if (callbackFailed) {
        Logging::flush();
        return 1;
    }
    KS_INFO("ks-request-server stopped.");
    Logging::flush();
    return 0;
}
