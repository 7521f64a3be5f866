#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestXmlHelper.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Logging.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestBaseSchema.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <xercesc/dom/DOMException.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/XMLGrammarPoolImpl.hpp>
#include <xercesc/parsers/SAX2XMLReaderImpl.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>
#include <xercesc/sax/ErrorHandler.hpp>
#include <xercesc/sax/SAXParseException.hpp>
#include <xercesc/sax2/DefaultHandler.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>
#include <xercesc/util/SecurityManager.hpp>
#include <xercesc/util/XMLException.hpp>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>

namespace {
Kestrane::Logging s_logging(__FILE__);
}

namespace Kestrane {

namespace {

const char* const c_source = "RequestHandling";

// Without a handler Xerces reports nothing but an error count and hands out a partial
// document; throwing stops the parse at the first error.
class ThrowingErrorHandler : public xercesc::ErrorHandler {
public:
    void warning(const xercesc::SAXParseException& e) override {
        KS_DEBUG("XML warning at line " << e.getLineNumber() << ", column " << e.getColumnNumber()
                                        << ": " << toUtf8(e.getMessage()));
    }
    void error(const xercesc::SAXParseException& e) override { throw e; }
    void fatalError(const xercesc::SAXParseException& e) override { throw e; }
    void resetErrors() override {}
};

// Hands each element's attributes to the scan that is running.
class ElementForwarder : public xercesc::DefaultHandler {
public:
    const std::function<void(const xercesc::Attributes&)>* onElement = nullptr;

    void startElement(const XMLCh* const, const XMLCh* const, const XMLCh* const,
                      const xercesc::Attributes& attributes) override {
        (*onElement)(attributes);
    }
};

[[noreturn]] void failParse(const std::string& failure) {
    KS_DEBUG(failure);
    KS_THROW(failure.c_str(), c_source, "Kestrane::RequestXmlHelper::parse");
}

std::string describe(const xercesc::SAXParseException& e) {
    std::ostringstream text;
    text << "line " << e.getLineNumber() << ", column " << e.getColumnNumber() << ": "
         << toUtf8(e.getMessage());
    return text.str();
}

// Name of a fragment for log lines: the text of its opening comment.
std::string fragmentName(const std::string& fragment) {
    size_t start = fragment.find("<!--");
    size_t end = fragment.find("-->", start == std::string::npos ? 0 : start);
    if (start == std::string::npos || end == std::string::npos)
        return "(unnamed fragment)";
    std::string name = fragment.substr(start + 4, end - start - 4);
    size_t first = name.find_first_not_of(" \t\r\n");
    size_t last = name.find_last_not_of(" \t\r\n");
    return first == std::string::npos ? "(unnamed fragment)" : name.substr(first, last - first + 1);
}

} // namespace

// One schema version compiled into a locked grammar pool, with the text it came from so that
// more copies can be compiled.
struct RequestXmlHelper::CompiledSchema {
    uint64_t version = 0;
    std::string text;
    std::unique_ptr<xercesc::XMLGrammarPoolImpl> pool;
    // The first parser of a version takes this grammar itself; the others compile their own.
    std::atomic<bool> taken{false};
};

// A parser with a grammar of its own. Validation writes into the grammar (Xerces builds content
// models and pattern expressions at their first use), so a grammar may serve one parse at a
// time: a handful of these serve every thread, each lent to one parse. The parser must go before
// the pool it was made on, hence the explicit order in the destructor and wherever the parser is
// replaced.
struct RequestXmlHelper::Parser {
    std::shared_ptr<CompiledSchema> schema;
    ThrowingErrorHandler errorHandler;
    xercesc::SecurityManager securityManager;
    std::unique_ptr<xercesc::XercesDOMParser> parser;
    // Validates on the same grammar for readers that need no document.
    std::unique_ptr<xercesc::SAX2XMLReaderImpl> reader;
    ElementForwarder forwarder;

    ~Parser() { dropParsers(); }

    void dropParsers() {
        reader.reset();
        parser.reset();
    }

