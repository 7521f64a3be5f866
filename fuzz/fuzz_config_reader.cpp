// The configuration file reader: ConfigurationManager::load on a file holding the input, with
// objects registered the way a program registers its own, and a walk through everything the
// document holds, as a derived object's loadContent would do it.

#include "FuzzSupport.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigReader.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ConfigurationManager.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/ConfigurationTestObjects.h"

#include <cstdlib>
#include <exception>
#include <fstream>
#include <unistd.h>

using namespace Kestrane;

namespace {

// Reads every value and every nested entry of the element it is given, depth first.
class Walker : public ConfigurationObject {
public:
    Walker() : ConfigurationObject("Walker", "", Persistence::User, ProductType::All) {}
    ConfigurationObject* createConfigurationObject() const override { return new Walker(); }
    void loadContent(ConfigReader& reader) override {
        for (const auto& name : reader.getValueNames())
            (void)reader.getValue(name);
        for (const char* tag : {"server", "class", "entry"}) {
            for (const auto& id : reader.getEntryNames(tag)) {
                if (!reader.hasClassContents(tag, id))
                    __builtin_trap(); // listed, so it must be there
                if (m_depth < 8) {
                    Walker inner;
                    inner.m_depth = m_depth + 1;
                    reader.getClassContents(tag, id, inner);
                }
            }
        }
    }
    int m_depth = 0;
};

std::string s_path;

void removeFile() {
    ::unlink(s_path.c_str());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    KestraneFuzz::quietLogging();
    s_path = "/tmp/ks-fuzz-config-" + std::to_string(::getpid()) + ".xml";
    std::atexit(removeFile);
    ConfigurationManager& manager = ConfigurationManager::getInstance();
    manager.addConfigurationObject(std::make_shared<KestraneTest::ServerSettings>(), "s");
    manager.addConfigurationObject(std::make_shared<KestraneTest::ServerList>(), "list");
    manager.addConfigurationObject(std::make_shared<Walker>(), "walk");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text = KestraneFuzz::text(data, size);
    {
        std::ofstream out(s_path, std::ios::binary | std::ios::trunc);
        out << text;
    }
    try {
        ConfigurationManager::getInstance().load(FileName(s_path));
    } catch (const KsException&) {
    } catch (const std::exception&) {
    }
    try {
        ConfigReader reader = ConfigReader::fromString(text);
        for (const auto& key : reader.getObjectKeys()) {
            if (!reader.hasObjectContents(key))
                __builtin_trap();
            Walker walker;
            reader.getObjectContents(key, walker);
        }
    } catch (const KsException&) {
    } catch (const std::exception&) {
    }
    return 0;
}
