#include "KsClient.h"

#include "ProgressPrinter.h"
#include "ServerStart.h"
#include "StatusText.h"

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyHandler.h"
#include "Platform/RemoteComputation/Service/RequestHandling/ReplyPackage.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestEncoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerConnectionException.h"
#include "Platform/RemoteComputation/Service/RequestHandling/TcpRequestClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits.h>
#include <sstream>
#include <thread>

namespace Kestrane {

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

std::string milliseconds(double ms) {
    char text[32];
    std::snprintf(text, sizeof(text), ms < 10 ? "%.2f ms" : "%.0f ms", ms);
    return text;
}

// How long to wait for the first heartbeat before a request goes out, so that the subscription
// is in place when the request starts to report. A heartbeat comes once a second by default.
constexpr std::chrono::milliseconds c_subscriptionWait{1500};

// After the reply: how long the publisher must be silent before the progress lines are complete.
constexpr std::chrono::milliseconds c_settleQuiet{100};
constexpr std::chrono::milliseconds c_settleLimit{1000};

std::string absolutePath(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved))
        return resolved;
    return path;
}

RequestEncoder testRequest(const TestCall& call) {
    RequestEncoder encoder("TestRequest");
    encoder.addElement("command", call.command, "  ");
    if (call.hasData)
        encoder.addElement("data", call.data, "  ");
    if (!call.file.empty())
        encoder.addFilePath("file", FileName(absolutePath(call.file)), call.forceTransfer, "  ");
    return encoder;
}

} // namespace

bool testReplySucceeded(const std::string&, const std::string& data) {
    if (data == "UNKNOWN_COMMAND" || data == "NOK" || data == "ABORTED")
        return false;
    return data.compare(0, 5, "ERROR") != 0;
}

KsClient::KsClient(const std::string& host, int port, std::ostream& progress)
    : m_host(host), m_port(port), m_progress(progress) {}

KsClient::~KsClient() = default;

std::string KsClient::target() const {
    bool ipv6 = m_host.find(':') != std::string::npos;
    return (ipv6 ? "[" + m_host + "]" : m_host) + ":" + std::to_string(m_port);
}

bool KsClient::ensureOwnServer(ClientOutcome& outcome) {
    if (m_client)
        return true;
    // Replies come back as connections to this process's own request server.
    if (!RequestServer::getInstance(-1, 0)) {
        outcome.exitCode = KsExit::LocalError;
        outcome.error = "Cannot start the request server of this process, which receives the "
                        "replies: " +
                        RequestServer::getErrorMessage();
        return false;
    }
    HostInfo host(m_host, "");
    host.setRequestServerPort(m_port);
    m_client = std::make_unique<TcpRequestClient>("ks", host);
    return true;
}

bool KsClient::judgeReply(const std::shared_ptr<Reply>& reply, ClientOutcome& outcome) {
    outcome.reply = reply;
    if (!reply) {
        outcome.exitCode = KsExit::Failed;
        outcome.error = "No reply: the wait was given up";
        return false;
    }
    if (auto unreachable = std::dynamic_pointer_cast<RequestServerUnreachableReply>(reply)) {
        outcome.exitCode = KsExit::Unreachable;
        outcome.error = "Request server unreachable: " + unreachable->getErrorMessage();
        return false;
    }
    if (reply->getType() == "ExceptionReply") {
        outcome.exitCode = KsExit::Failed;
        outcome.error = "ExceptionReply: " + reply->getElement("exceptionStr");
        return false;
    }
    if (reply->hasElement("status") && reply->getElement("status") != "OK") {
        outcome.exitCode = KsExit::Failed;
        outcome.error = reply->getType() + " with status '" + reply->getElement("status") + "'";
        return false;
    }
    outcome.exitCode = KsExit::Success;
    return true;
}

