#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestPackageEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

const std::string c_nullId = "0000000000000000-0000000000000000-0000000000000000";

struct MessageValidationTest : ::testing::Test {
    void SetUp() override { RequestXmlHelper::getInstance()->addSchema(StandardRequestSchema()); }

    // Through the reply package as the server sends it, and back.
    static std::shared_ptr<Reply> throughPackage(const std::string& replyText) {
        auto package = ReplyPackage::decode(
            ReplyPackageEncoder(replyText, 3).getEncodedReplyPackage(), nullptr);
        EXPECT_EQ(package->getSerial(), 3u);
        return package->getReply();
    }

    static xercesc::DOMElement* child(xercesc::DOMElement* parent, const std::string& name) {
        return parent ? XmlUtils::getElement(name, parent) : nullptr;
    }
};

} // namespace

TEST_F(MessageValidationTest, AckReplyOfTheStandardHandler) {
    RequestHandler handler("validation");
    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    auto text = handler.handle(abort.getEncodedRequest(), nullptr, "client", nullptr, true);
    ASSERT_NE(text, nullptr);
    for (auto reply : {Reply::decode(*text), throughPackage(*text)}) {
        EXPECT_EQ(reply->getType(), "AckReply");
        EXPECT_EQ(reply->getRequestId(), abort.getId());
        EXPECT_EQ(reply->getElement("status"), "OK");
    }
}

TEST_F(MessageValidationTest, ExceptionReplyWithNestedChain) {
    KsExceptionNested inner("inner <cause> & more", "Inner", "innerFunction", "inner.cpp", 11);
    KsExceptionNested middle(inner, "middle \"quoted\"", "Middle", "middleFunction", "middle.cpp",
                             22);
    KsExceptionNested outer(middle, "outer", "Outer", "outerFunction", "outer.cpp", 33);
    std::string id = UniqueID::generateId();
    ReplyEncoder encoder("ExceptionReply", id);
    encoder.addKsException(outer);
    std::string text = encoder.getEncodedReply("   ", "  ");
    for (auto reply : {Reply::decode(text), throughPackage(text)}) {
        EXPECT_EQ(reply->getType(), "ExceptionReply");
        EXPECT_EQ(reply->getRequestId(), id);
        EXPECT_EQ(reply->getElement("exceptionStr"), outer.log());
        xercesc::DOMElement* level = reply->getDomElement("exception");
        ASSERT_NE(level, nullptr);
        EXPECT_EQ(XmlUtils::getElementContent("message", level), "outer");
        EXPECT_EQ(XmlUtils::getElementContent("source", level), "Outer");
        EXPECT_EQ(XmlUtils::getElementContent("line", level), "33");
        level = child(level, "innerException");
        EXPECT_EQ(XmlUtils::getElementContent("message", level), "middle \"quoted\"");
        EXPECT_EQ(XmlUtils::getElementContent("function", level), "middleFunction");
        level = child(level, "innerException");
        EXPECT_EQ(XmlUtils::getElementContent("message", level), "inner <cause> & more");
        EXPECT_EQ(XmlUtils::getElementContent("file", level), "inner.cpp");
        EXPECT_EQ(child(level, "innerException"), nullptr);
    }
}

TEST_F(MessageValidationTest, ExceptionReplyWithPlainKsException) {
    ReplyEncoder encoder("ExceptionReply", UniqueID::generateId());
    encoder.addKsException(KsException("plain"));
    auto reply = Reply::decode(encoder.getEncodedReply("   ", "  "));
    xercesc::DOMElement* exception = reply->getDomElement("exception");
    EXPECT_EQ(XmlUtils::getElementContent("message", exception), "plain");
    EXPECT_EQ(child(exception, "source"), nullptr);
}

