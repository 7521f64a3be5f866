#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/AbstractSocketPacket.h"

#include <cstdint>
#include <memory>
#include <string>

namespace Kestrane {

// A text packet: type, one space, the payload's length in decimal, one space, the payload.
class SocketPacket : public AbstractSocketPacket {
public:
    // Log lines show at most this many characters of a payload.
    static constexpr size_t c_maxLoggedData = 10000;

    SocketPacket(const std::string& type, const std::string& data, bool cachePacket);
    // Shares the text, so that a large XML document is not copied.
    SocketPacket(const std::string& type, std::shared_ptr<std::string> data, bool cachePacket);

    bool send(Computing::Socket& socket, const std::string& label) override;
    std::string toString() override;

    const std::string& getType() const { return m_type; }
    std::shared_ptr<std::string> getData() const { return m_data; }

    // Reads one packet. Throws boost::bad_lexical_cast when the length is missing or no number.
    static std::shared_ptr<SocketPacket> receive(Computing::Socket& socket,
                                                 const std::string& label);
    // Writes one packet; returns true or throws Computing::Error.
    static bool send(const std::string& type, const std::string& data, Computing::Socket& socket,
                     const std::string& label);
    // Reads one packet and tests that it is the closing command.
    static bool receiveCloseConnection(Computing::Socket& socket, const std::string& label);

    // Length text as the reader takes it: one leading '+' or '-', a '-' negating the value in
    // 32-bit unsigned arithmetic. Throws boost::bad_lexical_cast for anything else.
    static uint32_t parseLength(const std::string& text);
    // The payload as log lines show it: whole below c_maxLoggedData characters, else cut with
    // "..." behind.
    static std::string loggedData(const std::string& data);

private:
    std::string m_type;
    std::shared_ptr<std::string> m_data;
};

} // namespace Kestrane
