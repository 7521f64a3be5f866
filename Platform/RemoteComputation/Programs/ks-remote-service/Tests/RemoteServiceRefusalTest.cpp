#include "ServiceFixture.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Testing;
using namespace std::chrono_literals;

namespace {
const std::string c_noKey = "the service has no usable key; its administrator must fix the key "
                            "file (the service's log says what is wrong)";
const std::string c_signHint = "; sign every command with the shared key (use a client of the "
                               "starter service (JobStart, CoresStatus))";
} // namespace

class RemoteServiceRefusalTest : public ServiceFixture {
protected:
    void SetUp() override {
        ServiceFixture::SetUp();
        startService();
        m_record = record("marker");
    }
    std::string m_record;
};

TEST_F(RemoteServiceRefusalTest, WrongKey) {
    std::string other = m_temp.file("other.key"), message;
    ASSERT_TRUE(RemoteServiceKey::create(other, message)) << message;
    useClientKey(other);
    expectStartRefused(probeCommand(m_probe, m_record, 0),
                       "authentication failed: the command is not signed with the service's key; "
                       "give the client a copy of the service's key file",
                       m_record);
}

TEST_F(RemoteServiceRefusalTest, NoKeyOnTheClientSendsNothing) {
    std::string missing = m_temp.file("missing.key");
    useClientKey(missing);
    std::string before = m_service->standardError(), error;
    EXPECT_EQ(start(probeCommand(m_probe, m_record, 0), error), -1);
    EXPECT_NE(error.find("No key for the remote service at 127.0.0.1:" + std::to_string(port()) +
                         ": Key file '" + missing + "' does not exist"),
              std::string::npos)
        << error;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(m_service->standardError(), before) << "the service saw a connection";
    useClientKey(m_service->keyFile());
    expectStillAnswers();
    EXPECT_FALSE(ProbeProgram::started(m_record));
}

TEST_F(RemoteServiceRefusalTest, NoKeyOnTheService) {
    std::string copy = copyServiceKey();
    ASSERT_EQ(::unlink(m_service->keyFile().c_str()), 0);
    std::string error;
    EXPECT_EQ(start(probeCommand(m_probe, m_record, 0), error), -1);
    EXPECT_NE(error.find("refused the command: " + c_noKey), std::string::npos) << error;
    expectRefusalLogged("the service has no usable key: Key file '" + m_service->keyFile() +
                        "' does not exist");
    EXPECT_FALSE(ProbeProgram::started(m_record));
    // Put back, it works again without a restart.
    writeFile(m_service->keyFile(), readFile(copy), 0600);
    expectStillAnswers();
}

TEST_F(RemoteServiceRefusalTest, ServiceKeyOpenToOthersUntilFixed) {
    copyServiceKey();
    ASSERT_EQ(::chmod(m_service->keyFile().c_str(), 0644), 0);
    std::string error;
    EXPECT_FALSE(ping(error));
    EXPECT_NE(error.find("refused the command: " + c_noKey), std::string::npos) << error;
    expectRefusalLogged("the service has no usable key: Key file '" + m_service->keyFile() +
                        "' is open to group or others (mode 0644); it must be readable by its "
                        "owner only (chmod 600)");
    EXPECT_EQ(start(probeCommand(m_probe, m_record, 0), error), -1);
    EXPECT_FALSE(ProbeProgram::started(m_record));
    ASSERT_EQ(::chmod(m_service->keyFile().c_str(), 0600), 0);
    expectStillAnswers();
}

TEST_F(RemoteServiceRefusalTest, ServiceKeyOfTheWrongSize) {
    copyServiceKey();
    ASSERT_EQ(::truncate(m_service->keyFile().c_str(), 31), 0);
    std::string error;
    EXPECT_FALSE(ping(error));
    EXPECT_NE(error.find(c_noKey), std::string::npos) << error;
    expectRefusalLogged("the service has no usable key: Key file '" + m_service->keyFile() +
                        "' does not hold a key of 32 bytes");
}

TEST_F(RemoteServiceRefusalTest, ProgramOutsideTheAllowList) {
    expectStartRefused(probeCommand(m_outsideProbe, m_record, 0),
                       "program '" + m_outsideProbe +
                           "' is not allowed; add it or its directory to the service's --allow "
                           "list",
                       m_record);
}

