#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace Kestrane {

// The server's settings. Each has a default; a settings file named by KS_CONFIG_FILE overrides
// the defaults, an environment variable KS_<SETTING> (e.g. KS_LISTEN_PORT) overrides the file,
// and setValue() overrides both for the running process. A bad value is rejected with a message
// naming the setting. Getters are safe from many threads.
class RequestServerConfiguration {
public:
    enum class Kind { Bool, UInt16, UInt32, Int32, Text };
    struct SettingInfo {
        std::string name;        // as in files and setValue, e.g. "listenPort"
        std::string environment; // e.g. "KS_LISTEN_PORT"
        Kind kind;
        std::string defaultValue;
        std::string unit;
        std::string description;
    };

    // The one instance, made at the first call (throws KsException on a bad setting).
    static RequestServerConfiguration* getRegisteredInstance();
    static const std::vector<SettingInfo>& describeSettings();

    uint16_t getListenPort() const;
    uint16_t getPortRange() const;
    std::string getLocalHost() const;
    bool getAutoShutdown() const;
    unsigned int getShutdownTimeout() const;
    unsigned int getMaxRequestHandlerPoolSize() const;
    unsigned int getSendReplyMaxRetry() const;
    unsigned int getSendReplyRetryDelay() const;
    unsigned int getMaxGetStatusTime() const;
    unsigned int getCallbackTimeout() const;
    unsigned int getJSUpdateInterval() const;
    unsigned int getAlivePublishInterval() const;
    unsigned int getMaxAliveAge() const;
    unsigned int getMaxChangeAge() const;
    unsigned int getRPingIntervalSec() const;
    unsigned int getLocalRPingIntervalSec() const;
    unsigned int getFileCopyBlockSize() const;
    bool getParallelFileTransfer() const;
    unsigned int getFileTransferProgressFirstUpdateDelay() const;
    unsigned int getFileTransferProgressUpdateInterval() const;
    int getComputationCores() const;
    bool keepTempFiles() const;
    unsigned int getSocketTimeout() const;
    unsigned int getConnectionIdleTimeout() const;
    unsigned int getMaxConnections() const;
    // Key file shared with the starter services; empty: RemoteServiceKey::defaultPath().
    std::string getRemoteServiceKeyFile() const;
    // Seconds one job scheduler command may take before it is stopped; 0: no limit.
    unsigned int getJobSchedulerCommandTimeout() const;

    // Sets a setting by name from text; throws KsException naming the setting when the name is
    // unknown or the value is not valid.
    void setValue(const std::string& name, const std::string& value);
    std::string getValueText(const std::string& name) const;
    // Reads a settings file: <requestServerConfiguration><listenPort>4000</listenPort>...
    void loadFile(const std::string& path);
    // Back to the built-in defaults (tests).
    void resetToDefaults();

private:
    RequestServerConfiguration();
    size_t indexOf(const std::string& name) const;
    int64_t number(size_t index) const { return m_numbers[index].load(std::memory_order_relaxed); }
    std::string text(size_t index) const;
    void applyEnvironment();

    std::vector<std::atomic<int64_t>> m_numbers;
    mutable std::mutex m_textMutex;
    std::vector<std::string> m_texts; // by setting index; used by the text settings only
};

} // namespace Kestrane
