// The text packet reader of a request-server connection, fed from raw bytes through a real
// socket, followed by the reading of the blocks that the "HDFS " and "ARCH " commands announce.
//
// HandleConnectionTask's own dispatch is private and needs a running RequestServer; besides,
// "FORWARD_CALLBACK " connects to whatever host the packet names. So the command rows are taken
// here the way the task takes them (same length checks, same offsets, same public parsers), and
// the packet reader is the part fuzzed for real.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/ArchAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/BinarySocketPacket.h"
#include "Platform/RemoteComputation/Service/RequestHandling/HdfsAttachment.h"
#include "Platform/RemoteComputation/Service/RequestHandling/SocketPacket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Socket.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <boost/algorithm/string/predicate.hpp>

#include <cstdlib>
#include <exception>

using namespace Kestrane;

namespace {

void takeBlock(Computing::Socket& socket, const std::string& data, bool hdfs) {
    if (data.size() <= 58)
        return;
    const std::string id = data.substr(5, UniqueID::c_length);
    const uint32_t size = SocketPacket::parseLength(data.substr(56));
    auto block = BinarySocketPacket::receive(size, socket, "fuzz");
    auto* bytes = reinterpret_cast<unsigned char*>(block->getData());
    if (hdfs)
        HdfsAttachment attachment(id, bytes, size);
    else
        ArchAttachment attachment(id, bytes, size);
    // Neither the packet nor the attachment owns the block.
    std::free(block->getData());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > KestraneFuzz::Feed::c_maxBytes)
        return 0;
    KestraneFuzz::Feed feed(KestraneFuzz::text(data, size));
    Computing::Socket socket(feed.takeReader());
    try {
        // The end of the input ends the loop: an empty length word does not parse.
        for (int packets = 0; packets < 256; ++packets) {
            auto packet = SocketPacket::receive(socket, "fuzz");
            const std::string& payload = *packet->getData();
            if (packet->getType() != "C")
                continue;
            if (payload == "CLOSE_CONNECTION")
                break;
            if (boost::starts_with(payload, "HDFS "))
                takeBlock(socket, payload, true);
            else if (boost::starts_with(payload, "ARCH "))
                takeBlock(socket, payload, false);
            else if (boost::starts_with(payload, "FILE ") && payload.size() >= 59) {
                // The offsets of the task's file row; out_of_range is its documented failure.
                size_t pos = payload.find(' ', 5);
                if (pos != std::string::npos && pos != 5) {
                    (void)payload.substr(pos + 1, UniqueID::c_length);
                    (void)payload.substr(pos + 52);
                }
            }
        }
    } catch (const std::exception&) {
        // boost::bad_lexical_cast for a bad length, std::out_of_range from the file row, and
        // Computing::Error: the documented ways a connection ends.
    }
    return 0;
}
