#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/FileShareConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"

#include <string>
#include <vector>

namespace Kestrane {

// A user's list of file shares, stored as one "fileShare" entry per share keyed by its id.
// Host applications read and edit the list; the object does not lock it, so a host that edits
// it from several threads must do its own locking.
class FileShareMappingsConfiguration : public ConfigurationObject {
public:
    static const std::string s_tag;          // "FileShareMappingsConfiguration"
    static const std::string s_fileShareTag; // "fileShare"

    FileShareMappingsConfiguration();
    FileShareMappingsConfiguration(const FileShareMappingsConfiguration&) = default;
    FileShareMappingsConfiguration& operator=(const FileShareMappingsConfiguration&) = default;
    ~FileShareMappingsConfiguration() override;

    // The one instance of the process, made and registered with the ConfigurationManager (under
    // s_tag) at the first call. It lives until the process ends.
    static FileShareMappingsConfiguration* getRegisteredInstance();

    const std::vector<FileShareConfiguration>& getFileShareConfigurations() const {
        return m_fileShareConfigurations;
    }
    // Appends the share; a share with the same id is replaced where it stands, since the id is
    // the share's key in the stored list.
    void addFileShareConfiguration(const FileShareConfiguration& share);
    // False when no share has that id.
    bool removeFileShareConfiguration(const std::string& id);
    void clear();

    // Replaces the list by the entries of the reader, in the reader's order.
    void loadContent(ConfigReader& reader) override;
    // One entry per share, in list order; an empty list writes nothing.
    void saveContent(ConfigWriter& writer) const override;
    // Nothing to do: the defaults of the list are what stands in it.
    void setDefaultValues() override;
    ConfigurationObject* createConfigurationObject() const override;
    bool hasNonEditableEntries() const override;

private:
    std::vector<FileShareConfiguration> m_fileShareConfigurations;
};

} // namespace Kestrane
