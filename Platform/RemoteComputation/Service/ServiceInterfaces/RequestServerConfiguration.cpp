#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/ComputingUtility.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOM.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/HandlerBase.hpp>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <limits>
#include <memory>
#include <stdexcept>

namespace Kestrane {

namespace {

using Kind = RequestServerConfiguration::Kind;

enum Setting {
    ListenPort,
    PortRange,
    LocalHost,
    AutoShutdown,
    ShutdownTimeout,
    MaxRequestHandlerPoolSize,
    SendReplyMaxRetry,
    SendReplyRetryDelay,
    MaxGetStatusTime,
    CallbackTimeout,
    JSUpdateInterval,
    AlivePublishInterval,
    MaxAliveAge,
    MaxChangeAge,
    RPingIntervalSec,
    LocalRPingIntervalSec,
    FileCopyBlockSize,
    ParallelFileTransfer,
    FileTransferProgressFirstUpdateDelay,
    FileTransferProgressUpdateInterval,
    ComputationCores,
    KeepTempFiles,
    SocketTimeout,
    RemoteServiceKeyFile,
    JobSchedulerCommandTimeout,
    ConnectionIdleTimeout,
    MaxConnections,
    SettingCount
};

// "localRPingIntervalSec" -> "KS_LOCAL_R_PING_INTERVAL_SEC": every upper-case letter starts a
// word, so that each name has one obvious variable.
std::string environmentName(const std::string& name) {
    std::string result = "KS_";
    for (size_t i = 0; i < name.size(); ++i) {
        char c = name[i];
        if (std::isupper(static_cast<unsigned char>(c)) && i > 0)
            result += '_';
        result += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return result;
}

RequestServerConfiguration::SettingInfo info(const char* name, Kind kind, const char* def,
                                             const char* unit, const char* description) {
    return {name, environmentName(name), kind, def, unit, description};
}

// Minimum accepted value of the settings where 0 makes no sense.
int64_t minimumOf(size_t index) {
    switch (index) {
    case PortRange:
    case MaxRequestHandlerPoolSize:
    case AlivePublishInterval:
    case FileCopyBlockSize:
    case MaxConnections:
        return 1;
    default:
        return 0;
    }
}

std::string lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), ::tolower);
    return text;
}

int64_t parseValue(const RequestServerConfiguration::SettingInfo& setting, size_t index,
                   const std::string& text) {
    auto reject = [&](const std::string& expected) -> int64_t {
        throw KsException("Invalid value '" + text + "' for setting " + setting.name + " (" +
                          setting.environment + "): expected " + expected);
    };
    if (setting.kind == Kind::Bool) {
        std::string value = lower(text);
        if (value == "true" || value == "1" || value == "yes" || value == "on")
            return 1;
        if (value == "false" || value == "0" || value == "no" || value == "off")
            return 0;
        return reject("true or false");
    }
    int64_t lowest = minimumOf(index);
    int64_t highest = 0;
    std::string expected;
    switch (setting.kind) {
    case Kind::UInt16:
        highest = 65535;
        expected = "a whole number from " + std::to_string(lowest) + " to 65535";
        break;
    case Kind::UInt32:
        highest = std::numeric_limits<uint32_t>::max();
        expected = "a whole number from " + std::to_string(lowest) + " to 4294967295";
        break;
    default:
        lowest = std::numeric_limits<int32_t>::min();
        highest = std::numeric_limits<int32_t>::max();
        expected = "a whole number";
        break;
    }
    if (text.empty())
        return reject(expected);
    size_t start = (text[0] == '-' || text[0] == '+') ? 1 : 0;
    auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    if (start == text.size() || !std::all_of(text.begin() + start, text.end(), isDigit) ||
        text.size() > 19)
        return reject(expected);
    int64_t value;
    try {
        value = std::stoll(text);
    } catch (const std::out_of_range&) { // 19 digits beyond the 64-bit range
        return reject(expected);
    }
    if (value < lowest || value > highest)
        return reject(expected);
    return value;
}

} // namespace

