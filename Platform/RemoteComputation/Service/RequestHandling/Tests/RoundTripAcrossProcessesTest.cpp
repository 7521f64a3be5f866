#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/TestSupport/ServerProcess.h"

#include <gtest/gtest.h>

using namespace Kestrane;

namespace {

RequestEncoder testRequest(const std::string& command) {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", command, "  ");
    return encoder;
}

HostInfo hostOf(Testing::ServerProcess& server) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(server.port());
    host.setPublisherPort(server.publisherPort());
    return host;
}

} // namespace

TEST(RoundTripAcrossProcessesTest, NopAndStatus) {
    Testing::ServerProcess server({});
    ASSERT_TRUE(server.start());
    ASSERT_GT(server.port(), 0);
    ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr);
    TcpRequestClient client("test", hostOf(server));
    auto reply = client.handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    auto status = client.sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->getType(), "GetStatusReply");
    EXPECT_EQ(status->getElement("status"), "OK");
    client.shutdownRequestServer();
    EXPECT_EQ(server.waitForExit(std::chrono::milliseconds(10000)), 0);
}
