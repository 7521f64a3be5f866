#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Tests/TestHelpers.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <sys/stat.h>
#include <unistd.h>

using namespace Kestrane;
using TestSupport::TempDir;

namespace {

mode_t modeOf(const std::string& path) {
    struct stat status {};
    ::stat(path.c_str(), &status);
    return status.st_mode & 07777;
}

// Writes `bytes` as a key file with `mode`.
void writeKey(const std::string& path, const std::string& bytes, mode_t mode = 0600) {
    TestSupport::writeFile(path, bytes);
    ::chmod(path.c_str(), mode);
}

std::string knownKey() {
    std::string key;
    for (int i = 0; i < 32; ++i)
        key += static_cast<char>(i);
    return key;
}

const std::string c_nonce = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

// Why `path` can't be loaded, or "loaded".
std::string loadFailure(const std::string& path) {
    RemoteServiceKey key;
    std::string message;
    return key.load(path, message) ? "loaded" : message;
}

} // namespace

TEST(RemoteServiceKeyTest, CreateWritesThirtyTwoBytesForTheOwnerOnly) {
    TempDir dir;
    std::string path = dir.file("a/b/remote-service.key");
    std::string message;
    ASSERT_TRUE(RemoteServiceKey::create(path, message)) << message;
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(dir.file("a")), 0700u);
    EXPECT_EQ(modeOf(dir.file("a/b")), 0700u);
    EXPECT_EQ(TestSupport::readFile(path).size(), RemoteServiceKey::c_size);
    EXPECT_EQ(loadFailure(path), "loaded");

    std::string other = dir.file("other.key");
    ASSERT_TRUE(RemoteServiceKey::create(other, message)) << message;
    EXPECT_NE(TestSupport::readFile(other), TestSupport::readFile(path));
}

TEST(RemoteServiceKeyTest, CreateNeverReplacesAFile) {
    TempDir dir;
    std::string path = dir.file("key");
    std::string message;
    ASSERT_TRUE(RemoteServiceKey::create(path, message)) << message;
    std::string first = TestSupport::readFile(path);
    EXPECT_FALSE(RemoteServiceKey::create(path, message));
    EXPECT_EQ(message, "Key file '" + path + "' exists already; it is not replaced");
    EXPECT_EQ(TestSupport::readFile(path), first);

    // Not even a link to somewhere else.
    std::string target = dir.file("target"), link = dir.file("link");
    ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
    EXPECT_FALSE(RemoteServiceKey::create(link, message));
    EXPECT_NE(::access(target.c_str(), F_OK), 0) << "the link's target was created";
}

TEST(RemoteServiceKeyTest, CreateReportsAnUnwritablePlace) {
    TempDir dir;
    TestSupport::writeFile(dir.file("plain"), "x");
    std::string message;
    EXPECT_FALSE(RemoteServiceKey::create(dir.file("plain/key"), message));
    EXPECT_EQ(message.rfind("Cannot create key file '" + dir.file("plain/key") + "': ", 0), 0u)
        << message;
}

TEST(RemoteServiceKeyTest, LoadRefusesUnsafeOrBrokenFiles) {
    TempDir dir;
    std::string missing = dir.file("missing");
    EXPECT_EQ(loadFailure(missing), "Key file '" + missing +
                                        "' does not exist (create one with 'ks-remote-service "
                                        "--create-key' and copy it to every host)");

    std::string open = dir.file("open");
    writeKey(open, knownKey(), 0644);
    EXPECT_EQ(loadFailure(open), "Key file '" + open +
                                     "' is open to group or others (mode 0644); it must be "
                                     "readable by its owner only (chmod 600)");
    writeKey(open, knownKey(), 0640);
    EXPECT_NE(loadFailure(open).find("(mode 0640)"), std::string::npos);
    writeKey(open, knownKey(), 0601);
    EXPECT_NE(loadFailure(open).find("(mode 0601)"), std::string::npos);

    std::string good = dir.file("good"), link = dir.file("link");
    writeKey(good, knownKey());
    ASSERT_EQ(::symlink(good.c_str(), link.c_str()), 0);
    EXPECT_EQ(loadFailure(link),
              "Key file '" + link + "' is a symbolic link; it must be a regular file");
    EXPECT_EQ(loadFailure(good), "loaded");

    for (size_t size : {0, 31, 33, 64}) {
        std::string path = dir.file("size" + std::to_string(size));
        writeKey(path, std::string(size, 'k'));
        EXPECT_EQ(loadFailure(path), "Key file '" + path + "' does not hold a key of 32 bytes")
            << size;
    }

    std::string directory = dir.file("directory");
    ASSERT_EQ(::mkdir(directory.c_str(), 0700), 0);
    EXPECT_EQ(loadFailure(directory), "Key file '" + directory + "' is not a regular file");
}

