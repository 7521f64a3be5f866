#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

namespace Kestrane {
namespace Testing {

inline RequestServerConfiguration* settings() {
    return RequestServerConfiguration::getRegisteredInstance();
}

// This process's server; every test that talks to a server needs it for the replies.
inline RequestServer* ownServer() {
    RequestServer* server = RequestServer::getInstance(-1, 0);
    EXPECT_NE(server, nullptr);
    return server;
}

inline HostInfo loopbackHost(int port, const std::string& address = "127.0.0.1") {
    HostInfo host(address, "localhost");
    host.setRequestServerPort(port);
    return host;
}

// A port on which nothing listens: a listener that has just been closed.
inline int closedPort() {
    int port = 0;
    {
        Computing::ListenSocket listener(0, 1, 1);
        port = listener.getListenPort();
    }
    return port;
}

inline RequestEncoder testRequest(const std::string& command, const std::string& data = "") {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", command, "  ");
    if (!data.empty())
        encoder.addElement("data", data, "  ");
    return encoder;
}

// Checks that `reply` is an "AckReply" with the status "OK".
inline void expectAck(const std::shared_ptr<Reply>& reply) {
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "AckReply");
    EXPECT_EQ(reply->getElement("status"), "OK");
}

// A handler refuses a null request and a request of another handler (an AbortRequest) with the
// exact exceptions and error lines; `function` is the handler's handle function.
inline void expectNullAndForeignRequestsRefused(AbstractRequestHandler& handler,
                                                const std::string& function) {
    LogCapture capture;
    try {
        handler.handle(nullptr);
        ADD_FAILURE() << "no exception for a null request";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Can't handle NULL request.");
        EXPECT_EQ(e.getSource(), "RequestHandling");
        EXPECT_EQ(e.getFunction(), function);
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Can't handle NULL request."));

    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    XmlRequest xml(abort.getEncodedRequest(), true);
    AbortRequest foreign(xml.getRootElement());
    try {
        handler.handle(&foreign);
        ADD_FAILURE() << "no exception for a foreign request";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Unsuported request");
        EXPECT_EQ(e.getSource(), "Requesthandling");
        EXPECT_EQ(e.getFunction(), function);
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unsuported request 'AbortRequest'."));
}

// Polls `done` every 10 ms until it holds or `limit` has passed.
template <typename Done> bool eventually(Done done, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

} // namespace Testing
} // namespace Kestrane
