#include "Platform/RemoteComputation/Service/ServiceInterfaces/HierarchicalDataFile.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/IsolatedCheck.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"

#include <hdf5.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Kestrane {

namespace {

Logging s_logging(__FILE__);

// One lock for every HDF5 call, so that the library's state (and the high-level library's, should
// it come into use) never sees two threads.
std::mutex s_mutex;

struct FreeDeleter {
    void operator()(unsigned char* block) const { LargeBlockCache::release(block); }
};

// The core driver's buffer of a file made here. It is allocated through file image callbacks, so
// that a close can hand the buffer over instead of freeing it.
struct OwnImage {
    void* buffer = nullptr;
    std::size_t size = 0;
    bool handOver = false;
    void* handedOver = nullptr;
    std::size_t handedOverSize = 0;
};

struct MemoryFile {
    hid_t file = -1;
    // Only for files made by KSHLcreateMemoryFile; the driver holds its address as udata.
    std::unique_ptr<OwnImage> own;
    // Last block handed out by KSHLgetMemoryFile; from malloc, since a vector would first fill
    // the whole block with zeros.
    std::unique_ptr<unsigned char, FreeDeleter> image;
    std::size_t imageSize = 0;
};

std::map<int, MemoryFile> s_files;
int s_nextHandle = 1;
unsigned long s_nextName = 1;

constexpr std::size_t c_chunkBytes = 1u << 20;

enum class Element { Double, Float, Int, Byte };

// Resolved with the lock held: the native type macros call into HDF5.
hid_t nativeType(Element element) {
    switch (element) {
    case Element::Double:
        return H5T_NATIVE_DOUBLE;
    case Element::Float:
        return H5T_NATIVE_FLOAT;
    case Element::Int:
        return H5T_NATIVE_INT;
    case Element::Byte:
        break;
    }
    return H5T_NATIVE_UCHAR;
}

// Taken with the lock held. HDF5 keeps its error settings per thread, so each thread silences
// the automatic error printing once: failures are reported by result codes.
class Lock {
public:
    Lock() : m_lock(s_mutex) {
        thread_local bool silenced = false;
        if (!silenced) {
            H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
            silenced = true;
        }
    }

private:
    std::lock_guard<std::mutex> m_lock;
};

// Closes an HDF5 object of any kind at scope end.
class Id {
public:
    using Closer = herr_t (*)(hid_t);
    Id(hid_t id, Closer closer) : m_id(id), m_closer(closer) {}
    ~Id() {
        if (m_id >= 0)
            m_closer(m_id);
    }
    Id(const Id&) = delete;
    Id& operator=(const Id&) = delete;
    hid_t get() const { return m_id; }
    bool valid() const { return m_id >= 0; }

private:
    hid_t m_id;
    Closer m_closer;
};

hid_t fileOf(int handle) {
    auto found = s_files.find(handle);
    return found == s_files.end() ? -1 : found->second.file;
}

int registerFile(hid_t file) {
    while (s_nextHandle <= 0 || s_files.count(s_nextHandle))
        s_nextHandle = s_nextHandle <= 0 ? 1 : s_nextHandle + 1;
    int handle = s_nextHandle++;
    s_files[handle].file = file;
    return handle;
}

uint64_t readLittleEndian(const unsigned char* bytes, unsigned int width) {
    uint64_t value = 0;
    for (unsigned int i = width; i > 0; --i)
        value = (value << 8) | bytes[i - 1];
    return value;
}

// Length of the HDF5 file that starts at `block`, from the end-of-file address in its
// superblock; 0 when the block does not start like an HDF5 file, or when its first `available`
// bytes do not hold the superblock fields read here.
uint64_t imageLength(const unsigned char* block, uint64_t available) {
    static const unsigned char signature[8] = {0x89, 'H', 'D', 'F', '\r', '\n', 0x1a, '\n'};
    if (available < sizeof(signature) + 1 || std::memcmp(block, signature, sizeof(signature)) != 0)
        return 0;
    unsigned int version = block[8];
    unsigned int offsetSize = 0;
    std::size_t baseAt = 0;
    if (version == 0 || version == 1) {
        if (available < 14)
            return 0;
        offsetSize = block[13];
        baseAt = version == 0 ? 24 : 28;
    } else if (version == 2 || version == 3) {
        if (available < 10)
            return 0;
        offsetSize = block[9];
        baseAt = 12;
    } else {
        return 0;
    }
    if (offsetSize != 2 && offsetSize != 4 && offsetSize != 8)
        return 0;
    // Base address, then (free-space or extension address), then the end-of-file address.
    if (available < baseAt + 3 * offsetSize)
        return 0;
    uint64_t base = readLittleEndian(block + baseAt, offsetSize);
    uint64_t end = readLittleEndian(block + baseAt + 2 * offsetSize, offsetSize);
    if (end > UINT64_MAX - base)
        return 0;
    return base + end;
}

// File image callbacks that lend the caller's block to the core driver instead of copying it:
// every "allocation" is the block itself (carried as udata), and nothing is ever freed. Only
// valid for files opened read-only, which never grow.
void* lendBlock(size_t, H5FD_file_image_op_t, void* udata) {
    return udata;
}

void* copyIfElsewhere(void* dest, const void* src, size_t size, H5FD_file_image_op_t, void*) {
    if (dest != src)
        std::memcpy(dest, src, size);
    return dest;
}

void* refuseGrowth(void*, size_t, H5FD_file_image_op_t, void*) {
    return nullptr;
}

herr_t keepBlock(void*, H5FD_file_image_op_t, void*) {
    return 0;
}

void* sameUdata(void* udata) {
    return udata;
}

herr_t keepUdata(void*) {
    return 0;
}

void* ownMalloc(size_t size, H5FD_file_image_op_t, void* udata) {
    auto* own = static_cast<OwnImage*>(udata);
    own->buffer = LargeBlockCache::allocate(size);
    own->size = own->buffer ? size : 0;
    adviseHugePages(own->buffer, own->size);
    return own->buffer;
}

void* ownMemcpy(void* dest, const void* src, size_t size, H5FD_file_image_op_t, void*) {
    return std::memcpy(dest, src, size);
}

// Growth into a kept block copies what the image holds so far, which is little: the first write
// of a large dataset is what makes the image large.
void* ownRealloc(void* buffer, size_t size, H5FD_file_image_op_t, void* udata) {
    auto* own = static_cast<OwnImage*>(udata);
    void* moved = nullptr;
    void* kept = size > own->size ? LargeBlockCache::take(size) : nullptr;
    if (kept) {
        if (buffer)
            std::memcpy(kept, buffer, own->size);
        std::free(buffer);
        moved = kept;
    } else {
        moved = std::realloc(buffer, size);
    }
    if (moved) {
        own->buffer = moved;
        own->size = size;
        adviseHugePages(moved, size);
    }
    return moved;
}

herr_t ownFree(void* buffer, H5FD_file_image_op_t, void* udata) {
    auto* own = static_cast<OwnImage*>(udata);
    if (own->handOver && buffer == own->buffer) {
        own->handedOver = buffer;
        own->handedOverSize = own->size;
    } else
        LargeBlockCache::release(buffer);
    if (buffer == own->buffer)
        own->buffer = nullptr;
    return 0;
}

std::string uniqueName() {
    // The core driver keys open files by name, so each needs its own.
    return "ks-memory-file-" + std::to_string(getpid()) + "-" + std::to_string(s_nextName++);
}

// Opens a file image through the core driver, without a disk file behind it.
hid_t openImage(const void* image, std::size_t length, bool lend) {
    Id fapl(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    if (!fapl.valid() || H5Pset_fapl_core(fapl.get(), length, 0) < 0)
        return -1;
    if (lend) {
        H5FD_file_image_callbacks_t callbacks = {
            lendBlock, copyIfElsewhere,         refuseGrowth, keepBlock, sameUdata,
            keepUdata, const_cast<void*>(image)};
        if (H5Pset_file_image_callbacks(fapl.get(), &callbacks) < 0)
            return -1;
    }
    if (H5Pset_file_image(fapl.get(), const_cast<void*>(image), length) < 0)
        return -1;
    return H5Fopen(uniqueName().c_str(), lend ? H5F_ACC_RDONLY : H5F_ACC_RDWR, fapl.get());
}

std::string datasetPath(const char* group, const char* name) {
    std::string path = group ? group : "";
    if (!path.empty())
        path += "/";
    return path + (name ? name : "");
}

bool datasetExists(hid_t file, const std::string& path) {
    // Every link on the way must exist, or H5Lexists itself fails.
    std::size_t from = 0;
    while (true) {
        std::size_t slash = path.find('/', from);
        std::string part = path.substr(0, slash);
        if (part.empty() || H5Lexists(file, part.c_str(), H5P_DEFAULT) <= 0)
            return false;
        if (slash == std::string::npos)
            return true;
        from = slash + 1;
    }
}

int createDataset(int handle, const char* group, const char* name, int compressionLevel,
                  uint64_t count, const void* data, Element element) {
    if (count == 0 || !data || !name || !*name)
        return 0;
    Lock lock;
    hid_t file = fileOf(handle);
    if (file < 0)
        return 0;
    hid_t type = nativeType(element);
    std::string path = datasetPath(group, name);
    hsize_t dims[1] = {static_cast<hsize_t>(count)};
    Id space(H5Screate_simple(1, dims, nullptr), H5Sclose);
    Id dcpl(H5Pcreate(H5P_DATASET_CREATE), H5Pclose);
    Id lcpl(H5Pcreate(H5P_LINK_CREATE), H5Pclose);
    if (!space.valid() || !dcpl.valid() || !lcpl.valid())
        return 0;
    if (H5Pset_create_intermediate_group(lcpl.get(), 1) < 0)
        return 0;
    // Contiguous unless compressed: the data then goes into the file, and later into the reader's
    // array, in one copy each, without the chunk machinery.
    if (compressionLevel > 3) {
        std::size_t width = H5Tget_size(type);
        hsize_t chunk[1] = {
            std::min<hsize_t>(dims[0], std::max<std::size_t>(1, c_chunkBytes / width))};
        unsigned int level = static_cast<unsigned int>(std::min(compressionLevel, 9));
        if (H5Pset_chunk(dcpl.get(), 1, chunk) < 0 || H5Pset_shuffle(dcpl.get()) < 0 ||
            H5Pset_deflate(dcpl.get(), level) < 0)
            return 0;
    }
    Id dataset(
        H5Dcreate2(file, path.c_str(), type, space.get(), lcpl.get(), dcpl.get(), H5P_DEFAULT),
        H5Dclose);
    if (!dataset.valid())
        return 0;
    if (H5Dwrite(dataset.get(), type, H5S_ALL, H5S_ALL, H5P_DEFAULT, data) < 0) {
        H5Ldelete(file, path.c_str(), H5P_DEFAULT);
        return 0;
    }
    return 1;
}

// Whether the chunks of the dataset can all lie in the file. HDF5 keeps some state for every
// chunk of a read, so a corrupted file that gives a large dataset chunks of one element makes a
// small block cost gigabytes. Every chunk written here is stored, and takes more than a byte of
// the file, so no file of ours has more chunks than bytes.
bool plausibleChunks(hid_t file, hid_t dataset) {
    Id dcpl(H5Dget_create_plist(dataset), H5Pclose);
    if (!dcpl.valid())
        return false;
    if (H5Pget_layout(dcpl.get()) != H5D_CHUNKED)
        return true;
    hsize_t chunk[1] = {0};
    Id space(H5Dget_space(dataset), H5Sclose);
    hsize_t fileSize = 0;
    if (!space.valid() || H5Sget_simple_extent_ndims(space.get()) != 1 ||
        H5Pget_chunk(dcpl.get(), 1, chunk) != 1 || chunk[0] == 0 ||
        H5Fget_filesize(file, &fileSize) < 0)
        return false;
    hsize_t dims[1] = {0};
    if (H5Sget_simple_extent_dims(space.get(), dims, nullptr) != 1)
        return false;
    return dims[0] / chunk[0] < fileSize;
}

int readDataset(int handle, const char* group, const char* name, void* target, Element element) {
    if (!target)
        return 0;
    Lock lock;
    hid_t file = fileOf(handle);
    if (file < 0)
        return 0;
    hid_t type = nativeType(element);
    std::string path = datasetPath(group, name);
    if (!datasetExists(file, path))
        return 0;
    Id dataset(H5Dopen2(file, path.c_str(), H5P_DEFAULT), H5Dclose);
    if (!dataset.valid() || !plausibleChunks(file, dataset.get()))
        return 0;
    return H5Dread(dataset.get(), type, H5S_ALL, H5S_ALL, H5P_DEFAULT, target) < 0 ? 0 : 1;
}

// What the reads of this library do with a file, done once on every dataset, so that a
// corrupted file from a peer shows itself in a child process (see openMemoryFile). The system's
// HDF5 crashes on some corrupted files instead of failing: a local heap of a claimed size,
// compact data shorter than its dataspace.
constexpr hssize_t c_probeWholeElements = 1 << 21;
constexpr hsize_t c_probeWindowElements = 1 << 17;
const Element c_elements[] = {Element::Double, Element::Float, Element::Int, Element::Byte};

bool probeRead(hid_t dataset, hid_t fileSpace, hsize_t start, hsize_t count, Element element,
               std::vector<double>& buffer) {
    Id memorySpace(H5Screate_simple(1, &count, nullptr), H5Sclose);
    buffer.resize(static_cast<std::size_t>(count));
    return memorySpace.valid() &&
           H5Sselect_hyperslab(fileSpace, H5S_SELECT_SET, &start, nullptr, &count, nullptr) >= 0 &&
           H5Dread(dataset, nativeType(element), memorySpace.get(), fileSpace, H5P_DEFAULT,
                   buffer.data()) >= 0;
}

bool probeDataset(hid_t file, hid_t dataset) {
    Id dcpl(H5Dget_create_plist(dataset), H5Pclose);
    Id space(H5Dget_space(dataset), H5Sclose);
    if (!dcpl.valid() || !space.valid() || !plausibleChunks(file, dataset))
        return false;
    // Never written by this library, and read past its end by the system's HDF5 when its
    // dataspace claims more than it holds.
    H5D_layout_t layout = H5Pget_layout(dcpl.get());
    if (layout == H5D_COMPACT || layout < 0)
        return false;
    hssize_t points = H5Sget_simple_extent_npoints(space.get());
    if (points < 0)
        return false;
    std::vector<double> buffer;
    if (points <= c_probeWholeElements) {
        // Small: exactly the reads a caller makes.
        buffer.resize(static_cast<std::size_t>(std::max<hssize_t>(points, 1)));
        for (Element element : c_elements)
            if (H5Dread(dataset, nativeType(element), H5S_ALL, H5S_ALL, H5P_DEFAULT,
                        buffer.data()) < 0)
                return false;
        return true;
    }
    // Large: a window at a time, so that the child's memory stays small. Every chunk is read
    // (each has its own index entry and filter run); contiguous data is one range, whose ends
    // are what can lie outside the file.
    hsize_t dims[1] = {0};
    if (H5Sget_simple_extent_ndims(space.get()) != 1 ||
        H5Sget_simple_extent_dims(space.get(), dims, nullptr) != 1)
        return false;
    hsize_t window = c_probeWindowElements;
    if (layout == H5D_CHUNKED && H5Pget_chunk(dcpl.get(), 1, &window) != 1)
        return false;
    window = std::max<hsize_t>(1, std::min(window, c_probeWindowElements));
    for (hsize_t start = 0; start < dims[0];) {
        hsize_t count = std::min(window, dims[0] - start);
        for (Element element : c_elements)
            if ((element == Element::Double || start == 0 || start + count == dims[0]) &&
                !probeRead(dataset, space.get(), start, count, element, buffer))
                return false;
        if (layout == H5D_CHUNKED || start + count == dims[0])
            start += count;
        else
            start = std::max(start + count, dims[0] - window);
    }
    return true;
}

struct Probe {
    hid_t file;
    bool sound;
};

herr_t probeObject(hid_t, const char* name, const H5O_info_t* info, void* data) {
    Probe& probe = *static_cast<Probe*>(data);
    if (info->type != H5O_TYPE_DATASET)
        return 0;
    Id dataset(H5Dopen2(probe.file, name, H5P_DEFAULT), H5Dclose);
    probe.sound = dataset.valid() && probeDataset(probe.file, dataset.get());
    return probe.sound ? 0 : 1;
}

// Opens the block and walks every group and dataset in it. Runs in the child.
bool probeImage(const void* image, std::size_t length) {
    Id file(openImage(image, length, true), H5Fclose);
    if (!file.valid())
        return false;
    Probe probe = {file.get(), true};
    return H5Ovisit2(file.get(), H5_INDEX_NAME, H5_ITER_NATIVE, probeObject, &probe,
                     H5O_INFO_BASIC) >= 0 &&
           probe.sound;
}

// Time for the child: generous, since deflated data may expand a thousandfold.
std::chrono::milliseconds probeLimit(uint64_t length) {
    return std::chrono::milliseconds(60000 + length / (8u << 10));
}
} // namespace

int KSHLcreateMemoryFile(uint64_t sizeHint) {
    Lock lock;
    Id fapl(H5Pcreate(H5P_FILE_ACCESS), H5Pclose);
    if (!fapl.valid())
        return 0;
    // Room for the data plus HDF5's own structures, so that the file seldom grows.
    std::size_t increment = static_cast<std::size_t>(sizeHint) + (64u << 10);
    if (H5Pset_fapl_core(fapl.get(), increment, 0) < 0)
        return 0;
    auto own = std::make_unique<OwnImage>();
    H5FD_file_image_callbacks_t callbacks = {ownMalloc, ownMemcpy, ownRealloc, ownFree,
                                             sameUdata, keepUdata, own.get()};
    if (H5Pset_file_image_callbacks(fapl.get(), &callbacks) < 0)
        return 0;
    hid_t file = H5Fcreate(uniqueName().c_str(), H5F_ACC_EXCL, H5P_DEFAULT, fapl.get());
    if (file < 0)
        return 0;
    int handle = registerFile(file);
    s_files[handle].own = std::move(own);
    return handle;
}

int KSHLloadMemoryFileFromDiskFile(const char* path, std::size_t maxPathLength) {
    if (!path || std::strlen(path) >= maxPathLength)
        return 0;
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return 0;
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (bytes.empty())
        return 0;
    Lock lock;
    // Copied by HDF5, writable like a file made here.
    hid_t file = openImage(bytes.data(), bytes.size(), false);
    if (file < 0)
        return 0;
    return registerFile(file);
}

namespace {
int openMemoryFile(const void* block, uint64_t available, bool fromPeer, int& handle) {
    if (!block)
        return 0;
    uint64_t length = imageLength(static_cast<const unsigned char*>(block), available);
    // The core driver reads the whole length from the block: a file longer than the block that
    // carries it (a cut or corrupted block) would be read beyond its end.
    if (length == 0 || length > available)
        return 0;
    Lock lock;
    if (fromPeer) {
        // The lock is held, so the child finds HDF5 between two calls.
        auto outcome =
            IsolatedCheck::run([&] { return probeImage(block, static_cast<std::size_t>(length)); },
                               probeLimit(length));
        if (outcome == IsolatedCheck::Outcome::NotRun) {
            KS_WARN("Could not check a received HDF5 block in a child process ("
                    << std::strerror(errno) << "); it is read without that check");
        } else if (outcome != IsolatedCheck::Outcome::Passed) {
            KS_ERROR("Refusing a received HDF5 block of " << available << " bytes: reading it "
                                                          << IsolatedCheck::describe(outcome)
                                                          << " in a child process");
            return 0;
        }
    }
    // Read-only and in place: the block is large and the caller keeps it until the close.
    hid_t file = openImage(block, static_cast<std::size_t>(length), true);
    if (file < 0)
        return 0;
    handle = registerFile(file);
    return 1;
}
} // namespace

int KSHLopenMemoryFile(const void* block, int& handle) {
    return openMemoryFile(block, UINT64_MAX, false, handle);
}

int KSHLopenMemoryFile(const void* block, uint64_t blockSize, int& handle) {
    return openMemoryFile(block, blockSize, true, handle);
}

int KSHLgetMemoryFile(int handle, uint64_t& size, const unsigned char*& block) {
    Lock lock;
    auto found = s_files.find(handle);
    if (found == s_files.end())
        return 0;
    hid_t file = found->second.file;
    // A read-only file has nothing to flush; a failed flush of a writable one is a failure.
    unsigned int intent = 0;
    if (H5Fget_intent(file, &intent) < 0)
        return 0;
    if ((intent & H5F_ACC_RDWR) && H5Fflush(file, H5F_SCOPE_GLOBAL) < 0)
        return 0;
    ssize_t length = H5Fget_file_image(file, nullptr, 0);
    if (length <= 0)
        return 0;
    MemoryFile& entry = found->second;
    if (entry.imageSize != static_cast<std::size_t>(length)) {
        entry.image.reset(static_cast<unsigned char*>(
            LargeBlockCache::allocate(static_cast<std::size_t>(length))));
        entry.imageSize = entry.image ? static_cast<std::size_t>(length) : 0;
        if (!entry.image)
            return 0;
    }
    if (H5Fget_file_image(file, entry.image.get(), entry.imageSize) != length)
        return 0;
    size = static_cast<uint64_t>(length);
    block = entry.image.get();
    return 1;
}

int KSHLcloseMemoryFileTakingImage(int handle, uint64_t& size, unsigned char*& block) {
    Lock lock;
    auto found = s_files.find(handle);
    if (found == s_files.end())
        return 0;
    std::unique_ptr<OwnImage> own = std::move(found->second.own);
    if (own)
        own->handOver = true;
    herr_t closed = H5Fclose(found->second.file);
    s_files.erase(found);
    if (!own)
        return 0;
    std::unique_ptr<unsigned char, FreeDeleter> image(static_cast<unsigned char*>(own->handedOver));
    if (closed < 0 || !image)
        return 0;
    // The buffer grows in whole increments; the file is what its superblock says.
    uint64_t length = imageLength(image.get(), own->handedOverSize);
    if (length == 0 || length > own->handedOverSize)
        return 0;
    // A large image with little slack keeps it, so that the block fits the next image of its
    // size once it is released for reuse.
    const uint64_t slack = own->handedOverSize - length;
    const bool fit = length < LargeBlockCache::c_smallestKept || slack > length / 16;
    if (void* fitted =
            fit ? std::realloc(image.get(), static_cast<std::size_t>(length)) : nullptr) {
        (void)image.release();
        image.reset(static_cast<unsigned char*>(fitted));
    }
    size = length;
    block = image.release();
    return 1;
}

int KSHLcloseFile(int handle) {
    Lock lock;
    auto found = s_files.find(handle);
    if (found == s_files.end())
        return 0;
    herr_t closed = H5Fclose(found->second.file);
    s_files.erase(found);
    return closed < 0 ? 0 : 1;
}

int KSHLcreateDoubleDataset(int handle, const char* group, const char* name, int compressionLevel,
                            uint64_t count, const double* data) {
    return createDataset(handle, group, name, compressionLevel, count, data, Element::Double);
}

int KSHLcreateFloatDataset(int handle, const char* group, const char* name, int compressionLevel,
                           uint64_t count, const float* data) {
    return createDataset(handle, group, name, compressionLevel, count, data, Element::Float);
}

int KSHLcreateIntDataset(int handle, const char* group, const char* name, int compressionLevel,
                         uint64_t count, const int* data) {
    return createDataset(handle, group, name, compressionLevel, count, data, Element::Int);
}

int KSHLcreateCharDataset(int handle, const char* group, const char* name, int compressionLevel,
                          uint64_t count, const void* data) {
    return createDataset(handle, group, name, compressionLevel, count, data, Element::Byte);
}

int KSHLreadDoubleDataset(int handle, const char* group, const char* name, double* target) {
    return readDataset(handle, group, name, target, Element::Double);
}

int KSHLreadFloatDataset(int handle, const char* group, const char* name, float* target) {
    return readDataset(handle, group, name, target, Element::Float);
}

int KSHLreadIntDataset(int handle, const char* group, const char* name, int* target) {
    return readDataset(handle, group, name, target, Element::Int);
}

int KSHLreadCharDataset(int handle, const char* group, const char* name, void* target) {
    return readDataset(handle, group, name, target, Element::Byte);
}

int KSHLgetSizeOfDataset(int handle, const char* group, const char* name, uint64_t& count) {
    Lock lock;
    hid_t file = fileOf(handle);
    if (file < 0)
        return 0;
    std::string path = datasetPath(group, name);
    if (!datasetExists(file, path))
        return 0;
    Id dataset(H5Dopen2(file, path.c_str(), H5P_DEFAULT), H5Dclose);
    if (!dataset.valid())
        return 0;
    Id space(H5Dget_space(dataset.get()), H5Sclose);
    if (!space.valid())
        return 0;
    hssize_t points = H5Sget_simple_extent_npoints(space.get());
    if (points < 0)
        return 0;
    count = static_cast<uint64_t>(points);
    return 1;
}

} // namespace Kestrane