ClientOutcome KsClient::ping() {
    ClientOutcome outcome;
    auto start = Clock::now();
    bool answered = RequestServer::ping(m_host, static_cast<unsigned int>(m_port));
    outcome.milliseconds = msSince(start);
    if (answered) {
        outcome.lines.push_back("PONG from " + target() + " in " +
                                milliseconds(outcome.milliseconds));
    } else {
        outcome.exitCode = KsExit::Unreachable;
        outcome.error =
            "No PONG from " + target() + ": nothing listens there, or it is no " + "request server";
    }
    return outcome;
}

std::shared_ptr<Reply> KsClient::queryStatus(ClientOutcome& outcome) {
    if (!ensureOwnServer(outcome))
        return nullptr;
    auto reply = m_client->sendGetStatusRequest();
    if (!judgeReply(reply, outcome))
        return nullptr;
    if (reply->getType() != "GetStatusReply") {
        outcome.exitCode = KsExit::Failed;
        outcome.error = "Unexpected reply to the status request: " + reply->getType();
        return nullptr;
    }
    return reply;
}

ClientOutcome KsClient::status() {
    ClientOutcome outcome;
    auto start = Clock::now();
    auto reply = queryStatus(outcome);
    outcome.milliseconds = msSince(start);
    if (!reply)
        return outcome;
    outcome.requestId = reply->getRequestId();
    outcome.lines.push_back("Status of " + target() + " (" + milliseconds(outcome.milliseconds) +
                            "):");
    for (const auto& line : StatusText::describe(*reply))
        outcome.lines.push_back(line);
    return outcome;
}

std::shared_ptr<Reply> KsClient::exchange(const std::string& encoded, const std::string& requestId,
                                          bool withTransferLog, ProgressLines* lines,
                                          ClientOutcome& outcome) {
    std::shared_ptr<TransferProgressLog> transferLog;
    if (withTransferLog && lines)
        transferLog = std::make_shared<TransferProgressLog>(*lines);
    {
        std::lock_guard<std::mutex> lock(m_runningMutex);
        m_runningId = requestId;
    }
    std::shared_ptr<Reply> reply;
    try {
        // Sending and waiting apart, so that a file transfer reports to a job log of ours.
        m_client->sendRequest(encoded, nullptr, true, "", transferLog);
        if (transferLog)
            outcome.transferLines = transferLog->getLines();
        if (m_runningIsTest && m_onRequestSent)
            m_onRequestSent(requestId);
        auto package = RequestServer::getInstance(-1, 0)->getReplyHandler().receiveReply(
            requestId, m_client.get(), nullptr, nullptr, m_client->getPublisherPort(), false,
            m_timeout, FileName());
        reply = package ? package->getReply() : nullptr;
        judgeReply(reply, outcome);
    } catch (const RequestServerConnectionException& e) {
        outcome.exitCode = KsExit::Unreachable;
        outcome.error = e.what();
    } catch (const KsException& e) {
        outcome.exitCode = KsExit::Failed;
        outcome.error = e.what();
    } catch (const std::exception& e) {
        outcome.exitCode = KsExit::Failed;
        outcome.error = std::string("Failure while sending: ") + e.what();
    }
    std::lock_guard<std::mutex> lock(m_runningMutex);
    m_runningId.clear();
    m_runningIsTest = false;
    return reply;
}

void KsClient::describeTestReply(Reply& reply, ClientOutcome& outcome) {
    std::string summary = "TestReply";
    if (reply.hasElement("data"))
        summary += " '" + reply.getElement("data") + "'";
    outcome.lines.push_back(summary + " after " + milliseconds(outcome.milliseconds));
    for (const auto& file : reply.getKSDatas("file")) {
        FileName path = file->getFilePath();
        std::string line = "file " + path.toString();
        if (FileUtilities::exists(path))
            line += " (" +
                    StatusText::bytes(static_cast<int64_t>(FileUtilities::getFileSize(path))) + ")";
        else
            line += " (not readable here)";
        line += file->getFileTransfered() ? ", transferred to this host"
                                          : ", not transferred: read in place (same host and user)";
        outcome.lines.push_back(line);
    }
    if (!reply.hasElement("attachment"))
        return;
    // A memory file becomes an array here; the conversion's array is ours to free.
    uint64_t count = reply.getArraySize("attachment", "");
    double* values = count ? reply.getDoubleArray("attachment") : nullptr;
    for (const KSData& data : reply.getData())
        if (data.getName() == "attachment")
            outcome.lines.push_back("attachment of " + std::to_string(data.getDataSize()) + " x '" +
                                    data.getDataType() + "'");
    if (values) {
        double sum = 0;
        for (uint64_t i = 0; i < count; ++i)
            sum += values[i];
        std::ostringstream text;
        text.precision(15);
        text << count << " values, first " << values[0] << ", last " << values[count - 1]
             << ", sum " << sum;
        outcome.lines.push_back(text.str());
        std::free(values);
    }
}

