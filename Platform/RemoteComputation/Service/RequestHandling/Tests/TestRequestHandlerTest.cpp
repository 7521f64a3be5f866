#include "Platform/RemoteComputation/Service/RequestHandling/TestRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/AbortRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/LocalRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/StartQueuedJobRequestHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TestRequest.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XmlRequest.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace Kestrane;
using namespace std::chrono_literals;

namespace {

class RecordingProgress : public Progress {
public:
    bool handleLogMessage(const LogMessage& message) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_texts.push_back(message.text());
        m_types.push_back(message.type());
        return true;
    }
    std::vector<std::string> texts() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_texts;
    }
    std::vector<LogMessage::Type> types() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_types;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_texts;
    std::vector<LogMessage::Type> m_types;
};

RequestEncoder testRequest(const std::string& command, const std::string* data = nullptr) {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", command, "  ");
    if (data)
        encoder.addElement("data", *data, "  ");
    return encoder;
}

RequestEncoder testRequest(const std::string& command, const std::string& data) {
    return testRequest(command, &data);
}

// The reply as the client sees it: LocalRequestClient decodes, and so validates, the reply text.
std::shared_ptr<Reply> run(const RequestEncoder& request,
                           std::shared_ptr<Progress> progress = nullptr) {
    LocalRequestClient client(nullptr);
    auto reply = client.handleRequest(request, progress, "");
    EXPECT_NE(reply, nullptr);
    if (reply) {
        EXPECT_EQ(reply->getType(), "TestReply");
        EXPECT_EQ(reply->getRequestId(), request.getId());
    }
    return reply;
}

class TestRequestHandlerTest : public ::testing::Test {
protected:
    void SetUp() override {
        RequestHandler::getDefaultRequestHandler();
        m_dir = std::filesystem::temp_directory_path() /
                ("TestRequestHandlerTest_" + UniqueID::generateId().substr(0, 16));
        TestRequestHandler::s_testFile = FileName();
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(m_dir, ignored);
    }
    FileName writeFile(const std::string& name, const std::string& content) {
        // Made on demand: a death test's child runs SetUp but never TearDown.
        std::filesystem::create_directories(m_dir);
        auto path = m_dir / name;
        std::ofstream(path, std::ios::binary) << content;
        return FileName(path.string());
    }

    std::filesystem::path m_dir;
};

double* mallocDoubles(uint64_t count) {
    auto values = static_cast<double*>(std::malloc(count * sizeof(double)));
    for (uint64_t i = 0; i < count; ++i)
        values[i] = 1.5 * static_cast<double>(i) + 0.25;
    return values;
}

} // namespace

