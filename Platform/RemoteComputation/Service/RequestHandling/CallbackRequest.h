#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"

#include <string>

namespace Kestrane {

// A started server's report to its starter: where it listens, or why it could not start.
class CallbackRequest : public Request {
public:
    explicit CallbackRequest(const xercesc::DOMElement* element);
    ~CallbackRequest() override;

    std::string getCallbackId() const { return callbackId; }
    unsigned int getPort() const { return port; }
    std::string getHost() const { return host; }
    std::string getErrorMessage() const { return errorMessage; }

    // In the started process: reports this process's server to the waiter named by `callback`
    // ("host:port:id" or "name:ip:port:id"), or `errorMessage` when it is not empty. True only
    // for an address that was acknowledged.
    static bool sendCallbackRequest(const std::string& callback, const std::string& errorMessage);
    // Has the process at host:port send the callback in its own name.
    static bool forwardCallback(const std::string& callback, const std::string& host,
                                unsigned int port);

private:
    std::string callbackId;
    unsigned int port = 0;
    std::string host;
    std::string errorMessage;
};

} // namespace Kestrane
