#pragma once

#include "Platform/RemoteComputation/Service/ServiceInterfaces/AbstractRequestSchema.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/sax/InputSource.hpp>
#include <xercesc/sax2/Attributes.hpp>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace Kestrane {

// Parses and validates every message of the system. The schema is the base schema joined with
// the fragments that handlers add while a process sets up; it only grows.
//
// Xerces completes parts of a grammar while it validates with it, so a grammar serves one parse at
// a time. As many parsers as the machine has cores (at least 2), each with its own compiled copy
// of the current schema, are lent to the parses of all threads; a parser whose schema version is
// behind recompiles when it is next lent. Parses run in parallel up to that number.
class RequestXmlHelper {
public:
    static constexpr const char* c_namespaceUri =
        "http://schemas.kestrane.net/remote-computation/KSRequests.xsd";
    static constexpr const char* c_xsiNamespaceUri = "http://www.w3.org/2001/XMLSchema-instance";

    static RequestXmlHelper* getInstance();

    // The namespace declarations that every document puts on its root element:
    // xmlns:xsi="..." xmlns="...".
    static std::string getNamespaceDeclarations();

    // Joins the fragment into the schema and recompiles it. A fragment whose text was added
    // before, or an empty one, changes nothing. A fragment that makes the schema invalid throws
    // KsExceptionNested and is not kept.
    void addSchema(const AbstractRequestSchema& schema);

    // Parses and validates a whole document; the caller owns the result and frees it with
    // release(). Ignorable whitespace and comments are dropped, so that an element with
    // element-only content has element children only. A document that is not well formed or not
    // valid throws KsExceptionNested naming line, column and the parser's message.
    // Safe from many threads at once.
    xercesc::DOMDocument* parse(const std::string& text);

    // Validates a whole document as parse() does, without building it: `onElement` sees each
    // element's attributes (defaults filled in) in document order, as the parse reaches it. A
    // fault throws as parse() does, after the elements before it were seen; a reader that acts
    // on what it sees collects first and acts once scan() returns.
    void scan(const std::string& text,
              const std::function<void(const xercesc::Attributes&)>& onElement);

    // The whole schema as it stands, for diagnostics.
    std::string getSchemaText() const;
    // Starts at 1 for the base schema and counts the fragments added.
    uint64_t getSchemaVersion() const;

    RequestXmlHelper(const RequestXmlHelper&) = delete;
    RequestXmlHelper& operator=(const RequestXmlHelper&) = delete;

private:
    struct CompiledSchema;
    struct Parser;

    RequestXmlHelper();
    ~RequestXmlHelper() = default;

    static std::shared_ptr<CompiledSchema> compile(const std::string& text, uint64_t version);
    std::shared_ptr<CompiledSchema> getCompiledSchema() const;
    // Waits for an idle parser (or makes one, up to m_maxParsers) on the current schema version.
    std::unique_ptr<Parser> borrowParser();
    // Null: the parser was lost (its rebuild failed), one more may be made.
    void giveBack(std::unique_ptr<Parser> parser);
    // Runs `parse` on a borrowed parser over `text`; Xerces' exceptions become
    // KsExceptionNested.
    void withParser(const std::string& text,
                    const std::function<void(Parser&, const xercesc::InputSource&)>& parse);

    mutable std::mutex m_addMutex; // serialises addSchema, guards m_fragments
    std::vector<std::string> m_fragments;
    mutable std::mutex m_compiledMutex; // guards the pointer m_compiled only
    std::shared_ptr<CompiledSchema> m_compiled;

    std::mutex m_parsersMutex; // guards the three below
    std::condition_variable m_parserReturned;
    std::vector<std::unique_ptr<Parser>> m_idleParsers;
    size_t m_parsers = 0; // made and not lost
    const size_t m_maxParsers;
};

} // namespace Kestrane
