#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTranscoder.h"

#include "Platform/RemoteComputation/Service/RequestHandling/KSData.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"
#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/HierarchicalDataFile.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LargeBlockCache.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/MemoryAdvice.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Kestrane {

namespace {

const char* const c_group = "root";
const std::string c_dhaPrefix = "dha://#";
const std::string c_hdfsPrefix = "hdfs://#";
const std::string c_bytePointer = "unsigned char *";
const std::string c_charPointer = "char *";
const std::string c_filePointer = "FILE *";

constexpr uint64_t c_maxDeflateRatio = 1032;

void* allocate(std::size_t bytes) {
    if (void* kept = LargeBlockCache::take(bytes))
        return kept;
    void* block = std::malloc(bytes ? bytes : 1);
    if (!block)
        throw std::bad_alloc();
    populateForWrite(block, bytes);
    return block;
}

// Closes a data file when a conversion leaves, whichever way.
class OpenFile {
public:
    explicit OpenFile(int handle) : m_handle(handle) {}
    ~OpenFile() {
        if (m_handle > 0)
            KSHLcloseFile(m_handle);
    }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    int get() const { return m_handle; }
    // Closes now and takes the file's own bytes (a file made here): null on failure.
    unsigned char* closeTakingImage(uint64_t& size) {
        unsigned char* block = nullptr;
        int handle = m_handle;
        m_handle = 0;
        return KSHLcloseMemoryFileTakingImage(handle, size, block) > 0 ? block : nullptr;
    }

private:
    int m_handle;
};

// The address behind `prefix` in the href; null when the href lacks it.
void* addressBehind(const std::string& href, const std::string& prefix) {
    std::size_t at = href.find(prefix);
    if (at == std::string::npos)
        return nullptr;
    return XLinkUtils::getAddressFromString(href.substr(at + prefix.size()));
}

bool writeDataset(int handle, const std::string& name, int kind, int level, uint64_t count,
                  const void* data) {
    switch (kind) {
    case 2:
    case 3:
        return KSHLcreateIntDataset(handle, c_group, name.c_str(), level, count,
                                    static_cast<const int*>(data)) > 0;
    case 4:
        return KSHLcreateFloatDataset(handle, c_group, name.c_str(), level, count,
                                      static_cast<const float*>(data)) > 0;
    case 5:
        return KSHLcreateDoubleDataset(handle, c_group, name.c_str(), level, count,
                                       static_cast<const double*>(data)) > 0;
    default:
        return KSHLcreateCharDataset(handle, c_group, name.c_str(), level, count, data) > 0;
    }
}

bool readDataset(int handle, const std::string& name, int kind, void* target) {
    switch (kind) {
    case 2:
    case 3:
        return KSHLreadIntDataset(handle, c_group, name.c_str(), static_cast<int*>(target)) > 0;
    case 4:
        return KSHLreadFloatDataset(handle, c_group, name.c_str(), static_cast<float*>(target)) > 0;
    case 5:
        return KSHLreadDoubleDataset(handle, c_group, name.c_str(), static_cast<double*>(target)) >
               0;
    default:
        return KSHLreadCharDataset(handle, c_group, name.c_str(), target) > 0;
    }
}

// A copy of the memory file's block from malloc, with its size; null on failure.
unsigned char* copyBlock(int handle, uint64_t& size) {
    uint64_t length = 0;
    const unsigned char* block = nullptr;
    if (KSHLgetMemoryFile(handle, length, block) <= 0 || !block || length == 0)
        return nullptr;
    auto* copy = static_cast<unsigned char*>(allocate(static_cast<std::size_t>(length)));
    std::memcpy(copy, block, static_cast<std::size_t>(length));
    size = length;
    return copy;
}

bool writeFile(const FileName& path, const void* bytes, std::size_t length) {
    std::FILE* out = std::fopen(path.toNativeString().c_str(), "wb");
    if (!out)
        return false;
    bool written = length == 0 || std::fwrite(bytes, 1, length, out) == length;
    bool closed = std::fclose(out) == 0;
    if (!(written && closed)) {
        std::remove(path.toNativeString().c_str());
        return false;
    }
    return true;
}

FileName targetIn(const FileName* directory, const FileName& fallback, const std::string& leaf) {
    std::string path =
        directory && !directory->empty() ? directory->toString() : fallback.toString();
    if (!path.empty() && path.back() != '/')
        path += '/';
    return FileName(path + leaf);
}

// The value of ` key="` up to the next quote; false when the attribute is absent.
bool attributeValue(const std::string& element, const std::string& key, std::string& value) {
    std::string marker = " " + key + "=\"";
    std::size_t at = element.find(marker);
    if (at == std::string::npos)
        return false;
    at += marker.size();
    std::size_t end = element.find('"', at);
    if (end == std::string::npos)
        return false;
    value = XmlUtils::fromXml(element.substr(at, end - at));
    return true;
}

void replaceValue(std::string& element, const std::string& key, const std::string& value) {
    std::string marker = " " + key + "=\"";
    std::size_t at = element.find(marker);
    if (at == std::string::npos)
        return;
    at += marker.size();
    std::size_t end = element.find('"', at);
    if (end == std::string::npos)
        return;
    element.replace(at, end - at, XmlUtils::toXml(value));
}

void rebuild(std::string& element, const std::string& dataPtrType, const std::string& dataType,
             uint64_t dataSize, const std::string& href) {
    replaceValue(element, "dataPtrType", dataPtrType);
    replaceValue(element, "dataType", dataType);
    replaceValue(element, "dataSize", std::to_string(dataSize));
    replaceValue(element, "href", href);
}

bool isDigits(const std::string& text) {
    if (text.empty())
        return false;
    for (unsigned char c : text)
        if (c < '0' || c > '9')
            return false;
    return true;
}

// The parts of an element for a text form; false unless the element is a link of `source`
// with a name and a dataSize.
struct Parts {
    XLinkProtocol protocol = XLinkProtocol::plain;
    std::string scheme, href, id, name, dataPtrType, dataType;
    uint64_t dataSize = 0;
    void* address = nullptr;
    FileName file;
};

// The block of an hdfs link, or null when the link is no memory file of bytes.
void* memoryFileOf(const std::string& href, const std::string& dataPtrType) {
    if (href.find(c_hdfsPrefix) == std::string::npos ||
        (dataPtrType != c_bytePointer && dataPtrType != c_charPointer))
        return nullptr;
    return addressBehind(href, c_hdfsPrefix);
}

// The link now points to a file that a conversion wrote.
void becomeFileLink(const std::string& linkId, const FileName& path, std::string& id,
                    std::string& dataPtrType, std::string& href, FileName* file) {
    id = linkId;
    dataPtrType = c_filePointer;
    href = "file:///" + path.toString();
    if (file)
        *file = path;
}

bool partsOf(std::string& element, XLinkProtocol source, Parts& parts) {
    if (!XLinkTranscoder::parse(element, parts.protocol, parts.scheme, parts.href, parts.id,
                                parts.name, parts.dataPtrType, parts.dataSize, parts.dataType,
                                &parts.address, &parts.file))
        return false;
    return parts.protocol == source && element.find(" dataSize=\"") != std::string::npos &&
           element.find(" name=\"") != std::string::npos;
}

// A text form: split the element, convert its parts, write the new values back.
template <typename Convert>
bool convertElement(std::string& element, XLinkProtocol source, Convert convert) {
    Parts parts;
    if (!partsOf(element, source, parts) || !convert(parts))
        return false;
    rebuild(element, parts.dataPtrType, parts.dataType, parts.dataSize, parts.href);
    return true;
}

} // namespace

