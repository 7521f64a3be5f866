#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

ConfigurationObject::ConfigurationObject(const std::string& name, const std::string& description,
                                         Persistence persistence, ProductType productType)
    : ConfigurationItemBase(name, description), m_persistence(persistence),
      m_productType(productType) {}

ConfigurationObject::ConfigurationObject(const ConfigurationObject& other)
    : ConfigurationItemBase(other), m_persistence(other.m_persistence),
      m_productType(other.m_productType), m_userWarnings(other.m_userWarnings) {
    m_values.reserve(other.m_values.size());
    for (const auto& value : other.m_values)
        m_values.emplace_back(value->clone());
}

ConfigurationObject& ConfigurationObject::operator=(const ConfigurationObject& other) {
    if (this == &other)
        return *this;
    // Copy first, so that a failing clone leaves this object as it was.
    std::vector<std::unique_ptr<ConfigurationValueBase>> values;
    values.reserve(other.m_values.size());
    for (const auto& value : other.m_values)
        values.emplace_back(value->clone());
    ConfigurationItemBase::operator=(other);
    m_persistence = other.m_persistence;
    m_productType = other.m_productType;
    m_values = std::move(values);
    m_userWarnings = other.m_userWarnings;
    return *this;
}

ConfigurationObject::~ConfigurationObject() = default;

void ConfigurationObject::addConfigurationValue(ConfigurationValueBase* value) {
    std::unique_ptr<ConfigurationValueBase> owned(value);
    if (!owned)
        throw KsExceptionNested("Can't add a null configuration value", "Configuration",
                                __PRETTY_FUNCTION__, __FILE__, __LINE__);
    if (getConfigurationValue(owned->getName())) {
        std::string message = "Configuration object '" + getName() + "' already has a value '" +
                              owned->getName() + "'";
        throw KsExceptionNested(message.c_str(), "Configuration", __PRETTY_FUNCTION__, __FILE__,
                                __LINE__);
    }
    m_values.push_back(std::move(owned));
}

ConfigurationValueBase* ConfigurationObject::getConfigurationValue(const std::string& name) const {
    for (const auto& value : m_values) {
        if (value->getName() == name)
            return value.get();
    }
    return nullptr;
}

std::vector<const ConfigurationValueBase*> ConfigurationObject::getConfigurationValues() const {
    std::vector<const ConfigurationValueBase*> values;
    values.reserve(m_values.size());
    for (const auto& value : m_values)
        values.push_back(value.get());
    return values;
}

ConfigurationObject* ConfigurationObject::clone() const {
    std::unique_ptr<ConfigurationObject> copy(createConfigurationObject());
    ConfigWriter writer;
    writer.putObjectContents("clone", *this);
    ConfigReader reader = ConfigReader::fromWriter(writer);
    reader.getObjectContents("clone", *copy);
    copy->m_userWarnings = m_userWarnings;
    return copy.release();
}

void ConfigurationObject::setDefaultValues() {
    for (auto& value : m_values)
        value->setToDefault();
}

void ConfigurationObject::loadContent(ConfigReader& reader) {
    for (auto& value : m_values) {
        if (reader.hasValue(value->getName()))
            value->fromText(reader.getValue(value->getName()));
    }
}

void ConfigurationObject::saveContent(ConfigWriter& writer) const {
    for (const auto& value : m_values)
        writer.putValue(value->getName(), value->toText());
}

void ConfigurationObject::saveContent(ConfigWriter& writer, ConfigReader& systemConfig,
                                      bool userConfig) const {
    if (userConfig && !canBeSavedToUserConfig(systemConfig)) {
        KS_TRACE("Configuration object '" << getName() << "' stays out of the user's file");
        return;
    }
    saveContent(writer);
}

bool ConfigurationObject::canBeSavedToUserConfig(ConfigReader&) const {
    return m_persistence == Persistence::User;
}

void ConfigurationObject::emitSignalsAfterConfigLoading() {}

std::vector<std::string> ConfigurationObject::getUserWarningMessages() const {
    return m_userWarnings;
}

void ConfigurationObject::addUserWarningMessage(const std::string& message) {
    KS_WARN("Configuration '" << getName() << "': " << message);
    m_userWarnings.push_back(message);
}

void ConfigurationObject::overwriteInvalidConfigValues(const ConfigurationObject* reference) {
    for (auto& value : m_values) {
        if (value->isValid())
            continue;
        const std::string invalid = value->toText();
        const ConfigurationValueBase* replacement =
            reference ? reference->getConfigurationValue(value->getName()) : nullptr;
        bool replaced = false;
        if (replacement && replacement->isValid()) {
            value->fromText(replacement->toText());
            replaced = value->isValid();
        }
        if (!replaced)
            value->setToDefault();
        addUserWarningMessage("The value '" + invalid + "' of '" + value->getName() +
                              "' is not valid; it was replaced by '" + value->toText() + "'");
    }
}

bool ConfigurationObject::hasNonEditableEntries() const {
    return false;
}

} // namespace Kestrane
