#pragma once

#include <deque>
#include <memory>
#include <string>
#include <utility>

namespace Kestrane {

// Writes single XML elements as text, and escapes, unescapes and lays out such text. Plain
// string work without a DOM, for encoders that build messages by concatenation.
//
// Attribute lists may be null or empty. Names and values are written as they are: callers
// escape values first.
class XTagger {
public:
    using AttributeList = std::deque<std::pair<std::string, std::string>>;

    XTagger() = default;

    // `tabs` tab characters, then <name type="T" a="v">value</name>, the type attribute only
    // with `withType`. No line feed follows.
    static std::shared_ptr<std::string> tag(const std::string& name, const std::string& value,
                                            const AttributeList* attributes, unsigned int tabs,
                                            bool withType);
    // Value by %d, type "int".
    static std::shared_ptr<std::string> tag(const std::string& name, const int& value,
                                            const AttributeList* attributes, unsigned int tabs,
                                            bool withType);
    // Value by %.16g, type "double".
    static std::shared_ptr<std::string> tag(const std::string& name, const double& value,
                                            const AttributeList* attributes, unsigned int tabs,
                                            bool withType);
    // Value "True" or "False", type "bool".
    static std::shared_ptr<std::string> tag(const std::string& name, const bool& value,
                                            const AttributeList* attributes, unsigned int tabs,
                                            bool withType);
    // A null pointer gives an empty value; type "string".
    static std::shared_ptr<std::string> tag(const std::string& name, const char* value,
                                            const AttributeList* attributes, unsigned int tabs,
                                            bool withType);

    // `tabs` tab characters, then <name a="v"/>.
    static std::shared_ptr<std::string>
    emptyTag(const std::string& name, const AttributeList* attributes, unsigned int tabs);

    // Line breaks become single line feeds, then & < > " ' become entity references.
    static std::string escape(const std::string& text);
    // The five entity references back to their characters, "&amp;" last, so that an escaped
    // "&lt;" comes back as "&lt;".
    static std::string unescape(const std::string& text);

    // Puts every tag on a line of its own and drops whitespace between tags. Text content stays
    // on the line of its tags, so that "<a>x</a>" keeps its value unchanged.
    static void normalizeLineBreaks(std::string& text);
    // Inserts `tabs` tab characters at the start of the text and behind every line feed.
    static void prettyPrint(std::string& text, unsigned int tabs);

private:
    static void replaceAll(std::string& text, const std::string& from, const std::string& to);
    static void tagIt(const std::string& name, const std::string& value, const std::string& type,
                      const AttributeList* attributes, std::shared_ptr<std::string> out,
                      unsigned int tabs, bool withType);
};

} // namespace Kestrane
