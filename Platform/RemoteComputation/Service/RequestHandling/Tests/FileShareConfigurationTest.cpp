#include "Platform/RemoteComputation/Service/RequestHandling/FileShareConfiguration.h"
#include "Platform/RemoteComputation/Service/RequestHandling/FileShareMappingsConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationManager.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/ConfigurationTestObjects.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace Kestrane;

namespace {

FileShareConfiguration makeShare(const std::string& prefix) {
    FileShareConfiguration share;
    share.setPrefix(prefix);
    return share;
}

// A stored list under the key "shares" with the given entries.
ConfigReader storedList(const std::string& entries) {
    return ConfigReader::fromString("<configuration><object key=\"shares\">" + entries +
                                    "</object></configuration>");
}

std::string entry(const std::string& id, const std::string& prefix) {
    return "<class tag=\"fileShare\" id=\"" + id + "\"><value name=\"id\">" + id +
           "</value><value name=\"prefix\">" + prefix + "</value></class>";
}

std::vector<std::string> idsOf(const FileShareMappingsConfiguration& mappings) {
    std::vector<std::string> ids;
    for (const auto& share : mappings.getFileShareConfigurations())
        ids.push_back(share.getId());
    return ids;
}

const ConfigurationValue<std::string>& textValue(const ConfigurationObject& object,
                                                 const std::string& name) {
    auto* value =
        dynamic_cast<ConfigurationValue<std::string>*>(object.getConfigurationValue(name));
    if (!value)
        throw std::runtime_error("no text value " + name);
    return *value;
}

} // namespace

TEST(FileShareConfigurationTest, TwoNewSharesHaveDifferentIds) {
    FileShareConfiguration first;
    FileShareConfiguration second;
    EXPECT_NE(first.getId(), second.getId());
    EXPECT_TRUE(UniqueID::isValid(first.getId())) << first.getId();
    EXPECT_TRUE(UniqueID::isValid(second.getId())) << second.getId();
}

TEST(FileShareConfigurationTest, IsBuiltWithItsTwoValues) {
    EXPECT_EQ(FileShareConfiguration::s_idTag, "id");
    EXPECT_EQ(FileShareConfiguration::s_prefixTag, "prefix");
    FileShareConfiguration share;
    EXPECT_EQ(share.getName(), "");
    EXPECT_EQ(share.getDescription(), "");
    EXPECT_EQ(static_cast<int>(share.getPersistence()), 0);
    EXPECT_EQ(static_cast<unsigned int>(share.getProductType()), 63u);
    EXPECT_EQ(share.getPrefix(), "");
    EXPECT_FALSE(share.hasNonEditableEntries());

    const auto values = share.getConfigurationValues();
    ASSERT_EQ(values.size(), 2u);
    for (const auto* value : values) {
        EXPECT_EQ(value->getDescription(), "");
        EXPECT_EQ(static_cast<int>(value->getPersistence()), 0);
        EXPECT_EQ(static_cast<unsigned int>(value->getProductType()), 63u);
    }
    EXPECT_EQ(textValue(share, "id").getValue(), share.getId());
    EXPECT_EQ(textValue(share, "id").getDefaultValue(), share.getId());
    EXPECT_EQ(textValue(share, "prefix").getDefaultValue(), "");
}

TEST(FileShareConfigurationTest, SetDefaultValuesDrawsANewId) {
    FileShareConfiguration share = makeShare("/data/projects");
    const std::string before = share.getId();
    share.setDefaultValues();
    EXPECT_NE(share.getId(), before);
    EXPECT_TRUE(UniqueID::isValid(share.getId()));
    EXPECT_EQ(share.getPrefix(), "");
    const std::string second = share.getId();
    share.setDefaultValues();
    EXPECT_NE(share.getId(), second);
}

