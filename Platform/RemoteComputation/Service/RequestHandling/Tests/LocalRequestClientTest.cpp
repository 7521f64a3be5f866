#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbstractRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogMessage.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <thread>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

class LocalTestSchema : public AbstractRequestSchema {
public:
    LocalTestSchema() {
        m_schemaText =
            "<!-- LocalTestSchema -->\n"
            "<xs:complexType name=\"LocalTestRequest\">\n"
            " <xs:complexContent><xs:extension base=\"ksrq:Request\">\n"
            "  <xs:sequence><xs:element name=\"mode\" type=\"xs:string\"/></xs:sequence>\n"
            " </xs:extension></xs:complexContent>\n"
            "</xs:complexType>\n"
            "<xs:complexType name=\"LocalTestReply\">\n"
            " <xs:complexContent><xs:extension base=\"ksrq:Reply\">\n"
            "  <xs:sequence>\n"
            "   <xs:element name=\"client\" type=\"xs:string\"/>\n"
            "   <xs:element name=\"aborted\" type=\"xs:string\"/>\n"
            "  </xs:sequence>\n"
            " </xs:extension></xs:complexContent>\n"
            "</xs:complexType>\n";
    }
};

class LocalTestRequest : public Request {
public:
    explicit LocalTestRequest(const xercesc::DOMElement* element)
        : Request(element), mode(XmlUtils::getElementContent("mode", element)) {}
    std::string mode;
};

class LocalTestHandler : public AbstractRequestHandler {
public:
    LocalTestHandler() : AbstractRequestHandler("LocalTestHandler") {}
    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override {
        if (request.getType() != "LocalTestRequest")
            return nullptr;
        return std::make_shared<LocalTestRequest>(request.getRootElement());
    }
    bool canHandle(Request* request) override {
        return dynamic_cast<LocalTestRequest*>(request) != nullptr;
    }
    std::shared_ptr<std::string> handle(Request* request) override {
        auto r = static_cast<LocalTestRequest*>(request);
        {
            std::lock_guard<std::mutex> lock(mutex);
            clientDescription = r->getClientDescription();
        }
        r->sendLogMessage(LogMessage("working on " + r->mode, LogMessage::Info, "test"));
        if (r->mode == "wait") {
            started = true;
            for (int i = 0; i < 500 && !r->isAborted(); ++i)
                std::this_thread::sleep_for(10ms);
        }
        if (r->mode == "null")
            return nullptr;
        if (r->mode == "nested")
            throw KsExceptionNested("nested failure", "Test", "f", "file", 3);
        if (r->mode == "std")
            throw std::logic_error("std failure");
        if (r->mode == "int")
            throw 7;
        ReplyEncoder reply("LocalTestReply", *request);
        reply.addElement("client", r->getClientDescription());
        reply.addElement("aborted", r->isAborted() ? "yes" : "no");
        return std::make_shared<std::string>(reply.getEncodedReply("   ", "  "));
    }
    std::string seenClient() {
        std::lock_guard<std::mutex> lock(mutex);
        return clientDescription;
    }
    std::atomic<bool> started{false};

private:
    std::mutex mutex;
    std::string clientDescription;
};

class RecordingProgress : public Progress {
public:
    bool handleLogMessage(const LogMessage& message) override {
        texts.push_back(message.text());
        return true;
    }
    std::vector<std::string> texts;
};

struct LocalRequestClientFixture : ::testing::Test {
    RequestHandler handler{"LocalDispatcher"};
    std::shared_ptr<LocalTestHandler> testHandler = std::make_shared<LocalTestHandler>();
    void SetUp() override { handler.addRequestHandler(testHandler, LocalTestSchema()); }

    static RequestEncoder request(const std::string& mode) {
        RequestEncoder encoder("LocalTestRequest");
        encoder.addElement("mode", mode, "  ");
        return encoder;
    }
};

} // namespace

TEST(LocalRequestClientTest, NullHandlerUsesDefaultHandler) {
    LocalRequestClient client(nullptr);
    EXPECT_EQ(client.getRequestHandler(), RequestHandler::getDefaultRequestHandler());
    LocalRequestClient described("described", nullptr);
    EXPECT_EQ(described.getRequestHandler(), RequestHandler::getDefaultRequestHandler());
    EXPECT_EQ(client.getDescription(), "LocalRequestClient");

    // The default handler answers an abort with its acknowledgement.
    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    auto reply = client.handleRequest(abort, nullptr, "job");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "AckReply");
    EXPECT_EQ(reply->getRequestId(), abort.getId());
    EXPECT_EQ(reply->getElement("status"), "OK");
}

