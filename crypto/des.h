// DES and triple DES over whole buffers, in ECB mode with PKCS#5 padding (RFC 8018, 6.1.1): the
// ciphers of the request bodies and of the performance channel. The block functions are
// libgcrypt's.
//
// A context is plain storage of the caller's that holds the key alone: it needs no release, may be
// copied, and may be used by several threads at once while no thread sets its key. No call blocks.
// Every call may be the first use of libgcrypt in the process: see crypto/gcrypt_ready.h.
#pragma once

#include <cstdint>

struct des_context {
  uint8_t key[8];
};

struct des3_context {
  uint8_t key[24];
};

/// Sets the key. 0, or libgcrypt's error code of the key schedule: a weak key is reported
/// (GPG_ERR_WEAK_KEY, 43) and serves all the same. -1 for a null argument.
int DesSetKey(des_context *context, const uint8_t key[8]);
/// Two keys: the first one serves a second time as the third. Results as DesSetKey().
int Des3Set2Key(des3_context *context, const uint8_t key1[8], const uint8_t key2[8]);
int Des3Set3Key(des3_context *context, const uint8_t key1[8], const uint8_t key2[8],
                const uint8_t key3[8]);

/// Enciphers `len` bytes of `in` into `out`, which takes (len / 8 + 1) * 8 bytes (room for len + 8
/// always does) and may be `in` itself; `*out_len` is that number. 0; -1 for a null pointer, a
/// negative or overflowing length, or when libgcrypt refuses the cipher.
int DesEncrypt(const des_context *context, const void *in, int len, void *out, int *out_len);
int Des3Encrypt(const des3_context *context, const void *in, int len, void *out, int *out_len);

/// Deciphers `len` bytes of `in` into `out`, which takes len - 1 bytes at most and may be `in`
/// itself; `*out_len` is the number without padding. 0; -1 for a null pointer, a length that is not
/// a positive multiple of 8, wrong padding, or when libgcrypt refuses the cipher. The content of
/// `out` is then undefined and `*out_len` is left alone.
int DesDecrypt(const des_context *context, const void *in, int len, void *out, int *out_len);
int Des3Decrypt(const des3_context *context, const void *in, int len, void *out, int *out_len);
