#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/ConfigurationTestObjects.h"

#include <gtest/gtest.h>

#include <memory>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

ConfigurationValue<std::string> makeValue(const std::string& name, const std::string& value) {
    return ConfigurationValue<std::string>(name, value, "a value", GuiVisibility::Hidden,
                                           static_cast<Persistence>(0),
                                           static_cast<ProductType>(63));
}

// A user configuration with one object "s" that holds the given values.
ConfigReader readerWith(const std::string& values) {
    return ConfigReader::fromString("<configuration><object key=\"s\">" + values +
                                    "</object></configuration>");
}

} // namespace

TEST(ConfigurationValueTest, KeepsNameDefaultAndFlags) {
    auto value = makeValue("prefix", "/data");
    EXPECT_EQ(value.getName(), "prefix");
    EXPECT_EQ(value.getDescription(), "a value");
    EXPECT_EQ(value.getValue(), "/data");
    EXPECT_EQ(value.getDefaultValue(), "/data");
    EXPECT_EQ(value.getGuiVisibility(), GuiVisibility::Hidden);
    EXPECT_EQ(value.getPersistence(), Persistence::User);
    EXPECT_EQ(value.getProductType(), ProductType::All);
    EXPECT_TRUE(value.isDefault());
}

TEST(ConfigurationValueTest, SetValueAndBackToDefault) {
    auto value = makeValue("prefix", "/data");
    value.setValue("/other");
    EXPECT_EQ(value.getValue(), "/other");
    EXPECT_EQ(value.toText(), "/other");
    EXPECT_FALSE(value.isDefault());
    value.setToDefault();
    EXPECT_EQ(value.getValue(), "/data");
    value.fromText("from text");
    EXPECT_EQ(value.getValue(), "from text");
}

TEST(ConfigurationValueTest, CloneIsIndependent) {
    auto value = makeValue("prefix", "/data");
    value.setValue("/changed");
    std::unique_ptr<ConfigurationValueBase> copy(value.clone());
    value.setValue("/later");
    auto* text = dynamic_cast<ConfigurationValue<std::string>*>(copy.get());
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text->getValue(), "/changed");
    EXPECT_EQ(text->getDefaultValue(), "/data");
    EXPECT_EQ(text->getName(), "prefix");
}

TEST(ConfigurationValueTest, ValidatorDecidesValidity) {
    auto value = makeValue("port", "80");
    EXPECT_TRUE(value.isValid());
    value.setValidator([](const std::string& text) { return text.size() < 3; });
    EXPECT_TRUE(value.isValid());
    value.setValue("8080");
    EXPECT_FALSE(value.isValid());
}

TEST(ConfigurationObjectTest, ValuesAreFoundByName) {
    ServerSettings settings;
    EXPECT_EQ(settings.getName(), "ServerSettings");
    EXPECT_EQ(settings.getDescription(), "where the server runs");
    ASSERT_NE(settings.getConfigurationValue("host"), nullptr);
    EXPECT_EQ(settings.getConfigurationValue("host")->toText(), "localhost");
    EXPECT_EQ(settings.getConfigurationValue("missing"), nullptr);
    ASSERT_EQ(settings.getConfigurationValues().size(), 2u);
    EXPECT_EQ(settings.getConfigurationValues()[1]->getName(), "port");
    EXPECT_FALSE(settings.hasNonEditableEntries());
}

TEST(ConfigurationObjectTest, DuplicateOrNullValueIsRefused) {
    class Broken : public ConfigurationObject {
    public:
        Broken() : ConfigurationObject("Broken", "", Persistence::User, ProductType::All) {}
        ConfigurationObject* createConfigurationObject() const override { return new Broken(); }
        void add(ConfigurationValueBase* value) { addConfigurationValue(value); }
    };
    Broken broken;
    broken.add(new ConfigurationValue<std::string>("a", "", "", GuiVisibility::Visible,
                                                   Persistence::User, ProductType::All));
    EXPECT_THROW(broken.add(new ConfigurationValue<std::string>(
                     "a", "", "", GuiVisibility::Visible, Persistence::User, ProductType::All)),
                 KsExceptionNested);
    EXPECT_THROW(broken.add(nullptr), KsExceptionNested);
    EXPECT_EQ(broken.getConfigurationValues().size(), 1u);
}

TEST(ConfigurationObjectTest, CopyAndAssignmentAreDeep) {
    ServerSettings original;
    original.setHost("alpha");
    ServerSettings copy(original);
    original.setHost("beta");
    EXPECT_EQ(copy.getHost(), "alpha");

    ServerSettings assigned;
    assigned = original;
    original.setHost("gamma");
    EXPECT_EQ(assigned.getHost(), "beta");
    EXPECT_NE(assigned.getConfigurationValue("host"), original.getConfigurationValue("host"));

    ServerSettings moved(std::move(copy));
    EXPECT_EQ(moved.getHost(), "alpha");
}

TEST(ConfigurationObjectTest, SetDefaultValuesResetsEveryValue) {
    ServerSettings settings;
    settings.setHost("alpha");
    settings.setPort("1234");
    settings.setDefaultValues();
    EXPECT_EQ(settings.getHost(), "localhost");
    EXPECT_EQ(settings.getPort(), "4000");
}

