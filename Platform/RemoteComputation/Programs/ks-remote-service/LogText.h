#pragma once

#include <string>

namespace Kestrane {

// A client's bytes made fit for one log line: line breaks, tabs and other control characters
// written as \n, \t, \r or \xHH, so that no client can start a log line of its own.
std::string escapeControlCharacters(const std::string& text);

} // namespace Kestrane