bool XLinkTranscoder::parse(std::string& element, XLinkProtocol& protocol, std::string& scheme,
                            std::string& href, std::string& id, std::string& name,
                            std::string& dataPtrType, uint64_t& dataSize, std::string& dataType,
                            void** address, FileName* file) {
    std::string newHref;
    if (!attributeValue(element, "href", newHref))
        return false;
    std::size_t separator = newHref.find("://");
    if (separator == std::string::npos || separator == 0)
        return false;
    std::string newScheme = newHref.substr(0, separator + 3);
    XLinkProtocol newProtocol = XLinkProtocol::plain;
    if (newScheme == "dha://")
        newProtocol = XLinkProtocol::dha;
    else if (newScheme == "hdfs://")
        newProtocol = XLinkProtocol::hdfs;
    else if (newScheme == "file://")
        newProtocol = XLinkProtocol::file;
    else if (newScheme == "arch://")
        newProtocol = XLinkProtocol::arch;

    uint64_t newSize = 0;
    std::string sizeText;
    if (attributeValue(element, "dataSize", sizeText)) {
        if (!isDigits(sizeText))
            return false;
        errno = 0;
        unsigned long long value = std::strtoull(sizeText.c_str(), nullptr, 10);
        if (errno == ERANGE)
            return false;
        newSize = value;
    }

    std::string newId, newName, newPtrType, newType;
    attributeValue(element, "id", newId);
    attributeValue(element, "name", newName);
    attributeValue(element, "dataType", newType);
    attributeValue(element, "dataPtrType", newPtrType);

    if (newProtocol == XLinkProtocol::dha || newProtocol == XLinkProtocol::hdfs ||
        newProtocol == XLinkProtocol::arch) {
        if (address)
            *address = XLinkUtils::getAddressFromString(newHref.substr(newScheme.size()));
    } else if (newProtocol == XLinkProtocol::file && file) {
        FileName path = XLinkUtils::getFilePathFromUrlString(newHref);
        if (!path.empty())
            *file = path;
    }
    protocol = newProtocol;
    scheme = newScheme;
    href = newHref;
    id = newId;
    name = newName;
    dataPtrType = newPtrType;
    dataSize = newSize;
    dataType = newType;
    return true;
}