TEST(ConfigurationObjectTest, LoadKeepsValuesTheReaderDoesNotHold) {
    ServerSettings settings;
    settings.setPort("5555");
    ConfigReader reader = readerWith("<value name=\"host\">remote</value>");
    reader.getObjectContents("s", settings);
    EXPECT_EQ(settings.getHost(), "remote");
    EXPECT_EQ(settings.getPort(), "5555");
}

TEST(ConfigurationObjectTest, SaveWritesEveryValue) {
    ServerSettings settings;
    settings.setHost("alpha");
    ConfigWriter writer;
    writer.putObjectContents("s", settings);
    ConfigReader reader = ConfigReader::fromString(writer.toString());
    ASSERT_TRUE(reader.hasObjectContents("s"));
    ServerSettings loaded;
    loaded.setPort("1");
    reader.getObjectContents("s", loaded);
    EXPECT_EQ(loaded.getHost(), "alpha");
    EXPECT_EQ(loaded.getPort(), "4000");
}

TEST(ConfigurationObjectTest, CloneHasSameClassAndContent) {
    ServerList list;
    list.m_servers.resize(2);
    list.m_servers[0].setHost("one");
    list.m_servers[1].setHost("two");
    list.m_servers[1].setPort("77");
    list.addUserWarningMessage("check the list");
    std::unique_ptr<ConfigurationObject> clone(list.clone());
    auto* copy = dynamic_cast<ServerList*>(clone.get());
    ASSERT_NE(copy, nullptr);
    ASSERT_EQ(copy->m_servers.size(), 2u);
    EXPECT_EQ(copy->m_servers[0].getHost(), "one");
    EXPECT_EQ(copy->m_servers[1].getHost(), "two");
    EXPECT_EQ(copy->m_servers[1].getPort(), "77");
    EXPECT_EQ(copy->getUserWarningMessages(), std::vector<std::string>{"check the list"});
}

TEST(ConfigurationObjectTest, CreateConfigurationObjectGivesDefaults) {
    ServerSettings settings;
    settings.setHost("changed");
    std::unique_ptr<ConfigurationObject> fresh(settings.createConfigurationObject());
    auto* created = dynamic_cast<ServerSettings*>(fresh.get());
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(created->getHost(), "localhost");
}

TEST(ConfigurationObjectTest, InvalidValuesAreReplacedWithWarning) {
    LogCapture capture;
    ServerSettings reference;
    reference.setPort("8123");
    ServerSettings settings;
    settings.setPort("not a port");
    settings.setHost("kept");
    settings.overwriteInvalidConfigValues(&reference);
    EXPECT_EQ(settings.getPort(), "8123");
    EXPECT_EQ(settings.getHost(), "kept");
    ASSERT_EQ(settings.getUserWarningMessages().size(), 1u);
    const std::string expected =
        "The value 'not a port' of 'port' is not valid; it was replaced by '8123'";
    EXPECT_EQ(settings.getUserWarningMessages()[0], expected);
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Configuration 'ServerSettings': " + expected));

    reference.setPort("bad too");
    settings.setPort("x");
    settings.overwriteInvalidConfigValues(&reference);
    EXPECT_EQ(settings.getPort(), "4000");
    settings.setPort("y");
    settings.overwriteInvalidConfigValues(nullptr);
    EXPECT_EQ(settings.getPort(), "4000");
    EXPECT_EQ(settings.getUserWarningMessages().size(), 3u);
}

TEST(ConfigurationObjectTest, UserConfigHoldsOnlyUserPersistentObjects) {
    ConfigReader system = ConfigReader::fromString("<configuration/>");
    ServerSettings user(Persistence::User);
    ServerSettings transient(Persistence::Transient);
    EXPECT_TRUE(user.canBeSavedToUserConfig(system));
    EXPECT_FALSE(transient.canBeSavedToUserConfig(system));

    ConfigWriter writer;
    writer.putObjectContents("user", user);
    writer.putObjectContents("transient", transient);
    ConfigReader written = ConfigReader::fromWriter(writer);
    EXPECT_EQ(written.getObjectKeys(), (std::vector<std::string>{"user", "transient"}));

    // Through the layered save: the transient object leaves its element empty.
    class Layered : public ConfigurationObject {
    public:
        Layered(const ConfigurationObject& inner, ConfigReader& system, bool userConfig)
            : ConfigurationObject("Layered", "", Persistence::User, ProductType::All),
              m_inner(inner), m_system(system), m_userConfig(userConfig) {}
        ConfigurationObject* createConfigurationObject() const override { return nullptr; }
        void saveContent(ConfigWriter& writer) const override {
            m_inner.saveContent(writer, m_system, m_userConfig);
        }

    private:
        const ConfigurationObject& m_inner;
        ConfigReader& m_system;
        bool m_userConfig;
    };
    ConfigWriter layered;
    layered.putObjectContents("userFile", Layered(transient, system, true));
    layered.putObjectContents("systemFile", Layered(transient, system, false));
    layered.putObjectContents("userFileUser", Layered(user, system, true));
    ConfigReader result = ConfigReader::fromString(layered.toString());
    ServerSettings probe;
    probe.setHost("untouched");
    result.getObjectContents("userFile", probe);
    EXPECT_EQ(probe.getHost(), "untouched");
    result.getObjectContents("systemFile", probe);
    EXPECT_EQ(probe.getHost(), "localhost");
    probe.setHost("untouched");
    result.getObjectContents("userFileUser", probe);
    EXPECT_EQ(probe.getHost(), "localhost");
}