TEST(FileShareConfigurationTest, CreateConfigurationObjectMakesAFreshShare) {
    FileShareConfiguration share = makeShare("/mnt");
    std::unique_ptr<ConfigurationObject> created(share.createConfigurationObject());
    auto* fresh = dynamic_cast<FileShareConfiguration*>(created.get());
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(fresh->getId(), share.getId());
    EXPECT_EQ(fresh->getPrefix(), "");
}

TEST(FileShareConfigurationTest, CopiesAndMovesKeepIdAndPrefix) {
    FileShareConfiguration share = makeShare("/mnt/share");
    FileShareConfiguration copy(share);
    EXPECT_EQ(copy.getId(), share.getId());
    EXPECT_EQ(copy.getPrefix(), "/mnt/share");
    copy.setPrefix("/elsewhere");
    EXPECT_EQ(share.getPrefix(), "/mnt/share");

    FileShareConfiguration assigned;
    assigned = share;
    EXPECT_EQ(assigned.getId(), share.getId());

    const std::string id = share.getId();
    FileShareConfiguration moved(std::move(share));
    EXPECT_EQ(moved.getId(), id);
    EXPECT_EQ(moved.getPrefix(), "/mnt/share");
    FileShareConfiguration moveAssigned;
    moveAssigned = std::move(moved);
    EXPECT_EQ(moveAssigned.getId(), id);
}

TEST(FileShareConfigurationTest, BackSlashPrefixReadsBackWithForwardSlashes) {
    const std::string id = UniqueID::generateId();
    ConfigReader reader = storedList(entry(id, "\\\\fileserver\\projects\\2024\\"));
    FileShareConfiguration share;
    // Through the entry directly, as the list does it.
    class EntryLoader : public ConfigurationObject {
    public:
        EntryLoader(const std::string& id, FileShareConfiguration& share)
            : ConfigurationObject("EntryLoader", "", Persistence::User, ProductType::All), m_id(id),
              m_share(share) {}
        ConfigurationObject* createConfigurationObject() const override { return nullptr; }
        void loadContent(ConfigReader& reader) override {
            reader.getClassContents("fileShare", m_id, m_share);
        }

    private:
        std::string m_id;
        FileShareConfiguration& m_share;
    };
    EntryLoader loader(id, share);
    reader.getObjectContents("shares", loader);
    EXPECT_EQ(share.getId(), id);
    EXPECT_EQ(share.getPrefix(), "//fileserver/projects/2024/");
}

TEST(FileShareConfigurationTest, PrefixSetWithBackSlashesIsStoredAsGivenAndLoadedNormalised) {
    FileShareMappingsConfiguration mappings;
    mappings.addFileShareConfiguration(makeShare("C:\\Users\\kim\\data"));
    EXPECT_EQ(mappings.getFileShareConfigurations()[0].getPrefix(), "C:\\Users\\kim\\data");
    ConfigWriter writer;
    writer.putObjectContents("shares", mappings);
    const std::string text = writer.toString();
    EXPECT_NE(text.find("C:\\Users\\kim\\data"), std::string::npos) << text;

    FileShareMappingsConfiguration loaded;
    ConfigReader::fromString(text).getObjectContents("shares", loaded);
    ASSERT_EQ(loaded.getFileShareConfigurations().size(), 1u);
    EXPECT_EQ(loaded.getFileShareConfigurations()[0].getPrefix(), "C:/Users/kim/data");
}

TEST(FileShareMappingsConfigurationTest, IsBuiltEmptyUnderItsTag) {
    EXPECT_EQ(FileShareMappingsConfiguration::s_tag, "FileShareMappingsConfiguration");
    EXPECT_EQ(FileShareMappingsConfiguration::s_fileShareTag, "fileShare");
    FileShareMappingsConfiguration mappings;
    EXPECT_EQ(mappings.getName(), "FileShareMappingsConfiguration");
    EXPECT_EQ(mappings.getDescription(), "");
    EXPECT_EQ(static_cast<int>(mappings.getPersistence()), 0);
    EXPECT_EQ(static_cast<unsigned int>(mappings.getProductType()), 63u);
    EXPECT_TRUE(mappings.getFileShareConfigurations().empty());
    EXPECT_FALSE(mappings.hasNonEditableEntries());
    std::unique_ptr<ConfigurationObject> created(mappings.createConfigurationObject());
    EXPECT_NE(dynamic_cast<FileShareMappingsConfiguration*>(created.get()), nullptr);
}

