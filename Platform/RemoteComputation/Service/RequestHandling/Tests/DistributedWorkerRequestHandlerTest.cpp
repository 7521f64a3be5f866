// The door of the worker protocol: which requests it decodes, where it passes them, and what it
// refuses.
#include "DistributedWorkerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Kestrane;
using namespace Kestrane::Testing;

namespace {

const std::string c_function = "Kestrane::DistributedWorkerRequestHandler::handle";

class DistributedWorkerRequestHandlerTest : public DistributedWorkerTest {
protected:
    std::shared_ptr<DistributedWorkerRequestHandler> handler =
        DistributedWorkerRequestHandler::getInstance();

    // Runs the request through the handler and decodes the reply.
    std::shared_ptr<Reply> handle(Request& request) {
        auto text = handler->handle(&request);
        EXPECT_NE(text, nullptr);
        auto reply = decodeReply(text);
        EXPECT_NE(reply, nullptr);
        if (reply) {
            EXPECT_EQ(reply->getRequestId(), request.getId());
        }
        return reply;
    }

    static GenericJobId job() { return GenericJobId(UniqueID::generateId(), "handlerJob"); }
};

} // namespace

TEST_F(DistributedWorkerRequestHandlerTest, OneInstanceForTheProcess) {
    EXPECT_EQ(DistributedWorkerRequestHandler::getInstance(), handler);
    EXPECT_EQ(handler->getDescription(), "DistributedWorkerRequestHandler");
}

TEST_F(DistributedWorkerRequestHandlerTest, InputRequestForAnUnknownPool) {
    auto request = inputRequest(UniqueID::generateId(), "worker_a");
    EXPECT_TRUE(handler->canHandle(request.get()));
    auto reply = handle(*request);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "GetDistributedWorkerInputReply");
    EXPECT_EQ(reply->getElement("status"), "POOL_NOT_FOUND");
}

TEST_F(DistributedWorkerRequestHandlerTest, CallbackAndResultForAnUnknownPool) {
    auto callback = callbackRequest(UniqueID::generateId(), 3, loopbackHost(closedPort()));
    auto callbackReply = handle(*callback);
    ASSERT_NE(callbackReply, nullptr);
    EXPECT_EQ(callbackReply->getType(), "AckReply");
    EXPECT_EQ(callbackReply->getElement("status"), "POOL_NOT_FOUND");

    auto result = resultRequest(UniqueID::generateId(), UniqueID::generateId(), "OK");
    auto resultReply = handle(*result);
    ASSERT_NE(resultReply, nullptr);
    EXPECT_EQ(resultReply->getType(), "AckReply");
    EXPECT_EQ(resultReply->getElement("status"), "POOL_NOT_FOUND");
}

TEST_F(DistributedWorkerRequestHandlerTest, RequestsReachThePoolTheyName) {
    TestPool pool;
    TestPool other;
    auto task = std::make_shared<TestTask>(4);
    pool.addTask(task);

    auto input = inputRequest(pool.getId(), "worker_a");
    auto reply = handle(*input);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), c_testInputReplyType);
    EXPECT_EQ(reply->getElement("status"), "OK");
    EXPECT_EQ(reply->getElement("taskId"), task->getId());
    EXPECT_EQ(other.getRunningTaskCount(), 0u);

    auto result = resultRequest(pool.getId(), task->getId(), "OK");
    auto ack = handle(*result);
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->getType(), "AckReply");
    EXPECT_EQ(ack->getElement("status"), "OK");
    auto results = pool.getResults();
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].endedTask, task);
    EXPECT_TRUE(other.getResults().empty());
}

TEST_F(DistributedWorkerRequestHandlerTest, RunRequestThatNoImplementationTakesIsRefused) {
    // One implementation takes no run request, the other only the test's own type.
    auto refusing = std::make_shared<TestWorkerImpl>();
    refusing->acceptRunRequests = false;
    handler->addImplementation(refusing);
    auto picky = std::make_shared<TestWorkerImpl>();
    handler->addImplementation(picky);
    auto run = decodeAs<TestRunRequest>(
        runEncoder(UniqueID::generateId(), "worker_a", job(), 1, false, c_otherRunRequestType));
    EXPECT_TRUE(handler->canHandle(run.get()));
    try {
        handler->handle(run.get());
        ADD_FAILURE() << "no exception for a run request that nobody takes";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Unsupported request");
        EXPECT_EQ(e.getFunction(), c_function);
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unsuported request '" +
                                                      std::string(c_otherRunRequestType) + "'."));
    EXPECT_EQ(refusing->canHandleCalls.load(), 1);
    EXPECT_EQ(picky->canHandleCalls.load(), 1);
    EXPECT_EQ(refusing->doWorkCalls() + picky->doWorkCalls(), 0u);
    EXPECT_FALSE(capture.containsSubstring("Starting execution of DistributedWorker"));
}

