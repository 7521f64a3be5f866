#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Attachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileCommand.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Progress.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerConnectionException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStarter.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ServerRequestSchema.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/ClientFakeServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Tests/XLinkTestSupport.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkDataEncoderArch.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkFileEncoder.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/lexical_cast.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <regex>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Kestrane;
using namespace KestraneTest;
using namespace std::chrono_literals;
using Testing::ClientFakeServer;

namespace {

using Words = std::vector<std::string>;

// Starts nothing: it names the fake server as the started one, after a pause that lets a
// second sender arrive while the start is under way.
class FakeStarter : public RequestServerStarter {
public:
    FakeStarter(int port, bool succeed = true, std::chrono::milliseconds pause = 0ms)
        : RequestServerStarter("fake-server", GenericJobId(), ""), m_port(port), m_succeed(succeed),
          m_pause(pause) {}

    bool startRequestServer() override {
        ++starts;
        std::this_thread::sleep_for(m_pause);
        if (!m_succeed) {
            errorMessage = "fake start failed";
            return false;
        }
        requestServerHost = "127.0.0.1";
        requestServerPort = static_cast<unsigned int>(m_port);
        return true;
    }
    std::string getReconnectString() const override { return "FAKE:reconnect"; }

    std::atomic<int> starts{0};

private:
    int m_port;
    bool m_succeed;
    std::chrono::milliseconds m_pause;
};

// An attachment of a kind that the client does not know.
class ForeignAttachment : public Attachment {
public:
    explicit ForeignAttachment(const std::string& id) : Attachment(id) {}
};

// Keeps the attachments that the client found, and can add a foreign one behind them.
class InspectableClient : public TcpRequestClient {
public:
    InspectableClient(const std::string& name, const HostInfo& host)
        : TcpRequestClient(name, host) {}

    std::string foreignId;
    std::shared_ptr<std::vector<std::shared_ptr<Attachment>>> attachments;

protected:
    std::shared_ptr<std::vector<std::shared_ptr<Attachment>>>
    createAttachments(std::string& request, bool& hasFileAttachments) override {
        attachments = TcpRequestClient::createAttachments(request, hasFileAttachments);
        if (!foreignId.empty())
            attachments->push_back(std::make_shared<ForeignAttachment>(foreignId));
        return attachments;
    }
};

std::string scratchDir() {
    std::string dir = ::testing::TempDir() + "/client-test-" + std::to_string(::getpid());
    ::mkdir(dir.c_str(), 0700);
    return dir;
}

// A file of `size` bytes; large ones are sparse, so they cost no disk.
class TempFile {
public:
    TempFile(const std::string& leaf, const std::string& content, uint64_t size = 0)
        : m_path(scratchDir() + "/" + leaf) {
        std::ofstream out(m_path, std::ios::binary);
        out << content;
        out.close();
        if (size > content.size()) {
            EXPECT_EQ(::truncate(m_path.c_str(), static_cast<off_t>(size)), 0);
        }
    }
    ~TempFile() { std::remove(m_path.c_str()); }
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string attributeOf(const std::string& element, const std::string& name) {
    std::smatch match;
    std::regex pattern(" " + name + "=\"([^\"]*)\"");
    return std::regex_search(element, match, pattern) ? std::string(match[1]) : std::string();
}

std::string fileElement(const std::string& name, const std::string& path, bool forceTransfer) {
    return *XLinkFileEncoder::encode(name, FileName(path), false, forceTransfer);
}

RequestEncoder testRequest(const std::string& command) {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", command, "  ");
    return encoder;
}

void configure(const std::string& name, const std::string& value) {
    RequestServerConfiguration::getRegisteredInstance()->setValue(name, value);
}

int closedPort() {
    Computing::ListenSocket listener(0, 1, 1);
    return listener.getListenPort();
}

// "host#user" with the case of every letter of the host part turned round.
std::string otherCaseHost(const std::string& hostAndUser) {
    std::string result = hostAndUser;
    for (size_t i = 0; i < result.size() && result[i] != '#'; ++i) {
        unsigned char c = static_cast<unsigned char>(result[i]);
        result[i] = static_cast<char>(std::islower(c) ? std::toupper(c) : std::tolower(c));
    }
    return result;
}

// Keeps the lines of a job's log with their arguments.
class RecordingJobLog : public AbstractJobLog {
public:
    struct Line {
        std::string text;
        int64_t value;
        bool flag;
    };
    std::string getName() override { return "recording"; }
    int logMessage(const std::string& text, int64_t value, bool flag) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back({text, value, flag});
        return 0;
    }
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return 0; }
    std::vector<Line> lines() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }

private:
    std::mutex m_mutex;
    std::vector<Line> m_lines;
};

const std::string c_cantConnect = "Error sending request: can't connect to request server!\n";

class TcpRequestClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_NE(RequestServer::getInstance(-1, 0), nullptr);
        registerLinkTestSchema();
        // Nothing in these tests may hang on a silent socket for long.
        configure("socketTimeout", "20");
    }

    ClientFakeServer fake;
    LogCapture capture;
};

} // namespace

// ---- what goes on the wire ----

TEST_F(TcpRequestClientTest, RequestWithoutAttachmentsSendsPingRequestAndClose) {
    fake.start();
    TcpRequestClient client("plain", fake.host());
    RequestEncoder request = testRequest("NOP");
    client.sendRequest(request.getEncodedRequest(), nullptr, true, "", nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "RQ", "CLOSE_CONNECTION"}));
    auto packets = fake.packets();
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_EQ(packets[0].data, "PING");
    const std::string& package = packets[1].data;
    EXPECT_EQ(Testing::clientRequestIdOf(package), request.getId());
    EXPECT_NE(package.find(client.getRequestClientId()), std::string::npos);
    EXPECT_NE(package.find("progressUpdates=\"0\""), std::string::npos);
    EXPECT_NE(package.find("replyExpected=\"1\""), std::string::npos);
    EXPECT_EQ(packets[2].data, "CLOSE_CONNECTION");
    EXPECT_EQ(packets[2].connection, 0);

    const std::string port = std::to_string(fake.port());
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "Connecting to request server on host "
                                                  "'localhost' at '127.0.0.1' on port '" +
                                                      port + "'..."));
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Connected to request server on host 'localhost' at '127.0.0.1' "
                                 "on port '" +
                                     port + "'.\nTrying to ping request server"));
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Successfully connected and pinged " + client.getDescription()));
    EXPECT_FALSE(capture.containsSubstring("transferFileAttachments"));
}

TEST_F(TcpRequestClientTest, ProgressAndNoReplyExpectedGoIntoThePackage) {
    fake.start();
    TcpRequestClient client("flags", fake.host());
    struct Ignore : Progress {
        bool handleLogMessage(const LogMessage&) override { return true; }
    };
    client.sendRequest(testRequest("NOP").getEncodedRequest(), std::make_shared<Ignore>(), false,
                       "", nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    auto packets = fake.packets();
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_NE(packets[1].data.find("progressUpdates=\"1\""), std::string::npos);
    EXPECT_NE(packets[1].data.find("replyExpected=\"0\""), std::string::npos);
}

TEST_F(TcpRequestClientTest, OnlyAnHdfsAttachmentAsksNoHostAndUser) {
    fake.start();
    TcpRequestClient client("hdfs", fake.host());
    int* values = mallocArray<int>(10, 3);
    std::string element = *XLinkDataEncoder::encode<int>("v", "4-byte int", values, 10, false,
                                                         XLinkProtocol::dha, nullptr, false);
    const std::string id = attributeOf(element, "id");
    // The array becomes an hdfs block on the way, which the send consumes.
    client.sendRequest(requestText(element), nullptr, true, "", nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "HDFS", "BINARY", "RQ", "CLOSE_CONNECTION"}));
    auto packets = fake.packets();
    ASSERT_EQ(packets.size(), 5u);
    const std::string size = std::to_string(packets[2].data.size());
    EXPECT_GT(packets[2].data.size(), 0u);
    EXPECT_EQ(packets[1].data, "HDFS " + id + " " + size);
    EXPECT_NE(packets[3].data.find("hdfs://"), std::string::npos);
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Sending HdfsAttachement: id=" + id + ", dataSize=" + size));
    EXPECT_FALSE(capture.containsSubstring("transferFileAttachments"));
}

TEST_F(TcpRequestClientTest, ArchAttachmentGoesAsCommandAndRawBlockBeforeTheRequest) {
    fake.start();
    TcpRequestClient client("arch", fake.host());
    auto bytes = std::make_shared<std::vector<unsigned char>>(
        std::vector<unsigned char>{'a', 0, 'r', 'c', 'h'});
    const std::string element = *XLinkDataEncoderArch::encode("data", bytes);
    const std::string id = attributeOf(element, "id");
    // The block behind the link is the sender's to free after the send.
    client.sendRequest(requestText(element), nullptr, true, "", nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "ARCH", "BINARY", "RQ", "CLOSE_CONNECTION"}));
    auto packets = fake.packets();
    ASSERT_EQ(packets.size(), 5u);
    EXPECT_EQ(packets[1].data, "ARCH " + id + " 5");
    EXPECT_EQ(packets[2].data, std::string("a\0rch", 5));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Sending ArchAttachment: id=" + id + ", dataSize=5"));
    EXPECT_FALSE(capture.containsSubstring("transferFileAttachments"));
}

