#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StandardRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Kestrane;

namespace {

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

const std::string c_uid = "0123456789ABCDEF-0123456789ABCDEF-0123456789ABCDEF";
const std::string c_otherUid = "FEDCBA9876543210-FEDCBA9876543210-FEDCBA9876543210";

// Stands for a library that brings its own worker request and keeps pool settings in its own
// documents; the fragments here only give the abstract and the reusable types.
class WorkerLibrarySchema : public AbstractRequestSchema {
public:
    WorkerLibrarySchema() {
        m_schemaText += R"XSD(
  <!-- WorkerLibrarySchema -->
  <xs:complexType name="FragmentTestRunWorkerRequest">
    <xs:complexContent>
      <xs:extension base="ksrq:RunDistributedWorkerRequest">
        <xs:sequence>
          <xs:element name="workload" type="xs:string"/>
        </xs:sequence>
      </xs:extension>
    </xs:complexContent>
  </xs:complexType>
  <xs:element name="KS_FragmentTestPoolSettings" type="ksrq:KSDistributedWorkerPoolSettings"/>
)XSD";
    }
};

class RequestSchemaFragmentsTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        RequestXmlHelper* helper = RequestXmlHelper::getInstance();
        helper->addSchema(StandardRequestSchema());
        helper->addSchema(ServerRequestSchema());
        helper->addSchema(TestSchema());
        helper->addSchema(WorkerLibrarySchema());
    }

    static std::string request(const std::string& type, const std::string& content) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Request " +
               RequestXmlHelper::getNamespaceDeclarations() + ">\n<request xsi:type=\"" + type +
               "\" id=\"" + c_uid + "\">" + content + "</request>\n</KS_Request>\n";
    }

    static std::string reply(const std::string& type, const std::string& content) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<KS_Reply " +
               RequestXmlHelper::getNamespaceDeclarations() + ">\n<reply xsi:type=\"" + type +
               "\" requestId=\"" + c_uid + "\">" + content + "</reply>\n</KS_Reply>\n";
    }

    static std::string element(const std::string& name, const std::string& content) {
        return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + name + " " +
               RequestXmlHelper::getNamespaceDeclarations() + ">" + content + "</" + name + ">\n";
    }

    // Empty when the document is valid, otherwise the parser's complaint.
    static std::string problem(const std::string& text) {
        try {
            Document document(RequestXmlHelper::getInstance()->parse(text));
            if (!document)
                return "no document";
            return "";
        } catch (const KsException& e) {
            return std::string("rejected: ") + e.what();
        }
    }

    static Document parse(const std::string& text) {
        return Document(RequestXmlHelper::getInstance()->parse(text));
    }

    static std::string jobId() { return "<jobId><uid>" + c_uid + "</uid><name>job</name></jobId>"; }
    static std::string hostInfo(const std::string& name) {
        return "<" + name + "><name>node7</name><ip>10.0.0.7</ip><requestServerPort>4711" +
               "</requestServerPort></" + name + ">";
    }
};

#define EXPECT_VALID(text) EXPECT_EQ(problem(text), "") << (text)
#define EXPECT_INVALID(text) EXPECT_NE(problem(text), "") << (text)

} // namespace

// ---- The fragments themselves ------------------------------------------------------------

TEST_F(RequestSchemaFragmentsTest, EachFragmentOpensWithItsComment) {
    EXPECT_EQ(
        StandardRequestSchema().getSchemaText().rfind("  <!-- StandardRequestSchema -->\n", 0), 0u);
    EXPECT_EQ(ServerRequestSchema().getSchemaText().rfind("  <!-- ServerRequestSchema -->\n", 0),
              0u);
    EXPECT_EQ(TestSchema().getSchemaText().rfind("  <!-- TestSchema -->\n", 0), 0u);
}