TEST_F(TestRequestHandlerTest, DecodesReadsFieldsAndRefusesOtherRequests) {
    TestRequestHandler handler;
    EXPECT_EQ(handler.getDescription(), "TestRequestHandler");
    FileName file = writeFile("in.txt", "abc");
    RequestEncoder request = testRequest("PUT_FILE", "3");
    request.addFilePath("file", file, false, "  ");
    request.addFilePath("file", writeFile("second.txt", "x"), false, "  ");
    double values[2] = {1.0, 2.0};
    request.addText(*XLinkDataEncoder::encode<double>("attachment",
                                                      XLinkTypeNames::dataTypeOf<double>(), values,
                                                      2, true, XLinkProtocol::dha, nullptr, false),
                    "  ", false);
    XmlRequest xml(request.getEncodedRequest(), true);
    auto decoded = handler.decodeRequest(xml);
    ASSERT_NE(decoded, nullptr);
    auto test = dynamic_cast<TestRequest*>(decoded.get());
    ASSERT_NE(test, nullptr);
    EXPECT_EQ(test->getCommand(), "PUT_FILE");
    EXPECT_EQ(test->getData(), "3");
    EXPECT_EQ(test->getFile().toString(), file.toString());
    ASSERT_NE(test->getAttachment(), nullptr);
    EXPECT_EQ(test->getAttachment()->getDhaPointer(), static_cast<void*>(values));
    EXPECT_EQ(test->getAttachment()->getDataSize(), 2u);
    EXPECT_EQ(test->getSourceString(), xml.getSourceString());
    EXPECT_TRUE(handler.canHandle(decoded.get()));

    XmlRequest bare(testRequest("NOP").getEncodedRequest(), true);
    auto bareDecoded = handler.decodeRequest(bare);
    ASSERT_NE(bareDecoded, nullptr);
    auto bareTest = static_cast<TestRequest*>(bareDecoded.get());
    EXPECT_EQ(bareTest->getData(), "");
    EXPECT_TRUE(bareTest->getFile().empty());
    EXPECT_EQ(bareTest->getAttachment(), nullptr);

    RequestEncoder abort("AbortRequest");
    abort.addElement("requestId", UniqueID::generateId(), "  ");
    XmlRequest abortXml(abort.getEncodedRequest(), true);
    EXPECT_EQ(handler.decodeRequest(abortXml), nullptr);
    AbortRequest other(abortXml.getRootElement());
    EXPECT_FALSE(handler.canHandle(&other));
    LogCapture capture;
    try {
        handler.handle(&other);
        FAIL() << "no exception";
    } catch (const KsExceptionNested& e) {
        EXPECT_EQ(std::string(e.what()), "Unsuported request");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unsuported request 'AbortRequest'."));
}

TEST_F(TestRequestHandlerTest, NopRepliesOkAndLogsTheClient) {
    LogCapture capture;
    auto reply = run(testRequest("NOP"));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: NOP"));
    EXPECT_TRUE(capture.contains(LogLevel::Info,
                                 "Handled TestRequest (NOP) from client LocalRequestClient."));
}

TEST_F(TestRequestHandlerTest, ReplyTextIsIndentedAndValid) {
    RequestHandler::getDefaultRequestHandler();
    XmlRequest xml(testRequest("NOP").getEncodedRequest(), true);
    TestRequestHandler handler;
    auto decoded = handler.decodeRequest(xml);
    ASSERT_NE(decoded, nullptr);
    auto text = handler.handle(decoded.get());
    ASSERT_NE(text, nullptr);
    // The reply's indents: two spaces before the reply element, three more before its children.
    ReplyEncoder expected("TestReply", *decoded);
    expected.addElement("data", "OK");
    EXPECT_EQ(*text, expected.getEncodedReply("  ", "   "));
    EXPECT_NE(text->find("\n     <data>OK</data>\n"), std::string::npos) << *text;
    auto reply = Reply::decode(*text);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "OK");
}

TEST_F(TestRequestHandlerTest, LowerCaseCommandIsUnknown) {
    LogCapture capture;
    auto reply = run(testRequest("nop"));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "UNKNOWN_COMMAND");
    EXPECT_TRUE(capture.contains(LogLevel::Info,
                                 "Handled TestRequest (nop) from client LocalRequestClient."));
}

TEST_F(TestRequestHandlerTest, WaitSleepsAndRepliesOk) {
    LogCapture capture;
    auto before = std::chrono::steady_clock::now();
    auto reply = run(testRequest("WAIT", "200"));
    EXPECT_GE(std::chrono::steady_clock::now() - before, 190ms);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: WAIT 200 ms"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: WAIT done"));
}

TEST_F(TestRequestHandlerTest, WaitWithNonNumericArgumentThrows) {
    LocalRequestClient client(nullptr);
    LogCapture capture;
    EXPECT_THROW(client.handleRequest(testRequest("WAIT", "soon"), nullptr, ""),
                 boost::bad_lexical_cast);
    EXPECT_FALSE(capture.contains(LogLevel::Debug, "TestRequestHandler: WAIT done"));
}

TEST_F(TestRequestHandlerTest, WaitProgressZeroSendsStartAndDoneOnly) {
    auto progress = std::make_shared<RecordingProgress>();
    auto reply = run(testRequest("WAIT_PROGRESS", "0"), progress);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    EXPECT_EQ(progress->texts(), (std::vector<std::string>{"starting...", "done."}));
    for (auto type : progress->types())
        EXPECT_EQ(type, LogMessage::Info);
}

TEST_F(TestRequestHandlerTest, WaitProgressWithNonNumericArgumentDoesNotWait) {
    LogCapture capture;
    auto progress = std::make_shared<RecordingProgress>();
    auto reply = run(testRequest("WAIT_PROGRESS", "later"), progress);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    EXPECT_EQ(progress->texts(), (std::vector<std::string>{"starting...", "done."}));
    EXPECT_FALSE(capture.containsSubstring("TestRequestHandler: WAIT_PROGRESS "));
}

