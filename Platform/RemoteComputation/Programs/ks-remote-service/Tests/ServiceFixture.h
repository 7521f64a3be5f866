#pragma once

#include "ProbeProgram.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/JobStart.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceClient.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/TestSupport/RemoteServiceProcess.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Kestrane {
namespace Testing {

// A running ks-remote-service (allowing the directory "allow" of a temporary directory, where
// a probe program lies; another one lies outside, in "other"), with this process's client
// side using its key. Probes that a test got started are released and, should they still run,
// killed at the end.
class ServiceFixture : public ::testing::Test {
protected:
    using Protocol = RemoteServiceProtocol;

    void SetUp() override {
        m_allowDirectory = m_temp.directory("allow");
        m_otherDirectory = m_temp.directory("other");
        m_probe = m_allowDirectory + "/probe";
        m_outsideProbe = m_otherDirectory + "/probe";
        ProbeProgram::write(m_probe);
        ProbeProgram::write(m_outsideProbe);
    }
    void TearDown() override {
        for (const auto& record : m_records)
            ProbeProgram::release(record);
        for (pid_t pid : m_startedPids)
            if (!waitUntil([&] { return processState(pid) == 0 || processState(pid) == 'Z'; },
                           std::chrono::milliseconds(1000)))
                ::kill(pid, SIGKILL);
    }

    // Starts the service with a one-second timeout and debug logging, plus `arguments`.
    void startService(std::vector<std::string> arguments = {},
                      RemoteServiceProcess::Options options = {}) {
        if (options.allow.empty())
            options.allow = {m_allowDirectory};
        options.arguments = {"--timeout", "1", "-logLevel", "DEBUG"};
        options.arguments.insert(options.arguments.end(), arguments.begin(), arguments.end());
        m_service = std::make_unique<RemoteServiceProcess>(options);
        ASSERT_TRUE(m_service->start()) << m_service->standardError();
        // Its log is complete up to here: a test can compare it with what comes later.
        ASSERT_TRUE(m_service->waitForStandardError(" listening on "));
        useClientKey(m_service->keyFile());
    }
    static void useClientKey(const std::string& path) {
        RequestServerConfiguration::getRegisteredInstance()->setValue("remoteServiceKeyFile", path);
    }
    // A copy of the service's key for the client side, so that the service's file can change.
    std::string copyServiceKey() {
        std::string copy = m_temp.file("client.key");
        writeFile(copy, readFile(m_service->keyFile()), 0600);
        useClientKey(copy);
        return copy;
    }

    std::string host() const { return m_service->host(); }
    int port() const { return m_service->port(); }

    // A record path for a probe; the probe is released at the end of the test.
    std::string record(const std::string& name) {
        std::string path = m_temp.file(name);
        m_records.push_back(path);
        return path;
    }
    // The argv that makes `program` record into `record` and wait up to `waitSeconds`.
    static std::vector<std::string> probeCommand(const std::string& program,
                                                 const std::string& record,
                                                 unsigned int waitSeconds,
                                                 std::vector<std::string> more = {}) {
        std::vector<std::string> argv{program, record, std::to_string(waitSeconds)};
        argv.insert(argv.end(), more.begin(), more.end());
        return argv;
    }

    // Asks for a start; -1 with `error` when refused.
    pid_t start(const std::vector<std::string>& argv, std::string& error) {
        Computing::JobStart job(host(), port());
        if (!job.execute(argv)) {
            error = job.getErrorMessage();
            return -1;
        }
        m_startedPids.insert(job.getPid());
        return job.getPid();
    }

    bool ping(std::string& error) {
        RemoteServiceClient client(host(), port());
        std::string answer;
        if (!client.call(Protocol::c_ping, answer, error))
            return false;
        if (answer != Protocol::c_pong) {
            error = "answer '" + answer + "'";
            return false;
        }
        return true;
    }
    // The service is alive and answers a PING signed with its own key.
    void expectStillAnswers() {
        useClientKey(m_service->keyFile());
        std::string error;
        EXPECT_TRUE(m_service->process().isRunning()) << m_service->standardError();
        EXPECT_TRUE(ping(error)) << error;
    }

    // The line of the service's standard error holding `text`, waiting for it; empty if none.
    std::string logLine(const std::string& text,
                        std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) {
        if (!m_service->waitForStandardError(text, limit))
            return std::string();
        std::string all = m_service->standardError();
        size_t at = all.find(text);
        size_t begin = all.rfind('\n', at);
        begin = begin == std::string::npos ? 0 : begin + 1;
        return all.substr(begin, all.find('\n', at) - begin);
    }
    // That the service warned "Refused command from 127.0.0.1: <reason>".
    void expectRefusalLogged(const std::string& reason) {
        std::string line = logLine("Refused command from " + host() + ": " + reason);
        EXPECT_NE(line, "") << "no refusal '" << reason << "' in:\n" << m_service->standardError();
        EXPECT_NE(line.find(" WARN "), std::string::npos) << line;
    }
    // A start of `argv` is refused with `reason` (to the client and in the service's log),
    // and nothing runs.
    void expectStartRefused(const std::vector<std::string>& argv, const std::string& reason,
                            const std::string& record) {
        std::string error;
        EXPECT_EQ(start(argv, error), -1);
        EXPECT_NE(error.find("refused the command: " + reason), std::string::npos) << error;
        expectRefusalLogged(reason);
        EXPECT_FALSE(ProbeProgram::started(record)) << "the probe ran";
        expectStillAnswers();
    }

    // A connection of our own, for conversations that the client classes would not hold.
    struct RawConnection {
        Computing::ClientSocket socket;
        std::string nonce;
    };
    std::unique_ptr<RawConnection> connect(bool readNonce = true) {
        auto connection = std::make_unique<RawConnection>();
        connection->socket.connect(host(), port());
        connection->socket.setTimeout(5000);
        if (readNonce) {
            Protocol::Frame frame;
            std::string error;
            EXPECT_EQ(Protocol::readFrame(connection->socket, frame, error),
                      Protocol::ReadResult::Ok)
                << error;
            EXPECT_EQ(frame.type, Protocol::c_nonce);
            connection->nonce = frame.payload;
        }
        return connection;
    }
    // The next packet "TYPE payload"; "<read failure: ...>" when none comes.
    static std::string nextPacket(Computing::Socket& socket) {
        Protocol::Frame frame;
        std::string error;
        if (Protocol::readFrame(socket, frame, error) != Protocol::ReadResult::Ok)
            return "<read failure: " + error + ">";
        return frame.type + " " + frame.payload;
    }
    // Sends `command`, signed with the service's key, and returns the answer packet.
    std::string signedCommand(const std::string& command) {
        auto connection = connect();
        RemoteServiceKey key;
        std::string message;
        EXPECT_TRUE(key.load(m_service->keyFile(), message)) << message;
        Protocol::writeFrame(connection->socket, Protocol::c_command, command);
        Protocol::writeFrame(connection->socket, Protocol::c_auth,
                             key.sign(connection->nonce, command));
        return nextPacket(connection->socket);
    }

    TemporaryDirectory m_temp;
    std::string m_allowDirectory;
    std::string m_otherDirectory;
    std::string m_probe;
    std::string m_outsideProbe;
    std::unique_ptr<RemoteServiceProcess> m_service;
    std::vector<std::string> m_records;
    std::set<pid_t> m_startedPids;
};

} // namespace Testing
} // namespace Kestrane
