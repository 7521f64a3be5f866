#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationItemBase.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationTypes.h"

#include <string>

namespace Kestrane {

// One named value of a configuration object. The stored form of every value is text, so that
// an object can read and write its values without knowing their types.
class ConfigurationValueBase : public ConfigurationItemBase {
public:
    ConfigurationValueBase(const std::string& name, const std::string& description,
                           GuiVisibility visibility, Persistence persistence,
                           ProductType productType);
    ~ConfigurationValueBase() override;

    GuiVisibility getGuiVisibility() const { return m_visibility; }
    Persistence getPersistence() const { return m_persistence; }
    ProductType getProductType() const { return m_productType; }

    // A deep copy, owned by the caller.
    virtual ConfigurationValueBase* clone() const = 0;
    virtual void setToDefault() = 0;
    virtual bool isDefault() const = 0;
    // The value in its stored form.
    virtual std::string toText() const = 0;
    // Takes the value from its stored form; throws KsExceptionNested when the text does not fit.
    virtual void fromText(const std::string& text) = 0;
    // Whether the current value is acceptable; values that are not can be replaced by
    // ConfigurationObject::overwriteInvalidConfigValues.
    virtual bool isValid() const { return true; }

protected:
    ConfigurationValueBase(const ConfigurationValueBase&) = default;
    ConfigurationValueBase& operator=(const ConfigurationValueBase&) = default;

private:
    GuiVisibility m_visibility;
    Persistence m_persistence;
    ProductType m_productType;
};

} // namespace Kestrane