TEST_F(TestRequestHandlerTest, WaitProgress250SleepsThreeTimes) {
    LogCapture capture;
    auto progress = std::make_shared<RecordingProgress>();
    auto before = std::chrono::steady_clock::now();
    auto reply = run(testRequest("WAIT_PROGRESS", "250"), progress);
    EXPECT_GE(std::chrono::steady_clock::now() - before, 290ms);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    EXPECT_EQ(progress->texts(), (std::vector<std::string>{"starting...", "waiting...",
                                                           "waiting...", "waiting...", "done."}));
    for (const char* line :
         {"TestRequestHandler: WAIT_PROGRESS 0 ms", "TestRequestHandler: WAIT_PROGRESS 100 ms",
          "TestRequestHandler: WAIT_PROGRESS 200 ms"})
        EXPECT_TRUE(capture.contains(LogLevel::Debug, line)) << line;
    EXPECT_FALSE(capture.containsSubstring("TestRequestHandler: WAIT_PROGRESS 300"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: WAIT done"));
}

TEST_F(TestRequestHandlerTest, AbortDuringWaitProgressRepliesAborted) {
    auto progress = std::make_shared<RecordingProgress>();
    RequestEncoder request = testRequest("WAIT_PROGRESS", "20000");
    LocalRequestClient client(nullptr);
    std::shared_ptr<Reply> reply;
    std::atomic<bool> done{false};
    std::chrono::steady_clock::time_point finished;
    std::thread runner([&] {
        reply = client.handleRequest(request, progress, "");
        finished = std::chrono::steady_clock::now();
        done = true;
    });
    auto deadline = std::chrono::steady_clock::now() + 5s;
    while (progress->texts().size() < 2 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(5ms);
    ASSERT_GE(progress->texts().size(), 2u);
    EXPECT_FALSE(done);
    auto aborted = std::chrono::steady_clock::now();
    client.abortRequest(request.getId());
    runner.join();
    EXPECT_LT(finished - aborted, 250ms);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "ABORTED");
    auto texts = progress->texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.front(), "starting...");
    EXPECT_EQ(texts.back(), "waiting...");
    for (const auto& text : texts)
        EXPECT_NE(text, "done.");
}

TEST_F(TestRequestHandlerTest, GetFileBeforePutFileIsNotFound) {
    LogCapture capture;
    auto reply = run(testRequest("GET_FILE"));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "ERROR: file not found");
    EXPECT_FALSE(reply->hasElement("file"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: GET_FILE ''"));
    EXPECT_TRUE(capture.containsSubstring("File doesn't exist: "));
}

TEST_F(TestRequestHandlerTest, PutFileThenGetFileReturnsIt) {
    LogCapture capture;
    FileName file = writeFile("payload.bin", std::string(1234, 'k'));
    RequestEncoder put = testRequest("PUT_FILE", "1234");
    put.addFilePath("file", file, false, "  ");
    auto putReply = run(put);
    ASSERT_NE(putReply, nullptr);
    EXPECT_EQ(putReply->getElement("data"), "OK");
    EXPECT_EQ(TestRequestHandler::s_testFile.toString(), file.toString());
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: PUT_FILE '" +
                                                      file.toString() +
                                                      "', expected size: 1234 bytes"));
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: PUT_FILE done"));

    auto getReply = run(testRequest("GET_FILE"));
    ASSERT_NE(getReply, nullptr);
    EXPECT_EQ(getReply->getElement("data"), "OK, 1234");
    EXPECT_EQ(getReply->getFilePath("file").toString(), file.toString());
    EXPECT_TRUE(capture.contains(LogLevel::Debug, "TestRequestHandler: GET_FILE done"));
    // The file stays where it was.
    EXPECT_TRUE(FileUtilities::exists(file));
}

TEST_F(TestRequestHandlerTest, PutFileWithWrongSizeIsRefused) {
    LogCapture capture;
    FileName file = writeFile("short.bin", "12345");
    RequestEncoder put = testRequest("PUT_FILE", "6");
    put.addFilePath("file", file, false, "  ");
    auto reply = run(put);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "ERROR: wrong file size");
    EXPECT_TRUE(capture.containsSubstring("File has wrong size: 5"));
    EXPECT_TRUE(TestRequestHandler::s_testFile.empty());
}

TEST_F(TestRequestHandlerTest, PutFileOfMissingFileIsNotFound) {
    LogCapture capture;
    FileName missing((m_dir / "missing.bin").string());
    RequestEncoder put = testRequest("PUT_FILE", "10");
    put.addFilePath("file", missing, false, "  ");
    auto reply = run(put);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "ERROR: file not found");
    EXPECT_TRUE(capture.containsSubstring("File doesn't exist: " + missing.toString()));
    EXPECT_TRUE(TestRequestHandler::s_testFile.empty());
}

