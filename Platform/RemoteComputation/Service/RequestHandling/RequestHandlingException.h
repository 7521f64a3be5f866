#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <exception>

namespace Kestrane {

// The library's exception for failures of request handling.
class RequestHandlingException : public KsExceptionNested {
public:
    RequestHandlingException() = default;
    RequestHandlingException(const RequestHandlingException&) = default;
    RequestHandlingException& operator=(const RequestHandlingException&) = default;
    explicit RequestHandlingException(const KsExceptionNested& other);
    explicit RequestHandlingException(const std::exception& inner);
    RequestHandlingException(const char* message, const char* source, const char* function,
                             const char* file, int line);
    RequestHandlingException(const KsExceptionNested& inner, const char* message,
                             const char* source, const char* function, const char* file, int line);
    RequestHandlingException(const std::exception& inner, const char* message, const char* source,
                             const char* function, const char* file, int line);
    ~RequestHandlingException() override = default;

    std::string getName() const override { return "RequestHandlingException"; }
    std::shared_ptr<KsException> clone() const override;
};

} // namespace Kestrane
