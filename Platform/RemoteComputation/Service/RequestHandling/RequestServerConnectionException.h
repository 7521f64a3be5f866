#pragma once

#include "Platform/RemoteComputation/Service/RequestHandling/RequestHandlingException.h"

#include <exception>

namespace Kestrane {

// Thrown by a client when a server cannot be reached.
class RequestServerConnectionException : public RequestHandlingException {
public:
    RequestServerConnectionException() = default;
    RequestServerConnectionException(const RequestServerConnectionException&) = default;
    RequestServerConnectionException& operator=(const RequestServerConnectionException&) = default;
    explicit RequestServerConnectionException(const KsExceptionNested& other);
    explicit RequestServerConnectionException(const std::exception& inner);
    RequestServerConnectionException(const char* message, const char* source, const char* function,
                                     const char* file, int line);
    RequestServerConnectionException(const KsExceptionNested& inner, const char* message,
                                     const char* source, const char* function, const char* file,
                                     int line);
    RequestServerConnectionException(const std::exception& inner, const char* message,
                                     const char* source, const char* function, const char* file,
                                     int line);
    ~RequestServerConnectionException() override = default;

    std::string getName() const override { return "RequestServerConnectionException"; }
    std::shared_ptr<KsException> clone() const override;
};

} // namespace Kestrane
