#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

using namespace Kestrane;

namespace {
// An abort request in a package, as it arrives from a client.
std::shared_ptr<RequestPackage> package(RequestServer* server, const std::string& text) {
    RequestPackageEncoder encoder(text, "client", "");
    return RequestPackage::decode(encoder.getEncodedRequestPackage(), *server->getRequestHandler(),
                                  nullptr, "127.0.0.1", "127.0.0.1");
}

std::string abortRequest(RequestEncoder& encoder) {
    encoder.addElement("requestId", UniqueID::generateId(), "  ");
    return encoder.getEncodedRequest();
}
} // namespace

TEST(RequestServerRegistryTest, AddGetRemoveWithTheirLogLines) {
    LogCapture capture;
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(server->getRequestHandler(), RequestHandler::getDefaultRequestHandler());
    RequestEncoder encoder("AbortRequest");
    auto first = package(server, abortRequest(encoder));
    std::string id = encoder.getId();
    EXPECT_EQ(server->getRequestPackage(id), nullptr);
    server->addRequestPackage(first);
    EXPECT_EQ(server->getRequestPackage(id), first);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Added AbortRequest request " + id));
    // The same id again overwrites the entry.
    auto second = package(server, encoder.getEncodedRequest());
    server->addRequestPackage(second);
    EXPECT_EQ(server->getRequestPackage(id), second);
    server->removeRequestPackage(second);
    EXPECT_EQ(server->getRequestPackage(id), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Removed AbortRequest request " + id));
    // The reply of a registered request goes to the client's own server.
    EXPECT_EQ(second->getRemoteHost().getRequestServerPort(), server->getPort());
    EXPECT_EQ(second->getRemoteHost().getIp(), "127.0.0.1");
}

TEST(RequestServerRegistryTest, JobIdIsInvalidUntilSet) {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    ASSERT_NE(server, nullptr);
    EXPECT_FALSE(server->getJobId().isValid());
    GenericJobId job(UniqueID::generateId(), "solver");
    server->setJobId(job);
    EXPECT_EQ(server->getJobId().toString(), job.toString());
    server->setExecutableName("solver-bin");
    EXPECT_EQ(server->getExecutableName(), "solver-bin");
}
