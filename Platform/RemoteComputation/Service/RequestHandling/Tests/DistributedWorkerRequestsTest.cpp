// The requests of the worker protocol, decoded from the XML that their senders write.
#include "DistributedWorkerTestSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerCallbackRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/DistributedWorkerResultRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/GetDistributedWorkerInputRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RunDistributedWorkerRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>

#include <boost/lexical_cast.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Kestrane;
using namespace Kestrane::Testing;

namespace {

class DistributedWorkerRequestsTest : public DistributedWorkerTest {
protected:
    // Without the schema, so that values it would refuse still reach the constructors.
    static std::unique_ptr<XmlRequest> parsePlain(const RequestEncoder& encoder) {
        XercesPlatform::ensureInitialized();
        const std::string text = XmlRequest::wrap(encoder.getEncodedRequest());
        xercesc::XercesDOMParser parser;
        parser.setDoNamespaces(true);
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                          text.size(), "DistributedWorkerRequestsTest", false);
        parser.parse(source);
        EXPECT_EQ(parser.getErrorCount(), 0u) << text;
        xercesc::DOMDocument* document = parser.adoptDocument();
        return std::make_unique<XmlRequest>(
            document, XmlUtils::getElement("request", document->getDocumentElement()));
    }

    static bool schemaRefuses(const RequestEncoder& encoder) {
        try {
            XmlRequest xml(encoder.getEncodedRequest(), true);
            return false;
        } catch (const KsExceptionNested&) {
            return true;
        }
    }
};

} // namespace

TEST_F(DistributedWorkerRequestsTest, InputRequestCarriesPoolAndWorker) {
    const std::string poolId = UniqueID::generateId();
    RequestEncoder encoder = inputEncoder(poolId, "worker_host_0");
    auto request = decodeAs<GetDistributedWorkerInputRequest>(encoder);
    EXPECT_EQ(request->getPoolId(), poolId);
    EXPECT_EQ(request->getName(), "worker_host_0");
    EXPECT_EQ(request->getId(), encoder.getId());
    EXPECT_EQ(request->getType(), "GetDistributedWorkerInputRequest");
}

TEST_F(DistributedWorkerRequestsTest, CallbackRequestCarriesWorkerIdAndHost) {
    const std::string poolId = UniqueID::generateId();
    HostInfo host("127.0.0.1", "workerhost");
    host.setRequestServerPort(4711);
    host.setPublisherPort(4712);
    RequestEncoder encoder = callbackEncoder(poolId, 17, host);
    auto request = decodeAs<DistributedWorkerCallbackRequest>(encoder);
    EXPECT_EQ(request->getPoolId(), poolId);
    EXPECT_EQ(request->getWorkerId(), 17u);
    EXPECT_EQ(request->getHost().getIp(), "127.0.0.1");
    EXPECT_EQ(request->getHost().getName(), "workerhost");
    EXPECT_EQ(request->getHost().getRequestServerPort(), 4711);
    EXPECT_EQ(request->getHost().getPublisherPort(), 4712);
    EXPECT_EQ(request->getId(), encoder.getId());
    EXPECT_EQ(request->getType(), "DistributedWorkerCallbackRequest");
}

TEST_F(DistributedWorkerRequestsTest, RunRequestCarriesTheWorkersOrders) {
    const std::string poolId = UniqueID::generateId();
    const GenericJobId job(UniqueID::generateId(), "runJob");
    auto releasing = decodeAs<TestRunRequest>(runEncoder(poolId, "worker_a", job, 3, true));
    EXPECT_EQ(releasing->getPoolId(), poolId);
    EXPECT_EQ(releasing->getName(), "worker_a");
    EXPECT_EQ(releasing->getJobId(), job);
    EXPECT_EQ(releasing->getJobId().getName(), "runJob");
    EXPECT_EQ(releasing->getCores(), 3u);
    EXPECT_TRUE(releasing->getReleaseCoresAfterEachTask());
    EXPECT_EQ(releasing->getType(), c_testRunRequestType);

    auto holding = decodeAs<TestRunRequest>(runEncoder(poolId, "worker_b", job, 1, false));
    EXPECT_EQ(holding->getName(), "worker_b");
    EXPECT_EQ(holding->getCores(), 1u);
    EXPECT_FALSE(holding->getReleaseCoresAfterEachTask());
}

