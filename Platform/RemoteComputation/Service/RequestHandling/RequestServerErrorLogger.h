#pragma once

#include <string>

namespace Kestrane {

// Set by a host to hear of failures that otherwise reach only the log.
class RequestServerErrorLogger {
public:
    virtual ~RequestServerErrorLogger();
    virtual void logError(const std::string& message) = 0;
};

} // namespace Kestrane
