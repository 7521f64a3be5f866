#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"

#include <exception>

namespace Kestrane {

// For hosts and starters that report a failed server start; says whether the failure is
// critical.
class RequestServerStartupException : public RequestHandlingException {
public:
    RequestServerStartupException() = default;
    RequestServerStartupException(const RequestServerStartupException&) = default;
    RequestServerStartupException& operator=(const RequestServerStartupException&) = default;
    RequestServerStartupException(const RequestServerStartupException& other, bool critical);
    RequestServerStartupException(const KsExceptionNested& other, bool critical);
    RequestServerStartupException(const std::exception& inner, bool critical);
    RequestServerStartupException(const char* message, bool critical, const char* source,
                                  const char* function, const char* file, int line);
    RequestServerStartupException(const KsExceptionNested& inner, const char* message,
                                  bool critical, const char* source, const char* function,
                                  const char* file, int line);
    RequestServerStartupException(const std::exception& inner, const char* message, bool critical,
                                  const char* source, const char* function, const char* file,
                                  int line);
    ~RequestServerStartupException() override = default;

    bool isCriticalError() const { return m_criticalError; }
    std::string getName() const override { return "RequestServerStartupException"; }
    std::shared_ptr<KsException> clone() const override;

private:
    bool m_criticalError = false;
};

} // namespace Kestrane