TEST_F(RequestSchemaFragmentsTest, EachFragmentHasOneNameComment) {
    const std::string standard = StandardRequestSchema().getSchemaText();
    const std::string server = ServerRequestSchema().getSchemaText();
    const std::string test = TestSchema().getSchemaText();
    for (const char* name : {"StandardRequestSchema", "ServerRequestSchema", "TestSchema"}) {
        const std::string comment = std::string("<!-- ") + name + " -->";
        const size_t total = (standard.find(comment) != std::string::npos) +
                             (server.find(comment) != std::string::npos) +
                             (test.find(comment) != std::string::npos);
        EXPECT_EQ(total, 1u) << name;
    }
}

TEST_F(RequestSchemaFragmentsTest, AllThreeAreJoinedIntoTheSchema) {
    const std::string schema = RequestXmlHelper::getInstance()->getSchemaText();
    EXPECT_NE(schema.find(StandardRequestSchema().getSchemaText()), std::string::npos);
    EXPECT_NE(schema.find(ServerRequestSchema().getSchemaText()), std::string::npos);
    EXPECT_NE(schema.find(TestSchema().getSchemaText()), std::string::npos);
}

TEST_F(RequestSchemaFragmentsTest, AddingAgainChangesNothing) {
    RequestXmlHelper* helper = RequestXmlHelper::getInstance();
    const uint64_t version = helper->getSchemaVersion();
    helper->addSchema(StandardRequestSchema());
    helper->addSchema(ServerRequestSchema());
    helper->addSchema(TestSchema());
    EXPECT_EQ(helper->getSchemaVersion(), version);
}

TEST_F(RequestSchemaFragmentsTest, CopiesKeepTheText) {
    const StandardRequestSchema original;
    const StandardRequestSchema copy(original);
    EXPECT_EQ(copy.getSchemaText(), original.getSchemaText());
    EXPECT_FALSE(copy.getSchemaText().empty());
}

// ---- StandardRequestSchema: valid samples -----------------------------------------------

TEST_F(RequestSchemaFragmentsTest, AbortRequestWithRequestIdOrJobId) {
    EXPECT_VALID(request("AbortRequest", "<requestId>" + c_otherUid + "</requestId>"));
    EXPECT_VALID(request("AbortRequest", "<jobId>" + c_otherUid + "</jobId>"));
}

TEST_F(RequestSchemaFragmentsTest, TestRequestFull) {
    Document document =
        parse(request("TestRequest", "<command>wait</command><data>payload</data>"
                                     "<file id=\"f1\" href=\"file:///tmp/a\"/><file id=\"f2\"/>"
                                     "<attachment id=\"a1\" dataType=\"double\"/>"));
    ASSERT_TRUE(document);
    xercesc::DOMElement* request = XmlUtils::getElement("request", document->getDocumentElement());
    EXPECT_EQ(XmlUtils::getElementContent("command", request), "wait");
    EXPECT_EQ(XmlUtils::getElements("file", request).size(), 2u);
}

TEST_F(RequestSchemaFragmentsTest, TestRequestCommandOnly) {
    EXPECT_VALID(request("TestRequest", "<command>ping</command>"));
}

TEST_F(RequestSchemaFragmentsTest, StartQueuedJobRequest) {
    EXPECT_VALID(request("StartQueuedJobRequest", "<jobId>" + c_otherUid + "</jobId>"));
    EXPECT_VALID(request("StartQueuedJobRequest", "<jobId>" + c_otherUid +
                                                      "</jobId><cancelJob>true</cancelJob>"
                                                      "<errorMessage>no licence</errorMessage>"));
}

TEST_F(RequestSchemaFragmentsTest, CancelJobDefaultsToFalse) {
    // An empty element takes the declared default.
    Document document =
        parse(request("StartQueuedJobRequest", "<jobId>" + c_otherUid + "</jobId><cancelJob/>"));
    ASSERT_TRUE(document);
    xercesc::DOMElement* request = XmlUtils::getElement("request", document->getDocumentElement());
    EXPECT_EQ(XmlUtils::getElementContent("cancelJob", request), "false");
}

