#include "Platform/RemoteComputation/Service/ServiceInterfaces/RemoteServiceKey.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Gcrypt.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/RequestServerConfiguration.h"

#include <gcrypt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrane {

namespace {

std::string toHex(const unsigned char* bytes, size_t size) {
    static const char* digits = "0123456789abcdef";
    std::string text(2 * size, '0');
    for (size_t i = 0; i < size; ++i) {
        text[2 * i] = digits[bytes[i] >> 4];
        text[2 * i + 1] = digits[bytes[i] & 0xf];
    }
    return text;
}

std::string homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

std::string modeText(mode_t mode) {
    char text[8];
    std::snprintf(text, sizeof(text), "%04o", static_cast<unsigned int>(mode & 07777));
    return text;
}

// Creates the missing directories of `path` with mode 0700, as a key's home must not be open.
bool createParents(const std::string& path, std::string& message) {
    for (size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        std::string directory = path.substr(0, slash);
        if (::mkdir(directory.c_str(), 0700) != 0 && errno != EEXIST) {
            message = "Cannot create directory '" + directory + "': " + std::strerror(errno);
            return false;
        }
    }
    return true;
}

bool writeAll(int fd, const unsigned char* data, size_t size) {
    size_t done = 0;
    while (done < size) {
        ssize_t written = ::write(fd, data + done, size - done);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

} // namespace

std::string RemoteServiceKey::defaultPath() {
    return homeDirectory() + "/.kestrane/remote-service.key";
}

std::string RemoteServiceKey::configuredPath() {
    std::string path =
        RequestServerConfiguration::getRegisteredInstance()->getRemoteServiceKeyFile();
    return path.empty() ? defaultPath() : path;
}

bool RemoteServiceKey::create(const std::string& path, std::string& message) {
    if (!createParents(path, message))
        return false;
    // O_EXCL: an existing key stays as it is, whoever made it.
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        message = errno == EEXIST
                      ? "Key file '" + path + "' exists already; it is not replaced"
                      : "Cannot create key file '" + path + "': " + std::strerror(errno);
        return false;
    }
    initialiseGcrypt();
    unsigned char key[c_size];
    gcry_randomize(key, sizeof(key), GCRY_VERY_STRONG_RANDOM);
    bool written = ::fchmod(fd, 0600) == 0 && writeAll(fd, key, sizeof(key));
    int error = errno;
    written = ::close(fd) == 0 && written;
    if (!written) {
        ::unlink(path.c_str());
        message = "Cannot write key file '" + path + "': " + std::strerror(error);
        return false;
    }
    return true;
}

bool RemoteServiceKey::load(const std::string& path, std::string& message) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        int error = errno;
        if (error == ENOENT)
            message = "Key file '" + path +
                      "' does not exist (create one with 'ks-remote-service --create-key' and "
                      "copy it to every host)";
        else if (error == ELOOP)
            message = "Key file '" + path + "' is a symbolic link; it must be a regular file";
        else
            message = "Cannot open key file '" + path + "': " + std::strerror(error);
        return false;
    }
    struct stat status {};
    if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        ::close(fd);
        message = "Key file '" + path + "' is not a regular file";
        return false;
    }
    if (status.st_mode & (S_IRWXG | S_IRWXO)) {
        ::close(fd);
        message = "Key file '" + path + "' is open to group or others (mode " +
                  modeText(status.st_mode) + "); it must be readable by its owner only (chmod 600)";
        return false;
    }
    char buffer[c_size + 1];
    size_t got = 0;
    for (;;) {
        ssize_t n = ::read(fd, buffer + got, sizeof(buffer) - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
        if (got == sizeof(buffer))
            break;
    }
    ::close(fd);
    if (got != c_size) {
        message =
            "Key file '" + path + "' does not hold a key of " + std::to_string(c_size) + " bytes";
        return false;
    }
    m_key.assign(buffer, c_size);
    return true;
}

std::string RemoteServiceKey::sign(const std::string& nonce, const std::string& payload) const {
    // Without a loaded key there is no secret: an HMAC under the empty key is anybody's.
    if (m_key.empty())
        return std::string();
    initialiseGcrypt();
    gcry_mac_hd_t mac = nullptr;
    unsigned char digest[32];
    size_t length = sizeof(digest);
    bool ok = gcry_mac_open(&mac, GCRY_MAC_HMAC_SHA256, 0, nullptr) == 0 &&
              gcry_mac_setkey(mac, m_key.data(), m_key.size()) == 0 &&
              gcry_mac_write(mac, nonce.data(), nonce.size()) == 0 &&
              gcry_mac_write(mac, payload.data(), payload.size()) == 0 &&
              gcry_mac_read(mac, digest, &length) == 0;
    if (mac)
        gcry_mac_close(mac);
    // A MAC that could not be computed matches nothing.
    return ok && length == sizeof(digest) ? toHex(digest, length) : std::string();
}

bool RemoteServiceKey::verify(const std::string& nonce, const std::string& payload,
                              const std::string& answer) const {
    std::string expected = sign(nonce, payload);
    if (expected.empty() || answer.size() != expected.size())
        return false;
    unsigned char difference = 0;
    for (size_t i = 0; i < expected.size(); ++i)
        difference |= static_cast<unsigned char>(expected[i] ^ answer[i]);
    return difference == 0;
}

std::string RemoteServiceKey::createNonce() {
    initialiseGcrypt();
    unsigned char nonce[32];
    gcry_randomize(nonce, sizeof(nonce), GCRY_STRONG_RANDOM);
    return toHex(nonce, sizeof(nonce));
}

} // namespace Kestrane