TEST_F(TcpRequestClientTest, SameHostAndUserSendsOnlyTheForcedFile) {
    const std::string target = scratchDir() + "/received-same";
    ::mkdir(target.c_str(), 0700);
    fake.fileDirectory = target;
    fake.start();
    TempFile forced("forced.bin", "forced content");
    TempFile plain("plain.bin", "plain content");
    const std::string forcedElement = fileElement("forced", forced.path(), true);
    const std::string plainElement = fileElement("plain", plain.path(), false);
    InspectableClient client("files", fake.host());
    client.sendRequest(requestText(forcedElement + "\n" + plainElement), nullptr, true, "",
                       nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(),
              (Words{"PING", "GET_HOST_AND_USER_ID", "FILE", "RQ", "CLOSE_CONNECTION"}));
    auto packets = fake.packets();
    ASSERT_EQ(packets.size(), 5u);
    FileCommand command;
    ASSERT_TRUE(FileCommand::parse(packets[2].data, command));
    EXPECT_EQ(command.fileId, attributeOf(forcedElement, "id"));
    EXPECT_EQ(command.directory, client.getRequestClientId());
    EXPECT_EQ(command.fileName, "forced.bin");
    EXPECT_EQ(fake.fileResults(), Words{"copied"});
    EXPECT_EQ(readFile(target + "/forced.bin"), "forced content");

    ASSERT_TRUE(client.attachments);
    ASSERT_EQ(client.attachments->size(), 2u);
    auto first = std::dynamic_pointer_cast<FileAttachment>((*client.attachments)[0]);
    auto second = std::dynamic_pointer_cast<FileAttachment>((*client.attachments)[1]);
    ASSERT_TRUE(first && second);
    EXPECT_TRUE(first->getFileTransfered());
    EXPECT_FALSE(second->getFileTransfered());
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "transferFileAttachments = 0"));
    EXPECT_TRUE(
        capture.contains(LogLevel::Trace, "Not transfering file: id=" + second->getId() +
                                              ", filePath=" + second->getFileName().toString()));
    EXPECT_TRUE(capture.contains(LogLevel::Trace,
                                 "Sending file: id=" + first->getId() +
                                     ", filePath=" + first->getFileName().toString() + "..."));
    const std::string local = HostAndUserId().toString();
    EXPECT_TRUE(capture.contains(
        LogLevel::Trace,
        "Checking if files have to be transferred\nLocal  HostAndUserId: " + local +
            "\nRemote HostAndUserId: " + local + "\nhasSameHostAndUserId = true"));
    std::remove((target + "/forced.bin").c_str());
    ::rmdir(target.c_str());
}

TEST_F(TcpRequestClientTest, HostAndUserIdInAnotherCaseCountsAsAnotherHost) {
    const std::string local = HostAndUserId().toString();
    const std::string other = otherCaseHost(local);
    if (other == local)
        GTEST_SKIP() << "host name '" << local << "' has no letters to change";
    const std::string target = scratchDir() + "/received-case";
    ::mkdir(target.c_str(), 0700);
    fake.fileDirectory = target;
    fake.hostAndUserAnswer = other;
    fake.start();
    TempFile plain("travels.bin", "travelling content");
    InspectableClient client("case", fake.host());
    client.sendRequest(requestText(fileElement("plain", plain.path(), false)), nullptr, true, "",
                       nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(),
              (Words{"PING", "GET_HOST_AND_USER_ID", "FILE", "RQ", "CLOSE_CONNECTION"}));
    EXPECT_EQ(fake.fileResults(), Words{"copied"});
    EXPECT_TRUE(capture.contains(LogLevel::Trace, "transferFileAttachments = 1"));
    EXPECT_TRUE(capture.contains(
        LogLevel::Trace,
        "Checking if files have to be transferred\nLocal  HostAndUserId: " + local +
            "\nRemote HostAndUserId: " + other + "\nhasSameHostAndUserId = false"));
    ASSERT_TRUE(client.attachments && client.attachments->size() == 1u);
    EXPECT_TRUE(
        std::static_pointer_cast<FileAttachment>(client.attachments->front())->getFileTransfered());
    std::remove((target + "/travels.bin").c_str());
    ::rmdir(target.c_str());
}

TEST_F(TcpRequestClientTest, HostAndUserReplyWithoutHashThrows) {
    fake.hostAndUserAnswer = "hostwithoutuser";
    fake.start();
    TempFile plain("nohash.bin", "x");
    TcpRequestClient client("nohash", fake.host());
    try {
        client.sendRequest(requestText(fileElement("plain", plain.path(), false)), nullptr, true,
                           "", nullptr);
        FAIL() << "no exception";
    } catch (const RequestHandlingException& e) {
        EXPECT_STREQ(e.what(), "Error sending request: unexpected reply to GET_HOST_AND_USER_ID!");
        EXPECT_EQ(e.getSource(), "TcpRequestClient");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unexpected reply to GET_HOST_AND_USER_ID: C "
                                                  "HOST_AND_USER_ID hostwithoutuser"));
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "GET_HOST_AND_USER_ID"}));
}

