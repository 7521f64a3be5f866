#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <cstdlib>
#include <cxxabi.h>
#include <typeinfo>

namespace Kestrane {

std::string demangle(const char* mangledName) {
    int status = 0;
    char* text = abi::__cxa_demangle(mangledName, nullptr, nullptr, &status);
    std::string result = (status == 0 && text) ? text : mangledName;
    std::free(text);
    return result;
}

KsException::KsException(const std::string& message) : m_message(message) {}

std::string KsException::getTypeName() const {
    if (!m_recordedTypeName.empty())
        return m_recordedTypeName;
    return demangle(typeid(*this).name());
}

std::string KsException::log() const {
    std::stringstream out;
    log(out);
    return out.str();
}

void KsException::log(std::stringstream& out) const {
    out << getName() << ": " << m_message;
}

std::shared_ptr<KsException> KsException::clone() const {
    return std::make_shared<KsException>(*this);
}

KsExceptionNested::KsExceptionNested(const char* message, const char* source, const char* function,
                                     const char* file, int line)
    : KsException(message ? message : ""), m_source(source ? source : ""),
      m_function(function ? function : ""), m_file(file ? file : ""), m_line(line) {}

KsExceptionNested::KsExceptionNested(const std::exception& inner, const char* message,
                                     const char* source, const char* function, const char* file,
                                     int line)
    : KsExceptionNested(message, source, function, file, line) {
    m_inner = copyOf(inner);
}

KsExceptionNested::KsExceptionNested(const std::exception& inner)
    : KsException(inner.what()), m_inner(copyOf(inner)) {}

std::shared_ptr<KsException> KsExceptionNested::copyOf(const std::exception& e) {
    if (auto ks = dynamic_cast<const KsException*>(&e))
        return ks->clone();
    auto copy = std::make_shared<KsException>(e.what());
    copy->m_recordedTypeName = demangle(typeid(e).name());
    return copy;
}

std::string KsExceptionNested::log() const {
    std::stringstream out;
    log(out);
    return out.str();
}

void KsExceptionNested::log(std::stringstream& out) const {
    out << getName() << ": " << m_message;
    if (!m_source.empty() || !m_function.empty())
        out << " [" << m_source << " in " << m_function << " at " << m_file << ":" << m_line << "]";
    if (m_inner) {
        out << "\n  caused by: ";
        m_inner->log(out);
    }
}

std::shared_ptr<KsException> KsExceptionNested::clone() const {
    return std::make_shared<KsExceptionNested>(*this);
}

} // namespace Kestrane
