#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

namespace Kestrane {

// Removes files and directories in the background, so that a request's clean-up never delays
// its reply.
class DeletePathThread {
public:
    // Hands a file or directory over for removal and returns at once; with `keep` true the path
    // stays on disk.
    static void deletePath(const FileName& path, bool keep);
    // Removes what is queued and ends the deleter; a later deletePath starts it again.
    static void shutdown();
};

} // namespace Kestrane