TEST_F(TcpRequestClientTest, CancelBeforeTheFirstFileReturnsQuietlyWithoutRequest) {
    fake.start();
    TempFile forced("cancelled.bin", "never sent");
    TcpRequestClient client("cancel", fake.host());
    client.cancelSendRequest();
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Cancelling send request..."));
    EXPECT_NO_THROW(client.sendRequest(requestText(fileElement("f", forced.path(), true)), nullptr,
                                       true, "", nullptr));
    EXPECT_TRUE(capture.contains(LogLevel::Info, "Send request cancelled: skipping send!"));
    // The client left the connection open; stop() ends it from this side.
    fake.stop();
    EXPECT_EQ(fake.words(), (Words{"PING", "GET_HOST_AND_USER_ID"}));
}

TEST_F(TcpRequestClientTest, CancelDuringTheTransferThrowsSendingRequestCancelled) {
    fake.fileMode = ClientFakeServer::FileMode::Stall;
    fake.start();
    TempFile big("big.bin", "head", 64ull << 20);
    TcpRequestClient client("cancel", fake.host());
    auto sending = std::async(std::launch::async, [&]() -> std::string {
        try {
            client.sendRequest(requestText(fileElement("big", big.path(), true)), nullptr, true, "",
                               nullptr);
        } catch (const RequestHandlingException& e) {
            return std::string("RequestHandlingException: ") + e.what();
        } catch (const std::exception& e) {
            return std::string("other: ") + e.what();
        }
        return "returned";
    });
    ASSERT_TRUE(fake.waitForStalledFile(10000ms));
    client.cancelSendRequest();
    ASSERT_EQ(sending.wait_for(10s), std::future_status::ready);
    const std::string outcome = sending.get();
    const std::string prefix = "RequestHandlingException: Sending request cancelled: ";
    EXPECT_EQ(outcome.rfind(prefix, 0), 0u) << outcome;
    EXPECT_TRUE(capture.contains(LogLevel::Info, outcome.substr(outcome.find(": ") + 2)));
    fake.stop();
    EXPECT_EQ(fake.words(), (Words{"PING", "GET_HOST_AND_USER_ID", "FILE"}));
}

TEST_F(TcpRequestClientTest, UnknownAttachmentKindIsSkippedAndTheRequestGoesOut) {
    fake.start();
    InspectableClient client("foreign", fake.host());
    client.foreignId = "foreign-1";
    const std::string element =
        "<data id=\"foreign-1\" name=\"f\" dataSize=\"1\" href=\"ftp://host/x\"/>";
    client.sendRequest(requestText(element), nullptr, true, "", nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unknown attachment type. Id=foreign-1"));
    EXPECT_EQ(fake.words(), (Words{"PING", "RQ", "CLOSE_CONNECTION"}));
    EXPECT_NE(fake.packets()[1].data.find("id=\"foreign-1\""), std::string::npos);
}

TEST_F(TcpRequestClientTest, AttachmentThatCannotBeCreatedIsReportedToTheJobLog) {
    fake.start();
    TcpRequestClient client("missing", fake.host());
    auto jobLog = std::make_shared<RecordingJobLog>();
    const std::string missing = scratchDir() + "/no-such-file.bin";
    const std::string headline = "Error sending request: exception while creating attachments!";
    try {
        client.sendRequest(requestText(fileElement("gone", missing, false)), nullptr, true, "",
                           jobLog);
        FAIL() << "no exception";
    } catch (const RequestHandlingException& e) {
        EXPECT_EQ(std::string(e.what()), headline);
        EXPECT_EQ(e.getSource(), "TcpRequestClient");
    }
    auto lines = jobLog->lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.rfind(headline + "\n", 0), 0u) << lines[0].text;
    EXPECT_NE(lines[0].text.find(missing), std::string::npos);
    EXPECT_EQ(lines[0].value, -1);
    EXPECT_TRUE(lines[0].flag);
    EXPECT_TRUE(capture.contains(LogLevel::Error, lines[0].text));
    // The connection was made before, and is dropped without a request.
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), Words{"PING"});
}

TEST_F(TcpRequestClientTest, RefusedFileThrowsErrorSendingFileAndTellsTheJobLog) {
    fake.fileDirectory = scratchDir() + "/no-such-directory";
    fake.start();
    TempFile forced("refused.bin", "content");
    TcpRequestClient client("refused", fake.host());
    auto jobLog = std::make_shared<RecordingJobLog>();
    std::string message;
    try {
        client.sendRequest(requestText(fileElement("f", forced.path(), true)), nullptr, true, "",
                           jobLog);
        FAIL() << "no exception";
    } catch (const RequestHandlingException& e) {
        message = e.what();
        EXPECT_EQ(e.getSource(), "TcpRequestClient");
    }
    EXPECT_EQ(message.rfind("Error sending file: File transfer refused by the receiver: ", 0), 0u)
        << message;
    EXPECT_TRUE(capture.contains(LogLevel::Error, message));
    auto lines = jobLog->lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back().text, message);
    EXPECT_EQ(lines.back().value, -1);
    EXPECT_TRUE(lines.back().flag);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "GET_HOST_AND_USER_ID", "FILE"}));
}

