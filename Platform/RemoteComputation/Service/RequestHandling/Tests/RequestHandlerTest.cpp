#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestHandler.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Request.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"
#include <xercesc/dom/DOM.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

class DispatchTestSchema : public AbstractRequestSchema {
public:
    DispatchTestSchema() {
        m_schemaText =
            "<!-- DispatchTestSchema -->\n"
            "<xs:complexType name=\"DispatchTestRequest\">\n"
            " <xs:complexContent><xs:extension base=\"ksrq:Request\">\n"
            "  <xs:sequence><xs:element name=\"mode\" type=\"xs:string\"/></xs:sequence>\n"
            " </xs:extension></xs:complexContent>\n"
            "</xs:complexType>\n"
            "<xs:complexType name=\"DispatchTestReply\">\n"
            " <xs:complexContent><xs:extension base=\"ksrq:Reply\">\n"
            "  <xs:sequence><xs:element name=\"aborted\" type=\"xs:string\"/></xs:sequence>\n"
            " </xs:extension></xs:complexContent>\n"
            "</xs:complexType>\n";
    }
};

class DispatchTestRequest : public Request {
public:
    explicit DispatchTestRequest(const xercesc::DOMElement* element)
        : Request(element), mode(XmlUtils::getElementContent("mode", element)) {}
    std::string mode;
};

// Behaves as its request's mode says, and records how many decode and handle calls overlap.
class DispatchTestHandler : public AbstractRequestHandler {
public:
    DispatchTestHandler() : AbstractRequestHandler("DispatchTestHandler") {}

    std::shared_ptr<Request> decodeRequest(XmlRequest& request) const override {
        raise(maxDecoding, ++decoding);
        std::this_thread::sleep_for(2ms);
        --decoding;
        if (request.getType() != "DispatchTestRequest")
            return nullptr;
        return std::make_shared<DispatchTestRequest>(request.getRootElement());
    }
    bool canHandle(Request* request) override {
        return dynamic_cast<DispatchTestRequest*>(request) != nullptr;
    }
    std::shared_ptr<std::string> handle(Request* request) override {
        auto r = static_cast<DispatchTestRequest*>(request);
        raise(maxHandling, ++handling);
        sawAborted = r->isAborted();
        if (r->mode == "wait") {
            for (int i = 0; i < 100 && !r->isAborted(); ++i)
                std::this_thread::sleep_for(10ms);
        } else if (r->mode == "busy") {
            std::this_thread::sleep_for(50ms);
        }
        r->sendLogMessage(LogMessage("handled " + r->mode, LogMessage::Info, "test"));
        --handling;
        if (r->mode == "null")
            return nullptr;
        if (r->mode == "nested")
            throw KsExceptionNested("nested failure", "Test", "f", "file", 1);
        if (r->mode == "plain")
            throw KsException("plain failure");
        if (r->mode == "std")
            throw std::runtime_error("std failure");
        if (r->mode == "int")
            throw 42;
        ReplyEncoder reply("DispatchTestReply", *request);
        reply.addElement("aborted", r->isAborted() ? "yes" : "no");
        return std::make_shared<std::string>(reply.getEncodedReply("   ", "  "));
    }

    // Keeps the largest value seen, without losing a concurrent update.
    static void raise(std::atomic<int>& maximum, int value) {
        int seen = maximum.load();
        while (value > seen && !maximum.compare_exchange_weak(seen, value)) {
        }
    }

    mutable std::atomic<int> decoding{0}, maxDecoding{0};
    std::atomic<int> handling{0}, maxHandling{0};
    std::atomic<bool> sawAborted{false};
};

struct Fixture {
    RequestHandler handler{"TestDispatcher"};
    std::shared_ptr<DispatchTestHandler> testHandler = std::make_shared<DispatchTestHandler>();
    Fixture() { handler.addRequestHandler(testHandler, DispatchTestSchema()); }

