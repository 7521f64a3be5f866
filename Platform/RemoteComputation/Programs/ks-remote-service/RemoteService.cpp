#include "RemoteService.h"
#include "LogText.h"

#include "ServiceCommands.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <cerrno>
#include <chrono>
#include <sys/socket.h>
#include <thread>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);

using Protocol = RemoteServiceProtocol;
using ReadResult = Protocol::ReadResult;

// After the answer the connection is drained for a while before it is closed: closing with
// unread bytes (the rest of a refused oversized packet) would reset the connection and could
// take the answer with it.
constexpr unsigned int c_lingerSilenceMs = 200;
constexpr auto c_lingerLimit = std::chrono::milliseconds(1000);
constexpr size_t c_lingerBytes = 4 * Protocol::c_maxPayload;

const char* const c_clientHint = "use a client of the starter service (JobStart, CoresStatus)";

class ConversationTask : public Tasks::Task {
public:
    ConversationTask(RemoteService& service, uint64_t handle)
        : Task("RemoteServiceConversation"), m_service(service), m_handle(handle) {}
    void execute() override { m_service.converse(m_handle); }

private:
    RemoteService& m_service;
    uint64_t m_handle;
};

// An address on which this host reaches a socket bound to `bindAddress`.
std::string localAddressOf(const std::string& bindAddress) {
    if (bindAddress == "0.0.0.0")
        return "127.0.0.1";
    if (bindAddress == "::")
        return "::1";
    return bindAddress;
}

// Why a packet could not be read, for a packet that is not the AUTH one.
std::string readFailure(ReadResult result, const std::string& error, unsigned int timeoutSeconds) {
    switch (result) {
    case ReadResult::TimedOut:
        return "connection silent for more than " + std::to_string(timeoutSeconds) +
               " s; send the command and its AUTH packet without pausing";
    case ReadResult::TooLarge:
        return "packet too large (" + error + "); a command may have at most " +
               std::to_string(Protocol::c_maxPayload) + " bytes";
    case ReadResult::Closed:
        return "incomplete packet (" + error + ")";
    default:
        return "malformed packet (" + error + "); " + c_clientHint;
    }
}

// Why the packet after the command is no AUTH packet; empty when it is one.
std::string authenticationFailure(ReadResult result, const Protocol::Frame& frame,
                                  const std::string& error, unsigned int timeoutSeconds) {
    const std::string hint =
        "; sign every command with the shared key (" + std::string(c_clientHint) + ")";
    if (result == ReadResult::Ok)
        return frame.type == Protocol::c_auth ? std::string()
                                              : "missing authentication: expected an AUTH "
                                                "packet after the command, got '" +
                                                    frame.type + "'" + hint;
    if (result == ReadResult::TimedOut)
        return "missing authentication: no AUTH packet within " + std::to_string(timeoutSeconds) +
               " s after the command" + hint;
    if (result == ReadResult::Closed && frame.type.empty())
        return "missing authentication: the connection ended before an AUTH packet" + hint;
    return readFailure(result, error, timeoutSeconds);
}

} // namespace

RemoteService::RemoteService(ServiceCommands& commands, std::string keyFile,
                             unsigned int timeoutSeconds)
    : m_commands(commands), m_keyFile(std::move(keyFile)), m_timeoutSeconds(timeoutSeconds),
      m_pool(c_poolSize, Thread::Normal) {}

RemoteService::~RemoteService() {
    m_pool.waitForAllTasks();
}

void RemoteService::listen(const std::string& bindAddress, unsigned int port) {
    m_bindAddress = bindAddress;
    m_listen = std::make_unique<Computing::ListenSocket>(
        static_cast<int>(port), 1, static_cast<int>(c_maxWaiting), bindAddress);
}

int RemoteService::port() const {
    return m_listen ? m_listen->getListenPort() : -1;
}

void RemoteService::run() {
    while (!m_stopping) {
        uint64_t handle = Computing::Socket::c_invalid;
        try {
            handle = m_listen->accept();
        } catch (const std::exception& e) {
            if (m_stopping)
                break;
            KS_ERROR("Cannot accept a connection (" << e.what() << "); trying again");
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            continue;
        }
        if (m_stopping) {
            Computing::Socket(handle).close();
            break;
        }
        if (m_pool.getQueuedTasksCount() >= c_maxWaiting) {
            Computing::ServerSocket socket(handle);
            KS_WARN("Turned away a connection from " << socket.getClientIPaddress() << ": "
                                                     << m_pool.getQueuedTasksCount()
                                                     << " connections wait already");
            continue;
        }
        m_pool.addTask(std::make_shared<ConversationTask>(*this, handle));
    }
    m_pool.waitForAllTasks();
}

