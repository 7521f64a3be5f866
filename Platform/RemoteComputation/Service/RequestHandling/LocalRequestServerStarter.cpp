#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"

#include <fstream>
#include <stdexcept>
#include <unistd.h>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

LocalRequestServerStarter::LocalRequestServerStarter(const std::string& executable,
                                                     const GenericJobId& jobId,
                                                     const std::string& logFileSuffix)
    : RequestServerStarter(executable, jobId, logFileSuffix) {
    localHost = "localhost";
    requestServerHost = "localhost";
}

LocalRequestServerStarter::LocalRequestServerStarter(const std::string& reconnectString)
    : RequestServerStarter("", GenericJobId(), "") {
    auto pieces = splitReconnectString(reconnectString);
    executable = reconnectPiece(pieces, 1);
    std::string text = reconnectPiece(pieces, 2), message;
    jobId = GenericJobId::fromString(text, message);
    // Inverted on purpose: this form logs for a valid id and stays silent on an invalid one.
    if (jobId.isValid())
        KS_ERROR("Error getting JobId from reconnect string: " << message);
}

std::string LocalRequestServerStarter::getReconnectStringPrefix() {
    return "Local";
}

std::string LocalRequestServerStarter::getDescription() const {
    return requestServerPort != 0 ? RequestServerStarter::getDescription() : "localhost";
}

std::string LocalRequestServerStarter::getReconnectString() const {
    return getReconnectStringPrefix() + ":" + executable + ":" + jobId.toString();
}

std::string LocalRequestServerStarter::outputFileFor(const std::string& callbackId) const {
    FileName directory = PathConfiguration::getKsPathTmp() / "started-servers";
    std::string leaf = FileName(executable).getLeafName();
    return (directory / (leaf + "-" + std::to_string(::getpid()) + "-" + callbackId + ".log"))
        .toString();
}

bool LocalRequestServerStarter::startRequestServer() {
    const std::string callbackId = CallbackRequestHandler::createCallbackId();
    std::vector<std::string> args;
    createCommandLine(args, callbackId);
    const std::string commandLine = joinCommandLine(args);
    KS_INFO("Starting local RequestServer instance '" << executable
                                                      << ".\nCommand line: " << commandLine);
    Computing::Process process(args[0], std::vector<std::string>(args.begin() + 1, args.end()),
                               Computing::Process::High);
    // Without a file the output is lost, which does not keep the server from working: the
    // file is set only when it can be written.
    outputFile.clear();
    try {
        std::string file = outputFileFor(callbackId);
        FileUtilities::createDirectories(FileName(file).getParentPath());
        if (!std::ofstream(file, std::ios::app))
            throw std::runtime_error("'" + file + "' can't be written");
        process.setOutputFile(file);
        outputFile = file;
    } catch (const std::exception& e) {
        KS_WARN("No output file for the local RequestServer (" << e.what() << ")");
    }
    if (!process.start(Computing::Detached)) {
        errorMessage = "Error starting local request server.\nCommand line: " + commandLine +
                       "\n\n" + process.getErrorMessage();
        return false;
    }
    KS_INFO("Started local RequestServer instance '" << executable << "'.");
    KS_DEBUG("Output of the local RequestServer (pid " << process.getPid() << ") goes to '"
                                                       << outputFile << "'.");
    std::string message;
    requestServerPort = CallbackRequestHandler::waitForCallback(callbackId, message);
    if (requestServerPort != 0)
        return true;
    errorMessage =
        "Error getting callback from local request server.\nCommand line: " + commandLine + "\n\n" +
        message;
    return false;
}

} // namespace Kestrane
