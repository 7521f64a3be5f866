#include "Platform/RemoteComputation/Service/ServiceInterfaces/UniqueID.h"
#include "Platform/RemoteComputation/Service/ServiceInterfaces/Gcrypt.h"

#include <gcrypt.h>

#include <atomic>
#include <cstdio>
#include <pthread.h>
#include <random>
#include <unistd.h>

namespace Kestrane {

const std::string UniqueID::c_nullId = "0000000000000000-0000000000000000-0000000000000000";

namespace {

// Counts the forks of this process as seen in the children; a generator made before the
// latest fork reseeds, so that a forked child never repeats its parent's ids. Cheaper than
// asking the kernel for the pid at every id.
std::atomic<unsigned int> s_forkGeneration{0};

void countFork() {
    s_forkGeneration.fetch_add(1, std::memory_order_relaxed);
}

// One generator per thread, seeded from the kernel's entropy.
struct ThreadGenerator {
    std::mt19937_64 engine;
    bool seeded = false;
    unsigned int generation = 0;

    void reseedIfStale() {
        static const int registered = ::pthread_atfork(nullptr, nullptr, countFork);
        (void)registered;
        const unsigned int current = s_forkGeneration.load(std::memory_order_relaxed);
        if (seeded && current == generation)
            return;
        std::random_device device; // getrandom() on Linux
        std::seed_seq seed{device(), device(), device(), device(),
                           device(), device(), device(), device()};
        engine.seed(seed);
        generation = current;
        seeded = true;
    }
};

} // namespace

std::string UniqueID::generateId() {
    thread_local ThreadGenerator generator;
    generator.reseedIfStale();
    char text[c_length + 1];
    std::snprintf(text, sizeof(text), "%016llX-%016llX-%016llX",
                  static_cast<unsigned long long>(generator.engine()),
                  static_cast<unsigned long long>(generator.engine()),
                  static_cast<unsigned long long>(generator.engine()));
    return std::string(text, c_length);
}

bool UniqueID::isValid(const std::string& text) {
    if (text.size() != c_length)
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (i == 16 || i == 33) {
            if (c != '-')
                return false;
        } else if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) {
            return false;
        }
    }
    return true;
}

std::string TigerHash::tHash(const std::string& text) {
    initialiseGcrypt();
    unsigned char digest[24];
    gcry_md_hash_buffer(GCRY_MD_TIGER1, digest, text.data(), text.size());
    static const char* hex = "0123456789abcdef";
    std::string result(48, '0');
    for (size_t i = 0; i < 24; ++i) {
        result[2 * i] = hex[digest[i] >> 4];
        result[2 * i + 1] = hex[digest[i] & 0x0f];
    }
    return result;
}

} // namespace Kestrane
