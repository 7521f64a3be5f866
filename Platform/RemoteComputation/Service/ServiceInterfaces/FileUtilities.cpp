#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <boost/filesystem.hpp>

namespace fs = boost::filesystem;

namespace Kestrane {

namespace {
[[noreturn]] void fail(const char* function, const std::string& what) {
    KsExceptionNested e(what.c_str(), "FileUtilities", function, __FILE__, __LINE__);
    throw e;
}
} // namespace

bool FileUtilities::exists(const FileName& path, bool followLinks) {
    boost::system::error_code ec;
    auto st = followLinks ? fs::status(path.toNativeString(), ec)
                          : fs::symlink_status(path.toNativeString(), ec);
    return fs::exists(st);
}

bool FileUtilities::isDirectory(const FileName& path) {
    boost::system::error_code ec;
    return fs::is_directory(path.toNativeString(), ec);
}

bool FileUtilities::isEmpty(const FileName& path) {
    boost::system::error_code ec;
    bool empty = fs::is_empty(path.toNativeString(), ec);
    return !ec && empty;
}

uint64_t FileUtilities::getFileSize(const FileName& path) {
    boost::system::error_code ec;
    auto size = fs::file_size(path.toNativeString(), ec);
    if (ec)
        fail("Kestrane::FileUtilities::getFileSize",
             "Can't get size of '" + path.toNativeString() + "': " + ec.message());
    return size;
}

uint64_t FileUtilities::getAvailableSpace(const FileName& path) {
    boost::system::error_code ec;
    auto info = fs::space(path.toNativeString(), ec);
    if (ec)
        fail("Kestrane::FileUtilities::getAvailableSpace",
             "Can't get free space of '" + path.toNativeString() + "': " + ec.message());
    return info.available;
}

void FileUtilities::createDirectories(const FileName& path) {
    boost::system::error_code ec;
    fs::create_directories(path.toNativeString(), ec);
    if (ec)
        fail("Kestrane::FileUtilities::createDirectories",
             "Can't create directory '" + path.toNativeString() + "': " + ec.message());
}

bool FileUtilities::remove(const FileName& path) {
    boost::system::error_code ec;
    auto count = fs::remove_all(path.toNativeString(), ec);
    if (ec)
        fail("Kestrane::FileUtilities::remove",
             "Can't remove '" + path.toNativeString() + "': " + ec.message());
    return count > 0;
}

} // namespace Kestrane