    std::shared_ptr<Request> decode(const std::string& mode, const std::string& id = "") {
        RequestEncoder encoder("DispatchTestRequest");
        encoder.addElement("mode", mode, "  ");
        std::string text = encoder.getEncodedRequest();
        if (!id.empty())
            text.replace(text.find(encoder.getId()), 50, id);
        XmlRequest xml(text, true);
        return handler.decodeRequest(xml);
    }
};

class RecordingProgress : public Progress {
public:
    bool handleLogMessage(const LogMessage& message) override {
        texts.push_back(message.text());
        return true;
    }
    std::vector<std::string> texts;
};

} // namespace

TEST(RequestHandlerTest, DescriptionFromEnvironment) {
    ::unsetenv("COMPUTERNAME");
    ::unsetenv("HOST");
    EXPECT_EQ(RequestHandler("x").getDescription(), "RequestHandler");
    ::setenv("HOST", "node-b", 1);
    EXPECT_EQ(RequestHandler("x").getDescription(), "node-b");
    ::setenv("COMPUTERNAME", "node-a", 1);
    EXPECT_EQ(RequestHandler("x").getDescription(), "node-a");
}

TEST(RequestHandlerTest, DefaultHandlerIsMadeOnce) {
    LogCapture capture;
    RequestHandler* first = RequestHandler::getDefaultRequestHandler();
    EXPECT_EQ(RequestHandler::getDefaultRequestHandler(), first);
    EXPECT_EQ(capture.count("Created default handler: " +
                            [&] {
                                std::ostringstream text;
                                text << first;
                                return text.str();
                            }()),
              1u);
}

TEST(RequestHandlerTest, HandlesThroughTheChain) {
    LogCapture capture;
    Fixture f;
    auto request = f.decode("ok");
    ASSERT_NE(request, nullptr);
    auto reply = f.handler.handle(request);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(ReplyEncoder::getType(*reply), "DispatchTestReply");
    EXPECT_NE(reply->find("<aborted>no</aborted>"), std::string::npos);
    EXPECT_EQ(f.handler.getRunningRequestCount(), 0u);
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Request handled by handler 'DispatchTestHandler'. "
                                          "replyType='DispatchTestReply', requestId='" +
                                              request->getId() + "'"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Decoding request... (type='DispatchTestRequest')"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Trying to decode using 'StandardRequestHandler'"));
}

TEST(RequestHandlerTest, AbortBeforeTheRequestStarts) {
    LogCapture capture;
    Fixture f;
    auto request = f.decode("ok");
    f.handler.abortRequest(request->getId());
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Request " + request->getId() +
                                                     " not found. Added to aborted requests."));
    auto reply = f.handler.handle(request);
    EXPECT_TRUE(f.testHandler->sawAborted.load()); // aborted, and still given to its handler
    EXPECT_NE(reply->find("<aborted>yes</aborted>"), std::string::npos);
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Aborting request " + request->getId()));
    EXPECT_TRUE(f.handler.isAbortedRequestId(request->getId())); // the id stays
}

TEST(RequestHandlerTest, AbortOfARunningRequest) {
    Fixture f;
    auto request = f.decode("wait");
    std::shared_ptr<std::string> reply;
    std::thread worker([&] { reply = f.handler.handle(request); });
    while (f.handler.getRunningRequestCount() == 0)
        std::this_thread::sleep_for(1ms);
    f.handler.abortRequest(request->getId());
    worker.join();
    EXPECT_NE(reply->find("<aborted>yes</aborted>"), std::string::npos);
    EXPECT_FALSE(f.handler.isAbortedRequestId(request->getId()));
}

TEST(RequestHandlerTest, AbortOfAFinishedRequestOnlyAddsToTheSet) {
    Fixture f;
    auto request = f.decode("ok");
    f.handler.handle(request);
    f.handler.abortRequest(request->getId());
    EXPECT_TRUE(f.handler.isAbortedRequestId(request->getId()));
    EXPECT_FALSE(request->isAborted());
}

