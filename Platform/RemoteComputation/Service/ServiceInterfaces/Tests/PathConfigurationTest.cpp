#include "Platform/RemoteComputation/Service/ServiceInterfaces/PathConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/FileUtilities.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/KsException.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <cstdlib>

using namespace Kestrane;
using TestSupport::TempDir;

namespace {
class PathConfigurationTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* value = std::getenv("KS_PATH_TMP")) {
            m_hadEnv = true;
            m_env = value;
        }
    }
    void TearDown() override {
        PathConfiguration::setKsPathTmp(FileName());
        if (m_hadEnv)
            ::setenv("KS_PATH_TMP", m_env.c_str(), 1);
        else
            ::unsetenv("KS_PATH_TMP");
    }
    bool m_hadEnv = false;
    std::string m_env;
};
} // namespace

TEST_F(PathConfigurationTest, EnvironmentChoosesTheDirectoryAndItIsCreated) {
    TempDir dir;
    std::string wanted = dir.file("from-env/sub");
    ::setenv("KS_PATH_TMP", wanted.c_str(), 1);
    FileName path = PathConfiguration::getKsPathTmp();
    EXPECT_EQ(path.toString(), wanted);
    EXPECT_TRUE(FileUtilities::isDirectory(path));
}

TEST_F(PathConfigurationTest, OverrideWinsOverEnvironment) {
    TempDir dir;
    ::setenv("KS_PATH_TMP", dir.file("env").c_str(), 1);
    PathConfiguration::setKsPathTmp(dir.file("override"));
    EXPECT_EQ(PathConfiguration::getKsPathTmp().toString(), dir.file("override"));
    EXPECT_TRUE(FileUtilities::isDirectory(dir.file("override")));
    EXPECT_FALSE(FileUtilities::exists(dir.file("env")));

    PathConfiguration::setKsPathTmp(FileName());
    EXPECT_EQ(PathConfiguration::getKsPathTmp().toString(), dir.file("env"));
}

TEST_F(PathConfigurationTest, DefaultIsBelowTheSystemTemporaryDirectory) {
    ::unsetenv("KS_PATH_TMP");
    TempDir dir;
    const char* oldTmp = std::getenv("TMPDIR");
    std::string saved = oldTmp ? oldTmp : "";
    ::setenv("TMPDIR", dir.path().c_str(), 1);
    FileName path = PathConfiguration::getKsPathTmp();
    if (oldTmp)
        ::setenv("TMPDIR", saved.c_str(), 1);
    else
        ::unsetenv("TMPDIR");
    EXPECT_EQ(path.getParentPath().toString(), dir.path());
    EXPECT_EQ(path.getLeafName().rfind("kestrane-", 0), 0u) << path.toString();
    EXPECT_GT(path.getLeafName().size(), std::string("kestrane-").size());
    EXPECT_TRUE(FileUtilities::isDirectory(path));
}

TEST_F(PathConfigurationTest, DirectoryThatCannotBeCreatedThrows) {
    TempDir dir;
    std::string blocker = dir.file("plain-file");
    TestSupport::writeFile(blocker, "x");
    PathConfiguration::setKsPathTmp(FileName(blocker) / "tmp");
    EXPECT_THROW(PathConfiguration::getKsPathTmp(), KsExceptionNested);
}