    void useSchema(const std::shared_ptr<CompiledSchema>& current) {
        dropParsers();
        schema = current->taken.exchange(true) ? compile(current->text, current->version) : current;
        // Made after the pool was locked: a parser built on an unlocked pool writes to it.
        parser = std::make_unique<xercesc::XercesDOMParser>(
            nullptr, xercesc::XMLPlatformUtils::fgMemoryManager, schema->pool.get());
        // The schema-only scanner: cheaper per element, and it skips a document type
        // declaration instead of reading it, so that no entity of a peer's ever expands.
        parser->useScanner(xercesc::XMLUni::fgSGXMLScanner);
        parser->setErrorHandler(&errorHandler);
        parser->setValidationScheme(xercesc::XercesDOMParser::Val_Always);
        parser->setDoNamespaces(true);
        parser->setDoSchema(true);
        parser->setLoadSchema(false);
        parser->useCachedGrammarInParse(true);
        // Only while validating does the parser know which whitespace is ignorable.
        parser->setIncludeIgnorableWhitespace(false);
        parser->setCreateCommentNodes(false);
        parser->setCreateEntityReferenceNodes(false);
        // Messages come from the network: nothing is fetched from outside, and entity
        // expansion is bounded.
        parser->setLoadExternalDTD(false);
        parser->setDisableDefaultEntityResolution(true);
        parser->setSecurityManager(&securityManager);

        reader = std::make_unique<xercesc::SAX2XMLReaderImpl>(
            xercesc::XMLPlatformUtils::fgMemoryManager, schema->pool.get());
        // The same scanner as the document parser's, so that both accept the same texts.
        reader->setProperty(xercesc::XMLUni::fgXercesScannerName,
                            const_cast<XMLCh*>(xercesc::XMLUni::fgSGXMLScanner));
        reader->setErrorHandler(&errorHandler);
        reader->setContentHandler(&forwarder);
        reader->setFeature(xercesc::XMLUni::fgSAX2CoreValidation, true);
        reader->setFeature(xercesc::XMLUni::fgXercesDynamic, false);
        reader->setFeature(xercesc::XMLUni::fgSAX2CoreNameSpaces, true);
        reader->setFeature(xercesc::XMLUni::fgXercesSchema, true);
        reader->setFeature(xercesc::XMLUni::fgXercesLoadSchema, false);
        reader->setFeature(xercesc::XMLUni::fgXercesUseCachedGrammarInParse, true);
        reader->setFeature(xercesc::XMLUni::fgXercesLoadExternalDTD, false);
        reader->setFeature(xercesc::XMLUni::fgXercesDisableDefaultEntityResolution, true);
        reader->setProperty(xercesc::XMLUni::fgXercesSecurityManager, &securityManager);
    }
};

RequestXmlHelper* RequestXmlHelper::getInstance() {
    // Never destroyed: threads that are still parsing at exit may need it.
    static RequestXmlHelper* instance = new RequestXmlHelper();
    return instance;
}

std::string RequestXmlHelper::getNamespaceDeclarations() {
    return std::string("xmlns:xsi=\"") + c_xsiNamespaceUri + "\" xmlns=\"" + c_namespaceUri + "\"";
}

RequestXmlHelper::RequestXmlHelper()
    : m_maxParsers(std::max(2u, std::thread::hardware_concurrency())) {
    XercesPlatform::ensureInitialized();
    m_compiled = compile(RequestBaseSchema::getSchemaText(m_fragments), 1);
    KS_DEBUG("Compiled base request schema.");
}

std::shared_ptr<RequestXmlHelper::CompiledSchema> RequestXmlHelper::compile(const std::string& text,
                                                                            uint64_t version) {
    auto compiled = std::make_shared<CompiledSchema>();
    compiled->version = version;
    compiled->text = text;
    compiled->pool =
        std::make_unique<xercesc::XMLGrammarPoolImpl>(xercesc::XMLPlatformUtils::fgMemoryManager);
    std::string failure;
    try {
        ThrowingErrorHandler errorHandler;
        xercesc::XercesDOMParser loader(nullptr, xercesc::XMLPlatformUtils::fgMemoryManager,
                                        compiled->pool.get());
        loader.setErrorHandler(&errorHandler);
        loader.setDoNamespaces(true);
        loader.setDoSchema(true);
        loader.setValidationSchemaFullChecking(true);
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                          text.size(), "RequestSchema", false);
        if (!loader.loadGrammar(source, xercesc::Grammar::SchemaGrammarType, true))
            failure = "the parser returned no grammar";
    } catch (const xercesc::SAXParseException& e) {
        failure = describe(e);
    } catch (const xercesc::XMLException& e) {
        failure = toUtf8(e.getMessage());
    } catch (const xercesc::OutOfMemoryException&) {
        failure = "out of memory";
    }
    if (!failure.empty()) {
        std::string message = "Invalid request schema at " + failure;
        KS_ERROR(message);
        KS_THROW(message.c_str(), c_source, "Kestrane::RequestXmlHelper::compile");
    }
    compiled->pool->lockPool();
    return compiled;
}

std::shared_ptr<RequestXmlHelper::CompiledSchema> RequestXmlHelper::getCompiledSchema() const {
    std::lock_guard<std::mutex> lock(m_compiledMutex);
    return m_compiled;
}