TEST(RequestHandlerTest, AbortRequestThroughTheStandardHandler) {
    LogCapture capture;
    Fixture f;
    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", std::string(50, 'A').replace(16, 1, "-").replace(33, 1, "-"),
                     "  ");
    auto reply = f.handler.handle(abort.getEncodedRequest(), nullptr, "client", nullptr, true);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(ReplyEncoder::getType(*reply), "AckReply");
    EXPECT_NE(reply->find("<status>OK</status>"), std::string::npos);
    EXPECT_TRUE(f.handler.isAbortedRequestId("AAAAAAAAAAAAAAAA-AAAAAAAAAAAAAAAA-AAAAAAAAAAAAAAAA"));
    // A job id that names no request: the signal carries an empty id.
    RequestEncoder byJob("AbortRequest");
    byJob.addElement("jobId", UniqueID::generateId(), "  ");
    auto empty = f.handler.handle(byJob.getEncodedRequest(), nullptr, "client", nullptr, true);
    EXPECT_EQ(ReplyEncoder::getType(*empty), "AckReply");
    EXPECT_TRUE(f.handler.isAbortedRequestId(""));
}

TEST(RequestHandlerTest, AbortRequestWithNeitherIdEmitsAnEmptyId) {
    // The schema wants one of the two; a request built without it still behaves.
    XercesPlatform::ensureInitialized();
    auto impl = xercesc::DOMImplementationRegistry::getDOMImplementation(XercesString("Core"));
    xercesc::DOMDocument* document =
        impl->createDocument(nullptr, XercesString("request"), nullptr);
    document->getDocumentElement()->setAttribute(XercesString("id"), XercesString("X"));
    AbortRequest request(document->getDocumentElement());
    document->release();
    EXPECT_EQ(request.getRequestId(), "");
    EXPECT_EQ(request.getJobId(), "");
    StandardRequestHandler standard;
    std::vector<std::string> emitted;
    auto connection = standard.getAbortRequestSignal().connect(
        [&](const std::string& id) { emitted.push_back(id); });
    auto reply = standard.handle(&request);
    EXPECT_EQ(emitted, std::vector<std::string>{""});
    EXPECT_NE(reply->find("<reply xsi:type=\"AckReply\" requestId=\"X\" >"), std::string::npos);
    EXPECT_NE(reply->find("<status>OK</status>"), std::string::npos);
}

TEST(RequestHandlerTest, StandardHandlerRefusesNullAndOtherRequests) {
    LogCapture capture;
    StandardRequestHandler standard;
    try {
        standard.handle(nullptr);
        FAIL();
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "Can't handle NULL request.");
        EXPECT_EQ(e.getSource(), "Requesthandling");
        EXPECT_EQ(e.getFunction(), "Kestrane::StandardRequestHandler::handle");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Can't handle NULL request."));
    Fixture f;
    auto other = f.decode("ok");
    EXPECT_FALSE(standard.canHandle(other.get()));
    try {
        standard.handle(other.get());
        FAIL();
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "Unsuported request");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unsuported request 'DispatchTestRequest'."));
}

TEST(RequestHandlerTest, TwoRequestsWithOneId) {
    Fixture f;
    std::string id = "BBBBBBBBBBBBBBBB-BBBBBBBBBBBBBBBB-BBBBBBBBBBBBBBBB";
    auto slow = f.decode("busy", id);
    auto fast = f.decode("ok", id);
    std::thread worker([&] { f.handler.handle(slow); });
    while (f.handler.getRunningRequestCount() == 0)
        std::this_thread::sleep_for(1ms);
    f.handler.handle(fast); // replaces, then the first to finish erases the entry
    EXPECT_EQ(f.handler.getRunningRequestCount(), 0u);
    worker.join();
    EXPECT_EQ(f.handler.getRunningRequestCount(), 0u);
}

TEST(RequestHandlerTest, HandlerReturningNull) {
    LogCapture capture;
    Fixture f;
    auto request = f.decode("null");
    EXPECT_EQ(f.handler.handle(request), nullptr);
    EXPECT_TRUE(
        capture.contains(LogLevel::Debug, "Request handled by handler 'DispatchTestHandler'. "
                                          "replyType='NULL', requestId='" +
                                              request->getId() + "'"));
}

