#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <gtest/gtest.h>

using namespace Kestrane;

TEST(XercesPlatformTest, Utf8RoundTrip) {
    std::string text = "a<b & \xC3\xA4\xE2\x82\xAC";
    XercesString utf16(text);
    EXPECT_EQ(toUtf8(utf16.get()), text);
    EXPECT_EQ(toUtf8(nullptr), "");
}

TEST(XercesPlatformTest, AsciiAndNonAsciiTextGiveTheirCodeUnits) {
    XercesString ascii("id=\"7\"");
    const XMLCh expectedAscii[] = {'i', 'd', '=', '"', '7', '"', 0};
    EXPECT_EQ(xercesc::XMLString::compareString(ascii.get(), expectedAscii), 0);

    XercesString mixed("x\xC3\xA4\xE2\x82\xAC");
    const XMLCh expectedMixed[] = {'x', 0xE4, 0x20AC, 0};
    EXPECT_EQ(xercesc::XMLString::compareString(mixed.get(), expectedMixed), 0);

    XercesString empty("");
    EXPECT_EQ(xercesc::XMLString::stringLen(empty.get()), 0u);
    EXPECT_EQ(toUtf8(empty.get()), "");
}

TEST(XercesPlatformTest, TextBeyondTheBasicPlaneSurvivesTheRoundTrip) {
    // A character outside the basic plane takes a surrogate pair in UTF-16; the ASCII around it
    // must come back as it was.
    const std::string text = "before \xF0\x9F\x98\x80 after";
    XercesString utf16(text);
    EXPECT_EQ(xercesc::XMLString::stringLen(utf16.get()), text.size() - 4 + 2);
    EXPECT_EQ(toUtf8(utf16.get()), text);
    const XMLCh pair[] = {'a', 0xD83D, 0xDE00, 0};
    EXPECT_EQ(toUtf8(pair), "a\xF0\x9F\x98\x80");
}
