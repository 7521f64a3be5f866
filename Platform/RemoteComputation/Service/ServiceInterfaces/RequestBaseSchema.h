#pragma once

#include <string>
#include <vector>

namespace Kestrane {

// The base of the request schema: the four document roots and the types that every message and
// every fragment builds on. Fragments are joined inside its xs:schema element, where the prefix
// "ksrq" names the request namespace and "xs" XML Schema.
class RequestBaseSchema {
public:
    // The base declarations alone, without the enclosing xs:schema element.
    static const std::string& getDeclarations();
    // The whole schema document: base declarations followed by the fragments, in order.
    static std::string getSchemaText(const std::vector<std::string>& fragments);
};

} // namespace Kestrane