bool XLinkTranscoder::dhaToHdfs(std::string& id, std::string& dataPtrType, std::string& dataType,
                                uint64_t& dataSize, std::string& href, bool freeSource,
                                int compressionLevel) {
    if (href.empty() || dataSize == 0)
        return false;
    std::string linkId = id.empty() ? UniqueID::generateId() : id;
    if (href.find(c_dhaPrefix) == std::string::npos)
        return false;
    void* array = addressBehind(href, c_dhaPrefix);
    if (!array)
        return false;
    int kind = XLinkTypeNames::kindOfLongText(dataPtrType);
    if (XLinkTypeNames::kindOfLongText(dataType) != kind)
        kind = XLinkTypeNames::c_otherKind;
    uint64_t bytes = dataSize * XLinkTypeNames::width(kind);
    OpenFile file(KSHLcreateMemoryFile(bytes));
    if (file.get() <= 0)
        return false;
    if (!writeDataset(file.get(), linkId, kind, compressionLevel, dataSize, array))
        return false;
    // The memory file's own bytes become the block: no copy of a large array.
    uint64_t blockSize = 0;
    unsigned char* block = file.closeTakingImage(blockSize);
    if (!block)
        return false;
    // Freed only now, when nothing can fail any more, so that a failure leaves the array.
    if (freeSource)
        LargeBlockCache::release(array);
    id = linkId;
    if (kind != XLinkTypeNames::c_otherKind)
        dataType = XLinkTypeNames::shortName(kind);
    dataPtrType = c_bytePointer;
    dataSize = blockSize;
    href = "hdfs://" + XLinkUtils::getAddressString(block, true);
    return true;
}

bool XLinkTranscoder::hdfsToDha(std::string& id, std::string& dataPtrType, std::string& dataType,
                                uint64_t& dataSize, std::string& href, bool freeSource) {
    if (href.empty() || dataSize == 0)
        return false;
    std::string linkId = id.empty() ? UniqueID::generateId() : id;
    void* block = memoryFileOf(href, dataPtrType);
    if (!block)
        return false;
    int kind = XLinkTypeNames::kindOfShortName(dataType);
    int handle = 0;
    // The link's dataSize is the length of the block (the binder of a received package sets
    // it to what arrived): nothing behind it may be read.
    if (KSHLopenMemoryFile(block, dataSize, handle) <= 0)
        return false;
    uint64_t count = 0;
    {
        OpenFile file(handle);
        if (KSHLgetSizeOfDataset(file.get(), c_group, linkId.c_str(), count) <= 0 || count == 0)
            return false;
        // The count is what the file claims. Deflate, the only filter ever written, packs at
        // most 1032:1, so a real dataset is never larger than that times its block; a corrupted
        // file could otherwise make us allocate any size.
        const uint64_t width = XLinkTypeNames::width(kind);
        const uint64_t blockElements = dataSize / width + 1;
        if (count > UINT64_MAX / width || (blockElements <= UINT64_MAX / c_maxDeflateRatio &&
                                           count > blockElements * c_maxDeflateRatio))
            return false;
        void* array = allocate(static_cast<std::size_t>(count * width));
        if (!readDataset(file.get(), linkId, kind, array)) {
            LargeBlockCache::release(array);
            return false;
        }
        int named = kind == XLinkTypeNames::c_otherKind ? 1 : kind;
        id = linkId;
        dataType = XLinkTypeNames::dataType(named);
        dataPtrType = XLinkTypeNames::dataPtrType(named);
        dataSize = count;
        href = "dha://" + XLinkUtils::getAddressString(array, true);
    }
    // The file used the block in place, so it goes only after the close.
    if (freeSource)
        LargeBlockCache::release(block);
    return true;
}

