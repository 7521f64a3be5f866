#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValue.h"

namespace Kestrane {

ConfigurationValue<std::string>::ConfigurationValue(
    const std::string& name, const std::string& defaultValue, const std::string& description,
    GuiVisibility visibility, Persistence persistence, ProductType productType)
    : ConfigurationValueBase(name, description, visibility, persistence, productType),
      m_value(defaultValue), m_defaultValue(defaultValue) {}

ConfigurationValue<std::string>::~ConfigurationValue() = default;

ConfigurationValueBase* ConfigurationValue<std::string>::clone() const {
    return new ConfigurationValue<std::string>(*this);
}

void ConfigurationValue<std::string>::setToDefault() {
    m_value = m_defaultValue;
}

bool ConfigurationValue<std::string>::isDefault() const {
    return m_value == m_defaultValue;
}

std::string ConfigurationValue<std::string>::toText() const {
    return m_value;
}

void ConfigurationValue<std::string>::fromText(const std::string& text) {
    m_value = text;
}

bool ConfigurationValue<std::string>::isValid() const {
    return !m_validator || m_validator(m_value);
}

} // namespace Kestrane
