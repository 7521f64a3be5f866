#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <cstdint>
#include <string>

namespace Kestrane {

class KSData;

// Moves the data of a link between a typed array in memory (dha), a hierarchical data file held
// as a memory block (hdfs) and a file on disk, and rewrites the link to match.
//
// Every conversion returns true on success and changes its link arguments only then; a failure
// is just false. Memory blocks come from malloc. With `freeSource` the old block is freed on
// success, so that the caller never holds two copies; with `removeSource` the old file is
// removed. A `FileName*` may be null; on entry it names the target directory, on success it
// receives the path used.
//
// Field forms take the parts of a link; text forms a whole element, whose attribute values are
// rewritten in place.
class XLinkTranscoder {
public:
    XLinkTranscoder() = delete;

    static bool dhaToHdfs(std::string& id, std::string& dataPtrType, std::string& dataType,
                          uint64_t& dataSize, std::string& href, bool freeSource,
                          int compressionLevel);
    static bool dhaToFile(std::string& id, std::string& dataPtrType, std::string& dataType,
                          uint64_t& dataSize, std::string& href, bool freeSource, FileName* file);
    static bool hdfsToDha(std::string& id, std::string& dataPtrType, std::string& dataType,
                          uint64_t& dataSize, std::string& href, bool freeSource);
    static bool hdfsToFile(std::string& id, std::string& dataPtrType, std::string& dataType,
                           uint64_t& dataSize, std::string& href, bool freeSource, FileName* file);
    static bool fileToDha(std::string& id, std::string& dataPtrType, std::string& dataType,
                          uint64_t& dataSize, std::string& href, bool removeSource, FileName* file);
    static bool fileToHdfs(std::string& id, std::string& dataPtrType, std::string& dataType,
                           uint64_t& dataSize, std::string& href, bool removeSource,
                           FileName* file);

    static bool dhaToHdfs(std::string& element, bool freeSource, int compressionLevel);
    static bool dhaToFile(std::string& element, bool freeSource, FileName* file);
    static bool hdfsToDha(std::string& element, bool freeSource);
    static bool hdfsToFile(std::string& element, bool freeSource, FileName* file);
    static bool fileToDha(std::string& element, bool removeSource, FileName* file);
    static bool fileToHdfs(std::string& element, bool removeSource, FileName* file);

    // Takes the link from the object and writes dataPtrType, dataType, dataSize and href back.
    static bool hdfsToDha(KSData& data, bool freeSource);

    // Splits an element into its parts; attribute values come back unescaped. False without an
    // href, without a scheme ("xyz://") in it, or with a dataSize that is not a number; the
    // outputs are then left alone.
    static bool parse(std::string& element, XLinkProtocol& protocol, std::string& scheme,
                      std::string& href, std::string& id, std::string& name,
                      std::string& dataPtrType, uint64_t& dataSize, std::string& dataType,
                      void** address, FileName* file);

private:
    // The first of KS_TMP, TMP, TEMP, USERPROFILE that is set, with a separator behind.
    static FileName fetchTmpPath();
};

} // namespace Kestrane
