#include "Platform/RemoteComputation/Service/RequestHandling/XLinkTypeNames.h"

namespace Kestrane {

namespace {

const char* const c_names[XLinkTypeNames::c_kindCount] = {
    "char", "unsigned char", "int", "unsigned int", "float", "double"};

bool inTable(int kind) {
    return kind >= 0 && kind < XLinkTypeNames::c_kindCount;
}

} // namespace

std::string XLinkTypeNames::dataType(int kind) {
    if (!inTable(kind))
        return std::string();
    return std::to_string(c_sizes[kind]) + "-byte " + c_names[kind];
}

std::string XLinkTypeNames::dataPtrType(int kind) {
    if (!inTable(kind))
        return std::string();
    return std::to_string(sizeof(void*)) + "-byte " + c_names[kind] + " *";
}

std::string XLinkTypeNames::shortName(int kind) {
    return inTable(kind) ? std::string(c_names[kind]) : std::string();
}

std::size_t XLinkTypeNames::width(int kind) {
    return inTable(kind) ? c_sizes[kind] : 1;
}

int XLinkTypeNames::kindOfLongText(const std::string& text) {
    for (int kind = 0; kind < c_kindCount; ++kind)
        if (text == dataType(kind) || text == dataPtrType(kind))
            return kind;
    return c_otherKind;
}

int XLinkTypeNames::kindOfShortName(const std::string& text) {
    for (int kind = 0; kind < c_kindCount; ++kind)
        if (text == c_names[kind])
            return kind;
    return c_otherKind;
}

} // namespace Kestrane