TEST_F(RemoteServiceRefusalTest, ProgramInASubdirectoryOfAnAllowedOne) {
    std::string nested = m_temp.directory("allow/sub") + "/probe";
    ProbeProgram::write(nested);
    expectStartRefused(probeCommand(nested, m_record, 0), "program '" + nested + "' is not allowed",
                       m_record);
}

TEST_F(RemoteServiceRefusalTest, RelativePath) {
    expectStartRefused(probeCommand("allow/probe", m_record, 0),
                       "program path 'allow/probe' is not absolute; give its full path", m_record);
}

TEST_F(RemoteServiceRefusalTest, ClientBytesCannotForgeLogLines) {
    std::string error;
    EXPECT_EQ(start({"x\nforged WARN line", m_record}, error), -1);
    EXPECT_NE(error.find("program path 'x\nforged WARN line' is not absolute"), std::string::npos)
        << error;
    expectRefusalLogged("program path 'x\\nforged WARN line' is not absolute");
    EXPECT_EQ(m_service->standardError().find("\nforged"), std::string::npos);
}

TEST_F(RemoteServiceRefusalTest, DotDotComponents) {
    for (std::string path : {m_allowDirectory + "/../other/probe",
                             m_allowDirectory + "/../allow/probe", m_allowDirectory + "/.."}) {
        expectStartRefused(probeCommand(path, m_record, 0),
                           "program path '" + path +
                               "' contains a '..' component; give the path without '..'",
                           m_record);
    }
}

TEST_F(RemoteServiceRefusalTest, SymlinkLeavingTheList) {
    std::string link = m_allowDirectory + "/link";
    ASSERT_EQ(::symlink(m_outsideProbe.c_str(), link.c_str()), 0);
    expectStartRefused(probeCommand(link, m_record, 0),
                       "program '" + link + "' resolves to '" + m_outsideProbe +
                           "', which is not allowed; add that path or its directory to the "
                           "service's --allow list, or start a program that lies in it",
                       m_record);
    // A directory on the way that leads elsewhere.
    std::string directoryLink = m_allowDirectory + "/elsewhere";
    ASSERT_EQ(::symlink(m_otherDirectory.c_str(), directoryLink.c_str()), 0);
    expectStartRefused(probeCommand(directoryLink + "/probe", m_record, 0),
                       "program '" + directoryLink + "/probe' resolves to '" + m_outsideProbe +
                           "', which is not allowed",
                       m_record);
}

TEST_F(RemoteServiceRefusalTest, NotAnExecutableRegularFile) {
    std::string data = m_allowDirectory + "/data";
    writeFile(data, "#!/bin/sh\ntouch \"$1\"\n", 0644);
    expectStartRefused({data, m_record},
                       "program '" + data +
                           "' is not an executable regular file; make it one (chmod +x) or start "
                           "another",
                       m_record);
    std::string directory = m_temp.directory("allow/directory");
    expectStartRefused({directory, m_record},
                       "program '" + directory + "' is not an executable regular file", m_record);
    std::string missing = m_allowDirectory + "/missing";
    expectStartRefused({missing, m_record}, "program '" + missing + "' does not exist", m_record);
}

TEST_F(RemoteServiceRefusalTest, PayloadOverOneMebibyte) {
    std::string error;
    auto argv = probeCommand(m_probe, m_record, 0, {std::string(2 * 1024 * 1024, 'x')});
    size_t payload = std::string(Protocol::c_start).size() + Protocol::encodeArguments(argv).size();
    std::string reason = "packet too large (packet of " + std::to_string(payload) +
                         " bytes, more than 1048576); a command may have at most 1048576 bytes";
    expectStartRefused(argv, reason, m_record);
}

TEST_F(RemoteServiceRefusalTest, SilentConnection) {
    auto connection = connect();
    auto begin = std::chrono::steady_clock::now();
    std::string answer = nextPacket(connection->socket);
    auto waited = std::chrono::steady_clock::now() - begin;
    std::string reason = "connection silent for more than 1 s; send the command and its AUTH "
                         "packet without pausing";
    EXPECT_EQ(answer, "ERROR " + reason);
    EXPECT_GT(waited, 900ms);
    EXPECT_LT(waited, 3000ms);
    expectRefusalLogged(reason);
    expectStillAnswers();
}