TEST_F(RequestSchemaFragmentsTest, AckReply) {
    EXPECT_VALID(reply("AckReply", "<status>OK</status>"));
}

TEST_F(RequestSchemaFragmentsTest, TestReply) {
    EXPECT_VALID(reply("TestReply", ""));
    EXPECT_VALID(reply("TestReply", "<data>result</data><file id=\"f\"/><attachment id=\"a\"/>"
                                    "<attachment id=\"b\"/>"));
}

TEST_F(RequestSchemaFragmentsTest, ExceptionReply) {
    EXPECT_VALID(reply("ExceptionReply",
                       "<exceptionStr>it broke</exceptionStr><exception><type>KsException</type>"
                       "<message>it broke</message></exception><request>text</request>"));
    EXPECT_VALID(reply("ExceptionReply", "<exceptionStr>x</exceptionStr><exception><type>t</type>"
                                         "<message>m</message></exception>"));
}

TEST_F(RequestSchemaFragmentsTest, InvalidPackageReply) {
    EXPECT_VALID(reply("InvalidPackageReply", "<errorMessage>bad package</errorMessage>"));
}

TEST_F(RequestSchemaFragmentsTest, ProgressUpdateWithEveryKindOfChild) {
    const std::string logMessage =
        "<logMessage type=\"INFO\" group=\"solver\" timestamp=\"-5\">step</logMessage>";
    EXPECT_VALID(
        reply("ProgressUpdate",
              "<requestLogMessage messageType=\"INFO\" messageGroup=\"g\" timestamp=\"17\">hello"
              "</requestLogMessage>"
              "<jobStatus><soloRunJobStatus state=\"running\"><any>x</any></soloRunJobStatus>"
              "</jobStatus>"
              "<jobStatus><contourJobStatus/></jobStatus>"
              "<jobStatus><orvelJobStatus/></jobStatus>"
              "<jobStatus><feedbackLoopJobStatus/></jobStatus>"
              "<realization id=\"3\"><status>done</status><soloRunJobStatus/>"
              "<errorMessage>none</errorMessage>" +
                  logMessage + logMessage +
                  "<resultRunId>r3</resultRunId></realization>"
                  "<realization id=\"4\"><status>queued</status></realization>"
                  "<iteration id=\"1\" maxDeviation=\"0.25\"><status>running</status>"
                  "<soloRunJobStatus/>" +
                  logMessage +
                  "</iteration>"
                  "<jobStatusLogMessage timestamp=\"18\">status text</jobStatusLogMessage>"
                  "<operationsData><operations><operation>mesh</operation><operation>solve"
                  "</operation></operations><currentOperationIndex>1</currentOperationIndex>"
                  "<currentOperationStep>2/9</currentOperationStep>"
                  "<currentOperationInfo>info</currentOperationInfo></operationsData>"
                  "<logAppend name=\"solver.log\" start=\"1024\">more lines</logAppend>"
                  "<lastTimestep>42</lastTimestep>"
                  "<requestLogMessage timestamp=\"19\">again</requestLogMessage>"));
}

TEST_F(RequestSchemaFragmentsTest, ProgressUpdateWithOneChild) {
    EXPECT_VALID(reply("ProgressUpdate", "<lastTimestep>0</lastTimestep>"));
    EXPECT_VALID(reply("ProgressUpdate", "<operationsData/>"));
    EXPECT_VALID(reply("ProgressUpdate", "<logAppend>x</logAppend>"));
}

