#include "../AllowList.h"
#include "ProbeProgram.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Kestrane;
using namespace Kestrane::Testing;

class AllowListTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_allowed = m_temp.directory("allowed");
        m_other = m_temp.directory("other");
        m_program = m_allowed + "/tool";
        writeFile(m_program, "#!/bin/sh\n", 0755);
        writeFile(m_other + "/tool", "#!/bin/sh\n", 0755);
    }
    // The reason of a refusal, or "allowed as <canonical>".
    std::string verdict(const AllowList& list, const std::string& program) {
        std::string canonical, reason;
        return list.check(program, canonical, reason) ? "allowed as " + canonical : reason;
    }

    TemporaryDirectory m_temp;
    std::string m_allowed, m_other, m_program;
};

TEST_F(AllowListTest, EntriesAreAbsoluteExecutablesOrDirectories) {
    AllowList list;
    std::string error;
    EXPECT_TRUE(list.add(m_allowed, error)) << error;
    EXPECT_TRUE(list.add(m_other + "/tool", error)) << error;
    EXPECT_FALSE(list.add("relative/tool", error));
    EXPECT_EQ(error, "--allow 'relative/tool' is not an absolute path");
    EXPECT_FALSE(list.add(m_temp.file("missing"), error));
    EXPECT_EQ(error, "--allow '" + m_temp.file("missing") + "': No such file or directory");
    writeFile(m_temp.file("plain"), "x", 0644);
    EXPECT_FALSE(list.add(m_temp.file("plain"), error));
    EXPECT_EQ(error, "--allow '" + m_temp.file("plain") +
                         "' is neither an executable regular file nor a directory");
    EXPECT_EQ(list.entries(), (std::vector<std::string>{m_allowed, m_other + "/tool"}));
}

TEST_F(AllowListTest, ProgramsDirectlyInAnAllowedDirectory) {
    AllowList list;
    std::string error;
    ASSERT_TRUE(list.add(m_allowed + "/", error)) << error;
    EXPECT_EQ(verdict(list, m_program), "allowed as " + m_program);
    EXPECT_EQ(verdict(list, m_allowed + "//tool"), "allowed as " + m_program);
    EXPECT_EQ(verdict(list, m_allowed + "/./tool"), "allowed as " + m_program);
    std::string nested = m_temp.directory("allowed/sub") + "/tool";
    writeFile(nested, "#!/bin/sh\n", 0755);
    EXPECT_EQ(verdict(list, nested), "program '" + nested +
                                         "' is not allowed; add it or its directory to the "
                                         "service's --allow list");
    EXPECT_EQ(verdict(list, m_other + "/tool")
                  .rfind("program '" + m_other +
                             "/tool' is not "
                             "allowed",
                         0),
              0u);
}

TEST_F(AllowListTest, NamedExecutableOnly) {
    AllowList list;
    std::string error;
    ASSERT_TRUE(list.add(m_program, error)) << error;
    writeFile(m_allowed + "/neighbour", "#!/bin/sh\n", 0755);
    EXPECT_EQ(verdict(list, m_program), "allowed as " + m_program);
    EXPECT_EQ(verdict(list, m_allowed + "/neighbour").find("is not allowed"),
              ("program '" + m_allowed + "/neighbour' ").size());
}

TEST_F(AllowListTest, SymbolicLinksAreJudgedByTheirTarget) {
    AllowList list;
    std::string error;
    ASSERT_TRUE(list.add(m_allowed, error)) << error;
    std::string inside = m_allowed + "/inside", outside = m_allowed + "/outside";
    ASSERT_EQ(::symlink(m_program.c_str(), inside.c_str()), 0);
    ASSERT_EQ(::symlink((m_other + "/tool").c_str(), outside.c_str()), 0);
    EXPECT_EQ(verdict(list, inside), "allowed as " + m_program);
    EXPECT_EQ(verdict(list, outside), "program '" + outside + "' resolves to '" + m_other +
                                          "/tool', which is not allowed; add that path or its "
                                          "directory to the service's --allow list, or start a "
                                          "program that lies in it");
    // A link elsewhere that points into the list is fine: the target decides.
    std::string back = m_other + "/back";
    ASSERT_EQ(::symlink(m_program.c_str(), back.c_str()), 0);
    EXPECT_EQ(verdict(list, back), "allowed as " + m_program);
    // A linked directory on the way.
    std::string directoryLink = m_allowed + "/to-other";
    ASSERT_EQ(::symlink(m_other.c_str(), directoryLink.c_str()), 0);
    EXPECT_EQ(verdict(list, directoryLink + "/tool").find("resolves to '" + m_other + "/tool'"),
              ("program '" + directoryLink + "/tool' ").size());
}

TEST_F(AllowListTest, RelativeAndDotDotPathsAreRefused) {
    AllowList list;
    std::string error;
    ASSERT_TRUE(list.add(m_allowed, error)) << error;
    EXPECT_EQ(verdict(list, "tool"), "program path 'tool' is not absolute; give its full path");
    EXPECT_EQ(verdict(list, ""), "program path '' is not absolute; give its full path");
    EXPECT_EQ(verdict(list, m_allowed + "/../allowed/tool"),
              "program path '" + m_allowed +
                  "/../allowed/tool' contains a '..' component; give the path without '..'");
    EXPECT_EQ(verdict(list, "/.."), "program path '/..' contains a '..' component; give the "
                                    "path without '..'");
    // Names that merely contain dots are names.
    std::string dotted = m_allowed + "/..tool..";
    writeFile(dotted, "#!/bin/sh\n", 0755);
    EXPECT_EQ(verdict(list, dotted), "allowed as " + dotted);
}

TEST_F(AllowListTest, OnlyExistingExecutableRegularFiles) {
    AllowList list;
    std::string error;
    ASSERT_TRUE(list.add(m_allowed, error)) << error;
    writeFile(m_allowed + "/data", "x", 0644);
    EXPECT_EQ(verdict(list, m_allowed + "/data"),
              "program '" + m_allowed +
                  "/data' is not an executable regular file; make it one (chmod +x) or start "
                  "another");
    m_temp.directory("allowed/dir");
    EXPECT_EQ(verdict(list, m_allowed + "/dir").find("is not an executable regular file"),
              ("program '" + m_allowed + "/dir' ").size());
    EXPECT_EQ(verdict(list, m_allowed + "/missing"),
              "program '" + m_allowed + "/missing' does not exist");
    EXPECT_EQ(verdict(list, m_allowed + "/data/below"),
              "program '" + m_allowed + "/data/below' does not exist");
}

TEST_F(AllowListTest, AnEmptyListAllowsNothing) {
    AllowList list;
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(verdict(list, m_program), "the service allows no programs; start it with --allow "
                                        "for '" +
                                            m_program + "' or its directory");
}
