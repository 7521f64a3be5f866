#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <string>

namespace Kestrane {

class GenericJobId;

// A directory below the temporary path that belongs to this host and user only, even where
// the temporary path lies on a drive shared by several hosts or users. The directory holds the
// HostAndUserId of its owner; a name taken by someone else is passed over for name_1, name_2...
class UnsharedTmpDir {
public:
    // Finds this process's directory for `name`, or creates it under the first free name.
    // Throws when the directory cannot be created.
    explicit UnsharedTmpDir(const std::string& name);
    explicit UnsharedTmpDir(const GenericJobId& id);
    UnsharedTmpDir(const UnsharedTmpDir&) = default;
    UnsharedTmpDir(UnsharedTmpDir&&) = default;
    UnsharedTmpDir& operator=(const UnsharedTmpDir&) = default;
    UnsharedTmpDir& operator=(UnsharedTmpDir&&) = default;

    const FileName& getPath() const { return path; }

private:
    void findOrCreate(const std::string& name);

    FileName path;
};

} // namespace Kestrane
