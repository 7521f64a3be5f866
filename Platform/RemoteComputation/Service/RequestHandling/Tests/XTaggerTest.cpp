#include "Platform/RemoteComputation/Service/RequestHandling/XTagger.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>

using namespace Kestrane;

TEST(XTaggerTest, StringTagWithoutTypeOrAttributes) {
    EXPECT_EQ(*XTagger::tag("a", "b", nullptr, 0, false), "<a>b</a>");
    EXPECT_EQ(*XTagger::tag("a", std::string("b"), nullptr, 0, false), "<a>b</a>");
}

TEST(XTaggerTest, BoolTagWithTabAndType) {
    EXPECT_EQ(*XTagger::tag("a", true, nullptr, 1, true), "\t<a type=\"bool\">True</a>");
    EXPECT_EQ(*XTagger::tag("a", false, nullptr, 0, true), "<a type=\"bool\">False</a>");
}

TEST(XTaggerTest, EmptyTag) {
    EXPECT_EQ(*XTagger::emptyTag("a", nullptr, 0), "<a/>");
    XTagger::AttributeList attributes{{"x", "1"}, {"y", "two"}};
    EXPECT_EQ(*XTagger::emptyTag("a", &attributes, 2), "\t\t<a x=\"1\" y=\"two\"/>");
    XTagger::AttributeList none;
    EXPECT_EQ(*XTagger::emptyTag("e", &none, 0), "<e/>");
}

TEST(XTaggerTest, TypeWordsAndValueTexts) {
    EXPECT_EQ(*XTagger::tag("n", -42, nullptr, 0, true), "<n type=\"int\">-42</n>");
    EXPECT_EQ(*XTagger::tag("d", 0.1, nullptr, 0, true), "<d type=\"double\">0.1</d>");
    EXPECT_EQ(*XTagger::tag("d", 1.0 / 3.0, nullptr, 0, false), "<d>0.3333333333333333</d>");
    EXPECT_EQ(*XTagger::tag("d", 1e300, nullptr, 0, false), "<d>1e+300</d>");
    EXPECT_EQ(*XTagger::tag("d", 2.0, nullptr, 0, false), "<d>2</d>");
    EXPECT_EQ(*XTagger::tag("s", "v", nullptr, 0, true), "<s type=\"string\">v</s>");
    EXPECT_EQ(*XTagger::tag("s", std::string("v"), nullptr, 0, true), "<s type=\"string\">v</s>");
    int largest = std::numeric_limits<int>::max();
    EXPECT_EQ(*XTagger::tag("n", largest, nullptr, 0, false), "<n>2147483647</n>");
}

TEST(XTaggerTest, NullCharPointerGivesEmptyValue) {
    const char* nothing = nullptr;
    EXPECT_EQ(*XTagger::tag("a", nothing, nullptr, 0, true), "<a type=\"string\"></a>");
}

TEST(XTaggerTest, AttributesFollowTheTypeInOrder) {
    XTagger::AttributeList attributes{{"id", "7"}, {"name", "a&amp;b"}};
    EXPECT_EQ(*XTagger::tag("v", 3, &attributes, 1, true),
              "\t<v type=\"int\" id=\"7\" name=\"a&amp;b\">3</v>");
    // Values go out as given: escaping is the caller's.
    XTagger::AttributeList raw{{"q", "a<b"}};
    EXPECT_EQ(*XTagger::tag("v", "x", &raw, 0, false), "<v q=\"a<b\">x</v>");
    XTagger::AttributeList empty;
    EXPECT_EQ(*XTagger::tag("v", "x", &empty, 0, false), "<v>x</v>");
}

TEST(XTaggerTest, NoLineFeedFollows) {
    std::string text = *XTagger::tag("a", "b", nullptr, 3, false);
    EXPECT_EQ(text, "\t\t\t<a>b</a>");
    EXPECT_EQ(text.find('\n'), std::string::npos);
}

