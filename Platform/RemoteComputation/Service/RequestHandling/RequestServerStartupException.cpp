#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerStartupException.h"

namespace Kestrane {

RequestServerStartupException::RequestServerStartupException(
    const RequestServerStartupException& other, bool critical)
    : RequestHandlingException(other), m_criticalError(critical) {}

RequestServerStartupException::RequestServerStartupException(const KsExceptionNested& other,
                                                             bool critical)
    : RequestHandlingException(other), m_criticalError(critical) {}

RequestServerStartupException::RequestServerStartupException(const std::exception& inner,
                                                             bool critical)
    : RequestHandlingException(inner), m_criticalError(critical) {}

RequestServerStartupException::RequestServerStartupException(const char* message, bool critical,
                                                             const char* source,
                                                             const char* function, const char* file,
                                                             int line)
    : RequestHandlingException(message, source, function, file, line), m_criticalError(critical) {}

RequestServerStartupException::RequestServerStartupException(const KsExceptionNested& inner,
                                                             const char* message, bool critical,
                                                             const char* source,
                                                             const char* function, const char* file,
                                                             int line)
    : RequestHandlingException(inner, message, source, function, file, line),
      m_criticalError(critical) {}

RequestServerStartupException::RequestServerStartupException(const std::exception& inner,
                                                             const char* message, bool critical,
                                                             const char* source,
                                                             const char* function, const char* file,
                                                             int line)
    : RequestHandlingException(inner, message, source, function, file, line),
      m_criticalError(critical) {}

std::shared_ptr<KsException> RequestServerStartupException::clone() const {
    return std::make_shared<RequestServerStartupException>(*this);
}

} // namespace Kestrane
