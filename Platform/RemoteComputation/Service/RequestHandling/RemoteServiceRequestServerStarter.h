#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"

namespace Kestrane {

// Starts the server on another host through the starter service (ks-remote-service) that
// listens there on `remoteServicePort`; the server then calls back to this process.
class RemoteServiceRequestServerStarter : public RequestServerStarter {
public:
    RemoteServiceRequestServerStarter(const std::string& executable, const std::string& remoteHost,
                                      unsigned int remoteServicePort, const GenericJobId& jobId,
                                      const std::string& logFileSuffix);
    // From "RemoteService:<executable>:<host>:<port>:<job id>"; a port that is not a number
    // throws boost::bad_lexical_cast.
    explicit RemoteServiceRequestServerStarter(const std::string& reconnectString);

    // The base text once started, the remote host before.
    std::string getDescription() const override;
    bool startRequestServer() override;
    std::string getReconnectString() const override;

    // "RemoteService"
    static std::string getReconnectStringPrefix();
    // A local starter for "localhost" (and the test name "secondNameForLocalhostForTesting"),
    // whatever the port; the remote service form for every other host.
    static std::shared_ptr<RequestServerStarter> createRemoteServiceOrLocalRequestServerStarter(
        const std::string& executable, const std::string& remoteHost,
        unsigned int remoteServicePort, const GenericJobId& jobId,
        const std::string& logFileSuffix);

    const std::string& getRemoteHost() const { return remoteHost; }
    unsigned int getRemoteServicePort() const { return remoteServicePort; }

private:
    // "host '<host>' using remote service on port '<port>'", as every message names them.
    std::string where() const;

    std::string remoteHost;
    unsigned int remoteServicePort = 0;
};

} // namespace Kestrane