TEST(XTaggerTest, EscapeEscapesAmpersandFirst) {
    EXPECT_EQ(XTagger::escape("a&lt;"), "a&amp;lt;");
    EXPECT_EQ(XTagger::escape("<a href=\"x\">'y' & z</a>"),
              "&lt;a href=&quot;x&quot;&gt;&apos;y&apos; &amp; z&lt;/a&gt;");
    EXPECT_EQ(XTagger::escape(""), "");
}

TEST(XTaggerTest, EscapeNormalisesLineBreaks) {
    EXPECT_EQ(XTagger::escape("a\r\nb"), "a\nb");
    EXPECT_EQ(XTagger::escape("a\n\rb"), "a\nb");
    EXPECT_EQ(XTagger::escape("a\rb"), "a\nb");
    EXPECT_EQ(XTagger::escape("a\n\r\nb"), "a\n\nb");
    EXPECT_EQ(XTagger::escape("a\r\rb"), "a\n\nb");
}

TEST(XTaggerTest, UnescapeInvertsEscape) {
    for (const std::string text : {"plain", "a&lt;", "&amp;amp;", "<x a=\"1\" b='2'>&</x>",
                                   "multi\nline\n", "", "&&<<>>\"\"''"}) {
        EXPECT_EQ(XTagger::unescape(XTagger::escape(text)), text) << text;
    }
    EXPECT_EQ(XTagger::unescape("&amp;lt;"), "&lt;");
    EXPECT_EQ(XTagger::unescape("&lt;&gt;&quot;&apos;&amp;"), "<>\"'&");
}

TEST(XTaggerTest, PrettyPrintWithoutTabsChangesNothing) {
    std::string text = "<a>\n<b/>\n</a>\n";
    XTagger::prettyPrint(text, 0);
    EXPECT_EQ(text, "<a>\n<b/>\n</a>\n");
}

TEST(XTaggerTest, PrettyPrintIndentsEveryLine) {
    std::string text = "<a>\n<b/>\n</a>";
    XTagger::prettyPrint(text, 2);
    EXPECT_EQ(text, "\t\t<a>\n\t\t<b/>\n\t\t</a>");
    std::string single = "x";
    XTagger::prettyPrint(single, 1);
    EXPECT_EQ(single, "\tx");
    std::string empty;
    XTagger::prettyPrint(empty, 1);
    EXPECT_EQ(empty, "\t");
    std::string trailing = "a\n";
    XTagger::prettyPrint(trailing, 1);
    EXPECT_EQ(trailing, "\ta\n\t");
}

TEST(XTaggerTest, NormalizeLineBreaksOfEmptyText) {
    std::string text;
    XTagger::normalizeLineBreaks(text);
    EXPECT_EQ(text, "");
}

TEST(XTaggerTest, NormalizeLineBreaksPutsTagsOnLines) {
    std::string text = "<a>  <b x=\"1\">value</b>\r\n\t<c/><d>\n</d></a>";
    XTagger::normalizeLineBreaks(text);
    EXPECT_EQ(text, "<a>\n<b x=\"1\">value</b>\n<c/>\n<d></d>\n</a>");
    // A second pass finds nothing more to do.
    std::string again = text;
    XTagger::normalizeLineBreaks(again);
    EXPECT_EQ(again, text);
}

TEST(XTaggerTest, NormalizeLineBreaksKeepsTextAndDeclarations) {
    std::string text = "<?xml version=\"1.0\"?><r><m>a b</m>tail<e/></r>";
    XTagger::normalizeLineBreaks(text);
    EXPECT_EQ(text, "<?xml version=\"1.0\"?>\n<r>\n<m>a b</m>\ntail\n<e/>\n</r>");
    std::string blanks = " \t\r\n ";
    XTagger::normalizeLineBreaks(blanks);
    EXPECT_EQ(blanks, "");
    std::string plain = "no tags";
    XTagger::normalizeLineBreaks(plain);
    EXPECT_EQ(plain, "no tags");
}

TEST(XTaggerTest, DefaultConstructible) {
    XTagger tagger;
    (void)tagger;
    EXPECT_EQ(*XTagger::tag("a", 1, nullptr, 0, false), "<a>1</a>");
}
