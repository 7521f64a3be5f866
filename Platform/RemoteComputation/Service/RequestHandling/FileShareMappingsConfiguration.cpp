#include "Platform/RemoteComputation/Service/RequestHandling/FileShareMappingsConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationManager.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <algorithm>
#include <memory>
#include <mutex>

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

const std::string FileShareMappingsConfiguration::s_tag = "FileShareMappingsConfiguration";
const std::string FileShareMappingsConfiguration::s_fileShareTag = "fileShare";

FileShareMappingsConfiguration::FileShareMappingsConfiguration()
    : ConfigurationObject(s_tag, "", static_cast<Persistence>(0), static_cast<ProductType>(63)) {}

FileShareMappingsConfiguration::~FileShareMappingsConfiguration() = default;

FileShareMappingsConfiguration* FileShareMappingsConfiguration::getRegisteredInstance() {
    // A lock of its own, so that creation does not depend on the manager's lock order.
    static std::mutex s_instanceMutex;
    static std::shared_ptr<FileShareMappingsConfiguration>* s_instance = nullptr;
    std::lock_guard<std::mutex> lock(s_instanceMutex);
    if (!s_instance) {
        // Never destroyed: the manager and late users may hold it until the process ends.
        auto instance = std::make_shared<FileShareMappingsConfiguration>();
        ConfigurationManager::getInstance().addConfigurationObject(instance, s_tag);
        s_instance = new std::shared_ptr<FileShareMappingsConfiguration>(instance);
        KS_DEBUG("File share mappings registered as '" << s_tag << "'");
    }
    return s_instance->get();
}

void FileShareMappingsConfiguration::addFileShareConfiguration(
    const FileShareConfiguration& share) {
    auto found = std::find_if(
        m_fileShareConfigurations.begin(), m_fileShareConfigurations.end(),
        [&](const FileShareConfiguration& entry) { return entry.getId() == share.getId(); });
    if (found != m_fileShareConfigurations.end())
        *found = share;
    else
        m_fileShareConfigurations.push_back(share);
}

bool FileShareMappingsConfiguration::removeFileShareConfiguration(const std::string& id) {
    auto found =
        std::find_if(m_fileShareConfigurations.begin(), m_fileShareConfigurations.end(),
                     [&](const FileShareConfiguration& entry) { return entry.getId() == id; });
    if (found == m_fileShareConfigurations.end())
        return false;
    m_fileShareConfigurations.erase(found);
    return true;
}

void FileShareMappingsConfiguration::clear() {
    m_fileShareConfigurations.clear();
}

void FileShareMappingsConfiguration::loadContent(ConfigReader& reader) {
    m_fileShareConfigurations.clear();
    for (const auto& name : reader.getEntryNames(s_fileShareTag)) {
        FileShareConfiguration entry;
        reader.getClassContents(s_fileShareTag, name, entry);
        if (entry.getId() != name)
            KS_WARN("File share entry '" << name << "' holds the id '" << entry.getId() << "'");
        m_fileShareConfigurations.push_back(entry);
    }
    KS_DEBUG("Loaded " << m_fileShareConfigurations.size() << " file shares");
}

void FileShareMappingsConfiguration::saveContent(ConfigWriter& writer) const {
    for (const auto& entry : m_fileShareConfigurations)
        writer.putClassContents(s_fileShareTag, entry.getId(), entry);
}

void FileShareMappingsConfiguration::setDefaultValues() {}

ConfigurationObject* FileShareMappingsConfiguration::createConfigurationObject() const {
    return new FileShareMappingsConfiguration();
}

bool FileShareMappingsConfiguration::hasNonEditableEntries() const {
    return false;
}

} // namespace Kestrane
