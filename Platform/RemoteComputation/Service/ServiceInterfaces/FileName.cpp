#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileName.h"

#include <algorithm>

namespace Kestrane {

namespace {
std::string normalise(std::string path) {
    std::replace(path.begin(), path.end(), '\\', '/');
    return path;
}
} // namespace

FileName::FileName(const std::string& path) : m_path(normalise(path)) {}

FileName::FileName(const char* path) : m_path(path ? normalise(path) : std::string()) {}

FileName& FileName::operator/=(const std::string& component) {
    std::string part = normalise(component);
    if (m_path.empty()) {
        m_path = part;
    } else if (!part.empty()) {
        if (m_path.back() != '/')
            m_path += '/';
        m_path += (part.front() == '/') ? part.substr(1) : part;
    }
    return *this;
}

FileName FileName::operator/(const std::string& component) const {
    FileName result(*this);
    result /= component;
    return result;
}

std::string FileName::getLeafName() const {
    std::string path = m_path;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    size_t pos = path.rfind('/');
    return pos == std::string::npos ? path : path.substr(pos + 1);
}

FileName FileName::getParentPath() const {
    std::string path = m_path;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    size_t pos = path.rfind('/');
    if (pos == std::string::npos)
        return FileName();
    if (pos == 0)
        return FileName("/");
    return FileName(path.substr(0, pos));
}

} // namespace Kestrane