// ---- connecting and pinging ----

TEST_F(TcpRequestClientTest, OtherPingAnswerClosesAndFailsTheSend) {
    fake.pingAnswer = "PANG";
    fake.start();
    TcpRequestClient client("ping", fake.host());
    const std::string description = client.getDescription();
    try {
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
        FAIL() << "no exception";
    } catch (const RequestServerConnectionException& e) {
        EXPECT_EQ(std::string(e.what()),
                  c_cantConnect + "Unexpected reply received when pinging " + description + ".");
        EXPECT_EQ(e.getSource(), "TcpRequestClient");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Error, "Unexpected reply received when pinging " +
                                                      description + ": C PANG"));
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "CLOSE_CONNECTION"}));
}

TEST_F(TcpRequestClientTest, PeerThatClosesWithoutPongGivesNoReplyMessage) {
    fake.closeAfterPing = true;
    fake.start();
    TcpRequestClient client("ping", fake.host());
    const std::string description = client.getDescription();
    try {
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
        FAIL() << "no exception";
    } catch (const RequestServerConnectionException& e) {
        EXPECT_EQ(std::string(e.what()),
                  c_cantConnect + "No reply received when trying to ping " + description + ".");
    }
    EXPECT_TRUE(
        capture.contains(LogLevel::Error, "NULL reply received when pinging " + description));
}

TEST_F(TcpRequestClientTest, RefusedConnectionIsReportedWithTheDescription) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(closedPort());
    TcpRequestClient client("refused", host);
    const std::string description = client.getDescription();
    try {
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
        FAIL() << "no exception";
    } catch (const RequestServerConnectionException& e) {
        const std::string expected =
            c_cantConnect + "Exception trying to connect to " + description + ".\n";
        EXPECT_EQ(std::string(e.what()).rfind(expected, 0), 0u) << e.what();
        EXPECT_GT(std::string(e.what()).size(), expected.size());
    }
    EXPECT_TRUE(capture.containsSubstring("Error connecting to RequestServer " + description +
                                          ". Exception: "));
}

TEST_F(TcpRequestClientTest, EmptyHostWithoutStarterFailsEverySend) {
    TcpRequestClient client("nobody", HostInfo());
    const std::string expected = c_cantConnect + "Can't start request server.";
    auto expectCantStart = [&](const std::function<void()>& send) {
        try {
            send();
            ADD_FAILURE() << "no exception";
        } catch (const RequestServerConnectionException& e) {
            EXPECT_EQ(std::string(e.what()), expected);
            EXPECT_EQ(e.getSource(), "TcpRequestClient");
        }
    };
    RequestEncoder request = testRequest("NOP");
    for (int round = 0; round < 2; ++round) {
        expectCantStart(
            [&] { client.sendRequest(request.getEncodedRequest(), nullptr, true, "", nullptr); });
        expectCantStart([&] { client.sendRequest(request, nullptr, "", nullptr); });
        expectCantStart([&] { client.handleRequest(request, nullptr, ""); });
        expectCantStart([&] { client.handleRequest(request, 5); });
    }
    client.abortRequest(request.getId());
    EXPECT_TRUE(capture.contains(LogLevel::Warn,
                                 "Exception aborting request: Cannot abort request (ignored).."));
    client.abortJob("job");
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "Exception aborting job: Cannot abort job (ignored).."));
    auto status = client.sendGetStatusRequest();
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(status);
    ASSERT_TRUE(unreachable);
    EXPECT_EQ(unreachable->getErrorMessage(),
              "RequestServerConnectionException while handling GetStatusRequest: " + expected);
    EXPECT_EQ(capture.count("Can't start request server (" + HostInfo().toString() + ")"), 11u);
    EXPECT_EQ(capture.count(expected), 11u);
}

