#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <fstream>

namespace Kestrane {

// Open modes of KsIfstream and KsOfstream, as numbers that are the same on every platform.
struct KsOpenMode {
    static constexpr int in = 1;
    static constexpr int out = 2;
    static constexpr int ate = 4;
    static constexpr int app = 8;
    static constexpr int trunc = 16;
    static constexpr int binary = 32;
    static std::ios_base::openmode toStd(int mode);
};

class KsIfstream : public std::ifstream {
public:
    KsIfstream(const FileName& file, int mode = KsOpenMode::in);
};

class KsOfstream : public std::ofstream {
public:
    enum ByteOrderMark { NoByteOrderMark = 0, Utf8ByteOrderMark = 1 };
    KsOfstream(const FileName& file, int mode = KsOpenMode::out | KsOpenMode::trunc,
               ByteOrderMark bom = NoByteOrderMark);
};

} // namespace Kestrane