ClientOutcome KsClient::test(const TestCall& call) {
    ClientOutcome outcome;
    if (!call.file.empty() && !FileUtilities::exists(FileName(call.file))) {
        outcome.exitCode = KsExit::LocalError;
        outcome.error = "File not found: " + call.file;
        return outcome;
    }
    if (!queryStatus(outcome))
        return outcome;

    std::unique_ptr<ProgressLines> lines;
    std::unique_ptr<ProgressFollower> follower;
    if (!m_quiet) {
        lines = std::make_unique<ProgressLines>(m_progress, m_indent, m_condensed);
        HostInfo publisher(m_host, "");
        publisher.setPublisherPort(m_client->getPublisherPort());
        if (publisher.hasPublisherPort()) {
            follower = std::make_unique<ProgressFollower>(publisher, *lines);
            follower->start(true);
            follower->waitForFirstMessage(c_subscriptionWait);
        }
    }

    RequestEncoder encoder = testRequest(call);
    outcome.requestId = encoder.getId();
    {
        std::lock_guard<std::mutex> lock(m_runningMutex);
        m_runningIsTest = true;
    }
    auto sent = Clock::now();
    auto reply = exchange(encoder.getEncodedRequest(), encoder.getId(), !call.file.empty(),
                          lines.get(), outcome);
    outcome.milliseconds = msSince(sent);
    if (follower) {
        follower->settle(c_settleQuiet, c_settleLimit);
        follower->stop();
        follower->finalize();
        outcome.logMessages = follower->getLogMessages();
        outcome.heartbeats = follower->getHeartbeats();
    }
    if (lines)
        lines->flush();
    if (!reply || outcome.exitCode != KsExit::Success)
        return outcome;
    if (reply->getType() != "TestReply") {
        outcome.lines.push_back(reply->getType() + " after " + milliseconds(outcome.milliseconds));
        return outcome;
    }
    describeTestReply(*reply, outcome);
    std::string data = reply->getElement("data");
    if (!testReplySucceeded(call.command, data)) {
        outcome.exitCode = KsExit::Failed;
        outcome.error = "The test command " + call.command + " replied '" + data + "'";
    }
    return outcome;
}

ClientOutcome KsClient::abort(const std::string& requestId) {
    ClientOutcome outcome;
    auto start = Clock::now();
    if (!queryStatus(outcome))
        return outcome;
    // The request that TcpRequestClient::abortRequest sends, but with its acknowledgement
    // awaited: a process that went away at once would leave the server retrying its reply.
    RequestEncoder encoder("AbortRequest");
    encoder.addElement("requestId", requestId, "  ");
    outcome.requestId = encoder.getId();
    auto reply = exchange(encoder.getEncodedRequest(), encoder.getId(), false, nullptr, outcome);
    outcome.milliseconds = msSince(start);
    if (reply && outcome.exitCode == KsExit::Success)
        outcome.lines.push_back(
            "Abort of request " + requestId + " signalled: " + reply->getType() + " '" +
            reply->getElement("status") + "' after " + milliseconds(outcome.milliseconds));
    return outcome;
}