TEST_F(TcpRequestClientTest, TwoSendersThroughANewClientStartOneServer) {
    fake.start();
    auto starter = std::make_shared<FakeStarter>(fake.port(), true, 300ms);
    TcpRequestClient client("two", starter);
    auto send = [&] {
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
    };
    auto first = std::async(std::launch::async, send);
    auto second = std::async(std::launch::async, send);
    ASSERT_EQ(first.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(second.wait_for(10s), std::future_status::ready);
    EXPECT_NO_THROW(first.get());
    EXPECT_NO_THROW(second.get());
    EXPECT_EQ(starter->starts.load(), 1);
    ASSERT_TRUE(fake.waitForFinishedConnections(2, 5000ms));
    EXPECT_EQ(fake.connectionCount(), 2);
    EXPECT_EQ(fake.words(),
              (Words{"PING", "RQ", "CLOSE_CONNECTION", "PING", "RQ", "CLOSE_CONNECTION"}));
    EXPECT_EQ(client.getHost().getIpOrName(), "127.0.0.1");
    EXPECT_EQ(client.getHost().getRequestServerPort(), fake.port());
}

TEST_F(TcpRequestClientTest, FailedStartGivesTheStartersMessage) {
    auto starter = std::make_shared<FakeStarter>(0, false);
    TcpRequestClient client("failing", starter);
    try {
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
        FAIL() << "no exception";
    } catch (const RequestServerConnectionException& e) {
        EXPECT_EQ(std::string(e.what()), c_cantConnect + "fake start failed");
    }
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Can't start request server: fake start failed"));
    // No host came of it: the next send tries to start again.
    EXPECT_THROW(
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr),
        RequestServerConnectionException);
    EXPECT_EQ(starter->starts.load(), 2);
}

// ---- construction and identity ----

TEST_F(TcpRequestClientTest, ClientFromHostInfoIsDescribedAsJsHelperWhateverItsName) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(4242);
    TcpRequestClient client("CallbackTo", host);
    EXPECT_EQ(client.getDescription(), "JS_Helper@" + host.toString());
    EXPECT_EQ(client.getDescription().find("CallbackTo"), std::string::npos);
    EXPECT_EQ(client.getClientName(), "CallbackTo");
    EXPECT_FALSE(client.isLocal());
    EXPECT_FALSE(capture.containsSubstring("HostInfo does not contain a valid requestserver port"));
}

TEST_F(TcpRequestClientTest, HostInfoWithoutPortLogsAFatalLineAndGoesOn) {
    HostInfo host("127.0.0.1", "localhost");
    TcpRequestClient client("noport", host);
    EXPECT_TRUE(
        capture.contains(LogLevel::Fatal, "HostInfo does not contain a valid requestserver port: " +
                                              host.toString()));
    // No port and no starter: every send fails to start a server.
    EXPECT_THROW(
        client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr),
        RequestServerConnectionException);
}

TEST_F(TcpRequestClientTest, StarterClientIsDescribedByNameAndStarter) {
    auto starter = std::make_shared<FakeStarter>(1);
    TcpRequestClient client("worker", starter);
    EXPECT_EQ(client.getDescription(), "worker@" + starter->getDescription());
    EXPECT_FALSE(client.getHost().hasNameOrIp());

    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(4242);
    host.setPublisherPort(4343);
    TcpRequestClient withHost("worker", starter, host);
    EXPECT_EQ(withHost.getDescription(), "worker@" + starter->getDescription());
    EXPECT_EQ(withHost.getPublisherPort(), 4343);
}

TEST_F(TcpRequestClientTest, ReconnectStringRoundTripKeepsTheNameButNotTheDescription) {
    fake.start();
    auto starter = std::make_shared<FakeStarter>(fake.port());
    TcpRequestClient client("roundTrip", starter);
    client.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
    const std::string text = client.getReconnectString();
    EXPECT_EQ(text, "127.0.0.1:" + std::to_string(fake.port()) + ":roundTrip:FAKE:reconnect");

    TcpRequestClient again(text);
    EXPECT_EQ(again.getClientName(), "roundTrip");
    EXPECT_EQ(again.getDescription(), "TcpRequestClient");
    EXPECT_EQ(again.getHost().getIpOrName(), "127.0.0.1");
    EXPECT_EQ(again.getHost().getRequestServerPort(), fake.port());
    EXPECT_NE(again.getRequestClientId(), client.getRequestClientId());
    // It reaches the same server without a start.
    again.sendRequest(testRequest("NOP").getEncodedRequest(), nullptr, true, "", nullptr);
    ASSERT_TRUE(fake.waitForFinishedConnections(2, 5000ms));
    EXPECT_EQ(starter->starts.load(), 1);
    EXPECT_EQ(fake.connectionCount(), 2);
}

TEST_F(TcpRequestClientTest, ReconnectStringWithNonNumericPortThrowsBadLexicalCast) {
    EXPECT_THROW(TcpRequestClient("127.0.0.1:port:name:FAKE"), boost::bad_lexical_cast);
    EXPECT_THROW(TcpRequestClient("127.0.0.1:12a:name:FAKE"), boost::bad_lexical_cast);
}

TEST_F(TcpRequestClientTest, ClearReconnectForgetsTheHostAndDrawsANewClientId) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(4242);
    TcpRequestClient client("clear", host);
    const std::string before = client.getRequestClientId();
    EXPECT_EQ(before.size(), 50u);
    client.clearReconnect();
    EXPECT_FALSE(client.getHost().hasNameOrIp());
    EXPECT_FALSE(client.getHost().hasRequestServerPort());
    EXPECT_NE(client.getRequestClientId(), before);
    EXPECT_EQ(client.getRequestClientId().size(), 50u);
}

