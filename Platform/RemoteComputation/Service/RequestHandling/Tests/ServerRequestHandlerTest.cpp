#include "HandlerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/CallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DisconnectRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetStatusRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Publisher.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReconnectRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ShutdownRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/GenericJobId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {

struct Decoded {
    std::shared_ptr<XmlRequest> xml;
    std::shared_ptr<Request> request;
};

Decoded decode(ServerRequestHandler& handler, const RequestEncoder& encoder) {
    Decoded result;
    result.xml = std::make_shared<XmlRequest>(encoder.getEncodedRequest(), true);
    result.request = handler.decodeRequest(*result.xml);
    return result;
}

RequestEncoder withOriginal(const std::string& type, const std::string& originalRequestId) {
    RequestEncoder encoder(type);
    encoder.addElement("originalRequestId", originalRequestId, "  ");
    return encoder;
}

// Sends a request and waits for its reply on a thread of its own.
class PendingRequest {
public:
    PendingRequest(TcpRequestClient& client, RequestEncoder request)
        : m_request(std::move(request)) {
        m_thread = std::thread([this, &client] {
            m_reply = client.handleRequest(m_request, nullptr, "");
            m_done = true;
        });
    }
    ~PendingRequest() {
        if (m_thread.joinable())
            m_thread.join();
    }
    const std::string& id() const { return m_request.getId(); }
    bool done() const { return m_done; }
    std::shared_ptr<Reply> join() {
        m_thread.join();
        return m_reply;
    }

private:
    RequestEncoder m_request;
    std::shared_ptr<Reply> m_reply;
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

std::string tempName(const std::string& leaf) {
    return "/tmp/ks-srh-" + std::to_string(::getpid()) + "-" + leaf;
}

} // namespace

TEST(ServerRequestHandlerTest, DecodesItsFourTypesAndCallbacks) {
    ServerRequestHandler handler(ownServer());
    EXPECT_EQ(handler.getDescription(), "ServerRequestHandler");

    auto status = decode(handler, RequestEncoder("GetStatusRequest"));
    ASSERT_NE(dynamic_cast<GetStatusRequest*>(status.request.get()), nullptr);
    EXPECT_EQ(status.request->getSourceString(), status.xml->getSourceString());
    EXPECT_FALSE(status.request->getSourceString().empty());
    EXPECT_TRUE(handler.canHandle(status.request.get()));

    auto shutdown = decode(handler, RequestEncoder("ShutdownRequest"));
    ASSERT_NE(dynamic_cast<ShutdownRequest*>(shutdown.request.get()), nullptr);
    EXPECT_EQ(shutdown.request->getSourceString(), shutdown.xml->getSourceString());
    EXPECT_TRUE(handler.canHandle(shutdown.request.get()));

    const std::string original = UniqueID::generateId();
    auto disconnect = decode(handler, withOriginal("DisconnectRequest", original));
    auto* disconnectRequest = dynamic_cast<DisconnectRequest*>(disconnect.request.get());
    ASSERT_NE(disconnectRequest, nullptr);
    EXPECT_EQ(disconnectRequest->getOriginalRequestId(), original);
    EXPECT_EQ(disconnect.request->getSourceString(), disconnect.xml->getSourceString());
    EXPECT_TRUE(handler.canHandle(disconnect.request.get()));

    auto reconnect = decode(handler, withOriginal("ReconnectRequest", original));
    auto* reconnectRequest = dynamic_cast<ReconnectRequest*>(reconnect.request.get());
    ASSERT_NE(reconnectRequest, nullptr);
    EXPECT_EQ(reconnectRequest->getOriginalRequestId(), original);
    EXPECT_EQ(reconnect.request->getSourceString(), reconnect.xml->getSourceString());
    EXPECT_TRUE(handler.canHandle(reconnect.request.get()));

    RequestEncoder callbackEncoder("CallbackRequest");
    callbackEncoder.addElement("callbackId", "5", "  ");
    callbackEncoder.addElement("host", "somewhere", "  ");
    callbackEncoder.addElement("port", 4321u, "  ");
    auto callback = decode(handler, callbackEncoder);
    auto* callbackRequest = dynamic_cast<CallbackRequest*>(callback.request.get());
    ASSERT_NE(callbackRequest, nullptr);
    EXPECT_EQ(callbackRequest->getCallbackId(), "5");
    EXPECT_EQ(callbackRequest->getPort(), 4321u);
    EXPECT_TRUE(handler.canHandle(callback.request.get()));

    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", original, "  ");
    auto foreign = decode(handler, abort);
    EXPECT_EQ(foreign.request, nullptr);
    AbortRequest abortRequest(foreign.xml->getRootElement());
    EXPECT_FALSE(handler.canHandle(&abortRequest));
    EXPECT_FALSE(handler.canHandle(nullptr));
}

