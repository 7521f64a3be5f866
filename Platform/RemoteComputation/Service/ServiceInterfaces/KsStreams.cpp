#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsStreams.h"

namespace Kestrane {

std::ios_base::openmode KsOpenMode::toStd(int mode) {
    std::ios_base::openmode result{};
    if (mode & in)
        result |= std::ios_base::in;
    if (mode & out)
        result |= std::ios_base::out;
    if (mode & ate)
        result |= std::ios_base::ate;
    if (mode & app)
        result |= std::ios_base::app;
    if (mode & trunc)
        result |= std::ios_base::trunc;
    if (mode & binary)
        result |= std::ios_base::binary;
    return result;
}

KsIfstream::KsIfstream(const FileName& file, int mode)
    : std::ifstream(file.toNativeString(), KsOpenMode::toStd(mode | KsOpenMode::in)) {}

KsOfstream::KsOfstream(const FileName& file, int mode, ByteOrderMark bom)
    : std::ofstream(file.toNativeString(), KsOpenMode::toStd(mode | KsOpenMode::out)) {
    if (bom == Utf8ByteOrderMark && is_open())
        write("\xEF\xBB\xBF", 3);
}

} // namespace Kestrane
