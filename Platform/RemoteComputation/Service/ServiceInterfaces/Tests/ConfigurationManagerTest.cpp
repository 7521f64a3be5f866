#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationManager.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/LogCapture.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/ConfigurationTestObjects.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <thread>

using namespace Kestrane;
using namespace KestraneTest;

namespace {

// Keys of their own, so that the tests do not meet in the process-wide manager.
std::string uniqueKey(const std::string& name) {
    return name + "-" + UniqueID::generateId();
}

std::string readFile(const FileName& file) {
    std::ifstream in(file.toNativeString(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

} // namespace

TEST(ConfigurationManagerTest, IsOneInstance) {
    EXPECT_EQ(&ConfigurationManager::getInstance(), &ConfigurationManager::getInstance());
}

TEST(ConfigurationManagerTest, RegistersObjectsWithDescription) {
    auto& manager = ConfigurationManager::getInstance();
    const std::string plain = uniqueKey("plain");
    const std::string grouped = uniqueKey("grouped");
    auto first = std::make_shared<ServerSettings>();
    auto second = std::make_shared<ServerSettings>();
    manager.addConfigurationObject(first, plain);
    manager.addConfigurationObject(second, grouped, "Network");
    EXPECT_EQ(manager.getConfigurationObject(plain), first);
    EXPECT_EQ(manager.getConfigurationObject(grouped), second);
    EXPECT_EQ(manager.getDescription(plain), "");
    EXPECT_EQ(manager.getDescription(grouped), "Network");
    EXPECT_EQ(manager.getConfigurationObject("never registered"), nullptr);

    auto keys = manager.getKeys();
    auto at = std::find(keys.begin(), keys.end(), plain);
    ASSERT_NE(at, keys.end());
    ASSERT_NE(at + 1, keys.end());
    EXPECT_EQ(*(at + 1), grouped);

    EXPECT_TRUE(manager.removeConfigurationObject(plain));
    EXPECT_FALSE(manager.removeConfigurationObject(plain));
    EXPECT_EQ(manager.getConfigurationObject(plain), nullptr);
    manager.removeConfigurationObject(grouped);
}

TEST(ConfigurationManagerTest, RegisteringAgainReplacesWithWarning) {
    LogCapture capture;
    auto& manager = ConfigurationManager::getInstance();
    const std::string key = uniqueKey("again");
    manager.addConfigurationObject(std::make_shared<ServerSettings>(), key);
    auto replacement = std::make_shared<ServerSettings>();
    manager.addConfigurationObject(replacement, key, "second");
    EXPECT_EQ(manager.getConfigurationObject(key), replacement);
    EXPECT_EQ(manager.getDescription(key), "second");
    EXPECT_TRUE(capture.contains(LogLevel::Warn, "Configuration object '" + key +
                                                     "' is registered again; the new one "
                                                     "replaces it"));
    EXPECT_THROW(manager.addConfigurationObject(nullptr, uniqueKey("null")), KsExceptionNested);
    EXPECT_THROW(manager.addConfigurationObject(replacement, ""), KsExceptionNested);
    manager.removeConfigurationObject(key);
}

TEST(ConfigurationManagerTest, SaveAndLoadEveryObjectUnderItsKey) {
    TemporaryDirectory directory;
    const FileName file = directory.path() / "all.xml";
    auto& manager = ConfigurationManager::getInstance();
    const std::string settingsKey = uniqueKey("settings");
    const std::string listKey = uniqueKey("list");
    auto settings = std::make_shared<ServerSettings>();
    auto list = std::make_shared<ServerList>();
    settings->setHost("saved host");
    list->m_servers.resize(1);
    list->m_servers[0].setHost("listed");
    manager.addConfigurationObject(settings, settingsKey, "Group <A>");
    manager.addConfigurationObject(list, listKey);

    manager.save(file);
    const std::string text = readFile(file);
    EXPECT_NE(text.find("key=\"" + settingsKey + "\""), std::string::npos);
    EXPECT_NE(text.find("description=\"Group &lt;A"), std::string::npos);

    settings->setHost("changed");
    list->m_servers.clear();
    list->m_servers.resize(3);
    manager.load(file);
    EXPECT_EQ(settings->getHost(), "saved host");
    ASSERT_EQ(list->m_servers.size(), 1u);
    EXPECT_EQ(list->m_servers[0].getHost(), "listed");
    EXPECT_EQ(settings->getSignalsEmitted(), 1);

    manager.removeConfigurationObject(settingsKey);
    manager.removeConfigurationObject(listKey);
}

TEST(ConfigurationManagerTest, ObjectsMissingFromTheFileKeepTheirContent) {
    TemporaryDirectory directory;
    const FileName file = directory.path() / "partial.xml";
    auto& manager = ConfigurationManager::getInstance();
    const std::string savedKey = uniqueKey("saved");
    auto saved = std::make_shared<ServerSettings>();
    manager.addConfigurationObject(saved, savedKey);
    manager.save(file);
    manager.removeConfigurationObject(savedKey);

    const std::string laterKey = uniqueKey("later");
    auto later = std::make_shared<ServerSettings>();
    later->setHost("not in the file");
    manager.addConfigurationObject(later, laterKey);
    manager.load(file);
    EXPECT_EQ(later->getHost(), "not in the file");
    EXPECT_EQ(later->getSignalsEmitted(), 0);
    manager.removeConfigurationObject(laterKey);
}

TEST(ConfigurationManagerTest, BrokenFileChangesNothing) {
    TemporaryDirectory directory;
    const FileName file = directory.path() / "broken.xml";
    {
        std::ofstream out(file.toNativeString());
        out << "<configuration><object key=\"x\"><value name=\"host\">new</value></object>"
               "<object key=\"y\"><value name=\"host\"><oops/></value></object></configuration>";
    }
    auto& manager = ConfigurationManager::getInstance();
    auto x = std::make_shared<ServerSettings>();
    x->setHost("old");
    manager.addConfigurationObject(x, "x");
    EXPECT_THROW(manager.load(file), KsExceptionNested);
    EXPECT_EQ(x->getHost(), "old");
    EXPECT_THROW(manager.load(directory.path() / "missing.xml"), KsExceptionNested);
    manager.removeConfigurationObject("x");
}

TEST(ConfigurationManagerTest, ManyThreadsRegisterAndLookUp) {
    auto& manager = ConfigurationManager::getInstance();
    const std::string prefix = uniqueKey("thread");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 50; ++i) {
                const std::string key = prefix + "-" + std::to_string(t) + "-" + std::to_string(i);
                auto object = std::make_shared<ServerSettings>();
                manager.addConfigurationObject(object, key);
                if (manager.getConfigurationObject(key) != object)
                    ADD_FAILURE() << "lost " << key;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    size_t mine = 0;
    for (const auto& key : manager.getKeys()) {
        if (key.compare(0, prefix.size(), prefix) == 0) {
            ++mine;
            manager.removeConfigurationObject(key);
        }
    }
    EXPECT_EQ(mine, 200u);
}
