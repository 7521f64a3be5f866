#pragma once

#include <string>

namespace Kestrane {

// A piece of request schema: declarations that go inside the xs:schema element of the base
// schema, opened by a comment with the piece's name. A derived class appends its fragment to
// m_schemaText in its constructor and is registered with RequestXmlHelper::addSchema.
class AbstractRequestSchema {
public:
    virtual ~AbstractRequestSchema();
    AbstractRequestSchema(const AbstractRequestSchema&) = default;
    AbstractRequestSchema(AbstractRequestSchema&&) = default;
    AbstractRequestSchema& operator=(const AbstractRequestSchema&) = default;
    AbstractRequestSchema& operator=(AbstractRequestSchema&&) = default;

    const std::string& getSchemaText() const { return m_schemaText; }

protected:
    AbstractRequestSchema() = default;

    std::string m_schemaText;
};

} // namespace Kestrane