TEST_F(MessageValidationTest, ExceptionReplyWithStdException) {
    std::runtime_error error("std <failure>");
    ReplyEncoder byStd("ExceptionReply", UniqueID::generateId());
    byStd.addStdException(error);
    auto reply = Reply::decode(byStd.getEncodedReply("   ", "  "));
    EXPECT_EQ(reply->getElement("exceptionStr"), "std <failure>");
    EXPECT_EQ(XmlUtils::getElementContent("message", reply->getDomElement("exception")),
              "std <failure>");
    EXPECT_EQ(XmlUtils::getElementContent("type", reply->getDomElement("exception")),
              "std::runtime_error");

    // The request task adds a std::exception as an object of unknown kind.
    ReplyEncoder byPointer("ExceptionReply", UniqueID::generateId());
    byPointer.addException(&error);
    auto pointerReply = throughPackage(byPointer.getEncodedReply("   ", "  "));
    EXPECT_EQ(pointerReply->getType(), "ExceptionReply");
    EXPECT_EQ(pointerReply->getElement("exceptionStr"), "void const*");
    EXPECT_EQ(XmlUtils::getElementContent("type", pointerReply->getDomElement("exception")),
              "void const*");
    EXPECT_EQ(XmlUtils::getElementContent("message", pointerReply->getDomElement("exception")), "");
}

TEST_F(MessageValidationTest, ExceptionReplyOfUnknownKind) {
    ReplyEncoder encoder("ExceptionReply", UniqueID::generateId());
    encoder.addException(nullptr);
    std::string text = encoder.getEncodedReply("   ", "  ");
    for (auto reply : {Reply::decode(text), throughPackage(text)}) {
        EXPECT_EQ(XmlUtils::getElementContent("type", reply->getDomElement("exception")),
                  "Unknown");
        EXPECT_EQ(reply->getElement("exceptionStr"), "void const*");
    }
}

TEST_F(MessageValidationTest, InvalidPackageReplyWithException) {
    // As the connection task refuses a package that does not decode.
    ReplyEncoder encoder("InvalidPackageReply", c_nullId);
    encoder.addElement("errorMessage", "error decoding request package");
    encoder.addKsException(
        KsExceptionNested("The root element is no 'KS_RequestPackage'.", "RequestHandling",
                          "Kestrane::RequestPackage::RequestPackage", "RequestPackage.cpp", 1));
    std::string text = encoder.getEncodedReply("   ", "  ");
    std::shared_ptr<Reply> reply;
    ASSERT_NO_THROW(reply = Reply::decode(text)) << text;
    EXPECT_EQ(reply->getType(), "InvalidPackageReply");
    EXPECT_EQ(reply->getRequestId(), c_nullId);
    EXPECT_EQ(reply->getElement("errorMessage"), "error decoding request package");
    EXPECT_EQ(XmlUtils::getElementContent("message", reply->getDomElement("exception")),
              "The root element is no 'KS_RequestPackage'.");

    // The bare form with the message alone stays valid.
    ReplyEncoder bare("InvalidPackageReply", c_nullId);
    bare.addElement("errorMessage", "x");
    EXPECT_NO_THROW(Reply::decode(bare.getEncodedReply("   ", "  ")));
}

TEST_F(MessageValidationTest, AbortRequestsInPackages) {
    RequestHandler handler("validation");
    const std::string target = UniqueID::generateId();
    for (std::string element : {"requestId", "jobId"}) {
        RequestEncoder abort("AbortRequest");
        abort.addElement(element, target, "  ");
        RequestPackageEncoder encoder(abort.getEncodedRequest(), "RC", "");
        encoder.setReplyExpected(false);
        auto package = RequestPackage::decode(encoder.getEncodedRequestPackage(), handler, nullptr,
                                              "127.0.0.1", "127.0.0.1");
        ASSERT_NE(package, nullptr);
        auto request = std::dynamic_pointer_cast<AbortRequest>(package->getRequest());
        ASSERT_NE(request, nullptr) << element;
        EXPECT_EQ(request->getId(), abort.getId());
        EXPECT_EQ(request->getType(), "AbortRequest");
        EXPECT_EQ(element == "requestId" ? request->getRequestId() : request->getJobId(), target);
        EXPECT_EQ(element == "requestId" ? request->getJobId() : request->getRequestId(), "");
        EXPECT_FALSE(package->isReplyExpected());
    }
    // Neither of the two is not what the schema allows.
    RequestEncoder both("AbortRequest");
    both.addElement("requestId", target, "  ");
    both.addElement("jobId", target, "  ");
    RequestPackageEncoder encoder(both.getEncodedRequest(), "RC", "");
    encoder.setReplyExpected(false);
    EXPECT_THROW(
        RequestPackage::decode(encoder.getEncodedRequestPackage(), handler, nullptr, "", ""),
        KsExceptionNested);
}

