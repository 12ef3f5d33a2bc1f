// The server's side of the media protocol: reads requests strictly and writes responses. It is
// written from the description of the protocol alone and shares nothing with the client's codec.
// Used by the server and by tests that speak to it over raw sockets. All integers on the wire are
// big-endian.
//
// Request: u32 total length, u32 command, u32 sequence, u16 version; u32 client version, 16 bytes
// local IP text, 20 bytes hardware id, u64 user id, 16 bytes auth, u64 stamp, u32 key id, 16 bytes
// file id (106 bytes); a media request goes on with u64 offset, u32 length, u8 flag (119 bytes).
// Response: the same header, u32 result, then a body by command.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "testing/content.h"

namespace refserver {

inline constexpr uint32_t command_list = 1, command_description = 2, command_media = 3;
inline constexpr uint32_t response_bit = 0x80000000;
inline constexpr size_t control_request_size = 106, media_request_size = 119;
inline constexpr size_t header_size = 14, result_end = 18, media_response_size = 37;

using bytes = std::vector<uint8_t>;
using des_key = std::array<uint8_t, 8>;

/// A request as it arrived.
struct request {
  uint32_t command = 0;  ///< 1 list, 2 description, 3 media
  uint32_t sequence = 0;
  uint16_t version = 0;
  uint32_t client_version = 0;
  std::string local_ip{};
  std::array<uint8_t, 20> hid{};
  uint64_t uid = 0;
  std::array<uint8_t, 16> auth{};
  int64_t stamp = 0;
  uint32_t keyid = 0;
  file_id fid{};
  uint64_t offset = 0;  ///< media requests only, as the next two
  uint32_t length = 0;
  uint8_t flag = 0;
};

/// Reads one request from the front of `input`. Returns its size, or 0: it is not complete yet, or
/// it is not acceptable, and `error` says why. Not acceptable are an unknown command, a total
/// length other than the command's, a local IP that is neither a NUL-padded dotted address nor
/// empty, and a stamp that is no sign-extended 32-bit number. Wrong bytes are noticed as soon as
/// they arrive.
size_t parse_request(std::span<const uint8_t> input, request *out, std::string *error);

/// The DES key for the answer to a request, made of the request's bytes.
des_key request_key(const request &r);

/// DES in ECB mode with PKCS#5 padding; accepts weak keys. The result is 1 to 8 bytes longer.
bytes encipher(const des_key &key, std::span<const uint8_t> plain);

/// The reverse; false unless the input is whole blocks that end in such padding.
bool decipher(const des_key &key, std::span<const uint8_t> coded, bytes *plain);

/// Enciphers whole blocks without padding; `size` is a multiple of 8.
void encipher_blocks(const des_key &key, uint8_t *data, size_t size);

/// One line of a server list.
struct list_entry {
  uint32_t address = 0;  ///< 127.0.0.1 is 0x7f000001; 0: the sender's
  uint16_t port = 0;     ///< 0: 3528
  uint8_t type = 2;
  uint16_t load = 0;
};

struct description {
  std::string_view tag;  ///< up to 36 bytes, NUL-padded
  uint64_t size = 0;
  uint8_t type = 0;
  uint32_t index_length = 0;
  file_id index{};
  uint16_t load = 0;
};

/// Bodies behind the result. `count` may differ from the number of entries.
bytes list_body(std::span<const list_entry> entries, uint16_t count);
bytes description_body(const description &d);
bytes media_body(uint16_t load, uint64_t position, uint32_t payload_length, uint8_t flag);

/// Header of a response to `r`, result and body, with the true total length.
bytes encode_response(const request &r, uint32_t result, std::span<const uint8_t> body);

/// Overwrites integers of an encoded PDU.
void put16(uint8_t *at, uint16_t value);
void put32(uint8_t *at, uint32_t value);
uint32_t get32(const uint8_t *at);

/// MD5 (RFC 1321) of a text.
file_id md5(std::string_view text);

std::string hex(std::span<const uint8_t> data);

}  // namespace refserver
