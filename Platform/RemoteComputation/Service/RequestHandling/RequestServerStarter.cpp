#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RemoteServiceRequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LoggingSettings.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>

namespace Kestrane {

RequestServerStarter::RequestServerStarter(const std::string& executable, const GenericJobId& jobId,
                                           const std::string& logFileSuffix)
    : executable(executable), jobId(jobId), logFileSuffix(logFileSuffix) {
    if (auto* server = RequestServer::getInstance(-1, 0))
        localHost = server->getHostName();
}

RequestServerStarter::~RequestServerStarter() = default;

std::string RequestServerStarter::getDescription() const {
    return requestServerHost + ":" + std::to_string(requestServerPort);
}

void RequestServerStarter::createCommandLine(std::vector<std::string>& args,
                                             const std::string& callbackId) const {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    const unsigned int port = server ? server->getPort() : 0;
    args.push_back(executable);
    args.push_back("-c");
    args.push_back(localHost + ":" + std::to_string(port) + ":" + callbackId);
    jobId.toCmd(args);
    if (!logFileSuffix.empty()) {
        args.push_back("-logFileSuffix");
        args.push_back(logFileSuffix);
    }
    for (const auto& arg : LoggingSettings::get()->getCmdArgs())
        args.push_back(arg);
    args.insert(args.end(), extraArguments.begin(), extraArguments.end());
}

std::string RequestServerStarter::joinCommandLine(const std::vector<std::string>& args) {
    std::string text;
    for (const auto& arg : args)
        text += arg + " ";
    return text;
}

std::vector<std::string> RequestServerStarter::splitReconnectString(const std::string& text) {
    std::vector<std::string> pieces;
    boost::split(pieces, text, boost::is_any_of(":"));
    return pieces;
}

std::string RequestServerStarter::reconnectPiece(const std::vector<std::string>& pieces,
                                                 size_t index) {
    return index < pieces.size() ? pieces[index] : std::string();
}

std::shared_ptr<RequestServerStarter>
RequestServerStarter::createFromReconnectString(const std::string& text) {
    const std::string prefix = text.substr(0, text.find(':'));
    if (prefix == LocalRequestServerStarter::getReconnectStringPrefix())
        return std::make_shared<LocalRequestServerStarter>(text);
    if (prefix == RemoteServiceRequestServerStarter::getReconnectStringPrefix())
        return std::make_shared<RemoteServiceRequestServerStarter>(text);
    return nullptr;
}

} // namespace Kestrane
