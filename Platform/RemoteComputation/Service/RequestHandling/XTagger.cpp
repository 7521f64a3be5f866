#include "Platform/RemoteComputation/Service/RequestHandling/XTagger.h"

#include <cstdio>
#include <vector>

namespace Kestrane {

namespace {

void appendAttributes(std::string& out, const XTagger::AttributeList* attributes) {
    if (!attributes)
        return;
    for (const auto& attribute : *attributes)
        out += " " + attribute.first + "=\"" + attribute.second + "\"";
}

bool isBlank(const std::string& text) {
    return text.find_first_not_of(" \t\n\r") == std::string::npos;
}

// One unit of a re-laid text: a whole tag with its brackets, or text between tags.
struct Token {
    std::string text;
    bool isTag;
};

bool isClosingTag(const Token& token) {
    return token.isTag && token.text.compare(0, 2, "</") == 0;
}

// An opening tag whose content may follow on the same line: not "</x>", "<x/>", "<?x?>", "<!x>".
bool isOpeningTag(const Token& token) {
    if (!token.isTag || token.text.size() < 2)
        return false;
    char second = token.text[1];
    if (second == '/' || second == '?' || second == '!')
        return false;
    return token.text.size() < 3 || token.text.compare(token.text.size() - 2, 2, "/>") != 0;
}

} // namespace

std::shared_ptr<std::string> XTagger::tag(const std::string& name, const std::string& value,
                                          const AttributeList* attributes, unsigned int tabs,
                                          bool withType) {
    auto out = std::make_shared<std::string>();
    tagIt(name, value, "string", attributes, out, tabs, withType);
    return out;
}

std::shared_ptr<std::string> XTagger::tag(const std::string& name, const int& value,
                                          const AttributeList* attributes, unsigned int tabs,
                                          bool withType) {
    char buffer[32];
    std::snprintf(buffer, sizeof(buffer), "%d", value);
    auto out = std::make_shared<std::string>();
    tagIt(name, buffer, "int", attributes, out, tabs, withType);
    return out;
}

std::shared_ptr<std::string> XTagger::tag(const std::string& name, const double& value,
                                          const AttributeList* attributes, unsigned int tabs,
                                          bool withType) {
    char buffer[64];
    std::snprintf(buffer, sizeof(buffer), "%.16g", value);
    auto out = std::make_shared<std::string>();
    tagIt(name, buffer, "double", attributes, out, tabs, withType);
    return out;
}

std::shared_ptr<std::string> XTagger::tag(const std::string& name, const bool& value,
                                          const AttributeList* attributes, unsigned int tabs,
                                          bool withType) {
    auto out = std::make_shared<std::string>();
    tagIt(name, value ? "True" : "False", "bool", attributes, out, tabs, withType);
    return out;
}

std::shared_ptr<std::string> XTagger::tag(const std::string& name, const char* value,
                                          const AttributeList* attributes, unsigned int tabs,
                                          bool withType) {
    auto out = std::make_shared<std::string>();
    tagIt(name, value ? std::string(value) : std::string(), "string", attributes, out, tabs,
          withType);
    return out;
}

std::shared_ptr<std::string> XTagger::emptyTag(const std::string& name,
                                               const AttributeList* attributes, unsigned int tabs) {
    auto out = std::make_shared<std::string>(tabs, '\t');
    *out += "<" + name;
    appendAttributes(*out, attributes);
    *out += "/>";
    return out;
}

void XTagger::tagIt(const std::string& name, const std::string& value, const std::string& type,
                    const AttributeList* attributes, std::shared_ptr<std::string> out,
                    unsigned int tabs, bool withType) {
    out->append(tabs, '\t');
    *out += "<" + name;
    if (withType)
        *out += " type=\"" + type + "\"";
    appendAttributes(*out, attributes);
    *out += ">" + value + "</" + name + ">";
}

std::string XTagger::escape(const std::string& text) {
    std::string result = text;
    replaceAll(result, "\n\r", "\n");
    replaceAll(result, "\r\n", "\n");
    replaceAll(result, "\r", "\n");
    // The ampersand first, so that the entities written next are not escaped again.
    replaceAll(result, "&", "&amp;");
    replaceAll(result, "<", "&lt;");
    replaceAll(result, ">", "&gt;");
    replaceAll(result, "\"", "&quot;");
    replaceAll(result, "'", "&apos;");
    return result;
}

std::string XTagger::unescape(const std::string& text) {
    std::string result = text;
    replaceAll(result, "&lt;", "<");
    replaceAll(result, "&gt;", ">");
    replaceAll(result, "&quot;", "\"");
    replaceAll(result, "&apos;", "'");
    replaceAll(result, "&amp;", "&");
    return result;
}

void XTagger::normalizeLineBreaks(std::string& text) {
    if (text.empty())
        return;
    std::vector<Token> tokens;
    size_t start = 0;
    while (start <= text.size()) {
        size_t close = text.find('>', start);
        bool closed = close != std::string::npos;
        std::string piece = text.substr(start, closed ? close - start : std::string::npos);
        // The first part of a piece is text, every further part the body of a tag; the last
        // tag of a piece is the one that the '>' ends.
        size_t partStart = 0;
        size_t open = piece.find('<');
        std::string leading = piece.substr(0, open);
        if (!isBlank(leading))
            tokens.push_back({leading, false});
        while (open != std::string::npos) {
            partStart = open + 1;
            open = piece.find('<', partStart);
            std::string body = piece.substr(
                partStart, open == std::string::npos ? std::string::npos : open - partStart);
            bool last = open == std::string::npos;
            tokens.push_back({"<" + body + (last && closed ? ">" : ""), true});
        }
        if (!closed)
            break;
        start = close + 1;
    }

    std::string result;
    for (size_t i = 0; i < tokens.size(); ++i) {
        const Token& token = tokens[i];
        bool sameLine = false;
        if (i > 0) {
            const Token& previous = tokens[i - 1];
            // Content and the end tag stay with their opening tag.
            sameLine = (!token.isTag && isOpeningTag(previous)) ||
                       (isClosingTag(token) && (!previous.isTag || isOpeningTag(previous)));
        }
        if (i > 0 && !sameLine)
            result += '\n';
        result += token.text;
    }
    text = result;
}

void XTagger::prettyPrint(std::string& text, unsigned int tabs) {
    if (tabs == 0)
        return;
    std::string indent(tabs, '\t');
    text.insert(0, indent);
    size_t pos = indent.size();
    while ((pos = text.find('\n', pos)) != std::string::npos) {
        text.insert(pos + 1, indent);
        pos += 1 + indent.size();
    }
}

void XTagger::replaceAll(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty())
        return;
    size_t pos = 0;
    while ((pos = text.find(from, pos)) != std::string::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();
    }
}

} // namespace Kestrane