TEST(ServerRequestHandlerTest, NullAndForeignRequestsThrow) {
    ServerRequestHandler handler(ownServer());
    expectNullAndForeignRequestsRefused(handler, "Kestrane::ServerRequestHandler::handle");
}

TEST(ServerRequestHandlerTest, StatusOfPlainProcessOverLoopback) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    const std::string ipBefore = server->getIp();
    TcpRequestClient client("status", loopbackHost(server->getPort()));
    auto reply = client.sendGetStatusRequest();
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->getType(), "GetStatusReply");
    EXPECT_EQ(reply->getElement("status"), "OK");
    EXPECT_EQ(reply->getElement("version"), BuildInformation::getGitRevision());
    // A plain client process names neither its program nor a job.
    EXPECT_EQ(reply->getDomElement("executableName"), nullptr);
    EXPECT_EQ(reply->getDomElement("jobId"), nullptr);
    const std::string storage = reply->getElement("availableTmpStorage");
    ASSERT_TRUE(std::regex_match(storage, std::regex("[0-9]+"))) << storage;
    EXPECT_GT(std::stoll(storage), 0);

    HostInfo requestHost(reply->getDomElement("requestHost"));
    EXPECT_EQ(requestHost.getName(), server->getHostName());
    EXPECT_EQ(requestHost.getIp(), "127.0.0.1");
    EXPECT_EQ(requestHost.getRequestServerPort(), server->getPort());

    HostInfo replyHost(reply->getDomElement("replyHost"));
    EXPECT_EQ(replyHost.getName(), server->getHostName());
    EXPECT_EQ(replyHost.getIp(), "127.0.0.1");
    EXPECT_EQ(replyHost.getRequestServerPort(), server->getPort());
    EXPECT_EQ(replyHost.getPublisherPort(), Publisher::getInstance()->getPort());
    // The client takes the publisher port from the reply.
    EXPECT_EQ(client.getPublisherPort(), Publisher::getInstance()->getPort());

    const std::string stamp = reply->getElement("timeStamp");
    EXPECT_TRUE(std::regex_match(stamp, std::regex("[0-9]+"))) << stamp;
    // The loopback address teaches the server nothing about its own.
    EXPECT_EQ(server->getIp(), ipBefore);
}

TEST(ServerRequestHandlerTest, StatusOverAnotherAddressTeachesTheServerItsAddress) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    // 127.0.0.2 is loopback as well, but not the address that the rule leaves out.
    ASSERT_NE(server->getIp(), "127.0.0.2");
    LogCapture capture;
    TcpRequestClient client("status", loopbackHost(server->getPort(), "127.0.0.2"));
    auto reply = client.sendGetStatusRequest();
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->getType(), "GetStatusReply");
    EXPECT_EQ(server->getIp(), "127.0.0.2");
    EXPECT_EQ(HostInfo(reply->getDomElement("replyHost")).getIp(), "127.0.0.2");
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "IP set to '127.0.0.2'"));

    // A second query by the same address does not set it again.
    capture.clear();
    ASSERT_NE(client.sendGetStatusRequest(), nullptr);
    EXPECT_FALSE(capture.contains("IP set to '127.0.0.2'"));
}

TEST(ServerRequestHandlerTest, TmpSpaceOfDirectoryAndOfFile) {
    const std::string dir = tempName("tmpdir");
    FileUtilities::createDirectories(FileName(dir));
    PathConfiguration::setKsPathTmp(FileName(dir));
    LogCapture capture;
    EXPECT_GT(ServerRequestHandler::getAvailableTmpSpace(), 0);

    // A file in place of the directory: the space of the directory that holds it.
    const std::string file = dir + "/plain-file";
    std::ofstream(file) << "x";
    PathConfiguration::setKsPathTmp(FileName(file));
    EXPECT_GT(ServerRequestHandler::getAvailableTmpSpace(), 0);
    EXPECT_EQ(capture.messages(LogLevel::Warn).size(), 0u);
    PathConfiguration::setKsPathTmp(FileName());
    FileUtilities::remove(FileName(dir));
}

