#include "crypto/gcrypt_ready.h"

#include <gcrypt.h>

namespace crypto {

bool gcrypt_ready() {
  static const bool ready = [] {
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0) return true;
    if (gcry_check_version(GCRYPT_VERSION) == nullptr) return false;
    // No key of ours is worth locked memory, which a device's limits may refuse.
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  return ready;
}

}  // namespace crypto
