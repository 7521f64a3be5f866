// ks-remote-service: the starter service of a host. Starts the allowed programs for clients
// that hold the shared key, until SIGINT or SIGTERM; the programs outlive it.
#include "AllowList.h"
#include "ProcessLauncher.h"
#include "RemoteService.h"
#include "RemoteServiceOptions.h"
#include "ServiceCommands.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <filesystem>
#include <iostream>
#include <pthread.h>
#include <thread>
#include <unistd.h>

using namespace Kestrane;

namespace {
Logging s_logging(__FILE__);

int badCommandLine(const std::string& message) {
    std::cerr << "ks-remote-service: " << message << "\n" << RemoteServiceOptions::usage();
    return 2;
}

// The directory for the programs' output, created when missing; false with `error`.
bool prepareLogDirectory(std::string& directory, std::string& error) {
    namespace fs = std::filesystem;
    std::error_code code;
    if (directory.empty())
        directory = (PathConfiguration::getKsPathTmp() / "remote-service").toString();
    directory = fs::absolute(directory, code).lexically_normal().string();
    if (!directory.empty() && directory.back() == '/' && directory.size() > 1)
        directory.pop_back();
    if (!fs::is_directory(directory, code)) {
        if (!fs::create_directories(directory, code) && code) {
            error = "Cannot create log directory '" + directory + "': " + code.message();
            return false;
        }
        // The output of the programs is their owner's business.
        fs::permissions(directory, fs::perms::owner_all, code);
    }
    if (::access(directory.c_str(), W_OK | X_OK) != 0) {
        error = "Log directory '" + directory + "' is not writable";
        return false;
    }
    return true;
}

// Stops the service on SIGINT or SIGTERM. The signals are blocked in every thread, so that only
// this one receives them.
void watchSignals(sigset_t signals, RemoteService* service) {
    int signal = 0;
    if (sigwait(&signals, &signal) == 0) {
        KS_INFO("Received signal " << signal << ", stopping");
        service->stop();
    }
}
} // namespace

int main(int argc, char** argv) {
    // Blocked before any thread exists, so that every thread inherits it: SIGCHLD then waits
    // for the launcher's reaper, and SIGINT/SIGTERM for the signal thread.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigset_t blocked = stopSignals;
    sigaddset(&blocked, SIGCHLD);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);

    RemoteServiceOptions options;
    std::string keyFile;
    try {
        std::vector<std::string> args(argv + 1, argv + argc);
        LoggingSettings::get()->applyEnvironment();
        LoggingSettings::get()->parseCommandLine(args);
        options = RemoteServiceOptions::parse(args);
        keyFile = options.keyFile.empty() ? RemoteServiceKey::configuredPath() : options.keyFile;
    } catch (const std::exception& e) {
        return badCommandLine(e.what());
    }
    if (options.help) {
        std::cout << RemoteServiceOptions::usage();
        return 0;
    }
    if (options.createKey) {
        std::string path = options.createKeyPath.empty() ? keyFile : options.createKeyPath;
        std::string message;
        if (!RemoteServiceKey::create(path, message)) {
            std::cerr << "ks-remote-service: " << message << "\n";
            return 1;
        }
        std::cout << "Created key file " << path
                  << " (mode 0600); copy it to every host and client that shares it\n";
        return 0;
    }

    AllowList allowList;
    for (const auto& entry : options.allow) {
        std::string error;
        if (!allowList.add(entry, error))
            return badCommandLine(error);
    }
    std::string logDirectory = options.logDirectory, error;
    if (!prepareLogDirectory(logDirectory, error)) {
        std::cerr << "ks-remote-service: " << error << "\n";
        return 1;
    }
    if (allowList.empty())
        KS_WARN("No --allow given: every start will be refused");
    RemoteServiceKey key;
    std::string keyMessage;
    // Only a warning: the key is read for every command, so it can still be put in place.
    if (!key.load(keyFile, keyMessage))
        KS_WARN("No usable key yet, every command is refused until it is fixed: " << keyMessage);

    ProcessLauncher launcher(logDirectory, options.maxProcesses);
    ServiceCommands commands(allowList, launcher);
    RemoteService service(commands, keyFile, options.timeoutSeconds);
    try {
        service.listen(options.bindAddress, options.port);
    } catch (const std::exception& e) {
        std::cerr << "ks-remote-service: cannot listen on " << options.bindAddress << " port "
                  << options.port << ": " << e.what() << "\n";
        Logging::flush();
        return 1;
    }
    std::printf("PORT %d\n", service.port());
    std::fflush(stdout);
    std::string allowed;
    for (const auto& entry : allowList.entries())
        allowed += (allowed.empty() ? "" : ", ") + entry;
    KS_INFO("ks-remote-service listening on "
            << options.bindAddress << " port " << service.port() << "; allowed: "
            << (allowed.empty() ? "nothing" : allowed) << "; key file " << keyFile << "; output in "
            << logDirectory << "; at most " << options.maxProcesses << " programs at once");

    std::thread(watchSignals, stopSignals, &service).detach();
    service.run();
    KS_INFO("ks-remote-service stopped; "
            << ProcessLauncher::countOfPrograms(launcher.runningCount()) << " still running");
    Logging::flush();
    return 0;
}
