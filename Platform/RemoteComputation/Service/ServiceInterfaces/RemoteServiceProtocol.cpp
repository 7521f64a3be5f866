#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"

#include <cctype>

namespace Kestrane {

const char* const RemoteServiceProtocol::c_nonce = "NONCE";
const char* const RemoteServiceProtocol::c_command = "C";
const char* const RemoteServiceProtocol::c_auth = "AUTH";
const char* const RemoteServiceProtocol::c_ok = "OK";
const char* const RemoteServiceProtocol::c_error = "ERROR";
const char* const RemoteServiceProtocol::c_ping = "PING";
const char* const RemoteServiceProtocol::c_pong = "PONG";
const char* const RemoteServiceProtocol::c_cores = "CORES";
const char* const RemoteServiceProtocol::c_start = "START ";

namespace {

using ReadResult = RemoteServiceProtocol::ReadResult;

// Digits of the largest length we take: more of them is an oversized packet at once.
constexpr size_t c_maxLengthDigits = 7;

ReadResult shortRead(const Computing::Socket& socket, const std::string& what, std::string& error) {
    if (socket.receiveTimedOut()) {
        error = "no data for too long (" + what + ")";
        return ReadResult::TimedOut;
    }
    error = "connection closed (" + what + ")";
    return ReadResult::Closed;
}

std::string printable(char c) {
    if (std::isprint(static_cast<unsigned char>(c)))
        return std::string("'") + c + "'";
    static const char* digits = "0123456789abcdef";
    unsigned char byte = static_cast<unsigned char>(c);
    return std::string("byte 0x") + digits[byte >> 4] + digits[byte & 0xf];
}

} // namespace

RemoteServiceProtocol::ReadResult
RemoteServiceProtocol::readFrame(Computing::Socket& socket, Frame& frame, std::string& error) {
    frame = Frame();
    char c = 0;
    for (;;) {
        if (!socket.receiveDataBlock(&c, 1))
            return shortRead(socket, frame.type.empty() ? "before a packet" : "inside the type",
                             error);
        if (c == ' ')
            break;
        if (!(std::isupper(static_cast<unsigned char>(c)) || c == '_')) {
            error = "unexpected " + printable(c) + " in the packet type";
            return ReadResult::Malformed;
        }
        if (frame.type.size() == c_maxTypeLength) {
            error = "packet type longer than " + std::to_string(c_maxTypeLength) + " characters";
            return ReadResult::Malformed;
        }
        frame.type += c;
    }
    if (frame.type.empty()) {
        error = "packet without a type";
        return ReadResult::Malformed;
    }
    std::string digits;
    for (;;) {
        if (!socket.receiveDataBlock(&c, 1))
            return shortRead(socket, "inside the length", error);
        if (c == ' ')
            break;
        if (!std::isdigit(static_cast<unsigned char>(c))) {
            error = "unexpected " + printable(c) + " in the packet length";
            return ReadResult::Malformed;
        }
        if (digits.size() == c_maxLengthDigits) {
            error = "packet of more than " + std::to_string(c_maxPayload) + " bytes";
            return ReadResult::TooLarge;
        }
        digits += c;
    }
    if (digits.empty()) {
        error = "packet without a length";
        return ReadResult::Malformed;
    }
    size_t length = std::stoul(digits);
    if (length > c_maxPayload) {
        error = "packet of " + digits + " bytes, more than " + std::to_string(c_maxPayload);
        return ReadResult::TooLarge;
    }
    if (length > 0 && !socket.receiveDataBlock(frame.payload, length))
        return shortRead(socket, "inside the payload", error);
    return ReadResult::Ok;
}

void RemoteServiceProtocol::writeFrame(Computing::Socket& socket, const std::string& type,
                                       const std::string& payload) {
    std::string header = type + " " + std::to_string(payload.size()) + " ";
    socket.sendDataBlock(header.data(), header.size(), true);
    socket.sendDataBlock(payload.data(), payload.size());
}

std::string RemoteServiceProtocol::encodeArguments(const std::vector<std::string>& arguments) {
    std::string text;
    for (const auto& argument : arguments)
        text += std::to_string(argument.size()) + ":" + argument;
    return text;
}

bool RemoteServiceProtocol::decodeArguments(const std::string& text,
                                            std::vector<std::string>& arguments,
                                            std::string& error) {
    arguments.clear();
    size_t position = 0;
    while (position < text.size()) {
        size_t colon = text.find(':', position);
        if (colon == std::string::npos || colon == position || colon - position > 7) {
            error = "argument " + std::to_string(arguments.size() + 1) + " has no length";
            return false;
        }
        size_t length = 0;
        for (size_t i = position; i < colon; ++i) {
            if (!std::isdigit(static_cast<unsigned char>(text[i]))) {
                error = "argument " + std::to_string(arguments.size() + 1) +
                        " has a length that is not a number";
                return false;
            }
            length = length * 10 + static_cast<size_t>(text[i] - '0');
        }
        if (length > text.size() - colon - 1) {
            error =
                "argument " + std::to_string(arguments.size() + 1) + " is shorter than its length";
            return false;
        }
        std::string argument = text.substr(colon + 1, length);
        if (argument.find('\0') != std::string::npos) {
            error = "argument " + std::to_string(arguments.size() + 1) + " holds a NUL byte";
            return false;
        }
        arguments.push_back(std::move(argument));
        position = colon + 1 + length;
    }
    return true;
}

} // namespace Kestrane
