#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace Kestrane {

class HostInfo;
class Reply;

// Readable forms of what a status reply says.
class StatusText {
public:
    // The lines of a GetStatusReply: version, executable, job id, free temporary space, request
    // host, reply host with its ports, time stamp.
    static std::vector<std::string> describe(const Reply& reply);
    // "name, address A, request server port P, publisher port Q"; the parts that are known.
    static std::string describeHost(const HostInfo& host);
    // 1536 -> "1.5 KB"; a negative value -> "unknown".
    static std::string bytes(int64_t count);
    // Seconds since the epoch as local time "YYYY-MM-DD HH:MM:SS".
    static std::string localTime(int64_t secondsSinceEpoch);
};

} // namespace Kestrane