TEST_F(RemoteServiceRefusalTest, MissingAuthentication) {
    std::string command =
        Protocol::c_start + Protocol::encodeArguments(probeCommand(m_probe, m_record, 0));
    {
        // The command alone, then the end of what the client sends.
        auto connection = connect();
        Protocol::writeFrame(connection->socket, Protocol::c_command, command);
        ::shutdown(static_cast<int>(connection->socket.getSocket()), SHUT_WR);
        std::string reason =
            "missing authentication: the connection ended before an AUTH packet" + c_signHint;
        EXPECT_EQ(nextPacket(connection->socket), "ERROR " + reason);
        expectRefusalLogged(reason);
    }
    {
        // Another packet where the AUTH belongs.
        auto connection = connect();
        Protocol::writeFrame(connection->socket, Protocol::c_command, command);
        Protocol::writeFrame(connection->socket, Protocol::c_command, command);
        std::string reason =
            "missing authentication: expected an AUTH packet after the command, got 'C'" +
            c_signHint;
        EXPECT_EQ(nextPacket(connection->socket), "ERROR " + reason);
        expectRefusalLogged(reason);
    }
    {
        // Silence after the command.
        auto connection = connect();
        Protocol::writeFrame(connection->socket, Protocol::c_command, command);
        std::string reason =
            "missing authentication: no AUTH packet within 1 s after the command" + c_signHint;
        EXPECT_EQ(nextPacket(connection->socket), "ERROR " + reason);
        expectRefusalLogged(reason);
    }
    EXPECT_FALSE(ProbeProgram::started(m_record));
    expectStillAnswers();
}

TEST_F(RemoteServiceRefusalTest, AuthenticationOfAnotherNonce) {
    // An answer recorded on one connection is worth nothing on the next.
    RemoteServiceKey key;
    std::string error;
    ASSERT_TRUE(key.load(m_service->keyFile(), error)) << error;
    auto first = connect();
    auto second = connect();
    Protocol::writeFrame(second->socket, Protocol::c_command, Protocol::c_ping);
    Protocol::writeFrame(second->socket, Protocol::c_auth,
                         key.sign(first->nonce, Protocol::c_ping));
    EXPECT_EQ(nextPacket(second->socket).rfind("ERROR authentication failed", 0), 0u);
    expectRefusalLogged("authentication failed");
}

TEST_F(RemoteServiceRefusalTest, AuthenticationFirst) {
    auto connection = connect();
    Protocol::writeFrame(connection->socket, Protocol::c_auth, "0123");
    std::string reason = "expected a command packet 'C' first, got 'AUTH'; use a client of the "
                         "starter service (JobStart, CoresStatus)";
    EXPECT_EQ(nextPacket(connection->socket), "ERROR " + reason);
    expectRefusalLogged(reason);
}

TEST_F(RemoteServiceRefusalTest, UnknownCommand) {
    std::string reason = "unknown command 'SHUTDOWN'; expected PING, CORES or START";
    EXPECT_EQ(signedCommand("SHUTDOWN now"), "ERROR " + reason);
    expectRefusalLogged(reason);
    // Its name is shown short and printable.
    EXPECT_EQ(signedCommand("X\x01Y" + std::string(100, 'Z')),
              "ERROR unknown command 'X?Y" + std::string(29, 'Z') +
                  "...'; expected PING, CORES or START");
    expectStillAnswers();
}

TEST_F(RemoteServiceRefusalTest, UndecodableOrEmptyStart) {
    std::string undecodable = "undecodable START arguments (argument 1 is shorter than its "
                              "length); send them as RemoteServiceProtocol::encodeArguments "
                              "writes them";
    EXPECT_EQ(signedCommand("START 500:" + m_probe), "ERROR " + undecodable);
    expectRefusalLogged(undecodable);
    std::string withNul = "START " + Protocol::encodeArguments({m_probe, m_record + '\0'});
    EXPECT_EQ(signedCommand(withNul).rfind("ERROR undecodable START arguments (argument 2 holds "
                                           "a NUL byte)",
                                           0),
              0u);
    std::string empty = "START without a program: the argument list is empty; give the "
                        "program's absolute path first";
    EXPECT_EQ(signedCommand("START "), "ERROR " + empty);
    expectRefusalLogged(empty);
    EXPECT_FALSE(ProbeProgram::started(m_record));
    expectStillAnswers();
}
