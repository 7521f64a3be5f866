#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <memory>
#include <string>

namespace Kestrane {

// Host name and user name of a process as one text "host#user". Two processes with the same
// text can read each other's files directly; the text travels on the wire and is kept in a
// file inside the directories it owns.
class HostAndUserId {
public:
    static const std::string c_fileName; // "hostAndUser.id"

    // The identity of this process.
    HostAndUserId();
    HostAndUserId(const HostAndUserId&) = default;
    HostAndUserId(HostAndUserId&&) = default;
    HostAndUserId& operator=(const HostAndUserId&) = default;
    HostAndUserId& operator=(HostAndUserId&&) = default;

    const std::string& toString() const { return hostAndUserId; }

    bool operator==(const HostAndUserId& other) const {
        return hostAndUserId == other.hostAndUserId;
    }
    bool operator!=(const HostAndUserId& other) const { return !(*this == other); }

    // Whether the text has a '#' with something before and behind the first one. Logs the
    // reason at warning level when not.
    static bool isValid(const std::string& text);

    // Writes the text into the file c_fileName in `directory`; never overwrites a file.
    // False, with an error line, when the directory is missing or the file exists already.
    bool save(const FileName& directory) const;

    // Reads the file c_fileName from `directory`; null, with an error line, when it cannot be
    // read or does not hold a valid text.
    static std::shared_ptr<HostAndUserId> load(const FileName& directory);

private:
    explicit HostAndUserId(const std::string& text);

    std::string hostAndUserId;
};

} // namespace Kestrane
