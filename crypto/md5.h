// MD5 (RFC 1321) of buffers and files, over libgcrypt. For identifiers and random tokens; MD5 is
// broken as a proof of authenticity. Calls on different contexts may run in parallel.
#pragma once

#include <cstdint>

inline constexpr int kMd5Bytes = 16;

/// A digest being made. Holds a libgcrypt handle from MD5Init() to MD5Final(), which must be called
/// to release it; not to be copied in between.
struct md5_context {
  void *handle;
};

void MD5Init(md5_context *context);
/// Adds `length` bytes; a length below 1 adds nothing.
void MD5Update(md5_context *context, const void *data, int64_t length);
/// Writes the digest and releases the context. The digest is all zero where libgcrypt refuses MD5
/// (a host in FIPS mode) or has no memory; crypto::gcrypt_works tells the first at the start.
void MD5Final(uint8_t out[kMd5Bytes], md5_context *context);

/// The binary digest of `length` bytes. Null data or a length below 1 is the empty input.
void Md5Val(const void *data, int64_t length, uint8_t out[kMd5Bytes]);
/// The binary digest of a file, read in pieces of 1024 bytes; blocks as reading the file does. 0;
/// -1 when an argument is null, the file can't be opened or read, or libgcrypt refuses MD5 (nothing
/// is written to `out`).
int file_md5(const char *path, uint8_t out[kMd5Bytes]);