bool XLinkTranscoder::dhaToFile(std::string& id, std::string& dataPtrType, std::string& dataType,
                                uint64_t& dataSize, std::string& href, bool freeSource,
                                FileName* file) {
    if (href.empty() || dataSize == 0)
        return false;
    std::string linkId = id.empty() ? UniqueID::generateId() : id;
    if (href.find(c_dhaPrefix) == std::string::npos)
        return false;
    void* array = addressBehind(href, c_dhaPrefix);
    if (!array)
        return false;
    int kind = XLinkTypeNames::kindOfLongText(dataType);
    if (kind == XLinkTypeNames::c_otherKind)
        return false;
    FileName path = targetIn(file, fetchTmpPath(), linkId + ".dhadmp");
    if (!writeFile(path, array, static_cast<std::size_t>(dataSize * XLinkTypeNames::width(kind))))
        return false;
    if (freeSource)
        LargeBlockCache::release(array);
    becomeFileLink(linkId, path, id, dataPtrType, href, file);
    return true;
}

bool XLinkTranscoder::fileToDha(std::string& id, std::string& dataPtrType, std::string& dataType,
                                uint64_t& dataSize, std::string& href, bool removeSource,
                                FileName* file) {
    if (href.empty() || dataSize == 0)
        return false;
    std::string linkId = id.empty() ? UniqueID::generateId() : id;
    if (href.find("file://") == std::string::npos || href.find(".dha") == std::string::npos)
        return false;
    FileName path = XLinkUtils::getFilePathFromUrlString(href);
    if (path.empty() || !FileUtilities::exists(path))
        return false;
    int kind = XLinkTypeNames::kindOfLongText(dataType);
    int named = kind == XLinkTypeNames::c_otherKind ? 1 : kind;
    uint64_t bytes = dataSize * XLinkTypeNames::width(named);
    // The one size test kept from the wire format's history: only the truth value of
    // "file is empty" is compared with the byte count.
    uint64_t empty = FileUtilities::isEmpty(path) ? 1 : 0;
    if (empty == bytes)
        return false;
    std::FILE* in = std::fopen(path.toNativeString().c_str(), "rb");
    if (!in)
        return false;
    // The file's length is not compared with the byte count: a short file gives an array whose
    // tail is zero, never memory nobody wrote.
    void* array = allocate(static_cast<std::size_t>(bytes));
    std::size_t read = std::fread(array, 1, static_cast<std::size_t>(bytes), in);
    std::fclose(in);
    std::memset(static_cast<unsigned char*>(array) + read, 0,
                static_cast<std::size_t>(bytes) - read);
    if (removeSource) {
        FileUtilities::remove(path);
        path.clear();
    }
    id = linkId;
    dataPtrType = XLinkTypeNames::dataPtrType(named);
    dataType = XLinkTypeNames::dataType(named);
    href = "dha://" + XLinkUtils::getAddressString(array, true);
    if (file)
        *file = path;
    return true;
}

bool XLinkTranscoder::hdfsToFile(std::string& id, std::string& dataPtrType, std::string& dataType,
                                 uint64_t& dataSize, std::string& href, bool freeSource,
                                 FileName* file) {
    (void)dataType;
    if (href.empty() || dataSize == 0)
        return false;
    std::string linkId = id.empty() ? UniqueID::generateId() : id;
    void* block = memoryFileOf(href, dataPtrType);
    if (!block)
        return false;
    int handle = 0;
    // The link's dataSize is the length of the block (the binder of a received package sets
    // it to what arrived): nothing behind it may be read.
    if (KSHLopenMemoryFile(block, dataSize, handle) <= 0)
        return false;
    FileName path;
    {
        OpenFile opened(handle);
        uint64_t count = 0;
        if (KSHLgetSizeOfDataset(opened.get(), c_group, linkId.c_str(), count) <= 0)
            return false;
        uint64_t length = 0;
        const unsigned char* bytes = nullptr;
        if (KSHLgetMemoryFile(opened.get(), length, bytes) <= 0)
            return false;
        path = targetIn(file, fetchTmpPath(), linkId + ".hdf");
        if (!writeFile(path, bytes, static_cast<std::size_t>(length)))
            return false;
    }
    if (freeSource)
        LargeBlockCache::release(block);
    becomeFileLink(linkId, path, id, dataPtrType, href, file);
    return true;
}