TEST(ServerRequestHandlerTest, StatusReportsMinusOneWhenTmpPathCannotBeExamined) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    // Below a plain file no directory can be made, so the path cannot be examined.
    const std::string file = tempName("blocker");
    std::ofstream(file) << "x";
    PathConfiguration::setKsPathTmp(FileName(file + "/tmp"));
    LogCapture capture;
    EXPECT_EQ(ServerRequestHandler::getAvailableTmpSpace(), -1);
    EXPECT_TRUE(capture.containsSubstring("FileNameException: "));

    TcpRequestClient client("status", loopbackHost(server->getPort()));
    auto reply = client.sendGetStatusRequest();
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->getType(), "GetStatusReply");
    EXPECT_EQ(reply->getElement("availableTmpStorage"), "-1");
    EXPECT_EQ(reply->getElement("status"), "OK");
    PathConfiguration::setKsPathTmp(FileName());
    std::remove(file.c_str());
}

TEST(ServerRequestHandlerTest, StatusOfServerProgramNamesItsProgramAndJob) {
    ownServer();
    GenericJobId job(UniqueID::generateId(), "nightly");
    ServerProcess child({GenericJobId::c_tag, job.toString()});
    ASSERT_TRUE(child.start());
    ASSERT_GT(child.port(), 0);
    TcpRequestClient client("status", loopbackHost(child.port()));
    auto reply = client.sendGetStatusRequest();
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->getType(), "GetStatusReply");
    const std::string executable = reply->getElement("executableName");
    EXPECT_TRUE(std::regex_match(executable, std::regex(".*/ks-request-server"))) << executable;
    EXPECT_EQ(GenericJobId(reply->getDomElement("jobId")), job);
    HostInfo replyHost(reply->getDomElement("replyHost"));
    EXPECT_EQ(replyHost.getRequestServerPort(), child.port());
    EXPECT_EQ(replyHost.getPublisherPort(), child.publisherPort());
    client.shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
}

TEST(ServerRequestHandlerTest, StatusOfServerProgramWithoutJobHasNoJobId) {
    ownServer();
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    ASSERT_GT(child.port(), 0);
    TcpRequestClient client("status", loopbackHost(child.port()));
    auto reply = client.sendGetStatusRequest();
    ASSERT_NE(reply, nullptr);
    ASSERT_EQ(reply->getType(), "GetStatusReply");
    EXPECT_NE(reply->getDomElement("executableName"), nullptr);
    EXPECT_EQ(reply->getDomElement("jobId"), nullptr);
    client.shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
}

TEST(ServerRequestHandlerTest, ShutdownIsAnsweredAlthoughTheServerStops) {
    ownServer();
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    ASSERT_GT(child.port(), 0);
    TcpRequestClient client("shutdown", loopbackHost(child.port()));
    auto reply = client.handleRequest(RequestEncoder("ShutdownRequest"), nullptr, "");
    expectAck(reply);
    EXPECT_EQ(child.waitForExit(10000ms), 0);
    EXPECT_FALSE(RequestServer::ping("127.0.0.1", child.port()));
}

TEST(ServerRequestHandlerTest, DisconnectChangesNothingForTheRequestItNames) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    TcpRequestClient client("disconnect", loopbackHost(server->getPort()));
    PendingRequest wait(client, testRequest("WAIT", "1000"));
    ASSERT_TRUE(
        eventually([&] { return server->getRequestPackage(wait.id()) != nullptr; }, 5000ms));

    TcpRequestClient other("other", loopbackHost(server->getPort()));
    expectAck(other.handleRequest(withOriginal("DisconnectRequest", wait.id()), nullptr, ""));
    // Still registered, and its reply still reaches its client.
    EXPECT_NE(server->getRequestPackage(wait.id()), nullptr);
    auto reply = wait.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "OK");
}

