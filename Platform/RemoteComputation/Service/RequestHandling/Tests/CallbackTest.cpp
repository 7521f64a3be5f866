#include "HandlerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

// A callback string that leads to this process's own server.
std::string ownCallback(const std::string& id) {
    return "localhost:" + std::to_string(ownServer()->getPort()) + ":" + id;
}

std::string timeoutWarning(const std::string& id, int seconds) {
    return "Callback " + id + " NOT received before timeout (" + std::to_string(seconds) +
           " seconds). Is the name of the local host (" + ownServer()->getHostName() + ") correct?";
}

// Whether an info line tells that the callback `id` went out from this process's server.
bool sentLineFor(const LogCapture& capture, const std::string& id) {
    RequestServer* server = ownServer();
    const std::string tail = " (id=" + id + ", local=" + server->getHostName() + ":" +
                             std::to_string(server->getPort()) + ").";
    for (const auto& line : capture.messages(LogLevel::Info))
        if (line.rfind("Callback sent to ", 0) == 0 && line.size() > tail.size() &&
            line.compare(line.size() - tail.size(), tail.size(), tail) == 0)
            return true;
    return false;
}

std::string timeoutMessage() {
    return "Callback NOT received before timeout. Is the name of the local host (" +
           ownServer()->getHostName() + ") correct?";
}

} // namespace

TEST(CallbackTest, RequestReadsAddressOrErrorMessage) {
    CallbackRequestHandler handler(ownServer());
    EXPECT_EQ(handler.getDescription(), "CallbackRequestHandler");

    RequestEncoder address("CallbackRequest");
    address.addElement("callbackId", "12", "  ");
    address.addElement("host", "node7", "  ");
    address.addElement("port", 4711u, "  ");
    XmlRequest addressXml(address.getEncodedRequest(), true);
    auto decoded = handler.decodeRequest(addressXml);
    auto* callback = dynamic_cast<CallbackRequest*>(decoded.get());
    ASSERT_NE(callback, nullptr);
    EXPECT_EQ(callback->getCallbackId(), "12");
    EXPECT_EQ(callback->getHost(), "node7");
    EXPECT_EQ(callback->getPort(), 4711u);
    EXPECT_EQ(callback->getErrorMessage(), "");
    EXPECT_EQ(callback->getSourceString(), addressXml.getSourceString());
    EXPECT_TRUE(handler.canHandle(decoded.get()));

    RequestEncoder error("CallbackRequest");
    error.addElement("callbackId", "13", "  ");
    error.addElement("errorMessage", "licence missing", "  ");
    XmlRequest errorXml(error.getEncodedRequest(), true);
    auto decodedError = handler.decodeRequest(errorXml);
    auto* errorCallback = dynamic_cast<CallbackRequest*>(decodedError.get());
    ASSERT_NE(errorCallback, nullptr);
    EXPECT_EQ(errorCallback->getCallbackId(), "13");
    EXPECT_EQ(errorCallback->getErrorMessage(), "licence missing");
    EXPECT_EQ(errorCallback->getHost(), "");
    EXPECT_EQ(errorCallback->getPort(), 0u);

    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    XmlRequest abortXml(abort.getEncodedRequest(), true);
    EXPECT_EQ(handler.decodeRequest(abortXml), nullptr);
    AbortRequest foreign(abortXml.getRootElement());
    EXPECT_FALSE(handler.canHandle(&foreign));
    EXPECT_FALSE(handler.canHandle(nullptr));
}

TEST(CallbackTest, HandlerThrowsForNullAndForeignRequests) {
    CallbackRequestHandler handler(ownServer());
    expectNullAndForeignRequestsRefused(handler, "Kestrane::CallbackRequestHandler::handle");
}

TEST(CallbackTest, IdsCountFromOne) {
    EXPECT_EQ(CallbackRequestHandler::createCallbackId(), "1");
    EXPECT_EQ(CallbackRequestHandler::createCallbackId(), "2");
    EXPECT_EQ(CallbackRequestHandler::createCallbackId(), "3");
}

