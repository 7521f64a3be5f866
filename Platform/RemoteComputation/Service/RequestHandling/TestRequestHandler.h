#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <memory>
#include <string>

namespace Kestrane {

class KSData;

// The built-in probe: one command word per request exercises one mechanism of the request layer
// (round trip, long run, progress, file and data transfer both ways, job queue, process death).
class TestRequestHandler : public AbstractRequestHandler {
public:
    TestRequestHandler();
    ~TestRequestHandler() override;

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    std::shared_ptr<std::string> handle(Request* request) override;

    // Runs one command and returns the encoded "TestReply". Public so that other handlers can
    // offer the same commands inside their own request types. "CRASH" does not return.
    static std::shared_ptr<std::string>
    handleTestRequest(Request* request, const std::string& command, const std::string& data,
                      const FileName& file, const std::shared_ptr<KSData>& attachment);

    // The file last received by "PUT_FILE". Used by one client at a time: no lock.
    static FileName s_testFile;
};

} // namespace Kestrane