const std::vector<RequestServerConfiguration::SettingInfo>&
RequestServerConfiguration::describeSettings() {
    static const std::vector<SettingInfo> settings = {
        info("listenPort", Kind::UInt16, "0", "port",
             "First TCP port of the request server and base of the publisher's port search; 0 "
             "lets the system pick a port"),
        info("portRange", Kind::UInt16, "100", "ports", "Number of ports tried from listenPort on"),
        info("localHost", Kind::Text, "", "host name",
             "Name under which this host is given to others (empty: the host name)"),
        info("autoShutdown", Kind::Bool, "false", "",
             "Stop the server after shutdownTimeout idle seconds"),
        info("shutdownTimeout", Kind::UInt32, "600", "s", "Idle time before an automatic stop"),
        info("maxRequestHandlerPoolSize", Kind::UInt32, "64", "threads",
             "Worker threads for requests and cached replies"),
        info("sendReplyMaxRetry", Kind::UInt32, "3", "retries",
             "Retries of a failed reply delivery"),
        info("sendReplyRetryDelay", Kind::UInt32, "5", "s", "Wait between reply delivery retries"),
        info("maxGetStatusTime", Kind::UInt32, "30", "s", "Time limit of a status query"),
        info("callbackTimeout", Kind::UInt32, "60", "s", "Wait for a started server's callback"),
        info("jsUpdateInterval", Kind::UInt32, "10", "s",
             "Poll period of the job scheduler while waiting for a callback"),
        info("alivePublishInterval", Kind::UInt32, "1000", "ms", "Period of heartbeat messages"),
        info("maxAliveAge", Kind::UInt32, "30", "s",
             "Heartbeat age above which a peer counts as lost"),
        info("maxChangeAge", Kind::UInt32, "3600", "s",
             "Age of the last heartbeat change above which a peer counts as hanging"),
        info("rPingIntervalSec", Kind::UInt32, "10", "s", "Check period for a remote server"),
        info("localRPingIntervalSec", Kind::UInt32, "2", "s", "Check period for a local server"),
        info("fileCopyBlockSize", Kind::UInt32, "4194304", "bytes", "Block size of file transfers"),
        info("parallelFileTransfer", Kind::Bool, "false", "", "Parallel file transfer"),
        info("fileTransferProgressFirstUpdateDelay", Kind::UInt32, "5", "s",
             "Wait before the first progress line of a file transfer"),
        info("fileTransferProgressUpdateInterval", Kind::UInt32, "5", "s",
             "Period of further progress lines of a file transfer"),
        info("computationCores", Kind::Int32, "0", "cores",
             "Cores of this host given to workers; 0: all online cores"),
        info("keepTempFiles", Kind::Bool, "false", "",
             "Keep temporary files instead of deleting them"),
        info("socketTimeout", Kind::UInt32, "300", "s",
             "Longest silence inside a conversation before the connection is given up; 0: none"),
        info("remoteServiceKeyFile", Kind::Text, "", "path",
             "Key file shared with the starter services (empty: ~/.kestrane/remote-service.key)"),
        info("jobSchedulerCommandTimeout", Kind::UInt32, "120", "s",
             "Time limit of one job scheduler command (submit, status, kill); 0: none"),
        info("connectionIdleTimeout", Kind::UInt32, "30", "s",
             "Silence after which the server closes a connection; 0: the socket timeout only"),
        info("maxConnections", Kind::UInt32, "4096", "connections",
             "Open connections the server takes; further ones are closed at once"),
    };
    return settings;
}

RequestServerConfiguration* RequestServerConfiguration::getRegisteredInstance() {
    static RequestServerConfiguration* instance = [] {
        auto created = new RequestServerConfiguration();
        if (const char* file = std::getenv("KS_CONFIG_FILE"); file && *file)
            created->loadFile(file);
        created->applyEnvironment();
        return created;
    }();
    return instance;
}

RequestServerConfiguration::RequestServerConfiguration()
    : m_numbers(SettingCount), m_texts(SettingCount) {
    resetToDefaults();
}

void RequestServerConfiguration::resetToDefaults() {
    const auto& settings = describeSettings();
    for (size_t i = 0; i < settings.size(); ++i)
        if (settings[i].kind != Kind::Text)
            m_numbers[i].store(parseValue(settings[i], i, settings[i].defaultValue));
    std::lock_guard<std::mutex> lock(m_textMutex);
    for (size_t i = 0; i < settings.size(); ++i)
        if (settings[i].kind == Kind::Text)
            m_texts[i] = settings[i].defaultValue;
}

void RequestServerConfiguration::applyEnvironment() {
    for (const auto& setting : describeSettings())
        if (const char* value = std::getenv(setting.environment.c_str()))
            setValue(setting.name, value);
}

size_t RequestServerConfiguration::indexOf(const std::string& name) const {
    const auto& settings = describeSettings();
    for (size_t i = 0; i < settings.size(); ++i)
        if (settings[i].name == name)
            return i;
    throw KsException("Unknown setting '" + name + "'");
}

void RequestServerConfiguration::setValue(const std::string& name, const std::string& value) {
    size_t index = indexOf(name);
    const auto& setting = describeSettings()[index];
    if (setting.kind == Kind::Text) {
        std::lock_guard<std::mutex> lock(m_textMutex);
        m_texts[index] = value;
        return;
    }
    m_numbers[index].store(parseValue(setting, index, value));
}

std::string RequestServerConfiguration::getValueText(const std::string& name) const {
    size_t index = indexOf(name);
    const auto& setting = describeSettings()[index];
    if (setting.kind == Kind::Text)
        return index == LocalHost ? getLocalHost() : text(index);
    if (setting.kind == Kind::Bool)
        return number(index) ? "true" : "false";
    return std::to_string(number(index));
}