// Through a LocalRequestClient a request has no connection, so a reconnect has nowhere to point
// the replies: a clear error reply, not a crash.
TEST(ServerRequestHandlerTest, ReconnectWithoutAConnectionIsAnErrorReply) {
    ASSERT_NE(ownServer(), nullptr);
    LogCapture capture;
    LocalRequestClient client(nullptr);
    const std::string original = UniqueID::generateId();
    RequestEncoder request = withOriginal("ReconnectRequest", original);
    auto reply = client.handleRequest(request, nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "ExceptionReply");
    EXPECT_EQ(reply->getRequestId(), request.getId());
    EXPECT_TRUE(capture.contains(
        LogLevel::Error,
        "ReconnectRequest without a connection: nowhere to send the replies of request " +
            original));
}

TEST(ServerRequestHandlerTest, ReconnectForUnknownRequestIsAcknowledged) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    LogCapture capture;
    const std::string unknown = UniqueID::generateId();
    TcpRequestClient client("reconnect", loopbackHost(server->getPort()));
    expectAck(client.handleRequest(withOriginal("ReconnectRequest", unknown), nullptr, ""));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Reconecting request " + unknown + "..."));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "Request " + unknown + " reconnected."));
}

// A request whose client has gone away is taken over by another client; a second reconnect
// for it finds nothing to send and is acknowledged all the same.
TEST(ServerRequestHandlerTest, ReconnectRedirectsTheReplyAndSecondReconnectIsAcknowledged) {
    RequestServer* server = ownServer();
    ASSERT_NE(server, nullptr);
    ServerProcess child({});
    ASSERT_TRUE(child.start());
    const int port = child.port();
    ASSERT_GT(port, 0);

    // The request names a reply port on which nobody listens, as a client that died would.
    RequestEncoder wait = testRequest("WAIT", "700");
    RequestPackageEncoder envelope(wait.getEncodedRequest(), UniqueID::generateId(), "");
    std::string package = envelope.getEncodedRequestPackage();
    const std::string ownPort = "replyPort=\"" + std::to_string(server->getPort()) + "\"";
    const size_t at = package.find(ownPort);
    ASSERT_NE(at, std::string::npos) << package;
    package.replace(at, ownPort.size(), "replyPort=\"" + std::to_string(closedPort()) + "\"");
    {
        Computing::ClientSocket socket;
        socket.connect("127.0.0.1", port);
        ASSERT_TRUE(SocketPacket::send("C", "PING", socket, "test"));
        auto pong = SocketPacket::receive(socket, "test");
        ASSERT_NE(pong, nullptr);
        ASSERT_EQ(*pong->getData(), "PONG");
        ASSERT_TRUE(SocketPacket::send("RQ", package, socket, "test"));
        ASSERT_TRUE(SocketPacket::send("C", "CLOSE_CONNECTION", socket, "test"));
        // The server has registered the request once it closes the connection.
        std::string rest;
        socket.receiveDataBlock(rest, 1 << 16);
    }

    TcpRequestClient client("reconnect", loopbackHost(port));
    auto reply = client.reconnectRequest(wait.getId(), nullptr, nullptr, nullptr, 0, FileName());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getRequestId(), wait.getId());
    EXPECT_EQ(reply->getElement("data"), "OK");

    expectAck(client.handleRequest(withOriginal("ReconnectRequest", wait.getId()), nullptr, ""));
    client.shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
}

TEST(ServerRequestHandlerTest, AbortRequestReachesARequestInAnotherProcess) {
    ownServer();
    ServerProcess child({"-logLevel", "DEBUG"});
    ASSERT_TRUE(child.start());
    ASSERT_GT(child.port(), 0);
    TcpRequestClient client("abort", loopbackHost(child.port()));
    PendingRequest running(client, testRequest("WAIT_PROGRESS", "10000"));
    // The child tells on standard error when the request has begun to wait.
    const std::string begun = "TestRequestHandler: WAIT_PROGRESS 0 ms";
    std::string errors =
        readPipe(child.process().getStandardErrorFd(), 10000ms,
                 [&](const std::string& text) { return text.find(begun) != std::string::npos; });
    ASSERT_NE(errors.find(begun), std::string::npos) << errors;

    const auto abortedAt = std::chrono::steady_clock::now();
    client.abortRequest(running.id());
    auto reply = running.join();
    EXPECT_LT(std::chrono::steady_clock::now() - abortedAt, 3000ms);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "ABORTED");
    client.shutdownRequestServer();
    EXPECT_EQ(child.waitForExit(10000ms), 0);
    errors += child.standardError();
    EXPECT_EQ(errors.find("TestRequestHandler: WAIT done"), std::string::npos);
}