TEST_F(DistributedWorkerRequestHandlerTest, DecodesItsOwnTypesAndAsksTheImplementations) {
    const std::string poolId = UniqueID::generateId();
    const std::string taskId = UniqueID::generateId();

    XmlRequest inputXml(inputEncoder(poolId, "worker_a").getEncodedRequest(), true);
    auto input = std::dynamic_pointer_cast<GetDistributedWorkerInputRequest>(
        handler->decodeRequest(inputXml));
    ASSERT_NE(input, nullptr);
    EXPECT_EQ(input->getPoolId(), poolId);
    EXPECT_EQ(input->getName(), "worker_a");

    XmlRequest resultXml(resultEncoder(poolId, taskId, "OK").getEncodedRequest(), true);
    auto result = std::dynamic_pointer_cast<DistributedWorkerResultRequest>(
        handler->decodeRequest(resultXml));
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(result->getTaskId(), taskId);

    XmlRequest callbackXml(callbackEncoder(poolId, 2, loopbackHost(4711)).getEncodedRequest(),
                           true);
    auto callback = std::dynamic_pointer_cast<DistributedWorkerCallbackRequest>(
        handler->decodeRequest(callbackXml));
    ASSERT_NE(callback, nullptr);
    EXPECT_EQ(callback->getWorkerId(), 2u);

    // A run request is a program's own type: one that no implementation knows decodes to null,
    // after every implementation was asked.
    XmlRequest otherXml(
        runEncoder(poolId, "worker_a", job(), 1, true, c_otherRunRequestType).getEncodedRequest(),
        true);
    std::shared_ptr<Request> unknown;
    EXPECT_NO_THROW(unknown = handler->decodeRequest(otherXml));
    EXPECT_EQ(unknown, nullptr);
    auto refusing = std::make_shared<TestWorkerImpl>();
    refusing->acceptRunRequests = false;
    handler->addImplementation(refusing);
    EXPECT_EQ(handler->decodeRequest(otherXml), nullptr);
    EXPECT_EQ(refusing->decodeCalls.load(), 1);

    auto accepting = std::make_shared<TestWorkerImpl>();
    handler->addImplementation(accepting);
    XmlRequest runXml(runEncoder(poolId, "worker_a", job(), 1, true).getEncodedRequest(), true);
    auto run = std::dynamic_pointer_cast<TestRunRequest>(handler->decodeRequest(runXml));
    ASSERT_NE(run, nullptr);
    EXPECT_EQ(run->getName(), "worker_a");

    // The three own types never reach the implementations.
    const int asked = refusing->decodeCalls.load();
    EXPECT_NE(handler->decodeRequest(inputXml), nullptr);
    EXPECT_NE(handler->decodeRequest(resultXml), nullptr);
    EXPECT_NE(handler->decodeRequest(callbackXml), nullptr);
    EXPECT_EQ(refusing->decodeCalls.load(), asked);

    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    XmlRequest abortXml(abort.getEncodedRequest(), true);
    EXPECT_EQ(handler->decodeRequest(abortXml), nullptr);
}

TEST_F(DistributedWorkerRequestHandlerTest, NullRequestIsRefused) {
    try {
        handler->handle(nullptr);
        ADD_FAILURE() << "no exception for a null request";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Can't handle NULL request.");
        EXPECT_EQ(e.getFunction(), c_function);
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Can't handle NULL request."));
}

TEST_F(DistributedWorkerRequestHandlerTest, RequestOfAnotherKindIsRefused) {
    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    XmlRequest xml(abort.getEncodedRequest(), true);
    AbortRequest foreign(xml.getRootElement());
    EXPECT_FALSE(handler->canHandle(&foreign));
    EXPECT_FALSE(handler->canHandle(nullptr));
    try {
        handler->handle(&foreign);
        ADD_FAILURE() << "no exception for a request of another kind";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Unsupported request");
        EXPECT_EQ(e.getFunction(), c_function);
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unsuported request 'AbortRequest'."));
}
