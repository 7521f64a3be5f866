#include "Platform/RemoteComputation/Service/ServiceInterfaces/XmlUtils.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/PlainXml.h"

#include <xercesc/dom/DOMDocument.hpp>
#include <xercesc/dom/DOMElement.hpp>
#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/parsers/XercesDOMParser.hpp>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Kestrane;

namespace {

using TestXml::Document;
using TestXml::parsePlain;

const char* const c_document =
    "<root xmlns=\"urn:test\" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
    " xmlns:p=\"urn:other\" plain=\"v&amp;w\" xsi:type=\"T\">"
    "<item>one</item>"
    "<p:item>two</p:item>"
    "<other><item>nested</item></other>"
    "<item>three &lt;3&gt;</item>"
    "<flag> TRUE </flag>"
    "<mixed>a<b>b</b>c</mixed>"
    "<empty/>"
    "</root>";

} // namespace

TEST(XmlUtilsTest, AttributesMissingReadAsEmpty) {
    Document document = parsePlain(c_document);
    xercesc::DOMElement* root = document->getDocumentElement();
    EXPECT_EQ(XmlUtils::getAttribute("plain", root), "v&w");
    EXPECT_TRUE(XmlUtils::hasAttribute("plain", root));
    EXPECT_EQ(XmlUtils::getAttribute("missing", root), "");
    EXPECT_FALSE(XmlUtils::hasAttribute("missing", root));
    EXPECT_EQ(XmlUtils::getAttribute("plain", nullptr), "");
    EXPECT_FALSE(XmlUtils::hasAttribute("plain", nullptr));
}

TEST(XmlUtilsTest, EmptyAttributeIsPresent) {
    Document document = parsePlain("<a x=\"\"/>");
    xercesc::DOMElement* root = document->getDocumentElement();
    EXPECT_TRUE(XmlUtils::hasAttribute("x", root));
    EXPECT_EQ(XmlUtils::getAttribute("x", root), "");
}

TEST(XmlUtilsTest, SchemaInstanceTypeWhateverThePrefix) {
    Document document = parsePlain(c_document);
    EXPECT_EQ(XmlUtils::getAttribute("xsi:type", document->getDocumentElement()), "T");
    Document other =
        parsePlain("<a xmlns:i=\"http://www.w3.org/2001/XMLSchema-instance\" i:type=\"Other\"/>");
    EXPECT_EQ(XmlUtils::getAttribute("xsi:type", other->getDocumentElement()), "Other");
    EXPECT_TRUE(XmlUtils::hasAttribute("xsi:type", other->getDocumentElement()));
}

TEST(XmlUtilsTest, SetAttributeSetsAndReplaces) {
    Document document = parsePlain(c_document);
    xercesc::DOMElement* root = document->getDocumentElement();
    XmlUtils::setAttribute("added", "a<b", root);
    EXPECT_EQ(XmlUtils::getAttribute("added", root), "a<b");
    XmlUtils::setAttribute("plain", "replaced", root);
    EXPECT_EQ(XmlUtils::getAttribute("plain", root), "replaced");
    EXPECT_NO_THROW(XmlUtils::setAttribute("x", "y", nullptr));
}

TEST(XmlUtilsTest, ElementsByLocalNameInDocumentOrder) {
    Document document = parsePlain(c_document);
    xercesc::DOMElement* root = document->getDocumentElement();
    std::vector<xercesc::DOMElement*> items = XmlUtils::getElements("item", root);
    // Children only, any namespace, in order; the nested item is a grandchild.
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(XmlUtils::getContent(items[0]), "one");
    EXPECT_EQ(XmlUtils::getContent(items[1]), "two");
    EXPECT_EQ(XmlUtils::getContent(items[2]), "three <3>");
    EXPECT_EQ(XmlUtils::getElement("item", root), items[0]);
    EXPECT_EQ(XmlUtils::getElement("missing", root), nullptr);
    EXPECT_TRUE(XmlUtils::getElements("missing", root).empty());
    EXPECT_EQ(XmlUtils::getElement("item", nullptr), nullptr);
    EXPECT_TRUE(XmlUtils::getElements("item", nullptr).empty());
    EXPECT_EQ(XmlUtils::getElementContent("item", XmlUtils::getElement("other", root)), "nested");
}

TEST(XmlUtilsTest, ElementsOfDocumentWithoutNamespaces) {
    Document document = parsePlain("<a><b>1</b><c/><b>2</b></a>");
    auto bs = XmlUtils::getElements("b", document->getDocumentElement());
    ASSERT_EQ(bs.size(), 2u);
    EXPECT_EQ(XmlUtils::getContent(bs[1]), "2");
}

