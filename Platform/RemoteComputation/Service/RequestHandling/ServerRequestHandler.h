#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

class CallbackRequestHandler;
class RequestServer;

// Answers the requests about the server itself: status, shutdown, disconnect, reconnect, and
// (through its CallbackRequestHandler) callbacks of started servers.
class ServerRequestHandler : public AbstractRequestHandler {
public:
    explicit ServerRequestHandler(RequestServer* server);
    ~ServerRequestHandler() override;
    ServerRequestHandler(const ServerRequestHandler&) = delete;
    ServerRequestHandler& operator=(const ServerRequestHandler&) = delete;

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    std::shared_ptr<std::string> handle(Request* request) override;

    // Free bytes where temporary files go; -1 when that cannot be told.
    static int64_t getAvailableTmpSpace();

private:
    std::string handleGetStatus(Request& request);

    RequestServer* server;
    CallbackRequestHandler* callbackRequestHandler;
};

} // namespace Kestrane