TEST(CallbackTest, StringsWithoutTwoSeparatorsAreRejected) {
    LogCapture capture;
    EXPECT_FALSE(CallbackRequest::sendCallbackRequest("host", ""));
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Invalid callback string (first ':' not found): \"host\""));
    EXPECT_FALSE(CallbackRequest::sendCallbackRequest("host:1234", ""));
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Invalid callback string (second ':' not found): \"host:1234\""));
    EXPECT_FALSE(capture.containsSubstring("Callback string: "));
}

TEST(CallbackTest, ThreeFieldsNameHostPortAndId) {
    ownServer();
    LogCapture capture;
    // Nobody is called "host" here: the attempt fails, and its line tells what was read.
    EXPECT_FALSE(CallbackRequest::sendCallbackRequest("host:1234:7", ""));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Callback string: \"host:1234:7\""));
    EXPECT_TRUE(capture.containsSubstring(
        "Exception while sending CallbackRequest to name='host' ip='' requestServerPort=1234 "
        "publisherPort=-1 with id '7': "));
}

TEST(CallbackTest, ThreeFieldCallbackReachesTheWaiter) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    const std::string ipBefore = server->getIp();
    const std::string id = CallbackRequestHandler::createCallbackId();
    LogCapture capture;
    EXPECT_TRUE(CallbackRequest::sendCallbackRequest(ownCallback(id), ""));
    EXPECT_TRUE(capture.containsSubstring("Handled CallbackRequest (id=" + id + ") from client "));
    EXPECT_TRUE(sentLineFor(capture, id));
    // The three-field form leaves the server's address alone.
    EXPECT_EQ(server->getIp(), ipBefore);

    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), server->getPort());
    EXPECT_EQ(error, "");
}

TEST(CallbackTest, FourFieldsSetTheServersAddress) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    // Another loopback address, so that the change shows.
    ASSERT_NE(server->getIp(), "127.0.0.2");
    const std::string id = CallbackRequestHandler::createCallbackId();
    const std::string callback = "name:127.0.0.2:" + std::to_string(server->getPort()) + ":" + id;
    LogCapture capture;
    EXPECT_TRUE(CallbackRequest::sendCallbackRequest(callback, ""));
    EXPECT_EQ(server->getIp(), "127.0.0.2");
    EXPECT_TRUE(sentLineFor(capture, id));
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), server->getPort());
}

TEST(CallbackTest, ErrorCallbackGetsNoReplyAndTheSenderDoesNotWait) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    const std::string id = CallbackRequestHandler::createCallbackId();
    LogCapture capture;
    // False, as for every error callback: true is kept for an acknowledged address.
    EXPECT_FALSE(CallbackRequest::sendCallbackRequest(ownCallback(id), "could not start"));
    EXPECT_FALSE(capture.containsSubstring("Callback sent to "));
    EXPECT_TRUE(capture.waitForSubstring(
        "Ignoring reply for HandleRequestTask: type=CallbackRequest, id=", 5000ms));
    EXPECT_FALSE(capture.containsSubstring("Sending reply for HandleRequestTask: "
                                           "type=CallbackRequest"));

    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), 0u);
    EXPECT_EQ(error, "could not start");
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "Error message for callback received: could not start"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Callback " + id + " received (port = 0)."));
    EXPECT_FALSE(capture.containsSubstring("Handled CallbackRequest (id=" + id + ") from client "));
}

TEST(CallbackTest, CallbackBeforeTheWaitIsFoundAtFirstTestAndAgainLater) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    const std::string id = CallbackRequestHandler::createCallbackId();
    ASSERT_TRUE(CallbackRequest::sendCallbackRequest(ownCallback(id), ""));
    LogCapture capture;
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), server->getPort());
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), server->getPort());
    EXPECT_EQ(error, "");
    EXPECT_FALSE(capture.contains("Waiting for callback " + id));
    EXPECT_EQ(capture.count("Callback " + id +
                            " received (port = " + std::to_string(server->getPort()) + ")."),
              2u);
}

