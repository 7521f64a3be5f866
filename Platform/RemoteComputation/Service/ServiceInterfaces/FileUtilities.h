#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <cstdint>

namespace Kestrane {

// File system operations on FileName values. Failures of the file system throw
// KsExceptionNested with the source "FileUtilities", unless an operation says otherwise.
class FileUtilities {
public:
    // Whether the path exists; with `followLinks` false a dangling link counts as existing.
    static bool exists(const FileName& path, bool followLinks = true);
    static bool isDirectory(const FileName& path);
    // True for an empty directory or an empty file; false when the path does not exist.
    static bool isEmpty(const FileName& path);
    static uint64_t getFileSize(const FileName& path);
    // Bytes free for the user on the volume that holds the path.
    static uint64_t getAvailableSpace(const FileName& path);
    static void createDirectories(const FileName& path);
    // Removes a file or a whole directory tree; false when there was nothing to remove.
    static bool remove(const FileName& path);
};

} // namespace Kestrane