TEST_F(DistributedWorkerRequestsTest, ResultRequestWithAndWithoutErrorMessage) {
    const std::string poolId = UniqueID::generateId();
    const std::string taskId = UniqueID::generateId();
    auto ok = decodeAs<DistributedWorkerResultRequest>(resultEncoder(poolId, taskId, "OK"));
    EXPECT_EQ(ok->getPoolId(), poolId);
    EXPECT_EQ(ok->getTaskId(), taskId);
    EXPECT_EQ(ok->getStatus(), "OK");
    EXPECT_EQ(ok->getErrorMessage(), "");
    EXPECT_EQ(ok->getType(), "DistributedWorkerResultRequest");

    const std::string message = XmlUtils::toXml("disk full");
    auto failed =
        decodeAs<DistributedWorkerResultRequest>(resultEncoder(poolId, taskId, "ERROR", &message));
    EXPECT_EQ(failed->getStatus(), "ERROR");
    EXPECT_EQ(failed->getErrorMessage(), "disk full");
}

TEST_F(DistributedWorkerRequestsTest, ErrorMessageSurvivesTheWorkersExtraEscaping) {
    // The worker escapes the text once more before the encoder escapes it again.
    const std::string text = "a < b && c > \"d\" 'e' &amp; <tag/>";
    const std::string escaped = XmlUtils::toXml(text);
    ASSERT_NE(escaped, text);
    auto request = decodeAs<DistributedWorkerResultRequest>(
        resultEncoder(UniqueID::generateId(), UniqueID::generateId(), "ERROR", &escaped));
    EXPECT_EQ(request->getErrorMessage(), text);
}

TEST_F(DistributedWorkerRequestsTest, NonNumericCoresOrWorkerIdThrow) {
    const std::string poolId = UniqueID::generateId();
    RequestEncoder run(c_testRunRequestType);
    run.addElement("poolId", poolId, c_requestIndent);
    run.addElement("name", "worker_a", c_requestIndent);
    run.addText(GenericJobId(UniqueID::generateId(), "job").toXml(c_requestIndent, c_requestIndent),
                "", false);
    run.addElement("cores", "many", c_requestIndent);
    run.addElement("releaseCores", true, c_requestIndent);
    EXPECT_TRUE(schemaRefuses(run));
    auto runXml = parsePlain(run);
    EXPECT_THROW(TestRunRequest(runXml->getRootElement()), boost::bad_lexical_cast);

    RequestEncoder callback("DistributedWorkerCallbackRequest");
    callback.addElement("poolId", poolId, c_requestIndent);
    callback.addElement("workerId", "first", c_requestIndent);
    callback.addText(loopbackHost(4711).toXmlString("workerHost", c_requestIndent, c_requestIndent),
                     "", false);
    EXPECT_TRUE(schemaRefuses(callback));
    auto callbackXml = parsePlain(callback);
    EXPECT_THROW(DistributedWorkerCallbackRequest(callbackXml->getRootElement()),
                 boost::bad_lexical_cast);

    // The same documents with numbers go through.
    RequestEncoder goodCallback = callbackEncoder(poolId, 1, loopbackHost(4711));
    auto goodXml = parsePlain(goodCallback);
    EXPECT_EQ(DistributedWorkerCallbackRequest(goodXml->getRootElement()).getWorkerId(), 1u);
}

TEST_F(DistributedWorkerRequestsTest, RunRequestTypeIsAbstractInTheSchema) {
    // Only a program's derived type can be sent.
    RequestEncoder base("RunDistributedWorkerRequest");
    base.addElement("poolId", UniqueID::generateId(), c_requestIndent);
    base.addElement("name", "worker_a", c_requestIndent);
    base.addText(
        GenericJobId(UniqueID::generateId(), "job").toXml(c_requestIndent, c_requestIndent), "",
        false);
    base.addElement("cores", 1u, c_requestIndent);
    base.addElement("releaseCores", false, c_requestIndent);
    EXPECT_TRUE(schemaRefuses(base));
}
