#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <boost/thread/mutex.hpp>

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class ConfigurationObject;

// The process's registry of configuration objects, each under a key of its own. Saving writes
// every registered object under its key into one file; loading gives each registered object
// what the file holds under its key.
//
// The registry and each save or load are guarded by one mutex. The objects themselves are not
// locked: whoever changes an object while another thread saves or loads must see to that.
class ConfigurationManager {
public:
    static ConfigurationManager& getInstance();

    ConfigurationManager(const ConfigurationManager&) = delete;
    ConfigurationManager& operator=(const ConfigurationManager&) = delete;

    // Registers an object; a key that is taken gets the new object (with a warning).
    void addConfigurationObject(std::shared_ptr<ConfigurationObject> object,
                                const std::string& key);
    // The same, with a description (or group) that is kept and saved with the object.
    void addConfigurationObject(std::shared_ptr<ConfigurationObject> object, const std::string& key,
                                const std::string& description);
    // Null when nothing is registered under the key.
    std::shared_ptr<ConfigurationObject> getConfigurationObject(const std::string& key) const;
    // Empty when nothing is registered under the key.
    std::string getDescription(const std::string& key) const;
    // Keys in the order of registration.
    std::vector<std::string> getKeys() const;
    bool removeConfigurationObject(const std::string& key);

    void save(const FileName& file) const;
    // Objects that the file does not hold keep their content; keys of the file that nobody has
    // registered are skipped. Once all are loaded, each loaded object emits its signals (with
    // the registry unlocked, so that listeners may use the manager). A file that cannot be read
    // or has the wrong shape throws before any object has changed.
    void load(const FileName& file);

private:
    struct Entry {
        std::string key;
        std::string description;
        std::shared_ptr<ConfigurationObject> object;
    };

    ConfigurationManager() = default;

    mutable boost::mutex m_mutex;
    std::vector<Entry> m_entries;
};

} // namespace Kestrane