TEST_F(TcpRequestClientTest, IsRequestPendingIsTrueForAnyIdAndTouchesNothing) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(4242);
    TcpRequestClient client("pending", host);
    bool running = false;
    std::string status = "untouched";
    unsigned long progress = 77;
    std::string message = "as before";
    EXPECT_TRUE(
        client.isRequestPending(UniqueID::generateId(), running, status, progress, message));
    EXPECT_FALSE(running);
    EXPECT_EQ(status, "untouched");
    EXPECT_EQ(progress, 77u);
    EXPECT_EQ(message, "as before");
}

// ---- administration ----

TEST_F(TcpRequestClientTest, ShutdownOfANeverConnectedClientSendsAndLogsNothing) {
    fake.start();
    auto starter = std::make_shared<FakeStarter>(fake.port());
    TcpRequestClient client("idle", starter);
    capture.clear();
    client.shutdownRequestServer();
    EXPECT_EQ(starter->starts.load(), 0);
    for (const auto& entry : capture.entries())
        EXPECT_EQ(entry.file.find("TcpRequestClient"), std::string::npos) << entry.message;
    EXPECT_FALSE(capture.containsSubstring("Stopped request server"));
    EXPECT_FALSE(capture.containsSubstring("SEND "));
    fake.stop();
    EXPECT_EQ(fake.connectionCount(), 0);
}

TEST_F(TcpRequestClientTest, ShutdownSendsAShutdownRequestAndForgetsTheHost) {
    fake.start();
    TcpRequestClient client("stop", fake.host());
    client.shutdownRequestServer();
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    EXPECT_EQ(fake.words(), (Words{"PING", "RQ", "CLOSE_CONNECTION"}));
    EXPECT_NE(fake.packets()[1].data.find("xsi:type=\"ShutdownRequest\""), std::string::npos);
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "Stopped request server " + client.getDescription()));
    EXPECT_FALSE(client.getHost().hasRequestServerPort());
    // A second shutdown finds no port and does nothing.
    capture.clear();
    client.shutdownRequestServer();
    EXPECT_FALSE(capture.containsSubstring("Stopped request server"));
    EXPECT_EQ(fake.connectionCount(), 1);
}

TEST_F(TcpRequestClientTest, ShutdownOfAnUnreachableServerWarnsAndStillForgetsTheHost) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(closedPort());
    TcpRequestClient client("gone", host);
    client.shutdownRequestServer();
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "RequestServerConnectionException while handling "
                                                 "ShutdownRequest."));
    EXPECT_TRUE(
        capture.contains(LogLevel::Info, "Stopped request server " + client.getDescription()));
    EXPECT_FALSE(client.getHost().hasNameOrIp());
}

TEST_F(TcpRequestClientTest, AbortRequestSendsAnAbortRequestWithoutWaiting) {
    fake.start();
    TcpRequestClient client("abort", fake.host());
    const std::string target = UniqueID::generateId();
    client.abortRequest(target);
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    auto packets = fake.packets();
    ASSERT_EQ(fake.words(), (Words{"PING", "RQ", "CLOSE_CONNECTION"}));
    EXPECT_NE(packets[1].data.find("xsi:type=\"AbortRequest\""), std::string::npos);
    EXPECT_NE(packets[1].data.find(">" + target + "</requestId>"), std::string::npos);
}

// ---- sending and waiting ----

namespace {

std::string ackReply(const std::string& requestId, const std::string& status) {
    ReplyEncoder encoder("AckReply", requestId);
    encoder.addElement("status", status);
    return encoder.getEncodedReply("   ", "  ");
}

std::string testReply(const std::string& requestId, const std::string& data) {
    ReplyEncoder encoder("TestReply", requestId);
    encoder.addElement("data", data);
    return encoder.getEncodedReply("   ", "  ");
}

} // namespace

TEST_F(TcpRequestClientTest, HandleRequestReturnsTheReplyThatComesBack) {
    fake.onRequest = [](const std::string& package) {
        const std::string id = Testing::clientRequestIdOf(package);
        Testing::clientDeliverReply(id, testReply(id, "answer"), 0);
    };
    fake.start();
    TcpRequestClient client("ask", fake.host());
    auto reply = client.handleRequest(testRequest("NOP"), nullptr, "");
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getElement("data"), "answer");
}

TEST_F(TcpRequestClientTest, HandleRequestWithALimitGivesTheMaxWaitVerdict) {
    configure("rPingIntervalSec", "1");
    fake.start();
    TcpRequestClient client("limited", fake.host());
    auto reply = client.handleRequest(testRequest("NOP"), 1);
    auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply);
    ASSERT_TRUE(unreachable);
    EXPECT_EQ(unreachable->getErrorMessage(), "No reply before max wait time (1s)");
}

