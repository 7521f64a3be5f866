#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

namespace Kestrane {

// The element types that data links know, in the order of their kind numbers.
template <typename T> struct XLinkTypeKind; // no entry: not a link element type
template <> struct XLinkTypeKind<char> : std::integral_constant<int, 0> {};
template <> struct XLinkTypeKind<unsigned char> : std::integral_constant<int, 1> {};
template <> struct XLinkTypeKind<int> : std::integral_constant<int, 2> {};
template <> struct XLinkTypeKind<unsigned int> : std::integral_constant<int, 3> {};
template <> struct XLinkTypeKind<float> : std::integral_constant<int, 4> {};
template <> struct XLinkTypeKind<double> : std::integral_constant<int, 5> {};

// The type texts of data links ("4-byte int", "8-byte int *"), all made from one table. Both
// ends of a connection compare these texts, so they must not depend on the compiler.
class XLinkTypeNames {
public:
    static constexpr int c_kindCount = 6;
    // Kind of texts that match no table entry.
    static constexpr int c_otherKind = 6;

    XLinkTypeNames() = delete;

    // "SIZE-byte NAME"; empty for a kind outside the table.
    static std::string dataType(int kind);
    // "POINTERSIZE-byte NAME *"; empty for a kind outside the table.
    static std::string dataPtrType(int kind);
    // NAME alone ("unsigned int"); empty for a kind outside the table.
    static std::string shortName(int kind);
    // Bytes of one element; 1 for a kind outside the table.
    static std::size_t width(int kind);

    // Kind of a long text, element or pointer form; c_otherKind when it is neither.
    static int kindOfLongText(const std::string& text);
    // Kind of a short name; c_otherKind for an empty or unknown one.
    static int kindOfShortName(const std::string& text);

    template <typename T> static std::string dataTypeOf() { return dataType(checkedKind<T>()); }
    template <typename T> static std::string dataPtrTypeOf() {
        return dataPtrType(checkedKind<T>());
    }

private:
    template <typename T> static constexpr int checkedKind() {
        using Plain = std::remove_cv_t<T>;
        constexpr int kind = XLinkTypeKind<Plain>::value;
        static_assert(c_sizes[kind] == sizeof(Plain), "type table size differs from the type");
        return kind;
    }
    static constexpr std::size_t c_sizes[c_kindCount] = {sizeof(char),  sizeof(unsigned char),
                                                         sizeof(int),   sizeof(unsigned int),
                                                         sizeof(float), sizeof(double)};
};

} // namespace Kestrane
