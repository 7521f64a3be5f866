#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Task.h"

#include <boost/thread/mutex.hpp>

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

class ReplyEncoder;
class RequestHandler;
class RequestPackage;
class RequestServer;

// Carries one request through the server: handles it, turns any failure into an
// "ExceptionReply", splits the reply's attachments off into packets and hands them to the
// server's reply delivery. Nothing goes back on the request's own connection.
class HandleRequestTask : public Tasks::Task {
public:
    HandleRequestTask(std::shared_ptr<RequestPackage> package, RequestHandler* handler,
                      RequestServer* server);
    ~HandleRequestTask() override;

    void execute() override;
    // Sends a "PR" package with the next serial; a failed send gives the serial back.
    void sendProgressUpdate(ReplyEncoder& encoder);
    // A "ProgressUpdate" encoder for this task's request.
    std::shared_ptr<ReplyEncoder> createProgressUpdate() const;

private:
    std::string handleRequest();
    // An "ExceptionReply" for this task's request; `add` puts the exception into it.
    template <typename Add> std::string exceptionReply(Add add) const;
    void prepareAndSend(std::string reply);

    std::shared_ptr<RequestPackage> requestPackage;
    RequestHandler* requestHandler;
    RequestServer* requestServer;
    int32_t serial = -1;
    boost::mutex serialMutex;
};

} // namespace Kestrane
