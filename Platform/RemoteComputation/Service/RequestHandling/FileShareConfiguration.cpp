#include "Platform/RemoteComputation/Service/RequestHandling/FileShareConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

namespace Kestrane {

const std::string FileShareConfiguration::s_idTag = "id";
const std::string FileShareConfiguration::s_prefixTag = "prefix";

namespace {

const Persistence c_persistence = static_cast<Persistence>(0);
const ProductType c_productMask = static_cast<ProductType>(63);

// Both values are added in the constructor, and copies carry them along, so the lookup cannot
// fail.
ConfigurationValue<std::string>& textValue(const ConfigurationObject& object,
                                           const std::string& name) {
    return static_cast<ConfigurationValue<std::string>&>(*object.getConfigurationValue(name));
}

} // namespace

FileShareConfiguration::FileShareConfiguration()
    : ConfigurationObject("", "", c_persistence, c_productMask) {
    addConfigurationValue(new ConfigurationValue<std::string>(
        s_idTag, UniqueID::generateId(), "", GuiVisibility::Hidden, c_persistence, c_productMask));
    addConfigurationValue(new ConfigurationValue<std::string>(
        s_prefixTag, "", "", GuiVisibility::Visible, c_persistence, c_productMask));
}

FileShareConfiguration::~FileShareConfiguration() = default;

const std::string& FileShareConfiguration::getId() const {
    return textValue(*this, s_idTag).getValue();
}

const std::string& FileShareConfiguration::getPrefix() const {
    return textValue(*this, s_prefixTag).getValue();
}

void FileShareConfiguration::setPrefix(const std::string& prefix) {
    textValue(*this, s_prefixTag).setValue(prefix);
}

void FileShareConfiguration::loadContent(ConfigReader& reader) {
    ConfigurationObject::loadContent(reader);
    auto& prefix = textValue(*this, s_prefixTag);
    prefix.setValue(FileName(prefix.getValue()).toString());
}

void FileShareConfiguration::setDefaultValues() {
    ConfigurationObject::setDefaultValues();
    textValue(*this, s_idTag).setValue(UniqueID::generateId());
}

ConfigurationObject* FileShareConfiguration::createConfigurationObject() const {
    return new FileShareConfiguration();
}

bool FileShareConfiguration::hasNonEditableEntries() const {
    return false;
}

} // namespace Kestrane
