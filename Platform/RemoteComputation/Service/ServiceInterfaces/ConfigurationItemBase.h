#pragma once

#include <string>

namespace Kestrane {

// What every configuration item has: a name, which is its key in a stored configuration, and a
// description for people.
class ConfigurationItemBase {
public:
    ConfigurationItemBase(const std::string& name, const std::string& description);
    ConfigurationItemBase(const ConfigurationItemBase&) = default;
    ConfigurationItemBase& operator=(const ConfigurationItemBase&) = default;
    virtual ~ConfigurationItemBase();

    const std::string& getName() const { return m_name; }
    const std::string& getDescription() const { return m_description; }

private:
    std::string m_name;
    std::string m_description;
};

} // namespace Kestrane
