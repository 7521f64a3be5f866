#pragma once

#include <string>

namespace Kestrane {

// A path as a value. Components are joined with '/', which is also the system's own form here.
class FileName {
public:
    FileName() = default;
    FileName(const std::string& path);
    FileName(const char* path);
    FileName(const FileName&) = default;
    FileName& operator=(const FileName&) = default;
    virtual ~FileName() = default;

    FileName& operator/=(const std::string& component);
    FileName operator/(const std::string& component) const;
    bool operator==(const FileName& other) const { return m_path == other.m_path; }
    bool operator!=(const FileName& other) const { return m_path != other.m_path; }

    bool empty() const { return m_path.empty(); }
    void clear() { m_path.clear(); }
    // The path with forward slashes.
    std::string toString() const { return m_path; }
    // The path in the system's own form.
    std::string toNativeString() const { return m_path; }
    // Last component ("" for an empty path).
    std::string getLeafName() const;
    FileName getParentPath() const;

private:
    std::string m_path;
};

} // namespace Kestrane