TEST(RemoteServiceKeyTest, SignMatchesAnHmacSha256KnownAnswer) {
    // Expected values from Python: hmac.new(bytes(range(32)), nonce + payload, 'sha256').
    TempDir dir;
    std::string path = dir.file("key");
    writeKey(path, knownKey());
    RemoteServiceKey key;
    std::string message;
    ASSERT_TRUE(key.load(path, message)) << message;
    EXPECT_EQ(key.sign(c_nonce, "PING"),
              "5ccb14bf3bdc4c76703724246160584dd7ef5c1b407bb91e3a0172a3c28df59f");
    EXPECT_EQ(key.sign(c_nonce, "START 9:/bin/true1:a"),
              "9f5f33c2d2f6a0ab31a419f4059f4dc6a3cc3282485ade0cd4e5d272010db650");
    EXPECT_EQ(key.sign(c_nonce, ""),
              "ca7eb12f3689793fd47c65dcd0f01941299e641cc5db4f838f5c9f38e75c423b");
}

TEST(RemoteServiceKeyTest, VerifyAcceptsOnlyTheExactAnswer) {
    TempDir dir;
    std::string path = dir.file("key");
    writeKey(path, knownKey());
    RemoteServiceKey key;
    std::string message;
    ASSERT_TRUE(key.load(path, message)) << message;
    std::string answer = key.sign(c_nonce, "PING");
    EXPECT_TRUE(key.verify(c_nonce, "PING", answer));

    std::string otherNonce = c_nonce;
    otherNonce[0] = '1';
    EXPECT_FALSE(key.verify(otherNonce, "PING", answer));
    EXPECT_FALSE(key.verify(c_nonce, "PINGS", answer));
    EXPECT_FALSE(key.verify(c_nonce, "CORES", answer));
    std::string changed = answer;
    changed[63] = changed[63] == '0' ? '1' : '0';
    EXPECT_FALSE(key.verify(c_nonce, "PING", changed));
    EXPECT_FALSE(key.verify(c_nonce, "PING", answer.substr(0, 63)));
    EXPECT_FALSE(key.verify(c_nonce, "PING", answer + "0"));
    EXPECT_FALSE(key.verify(c_nonce, "PING", ""));
    std::string upper = answer;
    for (char& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    EXPECT_FALSE(key.verify(c_nonce, "PING", upper)) << "the answer is lower-case hex";

    // Another key's answer.
    std::string otherPath = dir.file("other");
    ASSERT_TRUE(RemoteServiceKey::create(otherPath, message)) << message;
    RemoteServiceKey other;
    ASSERT_TRUE(other.load(otherPath, message)) << message;
    EXPECT_FALSE(key.verify(c_nonce, "PING", other.sign(c_nonce, "PING")));
}

TEST(RemoteServiceKeyTest, AKeyThatWasNeverLoadedAcceptsNothing) {
    RemoteServiceKey key;
    EXPECT_EQ(key.sign(c_nonce, "PING"), "");
    // The HMAC under the empty key, which anybody can compute (Python, as above, with b"").
    EXPECT_FALSE(key.verify("n", "PING",
                            "0866d6cf6f1a9d95246c86e93217cb2e2ac6a8b137286e94da6fb7ab3fff4e9f"));
    EXPECT_FALSE(key.verify(c_nonce, "PING", ""));
    std::string message;
    EXPECT_FALSE(key.load("/nonexistent/key", message));
    EXPECT_EQ(key.sign(c_nonce, "PING"), "") << "a failed load leaves no key";
}

TEST(RemoteServiceKeyTest, NoncesAreFreshHex) {
    std::string first = RemoteServiceKey::createNonce();
    std::string second = RemoteServiceKey::createNonce();
    EXPECT_EQ(first.size(), 64u);
    for (char c : first)
        EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(c)) || (c >= 'a' && c <= 'f')) << c;
    EXPECT_NE(first, second);
}

TEST(RemoteServiceKeyTest, PathsComeFromTheSettingOrTheHome) {
    const char* home = std::getenv("HOME");
    std::string savedHome = home ? home : "";
    ::setenv("HOME", "/home/someone", 1);
    EXPECT_EQ(RemoteServiceKey::defaultPath(), "/home/someone/.kestrane/remote-service.key");
    auto config = RequestServerConfiguration::getRegisteredInstance();
    config->setValue("remoteServiceKeyFile", "");
    EXPECT_EQ(RemoteServiceKey::configuredPath(), "/home/someone/.kestrane/remote-service.key");
    config->setValue("remoteServiceKeyFile", "/etc/ks/key");
    EXPECT_EQ(RemoteServiceKey::configuredPath(), "/etc/ks/key");
    config->setValue("remoteServiceKeyFile", "");
    if (home)
        ::setenv("HOME", savedHome.c_str(), 1);
    else
        ::unsetenv("HOME");
}
