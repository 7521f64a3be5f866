#pragma once

// Shared set-up of the fuzz targets: quiet logging (a log line per input would cost more than
// the parse), Xerces started once, and a byte feed through a real socket for the readers that
// only take a Computing::Socket.

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace KestraneFuzz {

inline void quietLogging() {
    // KS_FUZZ_LOG=1 keeps the lines, for looking at what one input does.
    const char* keep = std::getenv("KS_FUZZ_LOG");
    if (!keep || std::string(keep) != "1")
        Kestrane::Logging::setLevel(Kestrane::LogLevel::Off);
}

inline std::string text(const uint8_t* data, size_t size) {
    return std::string(reinterpret_cast<const char*>(data), size);
}

struct DocumentReleaser {
    void operator()(xercesc::DOMDocument* document) const { document->release(); }
};
using Document = std::unique_ptr<xercesc::DOMDocument, DocumentReleaser>;

// A namespace-aware parse without a schema, so that the element readers also see documents
// that a schema would refuse. Null when the text is no well-formed XML.
inline Document parsePlain(const std::string& text) {
    Kestrane::XercesPlatform::ensureInitialized();
    xercesc::XercesDOMParser parser;
    parser.setDoNamespaces(true);
    parser.setLoadExternalDTD(false);
    parser.setDisableDefaultEntityResolution(true);
    xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()), text.size(),
                                      "fuzz input", false);
    try {
        parser.parse(source);
    } catch (...) {
        return nullptr;
    }
    if (parser.getErrorCount() != 0)
        return nullptr;
    return Document(parser.adoptDocument());
}

// A connected stream pair whose far end has already written `bytes` and closed its writing
// side: the reader sees exactly these bytes, then the end of the stream. Inputs are kept below
// the socket buffer, so the write never waits for a reader.
class Feed {
public:
    static constexpr size_t c_maxBytes = 64 * 1024;

    explicit Feed(const std::string& bytes) {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds) != 0)
            std::abort();
        int buffer = static_cast<int>(2 * c_maxBytes);
        ::setsockopt(m_fds[1], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof(buffer));
        ::setsockopt(m_fds[0], SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer));
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::write(m_fds[1], bytes.data() + done, bytes.size() - done);
            if (n <= 0)
                std::abort();
            done += static_cast<size_t>(n);
        }
        ::shutdown(m_fds[1], SHUT_WR);
    }
    ~Feed() {
        if (m_fds[0] >= 0)
            ::close(m_fds[0]);
        ::close(m_fds[1]);
    }
    Feed(const Feed&) = delete;
    Feed& operator=(const Feed&) = delete;

    // The reading end, handed over to a socket object that closes it.
    uint64_t takeReader() {
        int fd = m_fds[0];
        m_fds[0] = -1;
        return static_cast<uint64_t>(fd);
    }
    // What the reader side wrote back (nonce, answers), read without waiting.
    std::string drainAnswers() {
        std::string out;
        char chunk[4096];
        for (;;) {
            ssize_t n = ::recv(m_fds[1], chunk, sizeof(chunk), MSG_DONTWAIT);
            if (n <= 0)
                break;
            out.append(chunk, static_cast<size_t>(n));
        }
        return out;
    }

private:
    int m_fds[2] = {-1, -1};
};

} // namespace KestraneFuzz
