// Reads requests and writes responses of the media server, see wire.h.
#include "testing/wire.h"

#include <arpa/inet.h>
#include <gcrypt.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace refserver {

// Prints a message and ends the process: without ciphers the answers of the server would mislead.
static void must(gcry_error_t error, const char *what) {
  if (error == 0) return;
  std::fprintf(stderr, "media server: %s: %s\n", what, gcry_strerror(error));
  std::abort();
}

static void ready_gcrypt() {
  static const bool ready = [] {
    if (gcry_control(GCRYCTL_INITIALIZATION_FINISHED_P) == 0) {
      gcry_check_version(nullptr);
      gcry_control(GCRYCTL_DISABLE_SECMEM, 0);
      gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    }
    return true;
  }();
  (void)ready;
}

// --- integers ---

void put16(uint8_t *at, uint16_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

void put32(uint8_t *at, uint32_t value) {
  put16(at, static_cast<uint16_t>(value >> 16));
  put16(at + 2, static_cast<uint16_t>(value));
}

uint32_t get32(const uint8_t *at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

static uint64_t get64(const uint8_t *at) {
  return uint64_t{get32(at)} << 32 | get32(at + 4);
}

// Appends `width` bytes, the highest first.
static void append(bytes &out, uint64_t value, int width) {
  for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
    out.push_back(static_cast<uint8_t>(value >> shift));
}

// --- requests ---

// The text of a NUL-padded field: a dotted IPv4 address, or nothing from a device without one.
// False: anything else, bytes behind the first NUL too.
static bool address_field(const uint8_t *field, size_t size, std::string *text) {
  const uint8_t *end = std::find(field, field + size, uint8_t{0});
  if (end == field + size || std::any_of(end, field + size, [](uint8_t b) { return b != 0; }))
    return false;
  text->assign(field, end);
  in_addr ignored;
  return text->empty() || inet_pton(AF_INET, text->c_str(), &ignored) == 1;
}

size_t parse_request(std::span<const uint8_t> input, request *out, std::string *error) {
  if (input.size() < 4) return 0;
  const uint8_t *p = input.data();
  const uint32_t total = get32(p);
  if (total != control_request_size && total != media_request_size) {
    *error = "total length " + std::to_string(total);
    return 0;
  }
  if (input.size() < 8) return 0;
  out->command = get32(p + 4);
  if (out->command < command_list || out->command > command_media) {
    *error = "command " + std::to_string(out->command);
    return 0;
  }
  if ((total == media_request_size) != (out->command == command_media)) {
    *error =
        "total length " + std::to_string(total) + " for command " + std::to_string(out->command);
    return 0;
  }
  if (input.size() < total) return 0;
  out->sequence = get32(p + 8);
  out->version = static_cast<uint16_t>(get32(p + 10));
  out->client_version = get32(p + 14);
  const bool address = address_field(p + 18, 16, &out->local_ip);
  std::copy_n(p + 34, 20, out->hid.begin());
  out->uid = get64(p + 54);
  std::copy_n(p + 62, 16, out->auth.begin());
  out->stamp = static_cast<int64_t>(get64(p + 78));
  out->keyid = get32(p + 86);
  std::copy_n(p + 90, 16, out->fid.begin());
  if (out->command == command_media) {
    out->offset = get64(p + 106);
    out->length = get32(p + 114);
    out->flag = p[118];
  }
  if (!address) {
    *error = "local IP is no dotted address";
    return 0;
  }
  if (out->stamp != static_cast<int32_t>(out->stamp)) {
    *error = "stamp is no sign-extended 32-bit number";
    return 0;
  }
  return total;
}

des_key request_key(const request &r) {
  const std::string &ip = r.local_ip;
  const size_t total = r.command == command_media ? media_request_size : control_request_size;
  des_key key{};
  key[0] = static_cast<uint8_t>(r.sequence + total);
  key[1] = static_cast<uint8_t>(std::atoi(ip.c_str()));
  // The first dot among the last four characters, so 1.2.3.4 gives 3 and not 4.
  if (const size_t dot = ip.size() < 5 ? std::string::npos : ip.find('.', ip.size() - 4);
      dot != std::string::npos)
    key[2] = static_cast<uint8_t>(std::atoi(ip.c_str() + dot + 1));
  key[3] = static_cast<uint8_t>(r.hid[0] + r.fid[0]);
  key[4] = static_cast<uint8_t>(r.hid[1] + r.fid[1]);
  key[5] = static_cast<uint8_t>(r.uid);
  key[6] = r.fid[7];
  key[7] = r.fid[8];
  return key;
}

// --- ciphers and digests ---

static gcry_cipher_hd_t open_des(const des_key &key) {
  ready_gcrypt();
  gcry_cipher_hd_t cipher;
  must(gcry_cipher_open(&cipher, GCRY_CIPHER_DES, GCRY_CIPHER_MODE_ECB, 0), "DES");
  must(gcry_cipher_ctl(cipher, GCRYCTL_SET_ALLOW_WEAK_KEY, nullptr, 1), "weak keys");
  if (const gcry_error_t error = gcry_cipher_setkey(cipher, key.data(), key.size());
      gcry_err_code(error) != GPG_ERR_WEAK_KEY)
    must(error, "DES key");
  return cipher;
}

void encipher_blocks(const des_key &key, uint8_t *data, size_t size) {
  gcry_cipher_hd_t cipher = open_des(key);
  must(gcry_cipher_encrypt(cipher, data, size, nullptr, 0), "DES encryption");
  gcry_cipher_close(cipher);
}

bytes encipher(const des_key &key, std::span<const uint8_t> plain) {
  bytes out(plain.begin(), plain.end());
  const size_t padding = 8 - plain.size() % 8;
  out.insert(out.end(), padding, static_cast<uint8_t>(padding));
  encipher_blocks(key, out.data(), out.size());
  return out;
}

bool decipher(const des_key &key, std::span<const uint8_t> coded, bytes *plain) {
  if (coded.empty() || coded.size() % 8 != 0) return false;
  plain->assign(coded.begin(), coded.end());
  gcry_cipher_hd_t cipher = open_des(key);
  must(gcry_cipher_decrypt(cipher, plain->data(), plain->size(), nullptr, 0), "DES decryption");
  gcry_cipher_close(cipher);
  const size_t padding = plain->back();
  if (padding < 1 || padding > 8) return false;
  const auto end = plain->end() - static_cast<std::ptrdiff_t>(padding);
  if (std::any_of(end, plain->end(), [padding](uint8_t byte) { return byte != padding; }))
    return false;
  plain->erase(end, plain->end());
  return true;
}

file_id md5(std::string_view text) {
  ready_gcrypt();
  file_id digest;
  gcry_md_hash_buffer(GCRY_MD_MD5, digest.data(), text.data(), text.size());
  return digest;
}

std::string hex(std::span<const uint8_t> data) {
  std::string text;
  for (const uint8_t byte : data) {
    text += "0123456789abcdef"[byte >> 4];
    text += "0123456789abcdef"[byte & 15];
  }
  return text;
}

// --- responses ---

bytes list_body(std::span<const list_entry> entries, uint16_t count) {
  bytes out;
  append(out, count, 2);
  for (const list_entry &entry : entries) {
    append(out, entry.address, 4);
    append(out, entry.port, 2);
    append(out, entry.type, 1);
    append(out, entry.load, 2);
    append(out, 0, 1);
  }
  return out;
}

bytes description_body(const description &d) {
  bytes out(36);
  std::copy_n(d.tag.begin(), std::min<size_t>(d.tag.size(), 36), out.begin());
  append(out, d.size, 8);
  append(out, d.type, 1);
  append(out, d.index_length, 4);
  out.insert(out.end(), d.index.begin(), d.index.end());
  append(out, d.load, 2);
  append(out, 0, 2);  // no trailing entries
  return out;
}

bytes media_body(uint16_t load, uint64_t position, uint32_t payload_length, uint8_t flag) {
  bytes out;
  append(out, load, 2);
  append(out, position, 8);
  append(out, 0, 4);
  append(out, payload_length, 4);
  append(out, flag, 1);
  return out;
}

bytes encode_response(const request &r, uint32_t result, std::span<const uint8_t> body) {
  bytes out;
  append(out, result_end + body.size(), 4);
  append(out, r.command | response_bit, 4);
  append(out, r.sequence, 4);
  append(out, r.version, 2);
  append(out, result, 4);
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

}  // namespace refserver
