#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationItemBase.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationTypes.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValueBase.h"

#include <memory>
#include <string>
#include <vector>

namespace Kestrane {

class ConfigReader;
class ConfigWriter;

// A group of configuration values that is stored and loaded as one. A derived class adds its
// values in its constructor; classes with further content (lists of sub-objects) override
// loadContent and saveContent.
//
// Copies are deep. There is no separate move: a move copies, so that a moved-from object keeps
// its values and stays usable.
class ConfigurationObject : public ConfigurationItemBase {
public:
    ConfigurationObject(const std::string& name, const std::string& description,
                        Persistence persistence, ProductType productType);
    ConfigurationObject(const ConfigurationObject& other);
    ConfigurationObject& operator=(const ConfigurationObject& other);
    ~ConfigurationObject() override;

    Persistence getPersistence() const { return m_persistence; }
    ProductType getProductType() const { return m_productType; }

    // The value of that name, null when the object has none.
    ConfigurationValueBase* getConfigurationValue(const std::string& name) const;
    // All values in the order they were added.
    std::vector<const ConfigurationValueBase*> getConfigurationValues() const;

    // A new object of the same class holding the same content, owned by the caller. The copy
    // goes through the stored form, so it is what saving and loading this object would give.
    virtual ConfigurationObject* clone() const;
    // Every value back to its default.
    virtual void setDefaultValues();
    // Reads each value by name; a value the reader does not hold keeps its current value.
    virtual void loadContent(ConfigReader& reader);
    // Writes each value.
    virtual void saveContent(ConfigWriter& writer) const;
    // Writes the object for a layered configuration. For a system file (`userConfig` false)
    // this is saveContent(writer). For a user file the object is written only when
    // canBeSavedToUserConfig(systemConfig) allows it; `systemConfig` is the configuration the
    // user file is laid over.
    virtual void saveContent(ConfigWriter& writer, ConfigReader& systemConfig,
                             bool userConfig) const;
    // Whether the object belongs in a user's file: true for objects of user persistence.
    virtual bool canBeSavedToUserConfig(ConfigReader& systemConfig) const;
    // Called once the whole configuration has been loaded, so that an object can tell its
    // listeners; by default there is nobody to tell.
    virtual void emitSignalsAfterConfigLoading();
    // Messages for the user collected while loading or repairing the object.
    virtual std::vector<std::string> getUserWarningMessages() const;
    virtual void addUserWarningMessage(const std::string& message);
    // Replaces every value that is not valid: by the value of the same name in `reference`
    // when it has a valid one, otherwise by the default. Each replacement adds a warning.
    virtual void overwriteInvalidConfigValues(const ConfigurationObject* reference);
    // A new object of the same class with default content, owned by the caller.
    virtual ConfigurationObject* createConfigurationObject() const = 0;
    // Whether the object holds entries that a user may not change.
    virtual bool hasNonEditableEntries() const;

protected:
    // The object takes over the value. Names must be unique within the object.
    void addConfigurationValue(ConfigurationValueBase* value);

private:
    Persistence m_persistence;
    ProductType m_productType;
    std::vector<std::unique_ptr<ConfigurationValueBase>> m_values;
    std::vector<std::string> m_userWarnings;
};

} // namespace Kestrane