void RemoteService::stop() {
    if (m_stopping.exchange(true) || !m_listen)
        return;
    // accept() blocks until a connection comes: one of our own ends it.
    try {
        Computing::ClientSocket wake;
        wake.connect(localAddressOf(m_bindAddress), port());
    } catch (const std::exception& e) {
        KS_WARN("Cannot wake the accepting thread (" << e.what()
                                                     << "); it stops at the next connection");
    }
}

void RemoteService::refuse(Computing::Socket& socket, const std::string& peer,
                           const std::string& reason, const std::string& logReason) {
    // Logged first: whoever reads the ERROR finds the line in the log already.
    KS_WARN("Refused command from "
            << peer << ": " << escapeControlCharacters(logReason.empty() ? reason : logReason));
    try {
        Protocol::writeFrame(socket, Protocol::c_error, reason);
    } catch (const std::exception& e) {
        KS_DEBUG("The refusal did not reach " << peer << ": " << e.what());
    }
    lingeringClose(socket);
}

void RemoteService::lingeringClose(Computing::Socket& socket) {
    int fd = static_cast<int>(socket.getSocket());
    ::shutdown(fd, SHUT_WR);
    socket.setTimeout(c_lingerSilenceMs);
    auto deadline = std::chrono::steady_clock::now() + c_lingerLimit;
    size_t drained = 0;
    char buffer[16384];
    while (drained < c_lingerBytes && std::chrono::steady_clock::now() < deadline) {
        ssize_t got = ::recv(fd, buffer, sizeof(buffer), 0);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        drained += static_cast<size_t>(got);
    }
    socket.close();
}

void RemoteService::converse(uint64_t handle) {
    try {
        Computing::ServerSocket socket(handle);
        socket.setTimeout(m_timeoutSeconds * 1000);
        std::string peer = socket.getClientIPaddress();
        KS_DEBUG("Connection from " << peer);
        std::string nonce = RemoteServiceKey::createNonce();
        try {
            Protocol::writeFrame(socket, Protocol::c_nonce, nonce);
        } catch (const std::exception& e) {
            KS_INFO("Connection from " << peer << " ended before the nonce: " << e.what());
            return;
        }

        Protocol::Frame command;
        std::string error;
        ReadResult result = Protocol::readFrame(socket, command, error);
        if (result == ReadResult::Closed && command.type.empty()) {
            KS_INFO("Connection from " << peer << " closed without a command");
            return;
        }
        if (result != ReadResult::Ok)
            return refuse(socket, peer, readFailure(result, error, m_timeoutSeconds));
        if (command.type != Protocol::c_command)
            return refuse(socket, peer,
                          "expected a command packet 'C' first, got '" + command.type + "'; " +
                              c_clientHint);

        Protocol::Frame auth;
        result = Protocol::readFrame(socket, auth, error);
        std::string missing = authenticationFailure(result, auth, error, m_timeoutSeconds);
        if (!missing.empty())
            return refuse(socket, peer, missing);

        RemoteServiceKey key;
        std::string keyError;
        if (!key.load(m_keyFile, keyError))
            return refuse(socket, peer,
                          "the service has no usable key; its administrator must fix the key "
                          "file (the service's log says what is wrong)",
                          "the service has no usable key: " + keyError);
        if (!key.verify(nonce, command.payload, auth.payload))
            return refuse(socket, peer,
                          "authentication failed: the command is not signed with the service's "
                          "key; give the client a copy of the service's key file");

        ServiceCommands::Outcome outcome = m_commands.execute(command.payload);
        if (!outcome.ok)
            return refuse(socket, peer, outcome.text);
        try {
            Protocol::writeFrame(socket, Protocol::c_ok, outcome.text);
            KS_DEBUG("Answered " << peer << ": OK " << outcome.text);
        } catch (const std::exception& e) {
            KS_WARN("The answer 'OK " << outcome.text << "' did not reach " << peer << ": "
                                      << e.what());
        }
        lingeringClose(socket);
    } catch (const std::exception& e) {
        KS_ERROR("Conversation ended by an exception: " << e.what());
    } catch (...) {
        KS_ERROR("Conversation ended by an unknown exception");
    }
}

} // namespace Kestrane
