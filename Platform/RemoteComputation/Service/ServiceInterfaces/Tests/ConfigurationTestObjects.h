#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigWriter.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationObject.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationValue.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"

#include <string>
#include <vector>

namespace KestraneTest {

using namespace Kestrane;

// A configuration object with two text values; the port must be digits.
class ServerSettings : public ConfigurationObject {
public:
    explicit ServerSettings(Persistence persistence = Persistence::User)
        : ConfigurationObject("ServerSettings", "where the server runs", persistence,
                              ProductType::All) {
        addConfigurationValue(new ConfigurationValue<std::string>(
            "host", "localhost", "host name", GuiVisibility::Visible, Persistence::User,
            ProductType::All));
        auto* port = new ConfigurationValue<std::string>(
            "port", "4000", "TCP port", GuiVisibility::Expert, Persistence::User, ProductType::All);
        port->setValidator([](const std::string& text) {
            return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        });
        addConfigurationValue(port);
    }

    ConfigurationObject* createConfigurationObject() const override {
        return new ServerSettings(getPersistence());
    }
    void emitSignalsAfterConfigLoading() override { ++m_signalsEmitted; }

    const std::string& getHost() const { return text("host").getValue(); }
    void setHost(const std::string& host) { text("host").setValue(host); }
    const std::string& getPort() const { return text("port").getValue(); }
    void setPort(const std::string& port) { text("port").setValue(port); }
    int getSignalsEmitted() const { return m_signalsEmitted; }

private:
    ConfigurationValue<std::string>& text(const std::string& name) const {
        return dynamic_cast<ConfigurationValue<std::string>&>(*getConfigurationValue(name));
    }
    int m_signalsEmitted = 0;
};

// A list of settings stored as nested entries keyed by their host.
class ServerList : public ConfigurationObject {
public:
    ServerList()
        : ConfigurationObject("ServerList", "known servers", Persistence::User, ProductType::All) {}

    ConfigurationObject* createConfigurationObject() const override { return new ServerList(); }
    void loadContent(ConfigReader& reader) override {
        m_servers.clear();
        for (const auto& id : reader.getEntryNames("server")) {
            ServerSettings settings;
            reader.getClassContents("server", id, settings);
            m_servers.push_back(settings);
        }
    }
    void saveContent(ConfigWriter& writer) const override {
        for (const auto& settings : m_servers)
            writer.putClassContents("server", settings.getHost(), settings, "a server");
    }

    std::vector<ServerSettings> m_servers;
};

// A directory of its own below the temporary path, removed at the end.
class TemporaryDirectory {
public:
    TemporaryDirectory()
        : m_path(PathConfiguration::getKsPathTmp() / ("configtest-" + UniqueID::generateId())) {
        FileUtilities::createDirectories(m_path);
    }
    ~TemporaryDirectory() { FileUtilities::remove(m_path); }
    const FileName& path() const { return m_path; }

private:
    FileName m_path;
};

} // namespace KestraneTest
