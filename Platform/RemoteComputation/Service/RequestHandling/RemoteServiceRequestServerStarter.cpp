#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStart.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/lexical_cast.hpp>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

RemoteServiceRequestServerStarter::RemoteServiceRequestServerStarter(
    const std::string& executable, const std::string& remoteHost, unsigned int remoteServicePort,
    const GenericJobId& jobId, const std::string& logFileSuffix)
    : RequestServerStarter(executable, jobId, logFileSuffix), remoteHost(remoteHost),
      remoteServicePort(remoteServicePort) {}

RemoteServiceRequestServerStarter::RemoteServiceRequestServerStarter(
    const std::string& reconnectString)
    : RequestServerStarter("", GenericJobId(), "") {
    auto pieces = splitReconnectString(reconnectString);
    executable = reconnectPiece(pieces, 1);
    remoteHost = reconnectPiece(pieces, 2);
    remoteServicePort = boost::lexical_cast<unsigned int>(reconnectPiece(pieces, 3));
    std::string text = reconnectPiece(pieces, 4), message;
    jobId = GenericJobId::fromString(text, message);
    if (!jobId.isValid())
        KS_ERROR("Error getting JobId from reconnect string: " << message);
}

std::string RemoteServiceRequestServerStarter::getReconnectStringPrefix() {
    return "RemoteService";
}

std::shared_ptr<RequestServerStarter>
RemoteServiceRequestServerStarter::createRemoteServiceOrLocalRequestServerStarter(
    const std::string& executable, const std::string& remoteHost, unsigned int remoteServicePort,
    const GenericJobId& jobId, const std::string& logFileSuffix) {
    if (remoteHost == "localhost" || remoteHost == "secondNameForLocalhostForTesting")
        return std::make_shared<LocalRequestServerStarter>(executable, jobId, logFileSuffix);
    return std::make_shared<RemoteServiceRequestServerStarter>(
        executable, remoteHost, remoteServicePort, jobId, logFileSuffix);
}

std::string RemoteServiceRequestServerStarter::getDescription() const {
    return requestServerPort != 0 ? RequestServerStarter::getDescription() : remoteHost;
}

std::string RemoteServiceRequestServerStarter::getReconnectString() const {
    return getReconnectStringPrefix() + ":" + executable + ":" + remoteHost + ":" +
           std::to_string(remoteServicePort) + ":" + jobId.toString();
}

std::string RemoteServiceRequestServerStarter::where() const {
    return "host '" + remoteHost + "' using remote service on port '" +
           std::to_string(remoteServicePort) + "'";
}

bool RemoteServiceRequestServerStarter::startRequestServer() {
    const std::string callbackId = CallbackRequestHandler::createCallbackId();
    std::vector<std::string> args;
    createCommandLine(args, callbackId);
    const std::string commandLine = joinCommandLine(args);
    KS_INFO("Starting RequestServer instance '" << executable << "' on " << where()
                                                << ".\nCommand line: " << commandLine);
    Computing::JobStart start(remoteHost, static_cast<int>(remoteServicePort));
    if (!start.execute(args)) {
        errorMessage = "Error starting request server on " + where() +
                       ".\nCommand line: " + commandLine + "\n\n" + start.getErrorMessage();
        return false;
    }
    KS_INFO("Started RequestServer instance '" << executable << "' on " << where() << ".");
    std::string message;
    requestServerPort = CallbackRequestHandler::waitForCallback(callbackId, message);
    if (requestServerPort != 0) {
        requestServerHost = remoteHost;
        return true;
    }
    errorMessage = "Error getting callback from request server on " + where() +
                   ".\nCommand line: " + commandLine + "\n\n" + message;
    return false;
}

} // namespace Kestrane
