#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationManager.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

#include <boost/thread/locks.hpp>

#include <algorithm>

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

ConfigurationManager& ConfigurationManager::getInstance() {
    // Never destroyed: objects may still be saved from other static destructors.
    static ConfigurationManager* s_instance = new ConfigurationManager();
    return *s_instance;
}

void ConfigurationManager::addConfigurationObject(std::shared_ptr<ConfigurationObject> object,
                                                  const std::string& key) {
    addConfigurationObject(std::move(object), key, std::string());
}

void ConfigurationManager::addConfigurationObject(std::shared_ptr<ConfigurationObject> object,
                                                  const std::string& key,
                                                  const std::string& description) {
    if (!object || key.empty()) {
        std::string message = "Can't register configuration object '" + key +
                              "': " + (object ? "the key is empty" : "the object is null");
        throw KsExceptionNested(message.c_str(), "Configuration", __PRETTY_FUNCTION__, __FILE__,
                                __LINE__);
    }
    boost::unique_lock<boost::mutex> lock(m_mutex);
    auto found = std::find_if(m_entries.begin(), m_entries.end(),
                              [&](const Entry& entry) { return entry.key == key; });
    if (found != m_entries.end()) {
        KS_WARN("Configuration object '" << key
                                         << "' is registered again; the new one replaces it");
        found->description = description;
        found->object = std::move(object);
        return;
    }
    m_entries.push_back(Entry{key, description, std::move(object)});
    KS_DEBUG("Registered configuration object '" << key << "'");
}

std::shared_ptr<ConfigurationObject>
ConfigurationManager::getConfigurationObject(const std::string& key) const {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    for (const auto& entry : m_entries) {
        if (entry.key == key)
            return entry.object;
    }
    return nullptr;
}

std::string ConfigurationManager::getDescription(const std::string& key) const {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    for (const auto& entry : m_entries) {
        if (entry.key == key)
            return entry.description;
    }
    return std::string();
}

std::vector<std::string> ConfigurationManager::getKeys() const {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    std::vector<std::string> keys;
    for (const auto& entry : m_entries)
        keys.push_back(entry.key);
    return keys;
}

bool ConfigurationManager::removeConfigurationObject(const std::string& key) {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    auto found = std::find_if(m_entries.begin(), m_entries.end(),
                              [&](const Entry& entry) { return entry.key == key; });
    if (found == m_entries.end())
        return false;
    m_entries.erase(found);
    return true;
}

void ConfigurationManager::save(const FileName& file) const {
    boost::unique_lock<boost::mutex> lock(m_mutex);
    ConfigWriter writer;
    for (const auto& entry : m_entries)
        writer.putObjectContents(entry.key, *entry.object, entry.description);
    writer.saveToFile(file);
    KS_INFO("Saved " << m_entries.size() << " configuration objects to '" << file.toNativeString()
                     << "'");
}

void ConfigurationManager::load(const FileName& file) {
    std::vector<std::shared_ptr<ConfigurationObject>> loaded;
    {
        boost::unique_lock<boost::mutex> lock(m_mutex);
        ConfigReader reader = ConfigReader::fromFile(file);
        for (const auto& key : reader.getObjectKeys()) {
            auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                      [&](const Entry& entry) { return entry.key == key; });
            if (found == m_entries.end())
                KS_DEBUG("Configuration object '" << key << "' of '" << file.toNativeString()
                                                  << "' is not registered; skipped");
        }
        for (const auto& entry : m_entries) {
            if (!reader.hasObjectContents(entry.key))
                continue;
            reader.getObjectContents(entry.key, *entry.object);
            loaded.push_back(entry.object);
        }
        KS_INFO("Loaded " << loaded.size() << " configuration objects from '"
                          << file.toNativeString() << "'");
    }
    for (const auto& object : loaded)
        object->emitSignalsAfterConfigLoading();
}

} // namespace Kestrane
