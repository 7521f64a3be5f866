#pragma once

#include <stdexcept>
#include <string>

namespace Kestrane {
namespace Computing {

// Failure of a socket or process call: names the call and the system's reason.
class Error : public std::runtime_error {
public:
    Error(const std::string& call, int errorNumber);
    Error(const std::string& call, const std::string& reason);
    const std::string& getCall() const { return m_call; }
    int getErrorNumber() const { return m_errorNumber; }

private:
    std::string m_call;
    int m_errorNumber = 0;
};

// Base of the process, job and file classes: the text of the last failure.
class ErrorMessage {
public:
    virtual ~ErrorMessage() = default;
    const std::string& getErrorMessage() const { return m_errorMessage; }

protected:
    void setErrorMessage(const std::string& message) { m_errorMessage = message; }
    std::string m_errorMessage;
};

} // namespace Computing
} // namespace Kestrane
