#pragma once

#include <exception>
#include <memory>
#include <sstream>
#include <string>

namespace Kestrane {

// Base exception of the system. what() gives the message.
class KsException : public std::exception {
public:
    KsException() = default;
    explicit KsException(const std::string& message);
    KsException(const KsException&) = default;
    KsException& operator=(const KsException&) = default;
    ~KsException() override = default;

    const char* what() const noexcept override { return m_message.c_str(); }
    const std::string& getMessage() const { return m_message; }

    // Class name of the exception, without namespace ("KsException", "KsExceptionNested", ...).
    virtual std::string getName() const { return "KsException"; }
    // Run-time class name as the platform's type information gives it (demangled), or the
    // recorded name of the exception this one was copied from.
    virtual std::string getTypeName() const;
    // The whole chain as text.
    virtual std::string log() const;
    virtual void log(std::stringstream& out) const;
    // Polymorphic copy, used to keep inner exceptions.
    virtual std::shared_ptr<KsException> clone() const;

protected:
    std::string m_message;
    std::string m_recordedTypeName; // set when this object stands for a foreign exception
    friend class KsExceptionNested;
};

// The exception that the library throws: message plus source word, function, file and line,
// and optionally the exception that caused it.
class KsExceptionNested : public KsException {
public:
    KsExceptionNested() = default;
    KsExceptionNested(const char* message, const char* source, const char* function,
                      const char* file, int line);
    KsExceptionNested(const std::exception& inner, const char* message, const char* source,
                      const char* function, const char* file, int line);
    explicit KsExceptionNested(const std::exception& inner);
    KsExceptionNested(const KsExceptionNested&) = default;
    KsExceptionNested& operator=(const KsExceptionNested&) = default;
    ~KsExceptionNested() override = default;

    std::string getName() const override { return "KsExceptionNested"; }
    const std::string& getSource() const { return m_source; }
    const std::string& getFile() const { return m_file; }
    const std::string& getFunction() const { return m_function; }
    int getLine() const { return m_line; }
    std::string getLineString() const { return std::to_string(m_line); }
    const KsException* getInnerException() const { return m_inner.get(); }

    std::string log() const override;
    void log(std::stringstream& out) const override;
    std::shared_ptr<KsException> clone() const override;

    // Keeps a copy of any exception as an inner one.
    static std::shared_ptr<KsException> copyOf(const std::exception& e);

protected:
    std::string m_source;
    std::string m_function;
    std::string m_file;
    int m_line = 0;
    std::shared_ptr<KsException> m_inner;
};

std::string demangle(const char* mangledName);

} // namespace Kestrane

// Throws a KsExceptionNested with the current function, file and line.
#define KS_THROW(message, source, function)                                                        \
    throw ::Kestrane::KsExceptionNested((message), (source), (function), __FILE__, __LINE__)