TEST_F(MessageValidationTest, ReplyWithArrayDataElements) {
    registerLinkTestSchema();
    int ints[4] = {1, -2, 3, -4};
    double doubles[3] = {0.5, 1.25, -8.0};
    std::string id = UniqueID::generateId();
    ReplyEncoder encoder("LinkTestReply", id);
    encoder.addIntArrayElement("ints", ints, 4);
    encoder.addDoubleArrayElement("doubles", doubles, 3);
    std::string text = encoder.getEncodedReply("   ", "  ");
    for (auto reply : {Reply::decode(text), throughPackage(text)}) {
        EXPECT_EQ(reply->getRequestId(), id);
        ASSERT_EQ(reply->getData().size(), 2u);
        EXPECT_EQ(reply->getIntArray("ints"), ints);
        EXPECT_EQ(reply->getDoubleArray("doubles"), doubles);
        EXPECT_EQ(reply->getArraySize("ints", ""), 4u);
        EXPECT_EQ(reply->getArraySize("doubles", ""), 3u);
    }
}

TEST_F(MessageValidationTest, UndeclaredElementIsRejected) {
    ReplyEncoder encoder("AckReply", UniqueID::generateId());
    encoder.addElement("status", "OK");
    encoder.addElement("extra", "no");
    EXPECT_THROW(Reply::decode(encoder.getEncodedReply("   ", "  ")), KsExceptionNested);
    ReplyEncoder missing("AckReply", UniqueID::generateId());
    EXPECT_THROW(Reply::decode(missing.getEncodedReply("   ", "  ")), KsExceptionNested);
}

TEST_F(MessageValidationTest, ValidRequestThatNoHandlerDecodes) {
    // A valid document whose request type only the link tests know: the dispatcher finds no
    // handler, and the package decoder throws instead of returning a package without request.
    registerLinkTestSchema();
    RequestHandler handler("validation");
    RequestPackageEncoder encoder(requestText(""), "RC", "");
    encoder.setReplyExpected(false);
    try {
        RequestPackage::decode(encoder.getEncodedRequestPackage(), handler, nullptr, "", "");
        ADD_FAILURE() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(e.getSource(), "RequestHandling");
        EXPECT_NE(std::string(e.what()).find("LinkTestRequest"), std::string::npos) << e.what();
    }
}

namespace {
// A request type of its own, so that the test starts on a schema version that no parse has used
// yet: what Xerces completes at a grammar's first use then happens under the concurrent parses.
class FreshVersionSchema : public AbstractRequestSchema {
public:
    FreshVersionSchema() {
        m_schemaText = "  <!-- FreshVersionRequestSchema -->\n"
                       "  <xs:complexType name=\"FreshVersionRequest\">\n"
                       "    <xs:complexContent>\n"
                       "      <xs:extension base=\"ksrq:Request\"/>\n"
                       "    </xs:complexContent>\n"
                       "  </xs:complexType>\n";
    }
};
} // namespace