TEST_F(LocalRequestClientFixture, ReplyComesBackDecoded) {
    LocalRequestClient client(&handler);
    EXPECT_EQ(client.getRequestHandler(), &handler);
    RequestEncoder encoder = request("plain");
    auto reply = client.handleRequest(encoder, nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "LocalTestReply");
    EXPECT_EQ(reply->getRequestId(), encoder.getId());
    EXPECT_EQ(reply->getElement("aborted"), "no");

    auto byText = client.handleRequest(encoder.getEncodedRequest(), encoder.getId(), nullptr, "");
    ASSERT_NE(byText, nullptr);
    EXPECT_EQ(byText->getRequestId(), encoder.getId());
    auto withStatus = client.handleRequestJobStatus(encoder, nullptr, "", nullptr);
    ASSERT_NE(withStatus, nullptr);
    EXPECT_EQ(withStatus->getType(), "LocalTestReply");
}

TEST_F(LocalRequestClientFixture, NoReplyTextGivesNullReply) {
    LocalRequestClient client(&handler);
    std::shared_ptr<Reply> reply;
    EXPECT_NO_THROW(reply = client.handleRequest(request("null"), nullptr, ""));
    EXPECT_EQ(reply, nullptr);

    // A request that no handler decodes yields no reply text either.
    LogCapture capture;
    RequestHandler bare("bare");
    bare.addRequestSchema(LocalTestSchema());
    LocalRequestClient other(&bare);
    EXPECT_EQ(other.handleRequest(request("plain"), nullptr, ""), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Can't decode request: type = LocalTestRequest"));
}

TEST_F(LocalRequestClientFixture, DispatcherSeesFixedClientName) {
    LocalRequestClient client("my own description", &handler);
    EXPECT_EQ(client.getDescription(), "my own description");
    auto reply = client.handleRequest(request("plain"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(testHandler->seenClient(), "LocalRequestClient");
    EXPECT_EQ(reply->getElement("client"), "LocalRequestClient");
    LocalRequestClient copy(client);
    EXPECT_EQ(copy.getDescription(), "my own description");
    EXPECT_EQ(copy.getRequestHandler(), &handler);
}

TEST_F(LocalRequestClientFixture, ProgressReceivesLogMessages) {
    LocalRequestClient client(&handler);
    auto progress = std::make_shared<RecordingProgress>();
    client.handleRequest(request("plain"), progress, "");
    ASSERT_EQ(progress->texts.size(), 1u);
    EXPECT_EQ(progress->texts[0], "working on plain");
    // Without a progress the messages go nowhere, and nothing fails.
    EXPECT_NE(client.handleRequest(request("plain"), nullptr, ""), nullptr);
    EXPECT_EQ(progress->texts.size(), 1u);
}

TEST_F(LocalRequestClientFixture, HandlerExceptionsPassUnchanged) {
    LocalRequestClient client(&handler);
    try {
        client.handleRequest(request("nested"), nullptr, "");
        ADD_FAILURE() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "nested failure");
        EXPECT_EQ(e.getSource(), "Test");
    }
    try {
        client.handleRequest(request("std"), nullptr, "");
        ADD_FAILURE() << "no exception";
    } catch (const std::logic_error& e) {
        EXPECT_STREQ(e.what(), "std failure");
    }
    // What the dispatcher makes of an unknown exception reaches the caller as it is.
    try {
        client.handleRequest(request("int"), nullptr, "");
        ADD_FAILURE() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "Unknown exception while handling request.");
        EXPECT_EQ(e.getFunction(), "Kestrane::RequestHandler::handle");
    }
    // The dispatcher is usable after each of them.
    EXPECT_EQ(handler.getRunningRequestCount(), 0u);
    EXPECT_NE(client.handleRequest(request("plain"), nullptr, ""), nullptr);
}

TEST_F(LocalRequestClientFixture, AbortFromSecondThreadReachesRunningRequest) {
    LocalRequestClient client(&handler);
    RequestEncoder encoder = request("wait");
    std::shared_ptr<Reply> reply;
    auto start = std::chrono::steady_clock::now();
    std::thread worker([&] { reply = client.handleRequest(encoder, nullptr, ""); });
    for (int i = 0; i < 500 && !testHandler->started; ++i)
        std::this_thread::sleep_for(10ms);
    ASSERT_TRUE(testHandler->started);
    EXPECT_EQ(handler.getRunningRequestCount(), 1u);
    client.abortRequest(encoder.getId());
    worker.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("aborted"), "yes");
    EXPECT_EQ(handler.getRunningRequestCount(), 0u);
}
