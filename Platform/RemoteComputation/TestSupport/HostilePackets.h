#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Kestrane {
namespace Testing {

// Packets of a hostile peer for our text framing (type, one space, decimal length, one space,
// payload): every way a header or payload can lie, plus mutated copies of real packets. Driven by
// one seed, so that a failing run can be repeated packet for packet (with the same standard
// library: its distributions decide the draws).
class HostilePackets {
public:
    enum Kind {
        WrongLength,    // a known type whose length is not the payload's
        HugeLength,     // lengths near 2^32, 2^63, 2^64 and beyond
        NegativeLength, // signs where a reader expects digits
        NulBytes,       // NUL in the type, the length or the payload
        Truncated,      // a packet cut inside its header or payload (last on a connection)
        UnknownType,    // well framed, with a type nobody knows
        GarbageCommand, // a command packet with a payload that is no command
        MutatedCopy,    // a real packet with flipped, inserted, deleted or spliced bytes
        RandomBytes,    // no framing at all
        KindCount
    };

    struct Vocabulary {
        std::vector<std::string> types;       // packet types the reader knows
        std::string commandType;              // the type that carries commands
        std::vector<std::string> commands;    // command payloads the reader knows
        std::vector<std::string> realPackets; // whole packets as a good client sends them
        // Applied to every packet before it goes out: takes away what a test must not let a
        // random peer ask for (requests that stop the process, paths outside the test's
        // directories).
        std::function<void(std::string&)> defuse;
    };

    HostilePackets(uint64_t seed, Vocabulary vocabulary)
        : m_random(seed), m_vocabulary(std::move(vocabulary)) {}

    static const char* name(Kind kind) {
        static const char* const names[KindCount] = {
            "wrong length", "huge length",     "negative length", "NUL bytes",   "truncated",
            "unknown type", "garbage command", "mutated copy",    "random bytes"};
        return kind < KindCount ? names[kind] : "?";
    }

    static std::string frame(const std::string& type, const std::string& payload) {
        return type + " " + std::to_string(payload.size()) + " " + payload;
    }

    // The bytes of one packet. A truncated packet comes only as the last one of a connection,
    // since it swallows whatever follows it.
    std::string next(bool lastOnConnection) {
        Kind kind = static_cast<Kind>(below(KindCount));
        if (kind == Truncated && !lastOnConnection)
            kind = WrongLength;
        m_last = kind;
        std::string bytes = make(kind);
        if (m_vocabulary.defuse)
            m_vocabulary.defuse(bytes);
        ++m_counts[kind];
        return bytes;
    }
    Kind lastKind() const { return m_last; }
    const std::array<uint64_t, KindCount>& counts() const { return m_counts; }

    size_t below(size_t n) {
        return n == 0 ? 0 : std::uniform_int_distribution<size_t>(0, n - 1)(m_random);
    }
    bool chance(double p) { return std::bernoulli_distribution(p)(m_random); }

    // Shows bytes on one line, control bytes and non-ASCII as \xNN; long texts cut.
    static std::string printable(const std::string& bytes, size_t limit = 200) {
        static const char* digits = "0123456789abcdef";
        std::string text;
        for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
            unsigned char c = static_cast<unsigned char>(bytes[i]);
            if (c >= 0x20 && c < 0x7f && c != '\\') {
                text += static_cast<char>(c);
            } else {
                text += "\\x";
                text += digits[c >> 4];
                text += digits[c & 0xf];
            }
        }
        if (bytes.size() > limit)
            text += "... (" + std::to_string(bytes.size()) + " bytes)";
        return text;
    }

private:
    template <typename T> const T& pick(const std::vector<T>& values) {
        return values[below(values.size())];
    }
    std::string randomBytes(size_t n) {
        std::string bytes(n, '\0');
        for (char& c : bytes)
            c = static_cast<char>(below(256));
        return bytes;
    }
    std::string randomText(size_t n) {
        std::string text(n, ' ');
        for (char& c : text)
            c = static_cast<char>(' ' + below(95));
        return text;
    }
    // Mostly short, now and then large: big payloads find other paths than small ones.
    size_t payloadSize() {
        if (chance(0.02))
            return 16384 + below(64 * 1024);
        if (chance(0.2))
            return below(4096);
        return below(128);
    }
    std::string anyType() {
        return !m_vocabulary.types.empty() && chance(0.8) ? pick(m_vocabulary.types)
                                                          : randomText(2);
    }
    std::string anyPayload() {
        switch (below(4)) {
        case 0:
            return pick(m_vocabulary.commands);
        case 1:
            return randomText(payloadSize());
        case 2:
            return randomBytes(payloadSize());
        default: {
            // The payload of a real packet.
            const std::string& real = pick(m_vocabulary.realPackets);
            size_t second = real.find(' ', real.find(' ') + 1);
            return second == std::string::npos ? real : real.substr(second + 1);
        }
        }
    }

