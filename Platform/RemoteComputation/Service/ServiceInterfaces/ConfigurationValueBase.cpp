#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValueBase.h"

namespace Kestrane {

ConfigurationValueBase::ConfigurationValueBase(const std::string& name,
                                               const std::string& description,
                                               GuiVisibility visibility, Persistence persistence,
                                               ProductType productType)
    : ConfigurationItemBase(name, description), m_visibility(visibility),
      m_persistence(persistence), m_productType(productType) {}

ConfigurationValueBase::~ConfigurationValueBase() = default;

} // namespace Kestrane
