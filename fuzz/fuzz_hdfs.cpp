// The reader of hierarchical data files held in memory, as they arrive in "HDFS " blocks: the
// input is the block, exactly as long as the bytes given. A corrupted block must be refused
// (0 / false), never read beyond its end.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HierarchicalDataFile.h"

#include <cstdlib>
#include <cstring>
#include <vector>

using namespace Kestrane;

namespace {

// The dataset names of the seeds (made like the tests make their files).
const char* const c_names[] = {"d1", "f", "i", "c"};
constexpr uint64_t c_maxElements = 1u << 20;

void readAll(int handle) {
    for (const char* name : c_names) {
        uint64_t count = 0;
        if (KSHLgetSizeOfDataset(handle, "root", name, count) != 1 || count == 0 ||
            count > c_maxElements)
            continue;
        std::vector<double> doubles(count);
        KSHLreadDoubleDataset(handle, "root", name, doubles.data());
        std::vector<float> floats(count);
        KSHLreadFloatDataset(handle, "root", name, floats.data());
        std::vector<int> ints(count);
        KSHLreadIntDataset(handle, "root", name, ints.data());
        std::vector<unsigned char> bytes(count);
        KSHLreadCharDataset(handle, "root", name, bytes.data());
    }
    uint64_t length = 0;
    const unsigned char* image = nullptr;
    KSHLgetMemoryFile(handle, length, image);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    // A heap block of exactly the input's length, so that any read behind it shows.
    unsigned char* block = static_cast<unsigned char*>(std::malloc(size));
    std::memcpy(block, data, size);

    int handle = 0;
    if (KSHLopenMemoryFile(block, size, handle) == 1) {
        readAll(handle);
        KSHLcloseFile(handle);
    }

    // The way a request handler takes such a block: the link names it and its size.
    std::string element = "<data id=\"d1\" name=\"n\" dataPtrType=\"unsigned char *\" "
                          "dataType=\"double\" dataSize=\"" +
                          std::to_string(size) + "\" href=\"hdfs://" +
                          XLinkUtils::getAddressString(block, true) + "\"/>";
    if (XLinkTranscoder::hdfsToDha(element, false)) {
        XLinkProtocol protocol;
        std::string scheme, href, id, name, dataPtrType, dataType;
        uint64_t count = 0;
        void* array = nullptr;
        if (XLinkTranscoder::parse(element, protocol, scheme, href, id, name, dataPtrType, count,
                                   dataType, &array, nullptr))
            std::free(array);
    }
    std::free(block);
    return 0;
}
