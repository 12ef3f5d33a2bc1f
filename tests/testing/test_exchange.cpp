// The media server's answers byte by byte: plain and enciphered exchanges, strictness with
// requests, ranges of every kind of file. The expected bytes are written out here by hand.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "raw_client.h"

using namespace refserver;
using namespace rawtest;

namespace {

std::string port_hex(const media_server &server, int node) {
  char text[5];
  std::snprintf(text, sizeof text, "%04x", server.port(node));
  return text;
}

TEST(Exchange, EveryResponseByteByByte) {
  media_server server({.nodes = 2,
                       .node = {{.load = 0x0a0b}, {.type = 3, .load = 5}},
                       .entry = {.type = 1, .load = 9},
                       .entry_is_node = true});
  const file_id film = server.add_generated("/films/film.mp4", 0x123456789a, 7);
  const file_id index = server.add_bytes("film.idx", "0123456789", 0);
  server.set_index(film, index);
  ASSERT_TRUE(server.start()) << server.error();

  struct row {
    int node;
    bytes request;
    std::string expected;
  };
  const std::string tag = "66696c6d2e6d7034" + std::string(56, '0');
  const row rows[] = {
      {entry_server, make_request(1, 0xfffffff0, film),
       "00000032"
       "80000001"
       "fffffff0"
       "0203"
       "00000000"
       "0003"
       "7f000001" +
           port_hex(server, 0) + "020a0b00" + "7f000001" + port_hex(server, 1) + "03000500" +
           "7f000001" + port_hex(server, entry_server) + "01000900"},
      {0, make_request(2, 2, film),
       "00000057"
       "80000002"
       "00000002"
       "0203"
       "00000000" +
           tag + "000000123456789a" + "07" + "0000000a" + hex(index) + "0a0b" + "0000"},
      {1, make_request(3, 3, index, 4, 100, 0x81),
       "00000025"
       "80000003"
       "00000003"
       "0203"
       "00000000"
       "0005"
       "0000000000000004"
       "00000000"
       "00000006"
       "81"
       "343536373839"},
  };
  for (const row &row : rows) {
    raw_client client(server, row.node);
    bytes request = row.request;
    sign(request, server.url(film));
    // In two pieces: a request is answered when it is whole, not before.
    client.send(bytes(request.begin(), request.begin() + 90));
    EXPECT_EQ(client.ending(20), "open");
    client.send(bytes(request.begin() + 90, request.end()));
    EXPECT_EQ(hex(client.receive_response()), row.expected);
    EXPECT_EQ(client.ending(20), "open");
  }
  const std::vector<request_record> log = server.log();
  ASSERT_EQ(log.size(), 3U);
  const request_record &last = log[2];
  EXPECT_EQ(last.node, 1);
  EXPECT_EQ(last.connection, 3U);
  EXPECT_EQ(last.command, 3U);
  EXPECT_EQ(last.sequence, 3U);
  EXPECT_EQ(last.version, 0x0203);
  EXPECT_EQ(last.client_version, 0x01020304U);
  EXPECT_EQ(last.local_ip, "10.1.1.200");
  EXPECT_EQ(hex(last.hid), "404142434445464748494a4b4c4d4e4f50515253");
  EXPECT_EQ(last.uid, 0x1122334455667788U);
  EXPECT_EQ(last.fid, index);
  EXPECT_EQ(last.offset, 4U);
  EXPECT_EQ(last.length, 100U);
  EXPECT_EQ(last.flag, 0x81);
  EXPECT_EQ(last.bytes_sent, 43U);
  EXPECT_EQ(last.payload_sent, 6U);
  EXPECT_GT(last.done_s, 0.0);
  EXPECT_EQ(server.totals().payload_sent, 6U);
}

// The clear body; empty when the padding is wrong.
bytes decipher(const bytes &key, const bytes &data) {
  bytes out = decipher_blocks(key, data);
  const size_t padding = out.empty() ? 0 : out.back();
  if (padding < 1 || padding > 8) return {};
  for (size_t i = 1; i <= padding; ++i)
    if (out[out.size() - i] != padding) return {};
  out.resize(out.size() - padding);
  return out;
}

// A name whose id gives a DES key of zeros but for parity when hid and uid play along.
std::string weak_name() {
  for (int i = 0;; ++i) {
    const std::string name = "weak" + std::to_string(i);
    const file_id id = id_of(name);
    if (id[7] <= 1 && id[8] <= 1) return name;
  }
}

TEST(Exchange, EncipheredBodiesUseTheKeyOfTheirRequest) {
  media_server server({.nodes = 1, .node = {{.load = 1}}, .encipher = true, .check_auth = false});
  const file_id film = server.add_generated("film.mp4", 1000);
  const file_id weak = server.add_generated(weak_name(), 1000, 7);
  ASSERT_TRUE(server.start()) << server.error();

  struct row {
    file_id id;
    uint32_t sequence;
    const char *local_ip;
    uint8_t key0, key1, key2;  ///< sequence + 106 and two numbers of the address
    bool zero_identity;
  };
  const row rows[] = {
      {film, 1, "10.1.1.200", 107, 10, 200, false}, {film, 0xffffff96, "1.2.3.4", 0, 1, 3, false},
      {film, 2, "127.0.0.1", 108, 127, 0, false},   {film, 3, "192.168.10.20", 109, 192, 20, false},
      {weak, 150, "0.0.0.0", 0, 0, 0, true},
  };
  for (const row &row : rows) {
    SCOPED_TRACE(row.local_ip);
    const std::string list = "00017f000001" + port_hex(server, 0) + "02000100";
    for (uint32_t command = 1; command <= 2; ++command) {
      bytes request = make_request(command, row.sequence, row.id, 0, 0, 0, row.local_ip);
      if (row.zero_identity) {
        request[34] = static_cast<uint8_t>(-row.id[0]);
        request[35] = static_cast<uint8_t>(-row.id[1]);
        request[61] = 0;
      }
      const bytes key = {row.key0,
                         row.key1,
                         row.key2,
                         static_cast<uint8_t>(request[34] + row.id[0]),
                         static_cast<uint8_t>(request[35] + row.id[1]),
                         request[61],
                         row.id[7],
                         row.id[8]};
      raw_client client(server, 0);
      client.send(request);
      const bytes response = client.receive_response();
      ASSERT_GT(response.size(), 18U);
      EXPECT_EQ(get32(&response[14]), 1U);
      const bytes body = decipher(key, bytes(response.begin() + 18, response.end()));
      if (command == 1) {
        EXPECT_EQ(hex(body), list);
      } else {
        ASSERT_EQ(body.size(), 69U);
        EXPECT_EQ(hex(body).substr(72, 18), "00000000000003e807");
      }
    }
    raw_client client(server, 0);
    client.send(make_request(3, row.sequence, row.id, 0, 8, 0, row.local_ip));
    const bytes media = client.receive_response();
    ASSERT_EQ(media.size(), 45U) << "media are never enciphered";
    EXPECT_EQ(content_mismatch(row.id, 0, &media[37], 8), 8U);
  }
}

TEST(Exchange, BadRequestsAreClosedUnansweredAndStrangersRefused) {
  media_server server({.nodes = 1, .stamp = -5});
  const file_id film = server.add_generated("film.mp4", 1000);
  ASSERT_TRUE(server.start()) << server.error();
  struct row {
    const char *name;
    uint32_t command;
    size_t at;
    bytes change;
    uint32_t result;  ///< UINT32_MAX: closed unanswered
  };
  const row rows[] = {
      {"as it should be", 1, 0, {}, 0},
      {"as it should be", 3, 0, {}, 0},
      {"length 105", 1, 0, {0, 0, 0, 105}, UINT32_MAX},
      {"length 118", 3, 0, {0, 0, 0, 118}, UINT32_MAX},
      {"length 0", 1, 0, {0, 0, 0, 0}, UINT32_MAX},
      {"length 2^32-1", 1, 0, {255, 255, 255, 255}, UINT32_MAX},
      {"command 0", 1, 4, {0, 0, 0, 0}, UINT32_MAX},
      {"command 4", 3, 4, {0, 0, 0, 4}, UINT32_MAX},
      {"a response", 1, 4, {128, 0, 0, 1}, UINT32_MAX},
      {"media request of 106 bytes", 1, 4, {0, 0, 0, 3}, UINT32_MAX},
      {"list request of 119 bytes", 3, 4, {0, 0, 0, 1}, UINT32_MAX},
      {"no address", 2, 18, {'x'}, UINT32_MAX},
      {"bytes behind the address", 2, 33, {'1'}, UINT32_MAX},
      {"stamp not sign-extended", 2, 78, {0}, UINT32_MAX},
      {"another auth", 3, 62, {0, 0}, 30},
      {"another stamp", 2, 85, {1}, 30},
      {"another key id", 1, 89, {1}, 30},
      {"unknown file", 1, 90, {1, 2, 3}, 10},
      {"unknown file", 2, 90, {1, 2, 3}, 10},
      {"unknown file", 3, 90, {1, 2, 3}, 10},
  };
  uint64_t bad = 0;
  for (const row &row : rows) {
    SCOPED_TRACE(row.name);
    bytes request = make_request(row.command, 1, film, 0, 10);
    sign(request, server.url(film));
    std::copy(row.change.begin(), row.change.end(), request.begin() + row.at);
    raw_client client(server, 0);
    client.send(request);
    const bytes response = client.receive_response();
    if (row.result != UINT32_MAX) {
      ASSERT_GE(response.size(), 18U);
      EXPECT_EQ(get32(&response[14]), row.result);
      EXPECT_TRUE(row.result == 0 || response.size() == (row.command == 3 ? 37U : 18U));
      EXPECT_EQ(server.log().back().error, "");
    } else {
      ++bad;
      EXPECT_TRUE(response.empty());
      EXPECT_NE(client.ending(20'000), "open");
      EXPECT_NE(server.log().back().error, "");
    }
  }
  EXPECT_EQ(server.totals(0).bad_requests, bad);
}

TEST(Exchange, RangesOfEveryKindOfFile) {
  constexpr uint64_t big = 3 * (uint64_t{1} << 32) + 12345;
  media_server server({.nodes = 1, .check_auth = false});
  const std::string path = testing::TempDir() + "ranges" + std::to_string(getpid()) + ".ts";
  std::string sample(300'001, '\0');
  const file_id seed = id_of(path);
  content_fill(seed, 0, sample.data(), sample.size());
  std::ofstream(path, std::ios::binary) << sample;
  file_id on_disk{};
  ASSERT_TRUE(server.add_file(path, &on_disk));
  EXPECT_FALSE(server.add_file(path + ".missing", nullptr));
  EXPECT_FALSE(server.add_file("/", nullptr));
  ASSERT_EQ(on_disk, seed) << "so one checker serves all three files";
  const file_id generated = server.add_generated("big.mkv", big, type_by_name("big.mkv"));
  std::string in_memory(1000, '\0');
  content_fill(id_of("small"), 0, in_memory.data(), in_memory.size());
  const file_id small = server.add_bytes("small", in_memory);
  ASSERT_TRUE(server.start()) << server.error();

  struct row {
    file_id id;
    uint64_t offset;
    uint32_t length, expected;
  };
  const row rows[] = {
      {on_disk, 0, 300'001, 300'001},
      {on_disk, 299'999, 100, 2},
      {on_disk, 300'001, 1, 0},
      {small, 13, 500, 500},
      {small, 990, UINT32_MAX, 10},
      {small, 5, 0, 0},
      {generated, (uint64_t{1} << 32) - 3, 10'000'001, 10'000'001},
      {generated, big - 1, 2, 1},
      {generated, UINT64_MAX - 1, UINT32_MAX, 0},
  };
  raw_client client(server, 0);
  for (const row &row : rows) {
    client.send(make_request(3, 1, row.id, row.offset, row.length));
    const bytes response = client.receive_response();
    ASSERT_EQ(response.size(), 37U + row.expected) << row.offset;
    EXPECT_EQ(content_mismatch(row.id, row.offset, response.data() + 37, row.expected),
              row.expected);
  }
  std::remove(path.c_str());
}

// Two generated files, two places: nothing agrees but by chance, and one byte equals its range's
// byte.
TEST(Content, IdentifiesFileAndPosition) {
  const file_id a = id_of("a"), b = id_of("b");
  bytes range(4096);
  for (const uint64_t position : {uint64_t{0}, uint64_t{5}, (uint64_t{1} << 40) + 3}) {
    content_fill(a, position, range.data(), range.size());
    EXPECT_EQ(content_mismatch(a, position, range.data(), range.size()), range.size());
    EXPECT_LT(content_mismatch(b, position, range.data(), range.size()), 16U);
    EXPECT_LT(content_mismatch(a, position + 4096, range.data(), range.size()), 16U);
    for (size_t i = 0; i < 20; ++i) EXPECT_EQ(content_byte(a, position + i), range[i]);
    range[777] ^= 1;
    EXPECT_EQ(content_mismatch(a, position, range.data(), range.size()), 777U);
  }
}

}  // namespace