ClientOutcome KsClient::shutdown(std::chrono::milliseconds stopWait) {
    ClientOutcome outcome;
    auto start = Clock::now();
    if (!queryStatus(outcome))
        return outcome;
    // As TcpRequestClient::shutdownRequestServer, but waiting for the acknowledgement, which the
    // server sends before it stops.
    RequestEncoder encoder("ShutdownRequest");
    outcome.requestId = encoder.getId();
    auto reply = exchange(encoder.getEncodedRequest(), encoder.getId(), false, nullptr, outcome);
    if (!reply || outcome.exitCode != KsExit::Success) {
        outcome.milliseconds = msSince(start);
        return outcome;
    }
    outcome.lines.push_back("Shutdown acknowledged: " + reply->getType() + " '" +
                            reply->getElement("status") + "'");
    auto deadline = Clock::now() + stopWait;
    bool stopped = false;
    while (!(stopped = !listening(m_host, m_port)) && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    outcome.milliseconds = msSince(start);
    if (stopped) {
        outcome.lines.push_back("Request server " + target() + " stopped after " +
                                milliseconds(outcome.milliseconds));
    } else {
        outcome.exitCode = KsExit::Failed;
        outcome.error = "The request server still answers " +
                        std::to_string(stopWait.count() / 1000.0).substr(0, 4) +
                        " s after acknowledging the shutdown";
    }
    return outcome;
}

ClientOutcome KsClient::start(const ClientOptions& options) {
    ServerStart start(options, m_progress);
    {
        std::lock_guard<std::mutex> lock(m_runningMutex);
        m_start = &start;
        m_startRan = true;
    }
    ClientOutcome outcome = start.run();
    std::lock_guard<std::mutex> lock(m_runningMutex);
    m_start = nullptr;
    return outcome;
}

bool KsClient::abortRunning() {
    std::string id;
    {
        std::lock_guard<std::mutex> lock(m_runningMutex);
        if (m_start)
            return m_start->cancel();
        if (m_runningId.empty() || !m_runningIsTest)
            return false;
        id = m_runningId;
    }
    m_client->abortRequest(id);
    return true;
}

bool KsClient::stopWaiting() {
    std::lock_guard<std::mutex> lock(m_runningMutex);
    if (m_runningId.empty())
        return false;
    RequestServer::getInstance(-1, 0)->getReplyHandler().cancellReceiveReply(m_runningId);
    return true;
}

int KsClient::execute(const ClientOptions& options, std::ostream& err) {
    setQuiet(options.quiet);
    setTimeout(options.timeout);
    setOnRequestSent([this, &options](const std::string& id) {
        m_progress << "Request " << id << " sent: TestRequest " << options.testCommand
                   << (options.hasData ? " " + options.data : std::string()) << std::endl;
    });
    ClientOutcome outcome;
    switch (options.command) {
    case ClientOptions::Command::Ping:
        outcome = ping();
        break;
    case ClientOptions::Command::Status:
        outcome = status();
        break;
    case ClientOptions::Command::Test: {
        TestCall call;
        call.command = options.testCommand;
        call.data = options.data;
        call.hasData = options.hasData;
        call.file = options.file;
        call.forceTransfer = options.forceTransfer;
        outcome = test(call);
        break;
    }
    case ClientOptions::Command::Abort:
        outcome = abort(options.requestId);
        break;
    case ClientOptions::Command::Shutdown:
        outcome = shutdown();
        break;
    case ClientOptions::Command::Start:
        outcome = start(options);
        break;
    case ClientOptions::Command::None:
        outcome.exitCode = KsExit::BadCommandLine;
        outcome.error = "Missing command";
        break;
    }
    return reportOutcome(outcome, m_progress, err);
}

bool listening(const std::string& host, int port) {
    try {
        Computing::ClientSocket socket;
        socket.connect(host, port);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

int reportOutcome(const ClientOutcome& outcome, std::ostream& out, std::ostream& err) {
    for (const auto& line : outcome.lines)
        out << line << "\n";
    out.flush();
    if (!outcome.error.empty())
        err << "ks: " << outcome.error << std::endl;
    return outcome.exitCode;
}

} // namespace Kestrane
