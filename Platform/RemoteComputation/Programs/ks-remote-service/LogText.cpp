#include "LogText.h"

namespace Kestrane {

std::string escapeControlCharacters(const std::string& text) {
    static const char* digits = "0123456789abcdef";
    std::string result;
    for (char c : text) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (c == '\n') {
            result += "\\n";
        } else if (c == '\t') {
            result += "\\t";
        } else if (c == '\r') {
            result += "\\r";
        } else if (byte < 0x20 || byte == 0x7f) {
            result += "\\x";
            result += digits[byte >> 4];
            result += digits[byte & 0xf];
        } else {
            result += c;
        }
    }
    return result;
}

} // namespace Kestrane