TEST_F(RequestSchemaFragmentsTest, KSDistributedWorkerPoolSettings) {
    EXPECT_VALID(element("KS_FragmentTestPoolSettings",
                         "<maxParallelTasks>8</maxParallelTasks>"
                         "<jobSchedulerScript>/opt/lsf/submit.sh</jobSchedulerScript>"));
    EXPECT_VALID(element("KS_FragmentTestPoolSettings",
                         "<maxParallelTasks>8</maxParallelTasks>"
                         "<workerHost><hostNameOrIp>node1</hostNameOrIp>"
                         "<remoteServicePort>7000</remoteServicePort>"
                         "<maxWorkersOnHost>4</maxWorkersOnHost></workerHost>"
                         "<workerHost><hostNameOrIp>10.0.0.2</hostNameOrIp>"
                         "<remoteServicePort>7000</remoteServicePort>"
                         "<maxWorkersOnHost>2</maxWorkersOnHost></workerHost>"));
}

TEST_F(RequestSchemaFragmentsTest, DistributedWorkerCallbackRequest) {
    EXPECT_VALID(request("DistributedWorkerCallbackRequest", "<poolId>" + c_otherUid +
                                                                 "</poolId><workerId>5</workerId>" +
                                                                 hostInfo("workerHost")));
}

TEST_F(RequestSchemaFragmentsTest, RunDistributedWorkerRequestThroughDerivedType) {
    EXPECT_VALID(request("FragmentTestRunWorkerRequest",
                         "<poolId>" + c_otherUid + "</poolId><name>worker-1</name>" + jobId() +
                             "<cores>4</cores><releaseCores>false</releaseCores>"
                             "<workload>w</workload>"));
}

TEST_F(RequestSchemaFragmentsTest, GetDistributedWorkerInputRequest) {
    EXPECT_VALID(request("GetDistributedWorkerInputRequest",
                         "<poolId>" + c_otherUid + "</poolId><name>worker-1</name>"));
}

TEST_F(RequestSchemaFragmentsTest, GetDistributedWorkerInputReply) {
    EXPECT_VALID(
        reply("GetDistributedWorkerInputReply", "<status>TASK</status><taskId>t1</taskId>"));
    EXPECT_VALID(reply("GetDistributedWorkerInputReply", "<status>NO_TASK</status>"));
}

TEST_F(RequestSchemaFragmentsTest, DistributedWorkerResultRequest) {
    EXPECT_VALID(request("DistributedWorkerResultRequest",
                         "<poolId>" + c_otherUid +
                             "</poolId><taskId>t1</taskId><status>FAILED</status>"
                             "<errorMessage>diverged</errorMessage>"));
    EXPECT_VALID(
        request("DistributedWorkerResultRequest",
                "<poolId>" + c_otherUid + "</poolId><taskId>t1</taskId><status>OK</status>"));
}

// ---- StandardRequestSchema: invalid documents --------------------------------------------

TEST_F(RequestSchemaFragmentsTest, ProgressUpdateWithoutChildIsInvalid) {
    // The same type with valid content passes, so the rejection is about the content.
    EXPECT_VALID(reply("ProgressUpdate", "<lastTimestep>1</lastTimestep>"));
    EXPECT_INVALID(reply("ProgressUpdate", ""));
}

TEST_F(RequestSchemaFragmentsTest, TestRequestWithFileAfterAttachmentIsInvalid) {
    EXPECT_VALID(
        request("TestRequest", "<command>c</command><file id=\"f\"/><attachment id=\"a\"/>"));
    EXPECT_INVALID(
        request("TestRequest", "<command>c</command><attachment id=\"a\"/><file id=\"f\"/>"));
}

TEST_F(RequestSchemaFragmentsTest, AbortRequestWithBothIdsIsInvalid) {
    // The same type with valid content passes, so the rejection is about the content.
    EXPECT_VALID(request("AbortRequest", "<jobId>" + c_otherUid + "</jobId>"));
    EXPECT_INVALID(request("AbortRequest", "<requestId>" + c_otherUid + "</requestId><jobId>" +
                                               c_otherUid + "</jobId>"));
}

TEST_F(RequestSchemaFragmentsTest, AbortRequestWithNeitherIdIsInvalid) {
    EXPECT_INVALID(request("AbortRequest", ""));
}

