#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Signals.h"

#include <boost/thread/mutex.hpp>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Kestrane {

class AbstractRequestSchema;
class Progress;
class RemoteJobStatusInterface;

// Turns a decoded request into a reply text: the first handler of the chain that can decode a
// request decodes it, the first that can handle it handles it. Keeps the table of requests under
// execution, so that an abort reaches a running request, and also one that has not started yet.
class RequestHandler : public AbstractRequestHandler {
public:
    explicit RequestHandler(const std::string& name);
    ~RequestHandler() override;

    // The process's instance, made on first use and never destroyed.
    static RequestHandler* getDefaultRequestHandler();

    // Appends a handler and registers its schema fragment. Meant for set-up, before requests
    // flow: it takes no lock.
    void addRequestHandler(std::shared_ptr<AbstractRequestHandler> handler,
                           const AbstractRequestSchema& schema);
    void addRequestSchema(const AbstractRequestSchema& schema);

    // Over the chain; decoding is serialised.
    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override;
    bool canHandle(Request* request) override;
    // A trap: use handle(std::shared_ptr<Request>). Logs an error and returns null.
    std::shared_ptr<std::string> handle(Request* request) override;
    std::string getDescription() const override { return m_description; }

    // The whole road from XML text to reply for a caller in this process. Exceptions pass.
    virtual std::shared_ptr<std::string> handle(const std::string& xml,
                                                std::shared_ptr<Progress> progress,
                                                const std::string& clientDescription,
                                                std::shared_ptr<RemoteJobStatusInterface> jobStatus,
                                                bool wrap);
    virtual void abortRequest(const std::string& requestId);

    // Runs a decoded request through its handler, registered as running. Exceptions pass.
    std::shared_ptr<std::string> handle(std::shared_ptr<Request> request);

    size_t getRunningRequestCount();
    bool isAbortedRequestId(const std::string& requestId);

private:
    virtual std::shared_ptr<std::string> handleRequest(Request* request);

    std::string m_description;
    std::vector<std::shared_ptr<AbstractRequestHandler>> m_handlers;
    std::map<std::string, std::shared_ptr<Request>> m_runningRequests;
    std::set<std::string> m_abortedRequests;
    boost::mutex m_requestsMutex;
    mutable boost::mutex m_decodeMutex;
    Signals::Connection m_abortConnection;

    static RequestHandler* s_defaultRequestHandler;
    static boost::mutex s_defaultRequestHandlerMutex;
};

} // namespace Kestrane
