#pragma once

#include <cstddef>
#include <string>

namespace Kestrane {

// The shared secret of a starter service and its clients: 32 random bytes in a file that only
// its owner may read. The service accepts a command only together with the HMAC-SHA256 of its
// fresh nonce and the command under this key, so nobody without the file can start a program,
// and a recorded answer is worth nothing for the next connection.
class RemoteServiceKey {
public:
    static constexpr size_t c_size = 32;

    // ~/.kestrane/remote-service.key
    static std::string defaultPath();
    // The remoteServiceKeyFile setting, or defaultPath() when it is empty.
    static std::string configuredPath();

    // Writes a new random key with mode 0600 (missing parent directories with 0700). False with
    // `message` when the file exists already (a key is never overwritten) or can't be written.
    static bool create(const std::string& path, std::string& message);

    // Reads a key. False with `message` when the file is missing, not a regular file, open to
    // group or others, or not exactly c_size bytes long.
    bool load(const std::string& path, std::string& message);

    // Lower-case hexadecimal HMAC-SHA256(key, nonce + payload).
    std::string sign(const std::string& nonce, const std::string& payload) const;
    // Whether `answer` is sign(nonce, payload); compares in constant time.
    bool verify(const std::string& nonce, const std::string& payload,
                const std::string& answer) const;

    // A new nonce from the strong random generator, as 64 hexadecimal digits.
    static std::string createNonce();

private:
    std::string m_key;
};

} // namespace Kestrane