TEST_F(TestRequestHandlerTest, PutFileWithNonNumericSizeThrows) {
    FileName file = writeFile("any.bin", "1");
    RequestEncoder put = testRequest("PUT_FILE", "one");
    put.addFilePath("file", file, false, "  ");
    LocalRequestClient client(nullptr);
    EXPECT_THROW(client.handleRequest(put, nullptr, ""), boost::bad_lexical_cast);
}

TEST_F(TestRequestHandlerTest, PutDataSumsAMemoryFile) {
    LogCapture capture;
    constexpr uint64_t c_count = 100;
    double* values = mallocDoubles(c_count);
    double expected = 0;
    for (uint64_t i = 0; i < c_count; ++i)
        expected += values[i];
    std::string element = *XLinkDataEncoder::encode<double>(
        "attachment", XLinkTypeNames::dataTypeOf<double>(), values, c_count, true,
        XLinkProtocol::dha, nullptr, false);
    // The array goes into a memory file and is freed.
    ASSERT_TRUE(XLinkTranscoder::dhaToHdfs(element, true, 3));
    ASSERT_NE(element.find("hdfs://#"), std::string::npos) << element;

    RequestEncoder request = testRequest("PUT_DATA");
    request.addText(element, "  ", false);
    auto reply = run(request);
    ASSERT_NE(reply, nullptr);
    EXPECT_DOUBLE_EQ(boost::lexical_cast<double>(reply->getElement("data")), expected);
    EXPECT_TRUE(capture.containsSubstring("PUT_DATA href=hdfs://#"));
    EXPECT_TRUE(capture.containsSubstring("converted hdfs to dha href=dha://#"));
    std::ostringstream line;
    line << "DataSize = " << c_count << ", sum = " << expected;
    EXPECT_TRUE(capture.contains(LogLevel::Debug, line.str())) << line.str();

    // The memory file stays with its maker.
    auto start = element.find("hdfs://");
    auto end = element.find('"', start);
    std::free(XLinkUtils::getAddressFromString(element.substr(start, end - start)));
}

TEST_F(TestRequestHandlerTest, PutDataSumsAnArrayInThisProcess) {
    double values[4] = {0.5, 1.5, 2.0, -1.0};
    RequestEncoder request = testRequest("PUT_DATA");
    request.addText(*XLinkDataEncoder::encode<double>("attachment",
                                                      XLinkTypeNames::dataTypeOf<double>(), values,
                                                      4, true, XLinkProtocol::dha, nullptr, false),
                    "  ", false);
    auto reply = run(request);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "3");
}

TEST_F(TestRequestHandlerTest, PutDataWithNullPointerIsRefused) {
    LogCapture capture;
    const std::string element =
        "<attachment id=\"" + UniqueID::generateId() + "\" name=\"attachment\" dataPtrType=\"" +
        XLinkTypeNames::dataPtrTypeOf<double>() + "\" dataType=\"" +
        XLinkTypeNames::dataTypeOf<double>() + "\" dataSize=\"3\" href=\"dha://#\"/>";
    RequestEncoder request = testRequest("PUT_DATA");
    request.addText(element, "  ", false);
    auto reply = run(request);
    ASSERT_NE(reply, nullptr);
    const std::string data = reply->getElement("data");
    const std::string prefix = "ERROR: NULL-prt received for dha prt to use out of: \n";
    ASSERT_EQ(data.compare(0, prefix.size(), prefix), 0) << data;
    EXPECT_NE(data.find("href=\"dha://#\""), std::string::npos) << data;
    EXPECT_TRUE(capture.contains(LogLevel::Error, data));
}

TEST_F(TestRequestHandlerTest, PutDataWithBadMemoryFileIsATranscodingFailure) {
    LogCapture capture;
    std::vector<unsigned char> junk(256, 0x5a);
    const std::string element =
        "<attachment id=\"" + UniqueID::generateId() +
        "\" name=\"attachment\" dataPtrType=\"unsigned char *\" dataType=\"double\" "
        "dataSize=\"256\" href=\"hdfs://" +
        XLinkUtils::getAddressString(junk.data(), true) + "\"/>";
    RequestEncoder request = testRequest("PUT_DATA");
    request.addText(element, "  ", false);
    auto reply = run(request);
    ASSERT_NE(reply, nullptr);
    const std::string data = reply->getElement("data");
    const std::string prefix = "ERROR: Transcoding failure for: \n";
    ASSERT_EQ(data.compare(0, prefix.size(), prefix), 0) << data;
    EXPECT_NE(data.find("hdfs://#"), std::string::npos) << data;
    EXPECT_TRUE(capture.contains(LogLevel::Error, data));
}

