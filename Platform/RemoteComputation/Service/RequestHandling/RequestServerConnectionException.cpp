#include "Platform/RemoteComputation/Service/RequestHandling/RequestServerConnectionException.h"

namespace Kestrane {

RequestServerConnectionException::RequestServerConnectionException(const KsExceptionNested& other)
    : RequestHandlingException(other) {}

RequestServerConnectionException::RequestServerConnectionException(const std::exception& inner)
    : RequestHandlingException(inner) {}

RequestServerConnectionException::RequestServerConnectionException(const char* message,
                                                                   const char* source,
                                                                   const char* function,
                                                                   const char* file, int line)
    : RequestHandlingException(message, source, function, file, line) {}

RequestServerConnectionException::RequestServerConnectionException(const KsExceptionNested& inner,
                                                                   const char* message,
                                                                   const char* source,
                                                                   const char* function,
                                                                   const char* file, int line)
    : RequestHandlingException(static_cast<const std::exception&>(inner), message, source, function,
                               file, line) {}

RequestServerConnectionException::RequestServerConnectionException(const std::exception& inner,
                                                                   const char* message,
                                                                   const char* source,
                                                                   const char* function,
                                                                   const char* file, int line)
    : RequestHandlingException(inner, message, source, function, file, line) {}

std::shared_ptr<KsException> RequestServerConnectionException::clone() const {
    return std::make_shared<RequestServerConnectionException>(*this);
}

} // namespace Kestrane