TEST(FileShareMappingsConfigurationTest, SavedAndLoadedEntriesKeepTheirIds) {
    FileShareMappingsConfiguration mappings;
    mappings.addFileShareConfiguration(makeShare("/first"));
    mappings.addFileShareConfiguration(makeShare("/second <&> \"quoted\""));
    const auto ids = idsOf(mappings);

    ConfigWriter writer;
    writer.putObjectContents("shares", mappings);
    ConfigReader reader = ConfigReader::fromString(writer.toString());

    // The key of each entry in the store is the share's id, in list order.
    class EntryNames : public ConfigurationObject {
    public:
        EntryNames() : ConfigurationObject("EntryNames", "", Persistence::User, ProductType::All) {}
        ConfigurationObject* createConfigurationObject() const override { return nullptr; }
        void loadContent(ConfigReader& reader) override {
            m_names = reader.getEntryNames("fileShare");
            m_values = reader.getValueNames();
        }
        std::vector<std::string> m_names, m_values;
    };
    EntryNames names;
    reader.getObjectContents("shares", names);
    EXPECT_EQ(names.m_names, ids);
    EXPECT_TRUE(names.m_values.empty());

    FileShareMappingsConfiguration loaded;
    reader.getObjectContents("shares", loaded);
    EXPECT_EQ(idsOf(loaded), ids);
    EXPECT_EQ(loaded.getFileShareConfigurations()[0].getPrefix(), "/first");
    EXPECT_EQ(loaded.getFileShareConfigurations()[1].getPrefix(), "/second <&> \"quoted\"");
}

TEST(FileShareMappingsConfigurationTest, LoadReplacesTheOldEntries) {
    FileShareMappingsConfiguration mappings;
    for (const char* prefix : {"/old/a", "/old/b", "/old/c"})
        mappings.addFileShareConfiguration(makeShare(prefix));
    const std::string first = UniqueID::generateId();
    const std::string second = UniqueID::generateId();
    ConfigReader reader = storedList(entry(second, "/new/2") + entry(first, "/new/1"));
    reader.getObjectContents("shares", mappings);
    EXPECT_EQ(idsOf(mappings), (std::vector<std::string>{second, first}));
    EXPECT_EQ(mappings.getFileShareConfigurations()[0].getPrefix(), "/new/2");
    EXPECT_EQ(mappings.getFileShareConfigurations()[1].getPrefix(), "/new/1");

    // Loading the same store again still gives two entries.
    reader.getObjectContents("shares", mappings);
    EXPECT_EQ(mappings.getFileShareConfigurations().size(), 2u);
    // And a store without entries empties the list.
    storedList("").getObjectContents("shares", mappings);
    EXPECT_TRUE(mappings.getFileShareConfigurations().empty());
}

TEST(FileShareMappingsConfigurationTest, EmptyListWritesNothing) {
    FileShareMappingsConfiguration mappings;
    ConfigWriter writer;
    writer.putObjectContents("shares", mappings);
    const std::string text = writer.toString();
    EXPECT_EQ(text.find("fileShare"), std::string::npos) << text;
    EXPECT_EQ(text.find("<value"), std::string::npos) << text;
}

