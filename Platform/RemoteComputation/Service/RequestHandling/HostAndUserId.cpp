#include "Platform/RemoteComputation/Service/RequestHandling/HostAndUserId.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsStreams.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <iterator>

namespace Kestrane {

namespace {
Logging s_logging(__FILE__);
} // namespace

const std::string HostAndUserId::c_fileName = "hostAndUser.id";

HostAndUserId::HostAndUserId()
    : hostAndUserId(Computing::Utility::getHostName() + "#" + Computing::Utility::getUserName()) {}

HostAndUserId::HostAndUserId(const std::string& text) : hostAndUserId(text) {}

bool HostAndUserId::isValid(const std::string& text) {
    // Only the first '#' separates; a user name may hold further ones.
    const std::string::size_type pos = text.find('#');
    if (pos == std::string::npos) {
        KS_WARN("Invalid HostAndUserId string (first '#' not found): '" << text << "'");
        return false;
    }
    if (pos == 0) {
        KS_WARN("Invalid HostAndUserId string (empty host name): '" << text << "'");
        return false;
    }
    if (pos + 1 == text.size()) {
        KS_WARN("Invalid HostAndUserId string (empty user name): '" << text << "'");
        return false;
    }
    return true;
}

bool HostAndUserId::save(const FileName& directory) const {
    if (!FileUtilities::exists(directory)) {
        KS_ERROR("Trying to save HostAndUserId (" << hostAndUserId << ") to path '"
                                                  << directory.toString()
                                                  << "' that does not exist!");
        return false;
    }
    if (!FileUtilities::isDirectory(directory)) {
        KS_ERROR("Trying to save HostAndUserId ("
                 << hostAndUserId << ") to path that is not a directory '" << directory.toString()
                 << "'!");
        return false;
    }
    const FileName file = directory / c_fileName;
    // The file says who owns the directory; overwriting it would hand the directory over.
    if (FileUtilities::exists(file)) {
        KS_ERROR("Saving HostAndUserId (" << hostAndUserId << ") to file '" << file.toString()
                                          << "' that already exists!");
        return false;
    }
    KsOfstream out(FileName(file.toNativeString()), KsOpenMode::out | KsOpenMode::trunc,
                   KsOfstream::NoByteOrderMark);
    out << hostAndUserId;
    out.close();
    KS_TRACE("Saved HostAndUserId (" << hostAndUserId << ") to file '" << file.toString() << "'.");
    return true;
}

std::shared_ptr<HostAndUserId> HostAndUserId::load(const FileName& directory) {
    if (!FileUtilities::exists(directory)) {
        KS_ERROR("Trying to load HostAndUserId from path '" << directory.toString()
                                                            << "' that does not exist!");
        return nullptr;
    }
    if (!FileUtilities::isDirectory(directory)) {
        KS_ERROR("Trying to load HostAndUserId from path that is not a directory '"
                 << directory.toString() << "'!");
        return nullptr;
    }
    const FileName file = directory / c_fileName;
    if (!FileUtilities::exists(file)) {
        KS_ERROR("Trying to load HostAndUserId from file '" << file.toString()
                                                            << "' that does not exists!");
        return nullptr;
    }
    KsIfstream in(file, KsOpenMode::in);
    // The whole content, line breaks included: a text with a trailing line break is another
    // identity, not the same one.
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    in.close();
    if (!isValid(text)) {
        KS_ERROR("Loaded invalid HostAndUserId from file '" << file.toString() << "'.");
        return nullptr;
    }
    return std::shared_ptr<HostAndUserId>(new HostAndUserId(text));
}

} // namespace Kestrane