TEST_F(RequestSchemaFragmentsTest, RunDistributedWorkerRequestNamedDirectlyIsInvalid) {
    // The same type with valid content passes, so the rejection is about the content.
    EXPECT_VALID(
        request("FragmentTestRunWorkerRequest",
                "<poolId>" + c_otherUid + "</poolId><name>worker-1</name>" + jobId() +
                    "<cores>4</cores><releaseCores>false</releaseCores><workload>w</workload>"));
    EXPECT_INVALID(request("RunDistributedWorkerRequest",
                           "<poolId>" + c_otherUid + "</poolId><name>worker-1</name>" + jobId() +
                               "<cores>4</cores><releaseCores>false</releaseCores>"));
}

TEST_F(RequestSchemaFragmentsTest, DistributedWorkerRequestNamedDirectlyIsInvalid) {
    EXPECT_INVALID(request("DistributedWorkerRequest", "<poolId>" + c_otherUid + "</poolId>"));
}

TEST_F(RequestSchemaFragmentsTest, WrongElementOrderIsInvalid) {
    EXPECT_INVALID(request("StartQueuedJobRequest",
                           "<cancelJob>true</cancelJob><jobId>" + c_otherUid + "</jobId>"));
    EXPECT_INVALID(reply("ExceptionReply", "<exception><type>t</type><message>m</message>"
                                           "</exception><exceptionStr>x</exceptionStr>"));
    EXPECT_INVALID(
        request("DistributedWorkerResultRequest",
                "<poolId>" + c_otherUid + "</poolId><status>OK</status><taskId>t1</taskId>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<realization id=\"1\"><soloRunJobStatus/>"
                                           "<status>s</status></realization>"));
}

TEST_F(RequestSchemaFragmentsTest, MissingRequiredElementIsInvalid) {
    EXPECT_INVALID(request("TestRequest", "<data>d</data>"));
    EXPECT_INVALID(reply("AckReply", ""));
    EXPECT_INVALID(reply("ProgressUpdate", "<iteration id=\"1\"><status>s</status></iteration>"));
    EXPECT_INVALID(request("DistributedWorkerCallbackRequest",
                           "<poolId>" + c_otherUid + "</poolId><workerId>5</workerId>"));
}

TEST_F(RequestSchemaFragmentsTest, BadSimpleValuesAreInvalid) {
    EXPECT_INVALID(request("StartQueuedJobRequest",
                           "<jobId>" + c_otherUid + "</jobId><cancelJob>maybe</cancelJob>"));
    EXPECT_INVALID(request("AbortRequest", "<requestId>not-a-uid</requestId>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<lastTimestep>-1</lastTimestep>"));
    EXPECT_INVALID(
        reply("ProgressUpdate", "<realization id=\"x\"><status>s</status></realization>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<operationsData><currentOperationIndex>first"
                                           "</currentOperationIndex></operationsData>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<logAppend start=\"1.5\">x</logAppend>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<iteration id=\"1\" maxDeviation=\"wide\"><status>s"
                                           "</status><soloRunJobStatus/></iteration>"));
    EXPECT_INVALID(request("DistributedWorkerCallbackRequest",
                           "<poolId>" + c_otherUid + "</poolId><workerId>five</workerId>" +
                               hostInfo("workerHost")));
    EXPECT_INVALID(element("KS_FragmentTestPoolSettings",
                           "<maxParallelTasks>-8</maxParallelTasks>"
                           "<jobSchedulerScript>s</jobSchedulerScript>"));
}

