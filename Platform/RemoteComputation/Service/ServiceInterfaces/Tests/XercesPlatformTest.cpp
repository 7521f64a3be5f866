#include "Platform/RemoteComputation/Service/ServiceInterfaces/XercesPlatform.h"

#include <gtest/gtest.h>

using namespace Kestrane;

TEST(XercesPlatformTest, Utf8RoundTrip) {
    std::string text = "a<b & \xC3\xA4\xE2\x82\xAC";
    XercesString utf16(text);
    EXPECT_EQ(toUtf8(utf16.get()), text);
    EXPECT_EQ(toUtf8(nullptr), "");
}
