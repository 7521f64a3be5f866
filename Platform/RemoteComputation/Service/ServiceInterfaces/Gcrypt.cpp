#include "Platform/RemoteComputation/Service/ServiceInterfaces/Gcrypt.h"

#include <gcrypt.h>

#include <mutex>

namespace Kestrane {

void initialiseGcrypt() {
    static std::once_flag once;
    std::call_once(once, [] {
        gcry_check_version(GCRYPT_VERSION);
        gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    });
}

} // namespace Kestrane
