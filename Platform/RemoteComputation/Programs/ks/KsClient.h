#pragma once

#include "ClientOptions.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace Kestrane {

class Reply;
class ServerStart;
class TcpRequestClient;
class ProgressLines;

// What one command came to: the exit code, readable lines for the user, and the reply.
struct ClientOutcome {
    int exitCode = KsExit::Success;
    // What happened, one fact a line.
    std::vector<std::string> lines;
    // Why it failed; empty on success.
    std::string error;
    std::shared_ptr<Reply> reply;
    std::string requestId;
    double milliseconds = 0;
    // Progress seen while the request ran.
    unsigned int logMessages = 0;
    unsigned int heartbeats = 0;
    unsigned int transferLines = 0;
};

// One test request: the command word, its argument and an optional file.
struct TestCall {
    std::string command;
    std::string data;
    bool hasData = false;
    std::string file;
    bool forceTransfer = false;
};

// Talks to one request server through a TcpRequestClient. While a request runs it follows the
// server's publisher (its port comes from the status reply) and writes heartbeats, published log
// messages and file transfer progress as progress lines.
class KsClient {
public:
    KsClient(const std::string& host, int port, std::ostream& progress);
    ~KsClient();
    KsClient(const KsClient&) = delete;
    KsClient& operator=(const KsClient&) = delete;

    // No progress lines at all.
    void setQuiet(bool quiet) { m_quiet = quiet; }
    // Repeated progress lines at most once a second, with their count.
    void setCondensed(bool condensed) { m_condensed = condensed; }
    void setProgressIndent(const std::string& indent) { m_indent = indent; }
    // Seconds to wait for a reply; 0: no limit.
    void setTimeout(unsigned int seconds) { m_timeout = seconds; }
    // Called as soon as a test request is on its way (after its file went out), with its id.
    void setOnRequestSent(std::function<void(const std::string& requestId)> callback) {
        m_onRequestSent = std::move(callback);
    }

    ClientOutcome ping();
    ClientOutcome status();
    ClientOutcome test(const TestCall& call);
    // Asks the server to abort a running request and waits for its acknowledgement.
    ClientOutcome abort(const std::string& requestId);
    // Asks the server to stop, waits for its acknowledgement and then, at most `stopWait`, for
    // the server to stop answering.
    ClientOutcome shutdown(std::chrono::milliseconds stopWait = std::chrono::seconds(10));
    // Starts a server as the start options say (see ServerStart).
    ClientOutcome start(const ClientOptions& options);

    // From another thread, e.g. on Ctrl-C: asks the server to abort the test request under way,
    // or removes the job of a start under way. False when neither is under way.
    bool abortRunning();
    // From another thread: gives up waiting for the reply under way. False when none is awaited.
    bool stopWaiting();

    std::string target() const;
    // Whether this client brought up the process's own request server, which receives replies.
    bool startedOwnServer() const { return m_client != nullptr || m_startRan; }

    // The whole of ks: runs the command of `options` against this client's server, writes
    // progress and outcome to the progress stream and the reason of a failure to `err`, and
    // returns the exit code.
    int execute(const ClientOptions& options, std::ostream& err);

private:
    // The request server of this process, which receives the replies; null when it can't start.
    bool ensureOwnServer(ClientOutcome& outcome);
    // Status query that also teaches the client the server's publisher port.
    std::shared_ptr<Reply> queryStatus(ClientOutcome& outcome);
    // Sends `encoded` (with the optional job log of a file transfer) and waits for the reply.
    std::shared_ptr<Reply> exchange(const std::string& encoded, const std::string& requestId,
                                    bool withTransferLog, ProgressLines* lines,
                                    ClientOutcome& outcome);
    // Sets the exit code and error of an outcome from its reply; false when it failed.
    static bool judgeReply(const std::shared_ptr<Reply>& reply, ClientOutcome& outcome);
    static void describeTestReply(Reply& reply, ClientOutcome& outcome);

    std::string m_host;
    int m_port;
    std::ostream& m_progress;
    bool m_quiet = false;
    bool m_condensed = false;
    std::string m_indent = "  ";
    unsigned int m_timeout = 0;
    std::function<void(const std::string&)> m_onRequestSent;
    std::unique_ptr<TcpRequestClient> m_client;
    std::mutex m_runningMutex;
    std::string m_runningId; // the request whose reply is awaited
    bool m_runningIsTest = false;
    ServerStart* m_start = nullptr; // the start under way
    bool m_startRan = false;
};

// Whether anything accepts connections there. A bare connect, since a refused ping is logged
// as a warning, and a refused connection is just what a stopped server gives.
bool listening(const std::string& host, int port);

// Writes the outcome's lines to `out` and the reason of a failure to `err`; returns the exit code.
int reportOutcome(const ClientOutcome& outcome, std::ostream& out, std::ostream& err);

// Judgement of the `data` of a TestReply: whether it says that the command did its work.
bool testReplySucceeded(const std::string& command, const std::string& data);

} // namespace Kestrane
