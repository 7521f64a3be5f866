#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace Kestrane {

// The envelope of a request: protocol version, serial, time stamp, the identity of the client,
// where the reply must go and whether progress messages are wanted.
class RequestPackageEncoder {
public:
    RequestPackageEncoder(const std::string& request, const std::string& requestClientId,
                          const std::string& origin);

    void setSendProgressUpdates(bool send) { m_sendProgressUpdates = send; }
    void setReplyExpected(bool expected) { m_replyExpected = expected; }
    // Every call consumes a serial. With a reply expected it needs this process's
    // RequestServer (it brings it up), and throws KsExceptionNested when there is none.
    std::string getEncodedRequestPackage() const;

    // Names this process for its whole life.
    static const std::string& getClientId();

private:
    std::string m_request;
    bool m_sendProgressUpdates = false;
    bool m_replyExpected = true;
    std::string m_origin;
    std::string m_requestClientId;

    static std::atomic<uint32_t> s_nextSerial;
};

} // namespace Kestrane
