#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace Kestrane;

TEST(KsExceptionTest, NestedKeepsSourceFunctionAndInner) {
    std::runtime_error inner("disk full");
    KsExceptionNested e(inner, "Cannot save", "RequestHandling", "Kestrane::X::save", "X.cpp", 12);
    EXPECT_STREQ(e.what(), "Cannot save");
    EXPECT_EQ(e.getSource(), "RequestHandling");
    EXPECT_EQ(e.getFunction(), "Kestrane::X::save");
    EXPECT_EQ(e.getFile(), "X.cpp");
    EXPECT_EQ(e.getLine(), 12);
    ASSERT_NE(e.getInnerException(), nullptr);
    EXPECT_STREQ(e.getInnerException()->what(), "disk full");
    EXPECT_EQ(e.getInnerException()->getTypeName(), "std::runtime_error");
    EXPECT_NE(e.log().find("disk full"), std::string::npos);
}

TEST(KsExceptionTest, PlainHasNoInner) {
    KsExceptionNested e("m", "s", "f", "file", 1);
    EXPECT_EQ(e.getInnerException(), nullptr);
    EXPECT_EQ(e.getName(), "KsExceptionNested");
    EXPECT_EQ(e.getTypeName(), "Kestrane::KsExceptionNested");
}

TEST(KsExceptionTest, InnerNestedChainIsCopied) {
    KsExceptionNested innermost("a", "s", "f1", "file", 1);
    KsExceptionNested middle(innermost, "b", "s", "f2", "file", 2);
    KsExceptionNested outer(middle, "c", "s", "f3", "file", 3);
    auto inner = dynamic_cast<const KsExceptionNested*>(outer.getInnerException());
    ASSERT_NE(inner, nullptr);
    EXPECT_STREQ(inner->what(), "b");
    ASSERT_NE(inner->getInnerException(), nullptr);
    EXPECT_STREQ(inner->getInnerException()->what(), "a");
}
