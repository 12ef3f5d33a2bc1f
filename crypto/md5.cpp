// MD5 of buffers and files by libgcrypt. See md5.h.
#include "crypto/md5.h"

#include <gcrypt.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "crypto/gcrypt_ready.h"

namespace {

gcry_md_hd_t handle_of(const md5_context *context) {
  return static_cast<gcry_md_hd_t>(context->handle);
}

}  // namespace

void MD5Init(md5_context *context) {
  gcry_md_hd_t handle = nullptr;
  if (crypto::gcrypt_ready() && gcry_md_open(&handle, GCRY_MD_MD5, 0) != 0) handle = nullptr;
  context->handle = handle;
}

void MD5Update(md5_context *context, const void *data, int64_t length) {
  if (context->handle == nullptr || data == nullptr || length < 1) return;
  gcry_md_write(handle_of(context), data, static_cast<size_t>(length));
}

void MD5Final(uint8_t out[kMd5Bytes], md5_context *context) {
  // Never what happens to lie there: a refused digest is at least always the same.
  std::memset(out, 0, kMd5Bytes);
  if (context->handle == nullptr) return;
  std::memcpy(out, gcry_md_read(handle_of(context), GCRY_MD_MD5), kMd5Bytes);
  gcry_md_close(handle_of(context));
  context->handle = nullptr;
}

void Md5Val(const void *data, int64_t length, uint8_t out[kMd5Bytes]) {
  md5_context context;
  MD5Init(&context);
  MD5Update(&context, data, length);
  MD5Final(out, &context);
}

int file_md5(const char *path, uint8_t out[kMd5Bytes]) {
  if (path == nullptr || out == nullptr) return -1;
  const std::unique_ptr<std::FILE, decltype([](std::FILE *file) { std::fclose(file); })> file(
      std::fopen(path, "re"));
  if (file == nullptr) return -1;

  md5_context context;
  MD5Init(&context);
  if (context.handle == nullptr) return -1;
  uint8_t piece[1024];
  for (size_t n; (n = std::fread(piece, 1, sizeof piece, file.get())) > 0;) {
    MD5Update(&context, piece, static_cast<int64_t>(n));
  }
  uint8_t digest[kMd5Bytes];
  MD5Final(digest, &context);
  // A digest of a part would pass for the file's.
  if (std::ferror(file.get()) != 0) return -1;
  std::copy_n(digest, kMd5Bytes, out);
  return 0;
}
