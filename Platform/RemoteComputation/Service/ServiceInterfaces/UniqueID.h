#pragma once

#include <string>

namespace Kestrane {

// Identifiers: three groups of 16 upper-case hexadecimal digits joined by '-' (50 characters),
// 192 bits from a generator seeded by the operating system's cryptographic source, so that ids
// of different processes and hosts do not collide. Safe from many threads.
class UniqueID {
public:
    static constexpr size_t c_length = 50;
    static const std::string c_nullId; // "0000000000000000-0000000000000000-0000000000000000"

    UniqueID() = default;
    std::string getUniqueID() const { return generateId(); }
    static std::string generateId();
    // Whether the text has exactly the form of an id.
    static bool isValid(const std::string& text);
};

// Tiger hash (the reference byte order, Tiger("abc") = 2aab1484...) as lower-case hex.
class TigerHash {
public:
    static std::string tHash(const std::string& text);
};

} // namespace Kestrane
