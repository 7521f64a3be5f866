#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"

namespace Kestrane {

// Starts the server as a process on this host. The process runs in a session of its own, reads
// /dev/null, and writes its output to a file in the temporary directory, so that it outlives
// its starter cleanly and holds none of the starter's streams open.
class LocalRequestServerStarter : public RequestServerStarter {
public:
    LocalRequestServerStarter(const std::string& executable, const GenericJobId& jobId,
                              const std::string& logFileSuffix);
    // From "Local:<executable>:<job id>". The host fields stay as the base makes them.
    explicit LocalRequestServerStarter(const std::string& reconnectString);

    // The base text once started, "localhost" before.
    std::string getDescription() const override;
    bool startRequestServer() override;
    std::string getReconnectString() const override;

    // "Local"
    static std::string getReconnectStringPrefix();
    // Where the output of the last started process goes; empty before the first start.
    const std::string& getOutputFile() const { return outputFile; }

private:
    std::string outputFileFor(const std::string& callbackId) const;

    std::string outputFile;
};

} // namespace Kestrane