TEST_F(RequestSchemaFragmentsTest, RequiredAttributesAreEnforced) {
    EXPECT_INVALID(reply("ProgressUpdate", "<requestLogMessage>no time</requestLogMessage>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<jobStatusLogMessage>no time</jobStatusLogMessage>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<realization><status>s</status></realization>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<iteration><status>s</status><soloRunJobStatus/>"
                                           "</iteration>"));
    // logMessage needs all three attributes.
    EXPECT_INVALID(reply("ProgressUpdate", "<realization id=\"1\"><status>s</status>"
                                           "<logMessage type=\"INFO\" group=\"g\">t</logMessage>"
                                           "</realization>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<realization id=\"1\"><status>s</status>"
                                           "<logMessage type=\"INFO\" timestamp=\"1\">t"
                                           "</logMessage></realization>"));
    EXPECT_INVALID(reply("ProgressUpdate", "<realization id=\"1\"><status>s</status>"
                                           "<logMessage group=\"g\" timestamp=\"1\">t"
                                           "</logMessage></realization>"));
}

TEST_F(RequestSchemaFragmentsTest, JobStatusHoldsExactlyOneStatus) {
    EXPECT_INVALID(reply("ProgressUpdate", "<jobStatus/>"));
    EXPECT_INVALID(
        reply("ProgressUpdate", "<jobStatus><contourJobStatus/><orvelJobStatus/></jobStatus>"));
}

TEST_F(RequestSchemaFragmentsTest, PoolSettingsTakeScriptOrHostsNotBoth) {
    EXPECT_INVALID(element("KS_FragmentTestPoolSettings",
                           "<maxParallelTasks>8</maxParallelTasks>"
                           "<jobSchedulerScript>s</jobSchedulerScript>"
                           "<workerHost><hostNameOrIp>n</hostNameOrIp>"
                           "<remoteServicePort>1</remoteServicePort>"
                           "<maxWorkersOnHost>1</maxWorkersOnHost></workerHost>"));
    EXPECT_INVALID(
        element("KS_FragmentTestPoolSettings", "<maxParallelTasks>8</maxParallelTasks>"));
}

// ---- ServerRequestSchema -----------------------------------------------------------------

TEST_F(RequestSchemaFragmentsTest, GetStatusAndShutdownRequests) {
    EXPECT_VALID(request("GetStatusRequest", ""));
    EXPECT_VALID(request("ShutdownRequest", ""));
    EXPECT_INVALID(request("ShutdownRequest", "<force>true</force>"));
}

TEST_F(RequestSchemaFragmentsTest, CallbackRequestWithHostAndPortOrError) {
    EXPECT_VALID(request("CallbackRequest",
                         "<callbackId>cb1</callbackId><host>node7</host><port>4711</port>"));
    EXPECT_VALID(request("CallbackRequest",
                         "<callbackId>cb1</callbackId><errorMessage>no start</errorMessage>"));
}

TEST_F(RequestSchemaFragmentsTest, CallbackRequestWithHostButNoPortIsInvalid) {
    // The same type with valid content passes, so the rejection is about the content.
    EXPECT_VALID(
        request("CallbackRequest", "<callbackId>cb1</callbackId><host>node7</host><port>1</port>"));
    EXPECT_INVALID(request("CallbackRequest", "<callbackId>cb1</callbackId><host>node7</host>"));
}

TEST_F(RequestSchemaFragmentsTest, CallbackRequestInvalidForms) {
    EXPECT_INVALID(request("CallbackRequest",
                           "<callbackId>cb1</callbackId><host>node7</host><port>http</port>"));
    EXPECT_INVALID(request("CallbackRequest",
                           "<callbackId>cb1</callbackId><port>4711</port><host>node7</host>"));
    EXPECT_INVALID(request("CallbackRequest", "<callbackId>cb1</callbackId><host>node7</host>"
                                              "<port>4711</port><errorMessage>e</errorMessage>"));
    EXPECT_INVALID(request("CallbackRequest", "<callbackId>cb1</callbackId>"));
}