TEST(RequestHandlerTest, HandlerExceptionsPassToTheCaller) {
    LogCapture capture;
    Fixture f;
    EXPECT_THROW(f.handler.handle(f.decode("nested")), KsExceptionNested);
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "KsExceptionNested while handling request: nested failure"));
    try {
        f.handler.handle(f.decode("plain"));
        FAIL();
    } catch (const KsExceptionNested&) {
        FAIL() << "a plain KsException stays plain";
    } catch (const KsException& e) {
        EXPECT_STREQ(e.what(), "plain failure");
    }
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "KsException while handling request: plain failure"));
    EXPECT_THROW(f.handler.handle(f.decode("std")), std::runtime_error);
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "std::exception while handling request: std failure"));
    try {
        f.handler.handle(f.decode("int"));
        FAIL();
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "Unknown exception while handling request.");
        EXPECT_EQ(e.getSource(), "RequestHandling");
        EXPECT_EQ(e.getFunction(), "Kestrane::RequestHandler::handle");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "unknown while handling request"));
    EXPECT_EQ(f.handler.getRunningRequestCount(), 0u);
}

TEST(RequestHandlerTest, NoHandlerForARequest) {
    LogCapture capture;
    RequestHandler handler("Bare");
    Fixture f; // declares the type in the schema
    auto request = f.decode("ok");
    try {
        handler.handle(request);
        FAIL();
    } catch (const KsExceptionNested& e) {
        EXPECT_STREQ(e.what(), "No handler available for this request.");
        EXPECT_EQ(e.getFunction(), "Kestrane::RequestHandler::handle");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Debug,
                                 "No handle found for request. type='DispatchTestRequest', id='" +
                                     request->getId() + "'"));
    RequestEncoder encoder("DispatchTestRequest");
    encoder.addElement("mode", std::string("ok"), "");
    XmlRequest xml(encoder.getEncodedRequest(), true);
    EXPECT_EQ(handler.decodeRequest(xml), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Debug,
                                 "No handle found to decode request. type='DispatchTestRequest'"));
    EXPECT_EQ(handler.handle(encoder.getEncodedRequest(), nullptr, "c", nullptr, true), nullptr);
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "Can't decode request: type = DispatchTestRequest"));
}

TEST(RequestHandlerTest, RawPointerHandleIsATrap) {
    LogCapture capture;
    Fixture f;
    auto request = f.decode("ok");
    EXPECT_EQ(f.handler.handle(request.get()), nullptr);
    EXPECT_EQ(f.handler.handle(static_cast<Request*>(nullptr)), nullptr);
    EXPECT_TRUE(capture.contains(LogLevel::Error,
                                 "use RequestHandler::handle(std::shared_ptr<Request> request)"));
}

TEST(RequestHandlerTest, InProcessRoadWithProgress) {
    Fixture f;
    auto progress = std::make_shared<RecordingProgress>();
    RequestEncoder encoder("DispatchTestRequest");
    encoder.addElement("mode", std::string("ok"), "  ");
    auto reply =
        f.handler.handle(encoder.getEncodedRequest(), progress, "LocalClient", nullptr, true);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(progress->texts, std::vector<std::string>{"handled ok"});
}

TEST(RequestHandlerTest, DecodingIsSerialisedWhileHandlingRunsInParallel) {
    Fixture f;
    std::vector<std::thread> threads;
    std::atomic<int> replies{0};
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([&] {
            for (int k = 0; k < 3; ++k) {
                auto request = f.decode("busy");
                if (f.handler.handle(request))
                    ++replies;
            }
        });
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(replies.load(), 24);
    EXPECT_EQ(f.testHandler->maxDecoding.load(), 1) << "decoders that overlapped";
    EXPECT_GT(f.testHandler->maxHandling.load(), 1) << "handlers never overlapped";
}