void RequestServerConfiguration::loadFile(const std::string& path) {
    using namespace xercesc;
    XercesPlatform::ensureInitialized();
    XercesDOMParser parser;
    parser.setValidationScheme(XercesDOMParser::Val_Never);
    parser.setDoNamespaces(false);
    HandlerBase errors; // throws on fatal errors
    parser.setErrorHandler(&errors);
    try {
        parser.parse(path.c_str());
    } catch (const SAXParseException& e) {
        throw KsException("Settings file '" + path + "' is not valid XML (line " +
                          std::to_string(e.getLineNumber()) + ", column " +
                          std::to_string(e.getColumnNumber()) + "): " + toUtf8(e.getMessage()));
    } catch (const XMLException& e) {
        throw KsException("Settings file '" + path + "' cannot be read: " + toUtf8(e.getMessage()));
    }
    DOMDocument* document = parser.getDocument();
    DOMElement* root = document ? document->getDocumentElement() : nullptr;
    if (!root || toUtf8(root->getTagName()) != "requestServerConfiguration")
        throw KsException("Settings file '" + path +
                          "' has no root element 'requestServerConfiguration'");
    // Every value is checked before any is applied: a rejected file changes nothing.
    std::vector<std::pair<std::string, std::string>> values;
    for (DOMElement* child = root->getFirstElementChild(); child;
         child = child->getNextElementSibling()) {
        std::string name = toUtf8(child->getTagName());
        std::string value = toUtf8(child->getTextContent());
        value.erase(0, value.find_first_not_of(" \t\r\n"));
        value.erase(value.find_last_not_of(" \t\r\n") + 1);
        try {
            size_t index = indexOf(name);
            const auto& setting = describeSettings()[index];
            if (setting.kind != Kind::Text)
                parseValue(setting, index, value);
        } catch (const KsException& e) {
            throw KsException("Settings file '" + path + "': " + e.getMessage());
        }
        values.emplace_back(name, value);
    }
    for (const auto& [name, value] : values)
        setValue(name, value);
}

uint16_t RequestServerConfiguration::getListenPort() const {
    return number(ListenPort);
}
uint16_t RequestServerConfiguration::getPortRange() const {
    return number(PortRange);
}
std::string RequestServerConfiguration::text(size_t index) const {
    std::lock_guard<std::mutex> lock(m_textMutex);
    return m_texts[index];
}
std::string RequestServerConfiguration::getLocalHost() const {
    std::string host = text(LocalHost);
    return host.empty() ? Computing::Utility::getHostName() : host;
}
bool RequestServerConfiguration::getAutoShutdown() const {
    return number(AutoShutdown) != 0;
}
unsigned int RequestServerConfiguration::getShutdownTimeout() const {
    return number(ShutdownTimeout);
}
unsigned int RequestServerConfiguration::getMaxRequestHandlerPoolSize() const {
    return number(MaxRequestHandlerPoolSize);
}
unsigned int RequestServerConfiguration::getSendReplyMaxRetry() const {
    return number(SendReplyMaxRetry);
}
unsigned int RequestServerConfiguration::getSendReplyRetryDelay() const {
    return number(SendReplyRetryDelay);
}
unsigned int RequestServerConfiguration::getMaxGetStatusTime() const {
    return number(MaxGetStatusTime);
}
unsigned int RequestServerConfiguration::getCallbackTimeout() const {
    return number(CallbackTimeout);
}
std::string RequestServerConfiguration::getRemoteServiceKeyFile() const {
    return text(RemoteServiceKeyFile);
}
unsigned int RequestServerConfiguration::getJobSchedulerCommandTimeout() const {
    return number(JobSchedulerCommandTimeout);
}
unsigned int RequestServerConfiguration::getJSUpdateInterval() const {
    return number(JSUpdateInterval);
}
unsigned int RequestServerConfiguration::getAlivePublishInterval() const {
    return number(AlivePublishInterval);
}
unsigned int RequestServerConfiguration::getMaxAliveAge() const {
    return number(MaxAliveAge);
}
unsigned int RequestServerConfiguration::getMaxChangeAge() const {
    return number(MaxChangeAge);
}
unsigned int RequestServerConfiguration::getRPingIntervalSec() const {
    return number(RPingIntervalSec);
}
unsigned int RequestServerConfiguration::getLocalRPingIntervalSec() const {
    return number(LocalRPingIntervalSec);
}
unsigned int RequestServerConfiguration::getFileCopyBlockSize() const {
    return number(FileCopyBlockSize);
}
bool RequestServerConfiguration::getParallelFileTransfer() const {
    return number(ParallelFileTransfer) != 0;
}
unsigned int RequestServerConfiguration::getFileTransferProgressFirstUpdateDelay() const {
    return number(FileTransferProgressFirstUpdateDelay);
}
unsigned int RequestServerConfiguration::getFileTransferProgressUpdateInterval() const {
    return number(FileTransferProgressUpdateInterval);
}
int RequestServerConfiguration::getComputationCores() const {
    return static_cast<int>(number(ComputationCores));
}
bool RequestServerConfiguration::keepTempFiles() const {
    return number(KeepTempFiles) != 0;
}
unsigned int RequestServerConfiguration::getSocketTimeout() const {
    return number(SocketTimeout);
}
unsigned int RequestServerConfiguration::getConnectionIdleTimeout() const {
    return number(ConnectionIdleTimeout);
}
unsigned int RequestServerConfiguration::getMaxConnections() const {
    return number(MaxConnections);
}

} // namespace Kestrane