TEST_F(RequestSchemaFragmentsTest, DisconnectAndReconnectRequests) {
    EXPECT_VALID(
        request("DisconnectRequest", "<originalRequestId>" + c_otherUid + "</originalRequestId>"));
    EXPECT_VALID(
        request("ReconnectRequest", "<originalRequestId>" + c_otherUid + "</originalRequestId>"));
    EXPECT_INVALID(request("ReconnectRequest", "<originalRequestId>42</originalRequestId>"));
    EXPECT_INVALID(request("DisconnectRequest", ""));
}

TEST_F(RequestSchemaFragmentsTest, GetStatusReply) {
    EXPECT_VALID(reply("GetStatusReply",
                       "<status>IDLE</status><version>5.0.0</version>"
                       "<executableName>ks-request-server</executableName>" +
                           jobId() + "<availableTmpStorage>123456789012</availableTmpStorage>" +
                           hostInfo("requestHost") + hostInfo("replyHost") +
                           "<timeStamp>1700000000000</timeStamp>"));
    EXPECT_VALID(reply("GetStatusReply", "<status>IDLE</status><version>5.0.0</version>"
                                         "<availableTmpStorage>0</availableTmpStorage>" +
                                             hostInfo("requestHost") + hostInfo("replyHost") +
                                             "<timeStamp>-1</timeStamp>"));
}

TEST_F(RequestSchemaFragmentsTest, GetStatusReplyInvalidForms) {
    // requestHost and replyHost swapped in place of each other's order with the storage.
    EXPECT_INVALID(reply("GetStatusReply", "<status>IDLE</status><version>5.0.0</version>" +
                                               hostInfo("requestHost") +
                                               "<availableTmpStorage>0</availableTmpStorage>" +
                                               hostInfo("replyHost") + "<timeStamp>1</timeStamp>"));
    EXPECT_INVALID(reply("GetStatusReply", "<status>IDLE</status><version>5.0.0</version>"
                                           "<availableTmpStorage>lots</availableTmpStorage>" +
                                               hostInfo("requestHost") + hostInfo("replyHost") +
                                               "<timeStamp>1</timeStamp>"));
    EXPECT_INVALID(reply("GetStatusReply", "<status>IDLE</status><version>5.0.0</version>"
                                           "<availableTmpStorage>0</availableTmpStorage>" +
                                               hostInfo("requestHost") +
                                               "<timeStamp>1</timeStamp>"));
}

// ---- TestSchema --------------------------------------------------------------------------

TEST_F(RequestSchemaFragmentsTest, TestJobIdElement) {
    EXPECT_VALID(element("KS_TestJobId", jobId()));
    EXPECT_VALID(element("KS_TestJobId", "<jobId><uid>" + c_uid + "</uid></jobId>"));
    EXPECT_INVALID(element("KS_TestJobId", ""));
    EXPECT_INVALID(element("KS_TestJobId", "<jobId>" + c_uid + "</jobId>"));
}

TEST_F(RequestSchemaFragmentsTest, TestJobIdJobStatusElement) {
    EXPECT_VALID(element("KS_TestJobIdJobStatus",
                         "<jobId_R11><uid>" + c_uid + "</uid><name>n</name></jobId_R11>"));
    EXPECT_VALID(
        element("KS_TestJobIdJobStatus", "<jobId>" + c_uid + "</jobId><jobName>nightly</jobName>"));
}

TEST_F(RequestSchemaFragmentsTest, TestJobIdJobStatusInvalidForms) {
    EXPECT_INVALID(element("KS_TestJobIdJobStatus", "<jobId>" + c_uid + "</jobId>"));
    EXPECT_INVALID(
        element("KS_TestJobIdJobStatus", "<jobName>nightly</jobName><jobId>" + c_uid + "</jobId>"));
    EXPECT_INVALID(element("KS_TestJobIdJobStatus", "<jobId_R11><uid>" + c_uid +
                                                        "</uid></jobId_R11><jobId>" + c_uid +
                                                        "</jobId><jobName>n</jobName>"));
    EXPECT_INVALID(element("KS_TestJobIdJobStatus", ""));
}
