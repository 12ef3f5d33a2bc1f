// DES and triple DES over whole buffers: libgcrypt's block ciphers, our padding. See des.h.
#include "crypto/des.h"

#include <gcrypt.h>

#include <climits>
#include <cstring>
#include <memory>

#include "crypto/gcrypt_ready.h"

namespace {

constexpr int kBlock = 8;

using cipher_ptr =
    std::unique_ptr<gcry_cipher_handle,
                    decltype([](gcry_cipher_hd_t handle) { gcry_cipher_close(handle); })>;

template <class Context>
// The context has no field that says which it is: its length does.
constexpr int kAlgorithm = sizeof(Context::key) == kBlock ? GCRY_CIPHER_DES : GCRY_CIPHER_3DES;

// Opens a cipher and gives it the context's key. 0, GPG_ERR_WEAK_KEY with a cipher that works, or
// another code.
template <class Context>
int open_cipher(const Context &context, cipher_ptr *cipher) {
  if (!crypto::gcrypt_ready()) return GPG_ERR_NOT_INITIALIZED;
  gcry_cipher_hd_t handle = nullptr;
  gcry_error_t error = gcry_cipher_open(&handle, kAlgorithm<Context>, GCRY_CIPHER_MODE_ECB, 0);
  if (error != 0) return static_cast<int>(gcry_err_code(error));
  cipher->reset(handle);
  // Peers may have been given a weak key; refusing it would cut them off.
  gcry_cipher_ctl(handle, GCRYCTL_SET_ALLOW_WEAK_KEY, nullptr, 1);
  error = gcry_cipher_setkey(handle, context.key, sizeof context.key);
  return static_cast<int>(gcry_err_code(error));
}

template <class Context>
bool ready_cipher(const Context &context, cipher_ptr *cipher) {
  const int code = open_cipher(context, cipher);
  return code == 0 || code == GPG_ERR_WEAK_KEY;
}

template <class Context>
int key_code(const Context &context) {
  cipher_ptr cipher;
  return open_cipher(context, &cipher);
}

size_t as_size(int n) {
  return static_cast<size_t>(n);
}

template <class Context>
int encrypt(const Context *context, const void *in, int len, void *out, int *out_len) {
  if (context == nullptr || in == nullptr || out == nullptr || out_len == nullptr) return -1;
  if (len < 0 || len > INT_MAX - kBlock) return -1;
  cipher_ptr cipher;
  if (!ready_cipher(*context, &cipher)) return -1;

  const int whole = len / kBlock * kBlock;
  const int rest = len - whole;
  // Taken before anything is written: `out` may be `in`.
  uint8_t last[kBlock];
  std::memset(last, kBlock - rest, sizeof last);
  std::memcpy(last, static_cast<const uint8_t *>(in) + whole, as_size(rest));

  auto *const bytes = static_cast<uint8_t *>(out);
  if (whole > 0 && gcry_cipher_encrypt(cipher.get(), bytes, as_size(whole), in, as_size(whole)))
    return -1;
  if (gcry_cipher_encrypt(cipher.get(), bytes + whole, kBlock, last, kBlock) != 0) return -1;
  *out_len = whole + kBlock;
  return 0;
}

// Data bytes in the last block, or -1 for wrong padding.
int unpadded(const uint8_t (&last)[kBlock]) {
  const int padding = last[kBlock - 1];
  if (padding == 0 || padding > kBlock) return -1;
  for (int i = kBlock - padding; i < kBlock; ++i) {
    if (last[i] != padding) return -1;
  }
  return kBlock - padding;
}

template <class Context>
int decrypt(const Context *context, const void *in, int len, void *out, int *out_len) {
  if (context == nullptr || in == nullptr || out == nullptr || out_len == nullptr) return -1;
  if (len < kBlock || len % kBlock != 0) return -1;
  cipher_ptr cipher;
  if (!ready_cipher(*context, &cipher)) return -1;

  const int whole = len - kBlock;
  uint8_t last[kBlock];
  std::memcpy(last, static_cast<const uint8_t *>(in) + whole, kBlock);
  if (whole > 0 && gcry_cipher_decrypt(cipher.get(), out, as_size(whole), in, as_size(whole)))
    return -1;
  if (gcry_cipher_decrypt(cipher.get(), last, kBlock, nullptr, 0) != 0) return -1;

  // Looked at in a block of its own: wrong padding leaves *out_len alone.
  const int rest = unpadded(last);
  if (rest < 0) return -1;
  std::memcpy(static_cast<uint8_t *>(out) + whole, last, as_size(rest));
  *out_len = whole + rest;
  return 0;
}

}  // namespace

int DesSetKey(des_context *context, const uint8_t key[8]) {
  if (context == nullptr || key == nullptr) return -1;
  std::memcpy(context->key, key, kBlock);
  return key_code(*context);
}

int Des3Set2Key(des3_context *context, const uint8_t key1[8], const uint8_t key2[8]) {
  return Des3Set3Key(context, key1, key2, key1);
}

int Des3Set3Key(des3_context *context, const uint8_t key1[8], const uint8_t key2[8],
                const uint8_t key3[8]) {
  if (context == nullptr || key1 == nullptr || key2 == nullptr || key3 == nullptr) return -1;
  std::memcpy(context->key, key1, kBlock);
  std::memcpy(context->key + kBlock, key2, kBlock);
  std::memcpy(context->key + 2 * kBlock, key3, kBlock);
  return key_code(*context);
}

int DesEncrypt(const des_context *context, const void *in, int len, void *out, int *out_len) {
  return encrypt(context, in, len, out, out_len);
}

int Des3Encrypt(const des3_context *context, const void *in, int len, void *out, int *out_len) {
  return encrypt(context, in, len, out, out_len);
}

int DesDecrypt(const des_context *context, const void *in, int len, void *out, int *out_len) {
  return decrypt(context, in, len, out, out_len);
}

int Des3Decrypt(const des3_context *context, const void *in, int len, void *out, int *out_len) {
  return decrypt(context, in, len, out, out_len);
}
