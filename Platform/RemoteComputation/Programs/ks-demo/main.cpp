// ks-demo: starts ks-request-server and walks through what a client does with it: ping, status,
// test requests with live progress, a 200 MB file both ways, a million values, an abort and a
// clean shutdown. Then it starts servers on demand: a local process, one through the starter
// service of a second host, and a Slurm job (KS_DEMO_SLURM=1). Last, a worker pool of 2 local
// processes counts primes. Each step ends in one line with its outcome and timing.
#include "DemoSupport.h"
#include "Platform/RemoteComputation/Programs/ks/KsClient.h"
#include "Platform/RemoteComputation/Programs/ks/StatusText.h"
#include "StarterTour.h"
#include "StepLog.h"

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/Reply.h"
#include "Platform/RemoteComputation/Service/RequestHandling/RequestServer.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HostInfo.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Process.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <iostream>
#include <limits.h>
#include <mutex>
#include <poll.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Kestrane;

namespace {

const uint64_t c_fileSize = 200ull * 1024 * 1024;
const uint64_t c_values = 1000000;

// Stops the server if the demo ends early, and removes the temporary files in any case.
class Cleanup {
public:
    Cleanup(Computing::Process& server, std::string directory)
        : m_server(server), m_directory(std::move(directory)) {}
    ~Cleanup() {
        if (m_server.isRunning()) {
            m_server.kill(SIGKILL);
            m_server.wait();
        }
        std::error_code ignored;
        std::filesystem::remove_all(m_directory, ignored);
    }

private:
    Computing::Process& m_server;
    std::string m_directory;
};

class Demo {
public:
    explicit Demo(const std::string& server) : m_server(server) {}
    int run();

private:
    void step(bool ok, const std::string& what, double ms) { m_log.step(ok, what, ms); }
    void announce(const std::string& what) { m_log.announce(what); }
    void detail(const std::string& line) { m_log.detail(line); }
    std::string target() const { return "127.0.0.1:" + std::to_string(m_port); }
    std::unique_ptr<KsClient> client(bool live) {
        auto c = std::make_unique<KsClient>("127.0.0.1", m_port, std::cout);
        c->setQuiet(!live);
        c->setCondensed(true);
        c->setProgressIndent("      | ");
        // A request that runs away must not hold the demo for ever.
        c->setTimeout(120);
        return c;
    }
    // ks-pool-demo as a person would run it: a master and 2 local worker processes count the
    // primes below 10^8; its progress and result lines are shown as they come.
    void runPoolStep(const std::string& tmp) {
        announce("Worker pool: ks-pool-demo --workers 2 counts the primes below 10^8 in 200 tasks");
        auto start = Clock::now();
        Computing::Process pool(programDirectory() + "/ks-pool-demo",
                                {"--workers", "2", "-logLevel", "WARN"});
        pool.captureStandardOutput();
        ::setenv("KS_PATH_TMP", (tmp + "/pool").c_str(), 1);
        const bool started = pool.start(Computing::Attached);
        std::string result;
        int code = -1;
        bool exited = false;
        while (started && !exited && result.empty() && msSince(start) < 120000) {
            std::string line = readLine(pool.getStandardOutputFd(), 1000);
            if (line.empty()) {
                exited = pool.waitFor(0, code);
                continue;
            }
            std::printf("    %s\n", line.c_str());
            if (line.rfind("RESULT ", 0) == 0)
                result = line;
        }
        if (started && !exited)
            exited = pool.waitFor(30000, code);
        step(exited && code == 0 && result.find("primes=5761455 ") != std::string::npos,
             "Worker pool: " + (result.empty() ? std::string("no result") : result) +
                 (exited ? ", exit code " + std::to_string(code) : std::string(", still running")),
             msSince(start));
    }

    static std::string why(const ClientOutcome& outcome) {
        return outcome.error.empty() ? std::string() : " (" + outcome.error + ")";
    }

