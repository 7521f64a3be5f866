#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// Brings a RequestServer process into being for a client that has none, and tells where it is.
// The started program learns from its command line ("-c host:port:id") how to reach this
// process's own RequestServer, and reports its port back by a callback. The concrete ways to
// start are a local process, a starter service on another host, and a job scheduler.
class RequestServerStarter {
public:
    RequestServerStarter(const RequestServerStarter&) = default;
    RequestServerStarter& operator=(const RequestServerStarter&) = default;
    virtual ~RequestServerStarter();

    // "host:port" of the started server.
    virtual std::string getDescription() const;
    // Blocks until the started server has called back, or the start failed (see
    // getErrorMessage()). Throws nothing of its own. Can be called again: it starts another
    // process and overwrites what the last start found.
    virtual bool startRequestServer() = 0;
    // Fields joined by ':', read back by createFromReconnectString. A ':' inside a field is not
    // escaped: it shifts the later fields.
    virtual std::string getReconnectString() const = 0;

    const std::string& getErrorMessage() const { return errorMessage; }
    unsigned int getRequestServerPort() const { return requestServerPort; }
    const std::string& getRequestServerHost() const { return requestServerHost; }
    const std::string& getExecutable() const { return executable; }
    const GenericJobId& getJobId() const { return jobId; }

    // Arguments for the started program behind all the others, e.g. options of its own.
    void setExtraArguments(const std::vector<std::string>& arguments) {
        extraArguments = arguments;
    }

    // The starter that a reconnect string of a local or remote service starter describes; null
    // for any other prefix, "JobScheduler" included: a job can't be restarted from its string.
    static std::shared_ptr<RequestServerStarter> createFromReconnectString(const std::string& text);

protected:
    RequestServerStarter(const std::string& executable, const GenericJobId& jobId,
                         const std::string& logFileSuffix);

    // The started program's command line: executable, "-c", localHost + ":" + the port of this
    // process's RequestServer + ":" + callbackId, the job id's arguments, "-logFileSuffix" and
    // the suffix when there is one, the logging arguments of this process, the extra arguments.
    void createCommandLine(std::vector<std::string>& args, const std::string& callbackId) const;
    // The command line as one text for messages: each argument followed by one blank.
    static std::string joinCommandLine(const std::vector<std::string>& args);
    // Piece `index` of a reconnect string cut at every ':'; empty when there are fewer.
    static std::string reconnectPiece(const std::vector<std::string>& pieces, size_t index);
    static std::vector<std::string> splitReconnectString(const std::string& text);

    std::string errorMessage;
    unsigned int requestServerPort = 0;
    std::string localHost;
    std::string requestServerHost;
    std::string executable;
    GenericJobId jobId;
    std::string logFileSuffix;
    std::vector<std::string> extraArguments;
};

} // namespace Kestrane