TEST_F(MessageValidationTest, EveryMessageTypeValidatesOnManyThreadsAtOnce) {
    registerLinkTestSchema();
    RequestHandler handler("validation");
    std::vector<RequestEncoder> requests;
    requests.emplace_back("AbortRequest");
    requests.back().addElement("requestId", UniqueID::generateId(), "  ");
    requests.emplace_back("AbortRequest");
    requests.back().addElement("jobId", UniqueID::generateId(), "  ");
    requests.emplace_back("GetStatusRequest");
    requests.emplace_back("ShutdownRequest");
    for (const char* type : {"DisconnectRequest", "ReconnectRequest"}) {
        requests.emplace_back(type);
        requests.back().addElement("originalRequestId", UniqueID::generateId(), "  ");
    }
    requests.emplace_back("TestRequest");
    requests.back().addElement("command", "NOP", "  ");
    // Request packages, and the replies the standard handler gives (acknowledgements, status,
    // test and exception replies), each through its reply package.
    std::vector<std::string> packages;
    for (auto& request : requests) {
        RequestPackageEncoder encoder(request.getEncodedRequest(), "RC", "");
        packages.push_back(encoder.getEncodedRequestPackage());
    }
    std::vector<std::string> replies;
    for (auto& request : requests) {
        // The requests that need a running server get no reply from the plain handler.
        if (auto text =
                handler.handle(request.getEncodedRequest(), nullptr, "client", nullptr, true))
            replies.push_back(ReplyPackageEncoder(*text, 1).getEncodedReplyPackage());
    }
    ASSERT_GE(replies.size(), 3u);
    ReplyEncoder exception("ExceptionReply", UniqueID::generateId());
    std::runtime_error cause("a cause");
    exception.addException(&cause);
    replies.push_back(
        ReplyPackageEncoder(exception.getEncodedReply("   ", "  "), 2).getEncodedReplyPackage());
    int ints[4] = {1, -2, 3, -4};
    double doubles[3] = {0.5, 1.25, -8.0};
    ReplyEncoder arrays("LinkTestReply", UniqueID::generateId());
    arrays.addIntArrayElement("ints", ints, 4);
    arrays.addDoubleArrayElement("doubles", doubles, 3);
    replies.push_back(
        ReplyPackageEncoder(arrays.getEncodedReply("   ", "  "), 3).getEncodedReplyPackage());
    // Each is valid on its own.
    // Request packages are validated as the server's decoder does first; which handler decodes
    // them is not the point here.
    auto validate = [](const std::string& text) {
        RequestXmlHelper::getInstance()->parse(text)->release();
    };
    for (const auto& package : packages)
        ASSERT_NO_THROW(validate(package)) << package;
    for (const auto& package : replies)
        ASSERT_NO_THROW(ReplyPackage::decode(package, nullptr)) << package;

    RequestXmlHelper::getInstance()->addSchema(FreshVersionSchema());
    constexpr int c_threads = 8;
    constexpr int c_rounds = 100;
    std::atomic<int> ready{0};
    std::atomic<int> decoded{0};
    std::atomic<int> failed{0};
    std::mutex firstFailureMutex;
    std::string firstFailure;
    std::vector<std::thread> threads;
    for (int t = 0; t < c_threads; ++t) {
        threads.emplace_back([&, t] {
            ++ready;
            while (ready < c_threads) {
            } // all start together, on a grammar nobody has used
            for (int round = 0; round < c_rounds; ++round) {
                size_t pick = static_cast<size_t>(t * 7 + round);
                try {
                    if (pick % 2)
                        validate(packages[pick / 2 % packages.size()]);
                    else
                        ReplyPackage::decode(replies[pick / 2 % replies.size()], nullptr)
                            ->getReply();
                    ++decoded;
                } catch (const std::exception& e) {
                    ++failed;
                    std::lock_guard<std::mutex> lock(firstFailureMutex);
                    if (firstFailure.empty())
                        firstFailure = e.what();
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failed, 0) << firstFailure;
    EXPECT_EQ(decoded, c_threads * c_rounds);
}
