#include "Platform/RemoteComputation/Service/RequestHandling/XLinkUtils.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace Kestrane;

TEST(XLinkUtilsTest, NullAddressGivesEmptyTextWithOrWithoutHash) {
    EXPECT_EQ(XLinkUtils::getAddressString(nullptr, true), "");
    EXPECT_EQ(XLinkUtils::getAddressString(nullptr, false), "");
}

TEST(XLinkUtilsTest, AddressReadsBackWithOrWithoutHash) {
    int value = 5;
    std::string plain = XLinkUtils::getAddressString(&value, false);
    std::string hashed = XLinkUtils::getAddressString(&value, true);
    ASSERT_FALSE(plain.empty());
    EXPECT_EQ(hashed, "#" + plain);
    EXPECT_EQ(XLinkUtils::getAddressFromString(plain), &value);
    EXPECT_EQ(XLinkUtils::getAddressFromString(hashed), &value);
    // As it stands in an href, and with the attribute's closing quote behind it.
    EXPECT_EQ(XLinkUtils::getAddressFromString("dha://" + hashed), &value);
    EXPECT_EQ(XLinkUtils::getAddressFromString(hashed + "\" name=\"x\""), &value);
}

TEST(XLinkUtilsTest, EmptyOrUnreadableAddressTextGivesNull) {
    EXPECT_EQ(XLinkUtils::getAddressFromString(""), nullptr);
    EXPECT_EQ(XLinkUtils::getAddressFromString("dha://#"), nullptr);
    EXPECT_EQ(XLinkUtils::getAddressFromString("#\""), nullptr);
    EXPECT_EQ(XLinkUtils::getAddressFromString("#zz"), nullptr);
}

TEST(XLinkUtilsTest, FilePathUrlAndBack) {
    EXPECT_EQ(XLinkUtils::getFilePathUrl(FileName(), true), "");
    EXPECT_EQ(XLinkUtils::getFilePathUrl(FileName("/tmp/a.txt"), true), "file:////tmp/a.txt");
    EXPECT_EQ(XLinkUtils::getFilePathUrl(FileName("C:\\x\\y"), false), "C:/x/y");
    EXPECT_EQ(XLinkUtils::getFilePathFromUrlString("file:///C:/x").toString(), "C:/x");
    EXPECT_EQ(XLinkUtils::getFilePathFromUrlString("href=\"file:///C:/x\" name=\"n\"").toString(),
              "C:/x");
    EXPECT_EQ(XLinkUtils::getFilePathFromUrlString("/plain/path").toString(), "/plain/path");
    EXPECT_TRUE(XLinkUtils::getFilePathFromUrlString("").empty());
    EXPECT_TRUE(XLinkUtils::getFilePathFromUrlString("file:///\"").empty());
}

TEST(XLinkUtilsTest, WrapChildMakesElementWithContent) {
    auto element = std::make_shared<std::string>("<data id=\"a\" href=\"x\"/>");
    XLinkUtils::wrapChildIntoXLinkElement(element, "<child/>");
    EXPECT_EQ(*element, "<data id=\"a\" href=\"x\"><child/></data>");

    auto bare = std::make_shared<std::string>("<item/>");
    XLinkUtils::wrapChildIntoXLinkElement(bare, "text");
    EXPECT_EQ(*bare, "<item>text</item>");
}

TEST(XLinkUtilsTest, WrapChildLeavesTextWithoutTag) {
    auto noTag = std::make_shared<std::string>("plain text/>");
    XLinkUtils::wrapChildIntoXLinkElement(noTag, "c");
    EXPECT_EQ(*noTag, "plain text/>");
    auto emptyTag = std::make_shared<std::string>("< a/>");
    XLinkUtils::wrapChildIntoXLinkElement(emptyTag, "c");
    EXPECT_EQ(*emptyTag, "< a/>");
    XLinkUtils::wrapChildIntoXLinkElement(nullptr, "c");
}