    std::string m_server;
    int m_port = 0;
    StepLog m_log;
};

int Demo::run() {
    auto total = Clock::now();
    std::string tmp = makeTempDirectory();
    if (tmp.empty()) {
        std::printf("FAILED: cannot make a temporary directory\n");
        return 1;
    }
    std::filesystem::create_directories(tmp + "/client");
    std::filesystem::create_directories(tmp + "/server");
    std::printf("Kestrane Remote Computation demo (temporary files in %s)\n", tmp.c_str());

    // This process receives the replies with a request server of its own, and keeps its files
    // apart from the server's. File transfers report from the start, once a second.
    PathConfiguration::setKsPathTmp(FileName(tmp + "/client"));
    auto config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("fileTransferProgressFirstUpdateDelay", "0");
    config->setValue("fileTransferProgressUpdateInterval", "1");
    // The child takes its settings from the environment.
    ::setenv("KS_PATH_TMP", (tmp + "/server").c_str(), 1);
    ::setenv("KS_ALIVE_PUBLISH_INTERVAL", "500", 1);

    auto start = Clock::now();
    Computing::Process process(m_server, {"-logLevel", "WARN"});
    process.captureStandardOutput();
    process.captureStandardError();
    Cleanup cleanup(process, tmp);
    if (!process.start(Computing::Detached)) {
        step(false, "Starting " + m_server + ": " + process.getErrorMessage(), msSince(start));
        return 1;
    }
    ErrorDrain serverLog(process.getStandardErrorFd());
    std::string portLine = readLine(process.getStandardOutputFd(), 10000);
    std::string publisherLine = readLine(process.getStandardOutputFd(), 10000);
    if (portLine.rfind("PORT ", 0) != 0 || publisherLine.rfind("PUBLISHER ", 0) != 0) {
        step(false, "ks-request-server did not announce its ports (got '" + portLine + "')",
             msSince(start));
        return 1;
    }
    m_port = std::stoi(portLine.substr(5));
    step(true,
         "Started ks-request-server (pid " + std::to_string(process.getPid()) +
             "): requests on port " + std::to_string(m_port) + ", heartbeats and log messages " +
             "on publisher port " + publisherLine.substr(10),
         msSince(start));

    // ---- the packet level ----
    start = Clock::now();
    bool answered = RequestServer::ping("127.0.0.1", static_cast<unsigned int>(m_port));
    step(answered,
         std::string("Ping on a new connection (connect, PING, PONG, CLOSE): ") +
             (answered ? "PONG received" : "no answer"),
         msSince(start));
    if (!answered)
        return 1;

    const int rounds = 1000;
    int pongs = 0;
    double elapsed = 0;
    try {
        Computing::ClientSocket socket;
        socket.connect("127.0.0.1", m_port);
        start = Clock::now();
        for (int i = 0; i < rounds; ++i) {
            SocketPacket::send("C", "PING", socket, "demo");
            auto reply = SocketPacket::receive(socket, "demo");
            if (reply && reply->getType() == "C" && *reply->getData() == "PONG")
                ++pongs;
        }
        elapsed = msSince(start);
        SocketPacket::send("C", "CLOSE_CONNECTION", socket, "demo");
    } catch (const std::exception& e) {
        std::printf("      socket failure: %s\n", e.what());
    }
    char text[256];
    std::snprintf(text, sizeof(text),
                  "%d pings on one open connection: %d PONGs, %.1f us per round trip", rounds,
                  pongs, elapsed * 1000.0 / rounds);
    step(pongs == rounds, text, elapsed);

    start = Clock::now();
    size_t logged = serverLog.size();
    try {
        Computing::ClientSocket bad;
        bad.connect("127.0.0.1", m_port);
        std::string garbage = "C abc ";
        bad.sendDataBlock(garbage.data(), garbage.size());
        std::string answer;
        bad.receiveDataBlock(answer, 64);
    } catch (const std::exception&) {
        // The server closing the connection is the expected end.
    }
    bool survived = RequestServer::ping("127.0.0.1", static_cast<unsigned int>(m_port));
    step(survived,
         std::string("Garbage on a connection: connection ended by the server, server ") +
             (survived ? "still answers" : "GONE"),
         msSince(start));
    std::string line = serverLog.lineAfter(logged, 2000);
    if (!line.empty())
        detail("server log: " + line);

    // ---- requests, as build/bin/ks makes them ----
    {
        auto ks = client(false);
        ClientOutcome outcome = ks->status();
        std::string facts;
        if (outcome.reply) {
            HostInfo replyHost(outcome.reply->getDomElement("replyHost"));
            facts = ": version " + outcome.reply->getElement("version") + ", publisher port " +
                    std::to_string(replyHost.getPublisherPort()) + ", free tmp space " +
                    StatusText::bytes(
                        std::atoll(outcome.reply->getElement("availableTmpStorage").c_str()));
        }
        step(outcome.exitCode == KsExit::Success,
             "Status (ks status " + target() + ")" + facts + why(outcome), outcome.milliseconds);
        for (size_t i = 1; i < outcome.lines.size(); ++i)
            detail(outcome.lines[i].substr(2));
    }
    {
        auto ks = client(false);
        ClientOutcome outcome = ks->test({"NOP", "", false, "", false});
        bool ok = outcome.exitCode == KsExit::Success && outcome.reply &&
                  outcome.reply->getElement("data") == "OK";
        step(ok,
             "NOP (ks test " + target() + " NOP): reply '" +
                 (outcome.reply ? outcome.reply->getElement("data") : std::string()) + "'" +
                 why(outcome),
             outcome.milliseconds);
    }
    {
        announce("WAIT_PROGRESS 2000 ms (ks test " + target() +
                 " WAIT_PROGRESS 2000): heartbeats and log messages of the server, live");
        auto ks = client(true);
        ClientOutcome outcome = ks->test({"WAIT_PROGRESS", "2000", true, "", false});
        bool ok =
            outcome.exitCode == KsExit::Success && outcome.logMessages + outcome.heartbeats > 0;
        step(ok,
             "WAIT_PROGRESS 2000 ms: reply '" +
                 (outcome.reply ? outcome.reply->getElement("data") : std::string()) + "', " +
                 std::to_string(outcome.logMessages) + " log messages and " +
                 std::to_string(outcome.heartbeats) + " heartbeats seen while it ran" +
                 why(outcome),
             outcome.milliseconds);
    }

    // ---- a 200 MB file both ways ----
    std::string file = tmp + "/client/demo-200MB.bin";
    start = Clock::now();
    bool written = writeTestFile(file, c_fileSize);
    step(written, "Wrote a 200 MB test file", msSince(start));
    if (written) {
        announce("PUT_FILE with forced transfer (ks test " + target() + " PUT_FILE " +
                 std::to_string(c_fileSize) + " --file " + file + " --force-transfer)");
        auto ks = client(true);
        ClientOutcome put =
            ks->test({"PUT_FILE", std::to_string(c_fileSize), true, file, /*force*/ true});
        bool ok =
            put.exitCode == KsExit::Success && put.reply && put.reply->getElement("data") == "OK";
        std::snprintf(text, sizeof(text), " (%.0f MB/s)",
                      200.0 / std::max(put.milliseconds, 1.0) * 1000.0);
        step(ok,
             "PUT_FILE: 200 MB sent over the connection, reply '" +
                 (put.reply ? put.reply->getElement("data") : std::string()) + "'" +
                 (ok ? text : "") + why(put),
             put.milliseconds);

        auto back = client(false);
        ClientOutcome get = back->test({"GET_FILE", "", false, "", false});
        std::string data = get.reply ? get.reply->getElement("data") : std::string();
        std::string path, how;
        if (get.reply && get.reply->getKSData("file")) {
            auto element = get.reply->getKSData("file");
            path = element->getFilePath().toString();
            how = element->getFileTransfered()
                      ? "transferred to " + path
                      : "read in place at " + path + " (same host and user: no copy needed)";
        }
        bool equal = !path.empty() && sameContent(file, path);
        step(get.exitCode == KsExit::Success && equal,
             "GET_FILE: reply '" + data + "', file " + how +
                 (equal ? ", content equal to the original" : ", CONTENT DIFFERS") + why(get),
             get.milliseconds);
    }

    // ---- a million values ----
    {
        auto ks = client(false);
        ClientOutcome outcome = ks->test({"GET_DATA", std::to_string(c_values), true, "", false});
        // Values (i + 1) * 0.1: the sum is 0.1 * n (n + 1) / 2.
        double expected = 0.1 * static_cast<double>(c_values) * (c_values + 1) / 2.0;
        std::string values;
        for (const auto& l : outcome.lines)
            if (l.find(" values, first ") != std::string::npos)
                values = l;
        double sum = 0;
        size_t at = values.find(", sum ");
        if (at != std::string::npos)
            sum = std::atof(values.c_str() + at + 6);
        bool ok =
            outcome.exitCode == KsExit::Success && std::fabs(sum - expected) < 1e-6 * expected;
        std::snprintf(text, sizeof(text), " (expected sum %.1f)", expected);
        step(ok,
             "GET_DATA " + std::to_string(c_values) + ": " +
                 (values.empty() ? std::string("no values") : values) + text + why(outcome),
             outcome.milliseconds);
    }

    // ---- abort of a running request ----
    {
        announce("Abort of a running WAIT_PROGRESS 30000 from a second client (ks abort " +
                 target() + " REQUEST_ID)");
        auto runner = client(true);
        std::promise<std::string> sent;
        auto sentId = sent.get_future();
        runner->setOnRequestSent([&sent](const std::string& id) { sent.set_value(id); });
        auto started = Clock::now();
        auto running = std::async(std::launch::async, [&runner] {
            return runner->test({"WAIT_PROGRESS", "30000", true, "", false});
        });
        std::string id;
        if (sentId.wait_for(std::chrono::seconds(30)) == std::future_status::ready)
            id = sentId.get();
        std::this_thread::sleep_for(std::chrono::milliseconds(500));
        auto aborting = Clock::now();
        ClientOutcome ack = id.empty() ? ClientOutcome() : client(false)->abort(id);
        ClientOutcome outcome = running.get();
        double afterAbort = msSince(aborting);
        std::string data = outcome.reply ? outcome.reply->getElement("data") : std::string();
        bool ok = !id.empty() && ack.exitCode == KsExit::Success && data == "ABORTED";
        std::snprintf(text, sizeof(text),
                      "; the request replied '%s' %.0f ms after the abort was asked for",
                      data.c_str(), afterAbort);
        step(ok,
             "Abort of request " + (id.empty() ? std::string("?") : id.substr(0, 16) + "...") +
                 " 500 ms after its start: acknowledged" + text + why(ack),
             msSince(started));
    }

    // ---- clean shutdown ----
    {
        auto ks = client(false);
        ClientOutcome outcome = ks->shutdown();
        int code = -1;
        bool exited = process.waitFor(10000, code);
        step(outcome.exitCode == KsExit::Success && exited && code == 0,
             "Shutdown (ks shutdown " + target() + "): acknowledged, ks-request-server " +
                 (exited ? "stopped with exit code " + std::to_string(code)
                         : std::string("still running")) +
                 why(outcome),
             outcome.milliseconds);
    }

    // ---- servers on demand ----
    StarterTour(m_log, programDirectory(), tmp).run();

    // ---- a worker pool ----
    runPoolStep(tmp);

    if (auto own = RequestServer::getInstance(-1, 0)) {
        own->stop();
        own->waitForShutdown();
    }
    std::printf("%s: %d steps, %d failed, %.1f s in all. Temporary files removed.\n",
                m_log.failures() == 0 ? "Done" : "FAILED", m_log.steps(), m_log.failures(),
                msSince(total) / 1000);
    std::printf("Try it yourself: build/bin/ks start local prints STARTED HOST:PORT; then\n"
                "  build/bin/ks status HOST:PORT\n"
                "  build/bin/ks test HOST:PORT WAIT_PROGRESS 3000\n"
                "  build/bin/ks shutdown HOST:PORT\n");
    return m_log.failures() == 0 ? 0 : 1;
}

} // namespace

int main() {
    Logging::setLevel(LogLevel::Warn); // the demo speaks through its own lines
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    std::ios::sync_with_stdio(true);
    Demo demo(programDirectory() + "/ks-request-server");
    // Caught here, so that the server is stopped and the temporary files go on the way out.
    try {
        return demo.run();
    } catch (const std::exception& e) {
        std::printf("FAILED: %s\n", e.what());
    }
    return 1;
}