TEST_F(TestRequestHandlerTest, PutDataWithoutAttachmentIsRefused) {
    auto reply = run(testRequest("PUT_DATA"));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "ERROR: no attachment received");
}

TEST_F(TestRequestHandlerTest, GetDataGivesTheGeneratedArray) {
    LogCapture capture;
    auto reply = run(testRequest("GET_DATA", "5"));
    ASSERT_NE(reply, nullptr);
    EXPECT_FALSE(reply->hasElement("data"));
    auto data = reply->getKSData("attachment");
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(data->getTag(), "attachment");
    EXPECT_EQ(data->getName(), "attachment");
    EXPECT_EQ(data->getDataType(), XLinkTypeNames::dataTypeOf<double>());
    EXPECT_EQ(data->getDataPtrType(), XLinkTypeNames::dataPtrTypeOf<double>());
    EXPECT_EQ(data->getDataSize(), 5u);
    auto values = static_cast<double*>(data->getDhaPointer());
    ASSERT_NE(values, nullptr);
    for (int i = 0; i < 5; ++i)
        EXPECT_DOUBLE_EQ(values[i], (i + 1) * 0.1) << i;
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Generating data. Size = 5"));
    EXPECT_TRUE(capture.containsSubstring("attachment = <attachment id="));
    std::free(values);
}

TEST_F(TestRequestHandlerTest, GetDataZeroGivesAnEmptyAttachment) {
    auto reply = run(testRequest("GET_DATA", "0"));
    ASSERT_NE(reply, nullptr);
    EXPECT_FALSE(reply->hasElement("data"));
    auto data = reply->getKSData("attachment");
    ASSERT_NE(data, nullptr);
    EXPECT_TRUE(data->isValid());
    EXPECT_EQ(data->getDataSize(), 0u);
    EXPECT_EQ(data->getHref().compare(0, 6, "dha://"), 0) << data->getHref();
    std::free(data->getDhaPointer());
}

TEST_F(TestRequestHandlerTest, GetDataWithNonNumericCountThrows) {
    LocalRequestClient client(nullptr);
    LogCapture capture;
    EXPECT_THROW(client.handleRequest(testRequest("GET_DATA", "many"), nullptr, ""),
                 boost::bad_lexical_cast);
    EXPECT_FALSE(capture.containsSubstring("Generating data."));
}

TEST_F(TestRequestHandlerTest, QueuedNopRunsWhenTheStartComes) {
    LogCapture capture;
    const std::string jobId = UniqueID::generateId();
    std::shared_ptr<Reply> reply;
    std::thread job([&] { reply = run(testRequest("QUEUED_NOP", jobId)); });
    ASSERT_TRUE(capture.waitFor("Waiting for StartJobRequest for jobId " + jobId + ", timeout 60s",
                                5000ms));
    // The manager's request: answered once the job has ended.
    RequestEncoder start("StartQueuedJobRequest");
    start.addElement("jobId", jobId, "  ");
    LocalRequestClient manager(nullptr);
    auto ack = manager.handleRequest(start, nullptr, "");
    job.join();
    ASSERT_NE(ack, nullptr);
    EXPECT_EQ(ack->getType(), "AckReply");
    EXPECT_EQ(ack->getElement("status"), "OK");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "OK");
    EXPECT_TRUE(capture.contains("TestRequestHandler: QUEUED_NOP jobId= " + jobId));
    EXPECT_TRUE(capture.contains("TestRequestHandler: QUEUED_NOP done"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Queued job ended " + jobId));
}

TEST_F(TestRequestHandlerTest, QueuedNopWithoutStartRepliesNok) {
    LogCapture capture;
    const std::string jobId = UniqueID::generateId();
    std::shared_ptr<Reply> reply;
    std::thread job([&] { reply = run(testRequest("QUEUED_NOP", jobId)); });
    ASSERT_TRUE(capture.waitForSubstring("Waiting for StartJobRequest for jobId " + jobId, 5000ms));
    StartQueuedJobRequestHandler::abortWaitingJob(jobId);
    job.join();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getElement("data"), "NOK");
    EXPECT_TRUE(capture.contains("TestRequestHandler: QUEUED_NOP no start request received!"));
}

TEST_F(TestRequestHandlerTest, CrashEndsTheProcessWithCode99) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            LocalRequestClient client(nullptr);
            client.handleRequest(testRequest("CRASH"), nullptr, "");
        },
        ::testing::ExitedWithCode(99), "");
}
