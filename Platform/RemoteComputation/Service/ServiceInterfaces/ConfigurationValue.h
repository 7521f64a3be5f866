#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValueBase.h"

#include <functional>
#include <string>

namespace Kestrane {

// A typed configuration value. Only the types specialised below are available.
template <typename T> class ConfigurationValue;

// A text value: the stored form is the text itself.
template <> class ConfigurationValue<std::string> : public ConfigurationValueBase {
public:
    using Validator = std::function<bool(const std::string&)>;

    ConfigurationValue(const std::string& name, const std::string& defaultValue,
                       const std::string& description, GuiVisibility visibility,
                       Persistence persistence, ProductType productType);
    ConfigurationValue(const ConfigurationValue&) = default;
    ConfigurationValue& operator=(const ConfigurationValue&) = default;
    ~ConfigurationValue() override;

    const std::string& getValue() const { return m_value; }
    void setValue(const std::string& value) { m_value = value; }
    const std::string& getDefaultValue() const { return m_defaultValue; }
    // Without a validator every text is valid.
    void setValidator(Validator validator) { m_validator = std::move(validator); }

    ConfigurationValueBase* clone() const override;
    void setToDefault() override;
    bool isDefault() const override;
    std::string toText() const override;
    void fromText(const std::string& text) override;
    bool isValid() const override;

private:
    std::string m_value;
    std::string m_defaultValue;
    Validator m_validator;
};

} // namespace Kestrane
