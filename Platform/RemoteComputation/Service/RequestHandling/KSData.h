#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/HrefProtocol.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <xercesc/dom/DOMElement.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

// The reading of one data element: what the data is and where it lies (its href).
class KSData {
public:
    KSData() = default;
    // Reads every attribute. Valid only when name, dataPtrType, dataType, dataSize and href are
    // all there. A dataSize that is not a number throws boost::bad_lexical_cast.
    explicit KSData(const xercesc::DOMElement* element);
    KSData(const KSData&) = default;
    KSData& operator=(const KSData&) = default;
    virtual ~KSData() = default;

    const std::string& getTag() const { return m_tag; }
    const std::string& getId() const { return m_id; }
    const std::string& getName() const { return m_name; }
    const std::string& getHref() const { return m_href; }
    const std::string& getDataPtrType() const { return m_dataPtrType; }
    const std::string& getDataType() const { return m_dataType; }
    uint64_t getDataSize() const { return m_dataSize; }
    bool getFileTransfered() const { return m_fileTransfered; }
    bool isValid() const { return m_valid; }

    void setDataSize(uint64_t dataSize) { m_dataSize = dataSize; }
    void setDataPtrType(const std::string& dataPtrType) { m_dataPtrType = dataPtrType; }
    void setDataType(const std::string& dataType) { m_dataType = dataType; }
    void setHref(const std::string& href) { m_href = href; }
    // Kept for callers of the older interface: they compute an href for dha and hdfs but do
    // not store it, so the object stays as it is.
    void setHref(const HrefProtocol& protocol, const std::string& address);
    void setHref(const HrefProtocol& protocol, const void* address);

    // The address behind "dha://#"; null for another href or an empty address.
    void* getDhaPointer() const;
    // The address behind "hdfs://#"; null for another href or an empty address.
    void* getHdfsPointer() const;
    // The href from its ninth character on (behind "file:///"); the scheme is not tested.
    // Throws std::out_of_range for an href shorter than 8 characters.
    FileName getFilePath() const;
    // For an arch link: the buffer's bytes in a vector. The malloc'ed buffer is freed and the
    // href emptied, so this succeeds once; afterwards, and for other links, null.
    std::shared_ptr<std::vector<unsigned char>> getArchiverBufferPtr();
    // The element on one line, unescaped. A transfered file is marked fileTransfered="false":
    // receivers read the flag's presence, and the text has always been written so.
    std::string getXLinkNodeString() const;

private:
    bool m_valid = false;
    std::string m_tag;
    std::string m_id;
    std::string m_name;
    std::string m_dataPtrType;
    std::string m_dataType;
    uint64_t m_dataSize = 0;
    std::string m_href;
    bool m_fileTransfered = false;
};

} // namespace Kestrane
