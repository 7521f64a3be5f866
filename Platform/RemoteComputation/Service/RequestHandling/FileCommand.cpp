#include "Platform/RemoteComputation/Service/RequestHandling/FileCommand.h"

namespace Kestrane {

const std::string FileCommand::c_prefix = "FILE ";

std::string FileCommand::build(const std::string& directory, const std::string& fileId,
                               const std::string& fileName) {
    return c_prefix + directory + " " + fileId + " " + fileName;
}

bool FileCommand::parse(const std::string& payload, FileCommand& command) {
    if (payload.size() < 59)
        return false;
    size_t pos = payload.find(' ', 5);
    if (pos == std::string::npos || pos == 5)
        return false;
    command.directory = payload.substr(5, pos - 5);
    command.fileId = payload.substr(pos + 1, 50);
    command.fileName = payload.substr(pos + 52);
    return true;
}

} // namespace Kestrane
