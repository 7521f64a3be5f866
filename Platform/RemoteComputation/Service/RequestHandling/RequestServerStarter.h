#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"

#include <memory>
#include <string>

namespace Kestrane {

// Brings a RequestServer process into being for a client that has none, and tells where it is.
// The concrete ways to start (local process, remote starter service, job scheduler) derive from
// this class.
class RequestServerStarter {
public:
    RequestServerStarter(const RequestServerStarter&) = default;
    RequestServerStarter& operator=(const RequestServerStarter&) = default;
    virtual ~RequestServerStarter();

    // "host:port" of the started server.
    virtual std::string getDescription() const;
    // Blocks until the started server has called back, or the start failed (see
    // getErrorMessage()).
    virtual bool startRequestServer() = 0;
    virtual std::string getReconnectString() const = 0;
    // True for a starter that runs the server as a process on this host; the client then
    // checks its server at the shorter local interval.
    virtual bool startsLocalProcess() const { return false; }

    const std::string& getErrorMessage() const { return errorMessage; }
    unsigned int getRequestServerPort() const { return requestServerPort; }
    const std::string& getRequestServerHost() const { return requestServerHost; }

    // A starter rebuilt from getReconnectString(); null for a prefix that cannot be restarted
    // (or that no starter of this build knows).
    static std::shared_ptr<RequestServerStarter> createFromReconnectString(const std::string& text);

protected:
    RequestServerStarter(const std::string& executable, const GenericJobId& jobId,
                         const std::string& logFileSuffix);

    std::string errorMessage;
    unsigned int requestServerPort = 0;
    std::string localHost;
    std::string requestServerHost;
    std::string executable;
    GenericJobId jobId;
    std::string logFileSuffix;
};

} // namespace Kestrane