TEST_F(TcpRequestClientTest, StatusReplyTellsTheClientThePublisherPort) {
    RequestXmlHelper::getInstance()->addSchema(ServerRequestSchema());
    fake.onRequest = [](const std::string& package) {
        const std::string id = Testing::clientRequestIdOf(package);
        HostInfo server("127.0.0.1", "localhost");
        server.setRequestServerPort(4242);
        server.setPublisherPort(4343);
        ReplyEncoder reply("GetStatusReply", id);
        reply.addElement("status", "OK");
        reply.addElement("version", "1");
        reply.addElement("availableTmpStorage", "0");
        reply.addTextLines(server.toXmlString("requestHost", "", "  "));
        reply.addTextLines(server.toXmlString("replyHost", "", "  "));
        reply.addElement("timeStamp", "0");
        Testing::clientDeliverReply(id, reply.getEncodedReply("   ", "  "), 0);
    };
    fake.start();
    TcpRequestClient client("status", fake.host());
    EXPECT_FALSE(client.getHost().hasPublisherPort());
    auto status = client.sendGetStatusRequest();
    ASSERT_NE(status, nullptr);
    EXPECT_EQ(status->getType(), "GetStatusReply");
    EXPECT_EQ(client.getPublisherPort(), 4343);
    // The request server port stays the one the client came with.
    EXPECT_EQ(client.getHost().getRequestServerPort(), fake.port());
}

TEST_F(TcpRequestClientTest, SilentStatusQueryEndsAfterMaxGetStatusTime) {
    configure("rPingIntervalSec", "1");
    configure("maxGetStatusTime", "1");
    fake.start();
    TcpRequestClient client("status", fake.host());
    auto status =
        std::dynamic_pointer_cast<RequestServerUnreachableReply>(client.sendGetStatusRequest());
    ASSERT_TRUE(status);
    EXPECT_EQ(status->getErrorMessage(), "No reply before max wait time (1s)");
    EXPECT_FALSE(client.getHost().hasPublisherPort());
}

TEST_F(TcpRequestClientTest, ReconnectWithStatusOtherThanOkThrows) {
    const std::string original = UniqueID::generateId();
    fake.onRequest = [](const std::string& package) {
        const std::string id = Testing::clientRequestIdOf(package);
        Testing::clientDeliverReply(id, ackReply(id, "UNKNOWN"), 0);
    };
    fake.start();
    TcpRequestClient client("reconnect", fake.host());
    try {
        client.reconnectRequest(original, nullptr, nullptr, nullptr, 0, FileName());
        FAIL() << "no exception";
    } catch (const RequestServerConnectionException& e) {
        EXPECT_STREQ(e.what(), "Error while reconnecting.");
        EXPECT_EQ(e.getSource(), "RequestHandling");
    }
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "Error while reconnectiong to request " + original));
    EXPECT_FALSE(capture.containsSubstring("Exception while reconnectiong"));
    ASSERT_TRUE(fake.waitForFinishedConnections(1, 5000ms));
    auto packets = fake.packets();
    ASSERT_EQ(packets.size(), 3u);
    EXPECT_NE(packets[1].data.find("xsi:type=\"ReconnectRequest\""), std::string::npos);
    EXPECT_NE(packets[1].data.find(">" + original + "</originalRequestId>"), std::string::npos);
}

TEST_F(TcpRequestClientTest, ReconnectWithOkWaitsForTheOriginalReply) {
    const std::string original = UniqueID::generateId();
    fake.onRequest = [original](const std::string& package) {
        const std::string id = Testing::clientRequestIdOf(package);
        Testing::clientDeliverReply(id, ackReply(id, "OK"), 0);
        Testing::clientDeliverReply(original, testReply(original, "late result"), 0);
    };
    fake.start();
    TcpRequestClient client("reconnect", fake.host());
    auto reply = client.reconnectRequest(original, nullptr, nullptr, nullptr, 0, FileName());
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(reply->getType(), "TestReply");
    EXPECT_EQ(reply->getRequestId(), original);
    EXPECT_EQ(reply->getElement("data"), "late result");
}

TEST_F(TcpRequestClientTest, ReconnectWithoutServerThrowsExceptionWhileReconnecting) {
    HostInfo host("127.0.0.1", "localhost");
    host.setRequestServerPort(closedPort());
    TcpRequestClient client("reconnect", host);
    const std::string original = UniqueID::generateId();
    try {
        client.reconnectRequest(original, nullptr, nullptr, nullptr, 0, FileName());
        FAIL() << "no exception";
    } catch (const RequestServerConnectionException& e) {
        EXPECT_STREQ(e.what(), "Exception while reconnecting.");
    }
    EXPECT_TRUE(
        capture.contains(LogLevel::Warn, "Exception while reconnectiong to request " + original));
}
