#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"

#include <boost/thread/condition_variable.hpp>
#include <boost/thread/mutex.hpp>

#include <map>
#include <memory>
#include <string>
#include <utility>

namespace Kestrane {

class Progress;
class RequestServer;

// Receives the callbacks of started servers and wakes the starter that waits for one. The state
// is shared by all instances: a starter waits without a handler object.
class CallbackRequestHandler : public AbstractRequestHandler {
public:
    explicit CallbackRequestHandler(RequestServer* server);

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    // An error callback gets no reply at all.
    std::shared_ptr<std::string> handle(Request* request) override;

    // A new id for a callback string; the first is "1".
    static std::string createCallbackId();
    // The port of the server that called back; 0 after a time-out or an error callback, with the
    // reason in `errorMessage`.
    static unsigned int waitForCallback(const std::string& id, std::string& errorMessage);
    // Host and port of the server that job `jobId` runs, asking the job scheduler through
    // `script` every jsUpdateInterval seconds (or at a callback) whether the job may still call
    // back; no time limit. An empty host and port 0 with `errorMessage` when the job has ended
    // or its state can't be had. Error callbacks are not looked at.
    static std::pair<std::string, unsigned int>
    waitForJobSchedulerCallback(const std::string& id, const std::string& script, int jobId,
                                std::string& errorMessage, std::shared_ptr<Progress> progress);

private:
    struct Callback {
        std::string host;
        unsigned int port = 0;
    };

    RequestServer* server;

    static int callbackIdCounter;
    static boost::mutex callbackIdMutex;
    static std::map<std::string, Callback> callbacks;
    static std::map<std::string, std::string> callbackErrors;
    static boost::mutex callbackMutex;
    static boost::condition_variable_any callbackCondition;
};

} // namespace Kestrane
