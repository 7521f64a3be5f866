#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"

#include <string>

namespace Kestrane {

// One file share of a user: an id and a path prefix. The library only keeps the list of shares
// for host applications; it does not match paths against prefixes itself.
class FileShareConfiguration : public ConfigurationObject {
public:
    static const std::string s_idTag;     // "id"
    static const std::string s_prefixTag; // "prefix"

    // A share with a new id and an empty prefix.
    FileShareConfiguration();
    FileShareConfiguration(const FileShareConfiguration&) = default;
    FileShareConfiguration& operator=(const FileShareConfiguration&) = default;
    ~FileShareConfiguration() override;

    const std::string& getId() const;
    const std::string& getPrefix() const;
    // Kept as given; a prefix is brought to forward slashes when it is loaded.
    void setPrefix(const std::string& prefix);

    // The values, then the prefix with forward slashes.
    void loadContent(ConfigReader& reader) override;
    // The defaults, then a new id: defaults never repeat an id.
    void setDefaultValues() override;
    ConfigurationObject* createConfigurationObject() const override;
    bool hasNonEditableEntries() const override;
};

} // namespace Kestrane
