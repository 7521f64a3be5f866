#pragma once

#include <string>

namespace Kestrane {

// The payload of the command that announces a file: "FILE " + directory + " " + fileId + " " +
// fileName. The reader takes the first space behind position 5 as the end of the directory word,
// so the directory cannot hold a space; the 50-character file id follows, and the file name runs
// to the end of the payload, spaces included.
class FileCommand {
public:
    static const std::string c_prefix; // "FILE "

    static std::string build(const std::string& directory, const std::string& fileId,
                             const std::string& fileName);
    // False when the payload fails the acceptance test (shorter than 59 bytes, or no non-empty
    // directory word). Cutting the id and the name by position throws std::out_of_range when a
    // directory word leaves too few characters behind it.
    static bool parse(const std::string& payload, FileCommand& command);

    std::string directory;
    std::string fileId;
    std::string fileName;
};

} // namespace Kestrane