    std::string make(Kind kind) {
        switch (kind) {
        case WrongLength: {
            std::string payload = anyPayload();
            size_t size = payload.size();
            size_t declared;
            switch (below(3)) {
            case 0:
                declared = size + 1 + below(16);
                break;
            case 1:
                declared = size > 0 ? below(size) : 1 + below(8);
                break;
            default:
                declared = below(2 * size + 32);
                break;
            }
            if (declared == size)
                ++declared;
            return anyType() + " " + std::to_string(declared) + " " + payload;
        }
        case HugeLength: {
            static const std::vector<std::string> lengths = {
                "4294967295",           "4294967296",
                "4294967297",           "2147483647",
                "2147483648",           "9223372036854775807",
                "9223372036854775808",  "9223372036854775806",
                "18446744073709551615", "18446744073709551616",
                "36893488147419103232", "99999999999999999999999999",
                "1000000000",           "4000000000",
                "0x7fffffffffffffff",   "1e18",
                "9223372036854775807.0"};
            std::string length = pick(lengths);
            if (chance(0.1))
                length = std::string(below(64) + 1, '0') + length;
            return anyType() + " " + length + " " + randomText(below(64));
        }
        case NegativeLength: {
            static const std::vector<std::string> lengths = {"-1",
                                                             "-0",
                                                             "-4294967295",
                                                             "-4294967296",
                                                             "-4294967292",
                                                             "-2147483648",
                                                             "-9223372036854775808",
                                                             "-9223372036854775809",
                                                             "--1",
                                                             "-+1",
                                                             "+-1",
                                                             "+4",
                                                             "-",
                                                             "+",
                                                             "- 4",
                                                             "-18446744073709551615"};
            return anyType() + " " + pick(lengths) + " " + anyPayload();
        }
        case NulBytes: {
            std::string packet = chance(0.5)
                                     ? pick(m_vocabulary.realPackets)
                                     : frame(m_vocabulary.commandType, pick(m_vocabulary.commands));
            if (chance(0.3)) {
                // A NUL behind a known command: a reader that cuts at it sees the command.
                std::string payload =
                    pick(m_vocabulary.commands) + std::string(1, '\0') + randomText(below(32));
                return frame(m_vocabulary.commandType, payload);
            }
            size_t nuls = 1 + below(4);
            for (size_t i = 0; i < nuls; ++i)
                packet.insert(packet.begin() + static_cast<long>(below(packet.size() + 1)), '\0');
            return packet;
        }
        case Truncated: {
            std::string packet =
                chance(0.5) ? pick(m_vocabulary.realPackets) : frame(anyType(), anyPayload());
            return packet.substr(0, below(packet.size()));
        }
        case UnknownType: {
            std::string type;
            switch (below(5)) {
            case 0:
                type = "";
                break;
            case 1:
                // Upper case like the real ones, but no real one.
                for (size_t i = 0, n = 1 + below(12); i < n; ++i)
                    type += static_cast<char>('A' + below(26));
                break;
            case 2: {
                std::string bytes = randomBytes(1 + below(16));
                for (char& c : bytes)
                    if (c == ' ')
                        c = '_';
                type = bytes;
                break;
            }
            case 3:
                type = std::string(1000 + below(100000), 'T');
                break;
            default:
                type = pick(m_vocabulary.types);
                type += type;
                break;
            }
            for (const auto& known : m_vocabulary.types)
                if (type == known)
                    type += "X";
            return frame(type, anyPayload());
        }
        case GarbageCommand: {
            std::string command = pick(m_vocabulary.commands);
            switch (below(6)) {
            case 0:
                command = command.substr(0, below(command.size() + 1));
                break;
            case 1:
                command += randomText(1 + below(80));
                break;
            case 2:
                for (char& c : command)
                    if (c >= 'A' && c <= 'Z' && chance(0.5))
                        c = static_cast<char>(c - 'A' + 'a');
                break;
            case 3:
                command = " " + command;
                break;
            case 4:
                command = randomText(payloadSize());
                break;
            default:
                command += "\r\n";
                break;
            }
            return frame(m_vocabulary.commandType, command);
        }
        case MutatedCopy:
            return mutate(pick(m_vocabulary.realPackets));
        default:
            return randomBytes(1 + below(2048));
        }
    }

public:
    // `packet` with one to eight random edits.
    std::string mutate(std::string packet) {
        static const std::vector<std::string> numbers = {
            "0", "1",     "-1", "4294967295", "9223372036854775807", "18446744073709551616",
            "",  "999999"};
        size_t steps = 1 + below(8);
        for (size_t step = 0; step < steps; ++step) {
            size_t at = below(packet.size() + 1);
            switch (below(8)) {
            case 0:
                if (at < packet.size())
                    packet[at] = static_cast<char>(packet[at] ^ (1 << below(8)));
                break;
            case 1:
                if (at < packet.size())
                    packet[at] = static_cast<char>(below(256));
                break;
            case 2:
                packet.insert(at, randomBytes(1 + below(8)));
                break;
            case 3:
                packet.erase(at, 1 + below(16));
                break;
            case 4: {
                // A piece of the packet once more: repeated tags, attributes, headers.
                size_t length =
                    below(std::min<size_t>(packet.size() - std::min(at, packet.size()) + 1, 64));
                packet.insert(below(packet.size() + 1),
                              packet.substr(std::min(at, packet.size()), length));
                break;
            }
            case 5: {
                // A run of digits (a length, a serial, a size) becomes a telling number.
                size_t digit = packet.find_first_of("0123456789", at);
                if (digit == std::string::npos)
                    break;
                size_t end = packet.find_first_not_of("0123456789", digit);
                packet.replace(digit, (end == std::string::npos ? packet.size() : end) - digit,
                               pick(numbers));
                break;
            }
            case 6:
                packet.insert(at, chance(0.5) ? pick(m_vocabulary.commands) : anyType() + " ");
                break;
            default:
                packet = packet.substr(0, at);
                break;
            }
        }
        return packet;
    }

private:
    std::mt19937_64 m_random;
    Vocabulary m_vocabulary;
    Kind m_last = KindCount;
    std::array<uint64_t, KindCount> m_counts{};
};

} // namespace Testing
} // namespace Kestrane