TEST(CallbackTest, SecondWaitAfterErrorCallbackGivesZeroAgain) {
    ownServer();
    const std::string id = CallbackRequestHandler::createCallbackId();
    EXPECT_FALSE(CallbackRequest::sendCallbackRequest(ownCallback(id), "broken"));
    std::string first;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, first), 0u);
    EXPECT_EQ(first, "broken");
    LogCapture capture;
    std::string second;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, second), 0u);
    EXPECT_EQ(second, "broken");
    EXPECT_FALSE(capture.contains("Waiting for callback " + id));
}

TEST(CallbackTest, WaitIsWokenByACallbackThatComesLater) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    settings()->setValue("callbackTimeout", "20");
    const std::string id = CallbackRequestHandler::createCallbackId();
    LogCapture capture;
    std::thread sender([&] {
        ASSERT_TRUE(capture.waitFor("Waiting for callback " + id, 5000ms));
        EXPECT_TRUE(CallbackRequest::sendCallbackRequest(ownCallback(id), ""));
    });
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), server->getPort());
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    sender.join();
    EXPECT_EQ(error, "");
}

TEST(CallbackTest, TimeoutOfOneSecond) {
    ownServer();
    settings()->setValue("callbackTimeout", "1");
    const std::string id = CallbackRequestHandler::createCallbackId();
    LogCapture capture;
    const auto start = std::chrono::steady_clock::now();
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), 0u);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 900ms);
    EXPECT_EQ(error, timeoutMessage());
    EXPECT_TRUE(capture.contains(LogLevel::Warn, timeoutWarning(id, 1)));
}

TEST(CallbackTest, TimeoutZeroSkipsTheWaitEvenIfTheCallbackComesJustAfter) {
    ownServer();
    settings()->setValue("callbackTimeout", "0");
    const std::string id = CallbackRequestHandler::createCallbackId();
    LogCapture capture;
    std::string error;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), 0u);
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Waiting for callback " + id));
    bool skipped = false;
    for (const auto& line : capture.messages(LogLevel::Debug))
        skipped = skipped || line.rfind("Skipping short wait: ", 0) == 0;
    EXPECT_TRUE(skipped);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, timeoutWarning(id, 0)));
    EXPECT_EQ(error, timeoutMessage());

    // The callback a moment later is kept, and a later wait finds it.
    ASSERT_TRUE(CallbackRequest::sendCallbackRequest(ownCallback(id), ""));
    std::string later;
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, later), ownServer()->getPort());
}

TEST(CallbackTest, ForwardedCallbackIsSentByTheOtherProcess) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    const int port = child.port();
    ASSERT_GT(port, 0);
    const std::string id = CallbackRequestHandler::createCallbackId();
    LogCapture capture;
    EXPECT_TRUE(CallbackRequest::forwardCallback(ownCallback(id), "127.0.0.1", port));
    EXPECT_TRUE(capture.contains(LogLevel::Info,
                                 "Forwarding callback to 127.0.0.1:" + std::to_string(port) + " (" +
                                     ownCallback(id) + ")."));
    std::string error;
    // The port is the other process's: it called back in its own name.
    EXPECT_EQ(CallbackRequestHandler::waitForCallback(id, error), static_cast<unsigned>(port));

    // A callback that the other process cannot deliver comes back as "ERROR".
    const std::string unreachable = "localhost:" + std::to_string(closedPort()) + ":99";
    EXPECT_FALSE(CallbackRequest::forwardCallback(unreachable, "127.0.0.1", port));
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Error forwarding callback to 127.0.0.1:" + std::to_string(port) +
                                     " (" + unreachable + ")."));
    TcpRequestClient(std::string("stop"), loopbackHost(port)).shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
}

TEST(CallbackTest, ForwardToNobodyIsAnException) {
    LogCapture capture;
    const int port = closedPort();
    EXPECT_FALSE(CallbackRequest::forwardCallback("localhost:1:1", "127.0.0.1", port));
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Exception forwarding callback to 127.0.0.1:" +
                                                     std::to_string(port) + " (localhost:1:1)."));
}