TEST(FileShareMappingsConfigurationTest, AddReplacesSameIdAndRemoveById) {
    FileShareMappingsConfiguration mappings;
    FileShareConfiguration share = makeShare("/a");
    mappings.addFileShareConfiguration(share);
    mappings.addFileShareConfiguration(makeShare("/b"));
    share.setPrefix("/a/edited");
    mappings.addFileShareConfiguration(share);
    ASSERT_EQ(mappings.getFileShareConfigurations().size(), 2u);
    EXPECT_EQ(mappings.getFileShareConfigurations()[0].getId(), share.getId());
    EXPECT_EQ(mappings.getFileShareConfigurations()[0].getPrefix(), "/a/edited");

    EXPECT_TRUE(mappings.removeFileShareConfiguration(share.getId()));
    EXPECT_FALSE(mappings.removeFileShareConfiguration(share.getId()));
    ASSERT_EQ(mappings.getFileShareConfigurations().size(), 1u);
    EXPECT_EQ(mappings.getFileShareConfigurations()[0].getPrefix(), "/b");

    mappings.setDefaultValues();
    EXPECT_EQ(mappings.getFileShareConfigurations().size(), 1u);
    mappings.clear();
    EXPECT_TRUE(mappings.getFileShareConfigurations().empty());
}

TEST(FileShareMappingsConfigurationTest, CopyAndCloneKeepTheList) {
    FileShareMappingsConfiguration mappings;
    mappings.addFileShareConfiguration(makeShare("/one"));
    mappings.addFileShareConfiguration(makeShare("/two"));
    FileShareMappingsConfiguration copy(mappings);
    mappings.clear();
    EXPECT_EQ(copy.getFileShareConfigurations().size(), 2u);

    std::unique_ptr<ConfigurationObject> cloned(copy.clone());
    auto* clone = dynamic_cast<FileShareMappingsConfiguration*>(cloned.get());
    ASSERT_NE(clone, nullptr);
    EXPECT_EQ(idsOf(*clone), idsOf(copy));
    EXPECT_EQ(clone->getFileShareConfigurations()[1].getPrefix(), "/two");
}

TEST(FileShareMappingsConfigurationTest, RegisteredInstanceIsOneAndKnownToTheManager) {
    std::vector<FileShareMappingsConfiguration*> seen(8, nullptr);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back(
            [&seen, i] { seen[i] = FileShareMappingsConfiguration::getRegisteredInstance(); });
    for (auto& thread : threads)
        thread.join();
    FileShareMappingsConfiguration* instance =
        FileShareMappingsConfiguration::getRegisteredInstance();
    ASSERT_NE(instance, nullptr);
    for (auto* pointer : seen)
        EXPECT_EQ(pointer, instance);
    EXPECT_EQ(ConfigurationManager::getInstance()
                  .getConfigurationObject("FileShareMappingsConfiguration")
                  .get(),
              instance);
}

TEST(FileShareMappingsConfigurationTest, ManagerSavesAndLoadsTheRegisteredList) {
    KestraneTest::TemporaryDirectory directory;
    const FileName file = directory.path() / "user.xml";
    auto* mappings = FileShareMappingsConfiguration::getRegisteredInstance();
    mappings->clear();
    mappings->addFileShareConfiguration(makeShare("/net/home"));
    mappings->addFileShareConfiguration(makeShare("\\\\server\\share"));
    const auto ids = idsOf(*mappings);
    ConfigurationManager::getInstance().save(file);

    std::ifstream in(file.toNativeString());
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("key=\"FileShareMappingsConfiguration\""), std::string::npos) << text;
    EXPECT_NE(text.find("<class id=\"" + ids[0] + "\" tag=\"fileShare\">"), std::string::npos)
        << text;

    mappings->clear();
    mappings->addFileShareConfiguration(makeShare("/stale"));
    ConfigurationManager::getInstance().load(file);
    EXPECT_EQ(idsOf(*mappings), ids);
    EXPECT_EQ(mappings->getFileShareConfigurations()[0].getPrefix(), "/net/home");
    EXPECT_EQ(mappings->getFileShareConfigurations()[1].getPrefix(), "//server/share");
    mappings->clear();
}
