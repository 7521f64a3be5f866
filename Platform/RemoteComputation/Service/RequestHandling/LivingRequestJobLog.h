#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractJobLog.h"

#include <string>

namespace Kestrane {

// A job log that turns job messages into heartbeat texts of this process.
class LivingRequestJobLog : public AbstractJobLog {
public:
    explicit LivingRequestJobLog(const std::string& prefix) : prefix(prefix) {}
    ~LivingRequestJobLog() override;

    std::string getName() override { return "LivingRequest"; }
    int logMessage(const std::string& text, int64_t value, bool flag) override;
    std::shared_ptr<void> getJobContext() override { return nullptr; }
    int flush() override { return 0; }

private:
    std::string prefix;
};

} // namespace Kestrane
