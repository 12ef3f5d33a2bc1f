// The one initialisation of libgcrypt, and the question whether it does what is needed of it.
#include "crypto/gcrypt_ready.h"

#include <gcrypt.h>

#include <cstdint>
#include <cstring>

#include "crypto/des.h"
#include "crypto/md5.h"

namespace {

constexpr const char *OLDEST_VERSION = "1.8.0";

bool des_works() {
  constexpr uint8_t key[8] = {0x13, 0x34, 0x57, 0x79, 0x9b, 0xbc, 0xdf, 0xf1};
  constexpr uint8_t plain[8] = {0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef};
  constexpr uint8_t expected[8] = {0x85, 0xe8, 0x13, 0x54, 0x0f, 0x0a, 0xb4, 0x05};
  des_context context;
  uint8_t out[16];
  int length = 0;
  return DesSetKey(&context, key) == 0 && DesEncrypt(&context, plain, 8, out, &length) == 0 &&
         std::memcmp(out, expected, sizeof expected) == 0;
}

bool md5_works() {
  constexpr uint8_t expected[kMd5Bytes] = {0x90, 0x01, 0x50, 0x98, 0x3c, 0xd2, 0x4f, 0xb0,
                                           0xd6, 0x96, 0x3f, 0x7d, 0x28, 0xe1, 0x7f, 0x72};
  uint8_t digest[kMd5Bytes];
  Md5Val("abc", 3, digest);
  return std::memcmp(digest, expected, sizeof expected) == 0;
}

}  // namespace

namespace crypto {

bool gcrypt_ready() {
  static const bool ready = [] {
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) != 0) return true;
    if (gcry_check_version(OLDEST_VERSION) == nullptr) return false;
    // No key of ours is worth locked memory, which a device's limits may refuse.
    gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
  }();
  return ready;
}

bool gcrypt_works() {
  return des_works() && md5_works();
}

}  // namespace crypto
