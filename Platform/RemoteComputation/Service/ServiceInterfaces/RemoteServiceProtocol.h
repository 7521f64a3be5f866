#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Kestrane {
namespace Computing {
class Socket;
}

// The conversation with a starter service: one command per connection, each packet in the frame
// of the request servers (type, one space, decimal length, one space, payload), authenticated by
// challenge and response:
//
//   service -> client   NONCE  64 hexadecimal digits, fresh for this connection
//   client  -> service  C      PING | CORES | START <encoded arguments>
//   client  -> service  AUTH   hexadecimal HMAC-SHA256(key, nonce + command)
//   service -> client   OK     PONG | <cores> <free cores> | <pid>
//                    or ERROR  why the command was refused
//
// Unlike the request servers' reader, this one is strict and bounded, since anybody may connect:
// a peer can make it allocate no more than c_maxPayload, and a malformed header ends the
// conversation at the first wrong byte.
class RemoteServiceProtocol {
public:
    static constexpr size_t c_maxPayload = 1024 * 1024;
    static constexpr size_t c_maxTypeLength = 16;

    static const char* const c_nonce;   // "NONCE"
    static const char* const c_command; // "C"
    static const char* const c_auth;    // "AUTH"
    static const char* const c_ok;      // "OK"
    static const char* const c_error;   // "ERROR"
    static const char* const c_ping;    // "PING"
    static const char* const c_pong;    // "PONG"
    static const char* const c_cores;   // "CORES"
    static const char* const c_start;   // "START " (followed by the encoded arguments)

    struct Frame {
        std::string type;
        std::string payload;
    };
    enum class ReadResult { Ok, Closed, TimedOut, Malformed, TooLarge };

    // Reads one packet. On anything but Ok, `error` says what was wrong.
    static ReadResult readFrame(Computing::Socket& socket, Frame& frame, std::string& error);
    // Writes one packet; a failed write throws Computing::Error.
    static void writeFrame(Computing::Socket& socket, const std::string& type,
                           const std::string& payload);

    // An argument vector as one text: each argument as its decimal length, ':' and its bytes.
    // Any byte but NUL may stand in an argument (a program can't receive a NUL).
    static std::string encodeArguments(const std::vector<std::string>& arguments);
    // The inverse; false with `error` for a text that encodeArguments can't have written.
    static bool decodeArguments(const std::string& text, std::vector<std::string>& arguments,
                                std::string& error);
};

} // namespace Kestrane