bool XLinkTranscoder::fileToHdfs(std::string& id, std::string& dataPtrType, std::string& dataType,
                                 uint64_t& dataSize, std::string& href, bool removeSource,
                                 FileName* file) {
    (void)dataType;
    if (href.empty() || dataSize == 0)
        return false;
    std::string linkId = id.empty() ? UniqueID::generateId() : id;
    if (href.find("file:///") == std::string::npos || href.find(".hdf") == std::string::npos)
        return false;
    FileName path = XLinkUtils::getFilePathFromUrlString(href);
    if (path.empty() || !FileUtilities::exists(path) || FileUtilities::isEmpty(path))
        return false;
    uint64_t blockSize = 0;
    unsigned char* block = nullptr;
    {
        OpenFile loaded(KSHLloadMemoryFileFromDiskFile(path.toNativeString().c_str(), 256));
        if (loaded.get() <= 0)
            return false;
        block = copyBlock(loaded.get(), blockSize);
        if (!block)
            return false;
    }
    if (removeSource) {
        FileUtilities::remove(path);
        path.clear();
    }
    id = linkId;
    dataPtrType = c_bytePointer;
    dataSize = blockSize;
    href = "hdfs://" + XLinkUtils::getAddressString(block, true);
    if (file)
        *file = path;
    return true;
}

bool XLinkTranscoder::dhaToHdfs(std::string& element, bool freeSource, int compressionLevel) {
    return convertElement(element, XLinkProtocol::dha, [&](Parts& p) {
        return dhaToHdfs(p.id, p.dataPtrType, p.dataType, p.dataSize, p.href, freeSource,
                         compressionLevel);
    });
}

bool XLinkTranscoder::dhaToFile(std::string& element, bool freeSource, FileName* file) {
    return convertElement(element, XLinkProtocol::dha, [&](Parts& p) {
        return dhaToFile(p.id, p.dataPtrType, p.dataType, p.dataSize, p.href, freeSource, file);
    });
}

bool XLinkTranscoder::hdfsToDha(std::string& element, bool freeSource) {
    return convertElement(element, XLinkProtocol::hdfs, [&](Parts& p) {
        return hdfsToDha(p.id, p.dataPtrType, p.dataType, p.dataSize, p.href, freeSource);
    });
}

bool XLinkTranscoder::hdfsToFile(std::string& element, bool freeSource, FileName* file) {
    return convertElement(element, XLinkProtocol::hdfs, [&](Parts& p) {
        return hdfsToFile(p.id, p.dataPtrType, p.dataType, p.dataSize, p.href, freeSource, file);
    });
}

bool XLinkTranscoder::fileToDha(std::string& element, bool removeSource, FileName* file) {
    return convertElement(element, XLinkProtocol::file, [&](Parts& p) {
        return fileToDha(p.id, p.dataPtrType, p.dataType, p.dataSize, p.href, removeSource, file);
    });
}

bool XLinkTranscoder::fileToHdfs(std::string& element, bool removeSource, FileName* file) {
    return convertElement(element, XLinkProtocol::file, [&](Parts& p) {
        return fileToHdfs(p.id, p.dataPtrType, p.dataType, p.dataSize, p.href, removeSource, file);
    });
}

bool XLinkTranscoder::hdfsToDha(KSData& data, bool freeSource) {
    std::string id = data.getId();
    std::string dataPtrType = data.getDataPtrType();
    std::string dataType = data.getDataType();
    uint64_t dataSize = data.getDataSize();
    std::string href = data.getHref();
    if (!hdfsToDha(id, dataPtrType, dataType, dataSize, href, freeSource))
        return false;
    data.setDataPtrType(dataPtrType);
    data.setDataType(dataType);
    data.setDataSize(dataSize);
    data.setHref(href);
    return true;
}

FileName XLinkTranscoder::fetchTmpPath() {
    for (const char* variable : {"KS_TMP", "TMP", "TEMP", "USERPROFILE"}) {
        const char* value = std::getenv(variable);
        if (value)
            return FileName(std::string(value) + "/");
    }
    return FileName("/");
}

} // namespace Kestrane
