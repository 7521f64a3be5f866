#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"

namespace Kestrane {

RequestHandlingException::RequestHandlingException(const KsExceptionNested& other)
    : KsExceptionNested(other) {}

RequestHandlingException::RequestHandlingException(const std::exception& inner)
    : KsExceptionNested(inner) {}

RequestHandlingException::RequestHandlingException(const char* message, const char* source,
                                                   const char* function, const char* file, int line)
    : KsExceptionNested(message, source, function, file, line) {}

RequestHandlingException::RequestHandlingException(const KsExceptionNested& inner,
                                                   const char* message, const char* source,
                                                   const char* function, const char* file, int line)
    : KsExceptionNested(static_cast<const std::exception&>(inner), message, source, function, file,
                        line) {}

RequestHandlingException::RequestHandlingException(const std::exception& inner, const char* message,
                                                   const char* source, const char* function,
                                                   const char* file, int line)
    : KsExceptionNested(inner, message, source, function, file, line) {}

std::shared_ptr<KsException> RequestHandlingException::clone() const {
    return std::make_shared<RequestHandlingException>(*this);
}

} // namespace Kestrane
