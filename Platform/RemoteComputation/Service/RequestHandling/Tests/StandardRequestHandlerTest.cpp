#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;

namespace {

// A request of a type that no built-in handler knows.
class ForeignRequest : public Request {
public:
    explicit ForeignRequest(const xercesc::DOMElement* element) : Request(element) {}
};

struct Decoded {
    std::shared_ptr<XmlRequest> xml;
    std::shared_ptr<Request> request;
};

Decoded decode(StandardRequestHandler& handler, const RequestEncoder& encoder) {
    Decoded result;
    result.xml = std::make_shared<XmlRequest>(encoder.getEncodedRequest(), true);
    result.request = handler.decodeRequest(*result.xml);
    return result;
}

} // namespace

TEST(StandardRequestHandlerTest, RequestHandlerRegistersTheTestElements) {
    RequestHandler handler("WithTestElements");
    const std::string schema = RequestXmlHelper::getInstance()->getSchemaText();
    EXPECT_NE(schema.find("<xs:element name=\"KS_TestJobId\">"), std::string::npos);
    EXPECT_NE(schema.find("<xs:element name=\"KS_TestJobIdJobStatus\">"), std::string::npos);
    EXPECT_NE(schema.find("<xs:complexType name=\"TestRequest\">"), std::string::npos);
    // A second handler registers nothing twice: the schema stays usable.
    RequestHandler second("Second");
    EXPECT_EQ(RequestXmlHelper::getInstance()->getSchemaText(), schema);
}

TEST(StandardRequestHandlerTest, ForwardsTestRequests) {
    RequestHandler::getDefaultRequestHandler();
    StandardRequestHandler handler;
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", "NOP", "  ");
    auto decoded = decode(handler, encoder);
    ASSERT_NE(decoded.request, nullptr);
    ASSERT_NE(dynamic_cast<TestRequest*>(decoded.request.get()), nullptr);
    EXPECT_EQ(decoded.request->getSourceString(), decoded.xml->getSourceString());
    EXPECT_TRUE(handler.canHandle(decoded.request.get()));
    auto text = handler.handle(decoded.request.get());
    ASSERT_NE(text, nullptr);
    auto reply = Reply::decode(*text);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getRequestId(), encoder.getId());
    EXPECT_EQ(reply->getElement("data"), "OK");
}

TEST(StandardRequestHandlerTest, ForwardsStartQueuedJobRequests) {
    RequestHandler::getDefaultRequestHandler();
    StandardRequestHandler handler;
    const std::string jobId = UniqueID::generateId();
    RequestEncoder encoder("StartQueuedJobRequest");
    encoder.addElement("jobId", jobId, "  ");
    encoder.addElement("cancelJob", true, "  ");
    encoder.addElement("errorMessage", "stopped", "  ");
    auto decoded = decode(handler, encoder);
    ASSERT_NE(decoded.request, nullptr);
    auto start = dynamic_cast<StartQueuedJobRequest*>(decoded.request.get());
    ASSERT_NE(start, nullptr);
    EXPECT_EQ(start->getJobId(), jobId);
    EXPECT_TRUE(handler.canHandle(decoded.request.get()));
    auto text = handler.handle(decoded.request.get());
    ASSERT_NE(text, nullptr);
    auto reply = Reply::decode(*text);
    EXPECT_EQ(reply->getType(), "AckReply");
    EXPECT_EQ(reply->getRequestId(), encoder.getId());
    EXPECT_EQ(reply->getElement("status"), "OK");
    // The cancel reached the queued-job state.
    EXPECT_TRUE(StartQueuedJobRequestHandler::waitForStartJobRequest(jobId, 0));
    EXPECT_EQ(StartQueuedJobRequestHandler::getErrorMessage(jobId), "stopped");
}

TEST(StandardRequestHandlerTest, StillAnswersAbortAndRefusesOtherTypes) {
    RequestHandler::getDefaultRequestHandler();
    StandardRequestHandler handler;
    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    auto decoded = decode(handler, abort);
    ASSERT_NE(decoded.request, nullptr);
    ASSERT_NE(dynamic_cast<AbortRequest*>(decoded.request.get()), nullptr);
    EXPECT_TRUE(handler.canHandle(decoded.request.get()));
    auto reply = Reply::decode(*handler.handle(decoded.request.get()));
    EXPECT_EQ(reply->getType(), "AckReply");

    // A type of the server's own handler.
    RequestXmlHelper::getInstance()->addSchema(ServerRequestSchema());
    RequestEncoder other("GetStatusRequest");
    auto otherDecoded = decode(handler, other);
    EXPECT_EQ(otherDecoded.request, nullptr);
    ForeignRequest foreign(otherDecoded.xml->getRootElement());
    EXPECT_FALSE(handler.canHandle(&foreign));
    EXPECT_FALSE(handler.canHandle(nullptr));
}

// Hosts register jobs while aborts by job id come in on several threads: every abort reaches the
// request of its own job.
TEST(StandardRequestHandlerTest, AbortsByJobIdOnManyThreadsFindTheirRequests) {
    RequestHandler::getDefaultRequestHandler();
    StandardRequestHandler handler;
    std::mutex seenMutex;
    std::multiset<std::string> seen;
    auto connection = handler.getAbortRequestSignal().connect(
        Signals::Slot<void(const std::string&)>([&](const std::string& id) {
            std::lock_guard<std::mutex> lock(seenMutex);
            seen.insert(id);
        }));
    constexpr int c_threads = 8;
    constexpr int c_jobs = 200;
    // Job ids and request ids have the id format.
    std::vector<std::vector<std::pair<std::string, std::string>>> jobs(c_threads);
    for (auto& ofThread : jobs)
        for (int j = 0; j < c_jobs; ++j)
            ofThread.emplace_back(UniqueID::generateId(), UniqueID::generateId());
    std::vector<std::thread> threads;
    for (int t = 0; t < c_threads; ++t)
        threads.emplace_back([&, t] {
            for (const auto& [job, requestId] : jobs[t]) {
                handler.addRequestIdForJobId(job, requestId);
                RequestEncoder abort("AbortRequest");
                abort.addElement("jobId", job, "  ");
                auto decoded = decode(handler, abort);
                ASSERT_NE(decoded.request, nullptr);
                auto reply = Reply::decode(*handler.handle(decoded.request.get()));
                EXPECT_EQ(reply->getType(), "AckReply");
            }
        });
    for (auto& thread : threads)
        thread.join();
    connection.disconnect();
    ASSERT_EQ(seen.size(), static_cast<size_t>(c_threads * c_jobs));
    for (const auto& ofThread : jobs)
        for (const auto& entry : ofThread)
            EXPECT_EQ(seen.count(entry.second), 1u);
}