void RequestXmlHelper::addSchema(const AbstractRequestSchema& schema) {
    const std::string& fragment = schema.getSchemaText();
    std::string name = fragmentName(fragment);
    std::lock_guard<std::mutex> lock(m_addMutex);
    if (fragment.empty()) {
        KS_DEBUG("Ignoring empty schema fragment.");
        return;
    }
    // Handlers of the same kind may register the same fragment; declaring its types twice
    // would make the schema invalid.
    if (std::find(m_fragments.begin(), m_fragments.end(), fragment) != m_fragments.end()) {
        KS_DEBUG("Schema fragment " << name << " was added before.");
        return;
    }
    std::vector<std::string> fragments = m_fragments;
    fragments.push_back(fragment);
    uint64_t version = getCompiledSchema()->version + 1;
    std::shared_ptr<CompiledSchema> compiled =
        compile(RequestBaseSchema::getSchemaText(fragments), version);
    m_fragments.swap(fragments);
    {
        std::lock_guard<std::mutex> compiledLock(m_compiledMutex);
        m_compiled = compiled;
    }
    KS_DEBUG("Added schema fragment " << name << ", schema version " << version << ".");
}

std::unique_ptr<RequestXmlHelper::Parser> RequestXmlHelper::borrowParser() {
    std::unique_ptr<Parser> lent;
    {
        std::unique_lock<std::mutex> lock(m_parsersMutex);
        m_parserReturned.wait(lock,
                              [&] { return !m_idleParsers.empty() || m_parsers < m_maxParsers; });
        if (m_idleParsers.empty()) {
            ++m_parsers;
            lent = std::make_unique<Parser>();
        } else {
            lent = std::move(m_idleParsers.back());
            m_idleParsers.pop_back();
        }
    }
    std::shared_ptr<CompiledSchema> current = getCompiledSchema();
    if (!lent->schema || lent->schema->version != current->version) {
        KS_TRACE("Building parser for schema version " << current->version << ".");
        try {
            lent->useSchema(current);
        } catch (...) {
            giveBack(nullptr);
            throw;
        }
    }
    return lent;
}

void RequestXmlHelper::giveBack(std::unique_ptr<Parser> parser) {
    {
        std::lock_guard<std::mutex> lock(m_parsersMutex);
        if (parser)
            m_idleParsers.push_back(std::move(parser));
        else
            --m_parsers;
    }
    m_parserReturned.notify_one();
}

void RequestXmlHelper::withParser(
    const std::string& text,
    const std::function<void(Parser&, const xercesc::InputSource&)>& parse) {
    std::unique_ptr<Parser> lent = borrowParser();
    struct GiveBack {
        RequestXmlHelper& helper;
        std::unique_ptr<Parser>& parser;
        ~GiveBack() { helper.giveBack(std::move(parser)); }
    } giveBackAtEnd{*this, lent};
    std::string failure;
    try {
        xercesc::MemBufInputSource source(reinterpret_cast<const XMLByte*>(text.data()),
                                          text.size(), "RequestXmlHelper", false);
        parse(*lent, source);
        return;
    } catch (const xercesc::SAXParseException& e) {
        failure = "Error parsing XML document at " + describe(e);
    } catch (const xercesc::XMLException& e) {
        failure = "Error parsing XML document: " + toUtf8(e.getMessage());
    } catch (const xercesc::DOMException& e) {
        failure = "DOM error while parsing XML document: " + toUtf8(e.getMessage());
    } catch (const xercesc::OutOfMemoryException&) {
        failure = "Out of memory while parsing XML document.";
    }
    // A partial document stays with the parser until it is dropped here.
    lent->parser->resetDocumentPool();
    failParse(failure);
}

xercesc::DOMDocument* RequestXmlHelper::parse(const std::string& text) {
    xercesc::DOMDocument* document = nullptr;
    withParser(text, [&](Parser& lent, const xercesc::InputSource& source) {
        lent.parser->parse(source);
        document = lent.parser->adoptDocument();
    });
    if (!document)
        failParse("Error parsing XML document: the parser returned no document.");
    return document;
}

void RequestXmlHelper::scan(const std::string& text,
                            const std::function<void(const xercesc::Attributes&)>& onElement) {
    withParser(text, [&](Parser& lent, const xercesc::InputSource& source) {
        lent.forwarder.onElement = &onElement;
        lent.reader->parse(source);
    });
}

std::string RequestXmlHelper::getSchemaText() const {
    std::lock_guard<std::mutex> lock(m_addMutex);
    return RequestBaseSchema::getSchemaText(m_fragments);
}

uint64_t RequestXmlHelper::getSchemaVersion() const {
    return getCompiledSchema()->version;
}

} // namespace Kestrane