TEST(XmlUtilsTest, Content) {
    Document document = parsePlain(c_document);
    xercesc::DOMElement* root = document->getDocumentElement();
    EXPECT_EQ(XmlUtils::getElementContent("mixed", root), "abc");
    EXPECT_EQ(XmlUtils::getElementContent("empty", root), "");
    EXPECT_EQ(XmlUtils::getElementContent("missing", root), "");
    EXPECT_EQ(XmlUtils::getContent(nullptr), "");
    EXPECT_TRUE(XmlUtils::getContentAsBool(XmlUtils::getElement("flag", root)));
    EXPECT_FALSE(XmlUtils::getContentAsBool(XmlUtils::getElement("empty", root)));
    EXPECT_FALSE(XmlUtils::getContentAsBool(nullptr));
}

TEST(XmlUtilsTest, ToBool) {
    EXPECT_TRUE(XmlUtils::toBool("true"));
    EXPECT_TRUE(XmlUtils::toBool("TRUE"));
    EXPECT_TRUE(XmlUtils::toBool("True"));
    EXPECT_TRUE(XmlUtils::toBool("1"));
    EXPECT_TRUE(XmlUtils::toBool(" true\n"));
    EXPECT_FALSE(XmlUtils::toBool("false"));
    EXPECT_FALSE(XmlUtils::toBool("0"));
    EXPECT_FALSE(XmlUtils::toBool(""));
    EXPECT_FALSE(XmlUtils::toBool("yes"));
    EXPECT_FALSE(XmlUtils::toBool("10"));
    EXPECT_FALSE(XmlUtils::toBool("truex"));
}

TEST(XmlUtilsTest, ToXmlEscapesTheFiveCharacters) {
    EXPECT_EQ(XmlUtils::toXml("a&b<c>d\"e'f"), "a&amp;b&lt;c&gt;d&quot;e&apos;f");
    EXPECT_EQ(XmlUtils::toXml("&lt;"), "&amp;lt;");
    EXPECT_EQ(XmlUtils::toXml(""), "");
    EXPECT_EQ(XmlUtils::toXml("plain\ntext\r\n"), "plain\ntext\r\n");
}

TEST(XmlUtilsTest, FromXmlInvertsToXml) {
    for (const std::string text :
         {"a&b<c>d\"e'f", "&lt;", "&amp;amp;", "", "\xC3\xA4\xE2\x82\xAC & more", "&&;;<<>>"}) {
        EXPECT_EQ(XmlUtils::fromXml(XmlUtils::toXml(text)), text);
    }
    EXPECT_EQ(XmlUtils::fromXml("&amp;lt;"), "&lt;");
}

TEST(XmlUtilsTest, FromXmlReadsCharacterReferences) {
    EXPECT_EQ(XmlUtils::fromXml("&#65;&#x42;&#X43;"), "ABC");
    EXPECT_EQ(XmlUtils::fromXml("&#228;"), "\xC3\xA4");
    EXPECT_EQ(XmlUtils::fromXml("&#x20AC;"), "\xE2\x82\xAC");
    EXPECT_EQ(XmlUtils::fromXml("&#x1F600;"), "\xF0\x9F\x98\x80");
    EXPECT_EQ(XmlUtils::fromXml("line&#10;break&#xD;"), "line\nbreak\r");
}

TEST(XmlUtilsTest, FromXmlLeavesUnknownReferencesAlone) {
    EXPECT_EQ(XmlUtils::fromXml("&nbsp;"), "&nbsp;");
    EXPECT_EQ(XmlUtils::fromXml("a & b"), "a & b");
    EXPECT_EQ(XmlUtils::fromXml("&#xZZ;"), "&#xZZ;");
    EXPECT_EQ(XmlUtils::fromXml("&#0;"), "&#0;");
    EXPECT_EQ(XmlUtils::fromXml("&#xD800;"), "&#xD800;");
    EXPECT_EQ(XmlUtils::fromXml("&#x110000;"), "&#x110000;");
    EXPECT_EQ(XmlUtils::fromXml("&amp"), "&amp");
    EXPECT_EQ(XmlUtils::fromXml("&;"), "&;");
}

TEST(XmlUtilsTest, ReplaceAllGoesOnBehindTheReplacement) {
    std::string text = "aaa";
    XmlUtils::replaceAll(text, "a", "aa");
    EXPECT_EQ(text, "aaaaaa");
    text = "x  y    z";
    XmlUtils::replaceAll(text, "  ", " ");
    EXPECT_EQ(text, "x y  z");
    text = "abcabc";
    XmlUtils::replaceAll(text, "b", "");
    EXPECT_EQ(text, "acac");
    text = "unchanged";
    XmlUtils::replaceAll(text, "", "x");
    EXPECT_EQ(text, "unchanged");
    XmlUtils::replaceAll(text, "zz", "y");
    EXPECT_EQ(text, "unchanged");
}

TEST(XmlUtilsTest, TranscodeGivesUtf8) {
    std::string text = "Gr\xC3\xBC\xC3\x9F\x65 \xE2\x82\xAC";
    XercesString utf16(text);
    EXPECT_EQ(XmlUtils::transcode(utf16.get()), text);
    EXPECT_EQ(XmlUtils::transcode(nullptr), "");
}
