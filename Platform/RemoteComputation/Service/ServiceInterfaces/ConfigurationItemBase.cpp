#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationItemBase.h"

namespace Kestrane {

ConfigurationItemBase::ConfigurationItemBase(const std::string& name,
                                             const std::string& description)
    : m_name(name), m_description(description) {}

ConfigurationItemBase::~ConfigurationItemBase() = default;

} // namespace Kestrane
