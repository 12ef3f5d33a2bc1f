// The media server's answers byte by byte: plain and enciphered exchanges, strictness with
// requests, ranges of every kind of file. The expected bytes are written out here by hand.
#include <algorithm>

#include "raw_client.h"

using namespace refserver;
using namespace rawtest;

namespace {

std::string port_hex(const media_server &server, int node) {
  uint8_t port[2];
  put16(port, server.port(node));
  return hex(port);
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

  const std::string tag = "66696c6d2e6d7034" + std::string(56, '0');
  const struct {
    int node;
    bytes request;
    std::string expected;
  } rows[] = {
      // Header up to the result, then: three entries; a description; media bytes behind their PDU.
      {entry_server, make_request(1, 0xfffffff0, film),
       "0000003280000001fffffff0020300000000"
       "00037f000001" +
           port_hex(server, 0) + "020a0b007f000001" + port_hex(server, 1) + "030005007f000001" +
           port_hex(server, entry_server) + "01000900"},
      {0, make_request(2, 2, film),
       "000000578000000200000002020300000000" + tag + "000000123456789a070000000a" + hex(index) +
           "0a0b0000"},
      {1, make_request(3, 3, index, 4, 100, 0x81),
       "000000258000000300000003020300000000"
       "000500000000000000040000000000000006"
       "81343536373839"},
  };
  for (const auto &row : rows) {
    raw_client client(server, row.node);
    bytes request = row.request;
    sign(request, server.url(film));
    // In two pieces: a request is answered when it is whole, not before.
    client.send(bytes(request.begin(), request.begin() + 90));
    EXPECT_EQ(client.ending(), "open");
    client.send(bytes(request.begin() + 90, request.end()));
    EXPECT_EQ(hex(client.receive_response()), row.expected);
    EXPECT_EQ(client.ending(), "open");
  }
  const std::vector<request_record> log = server.log();
  ASSERT_EQ(log.size(), 3U);
  const request_record &last = log[2];
  EXPECT_TRUE(last.node == 1 && last.connection == 3 && last.command == 3 && last.fid == index);
  EXPECT_TRUE(last.offset == 4 && last.length == 100 && last.flag == 0x81);
  EXPECT_TRUE(last.bytes_sent == 43 && last.payload_sent == 6 && last.done_s > 0.0);
  EXPECT_EQ(server.totals().payload_sent, 6U);
}

TEST(Exchange, BadRequestsAreClosedUnansweredAndStrangersRefused) {
  media_server server({.nodes = 1, .stamp = -5});
  const file_id film = server.add_generated("film.mp4", 1000);
  ASSERT_TRUE(server.start()) << server.error();
  constexpr uint32_t closed = UINT32_MAX;
  const struct {
    const char *name;
    uint32_t command;
    size_t at;
    bytes change;
    uint32_t result;  ///< closed: unanswered
  } rows[] = {
      {"as it should be", 1, 0, {}, 0},
      {"as it should be", 3, 0, {}, 0},
      {"length 105", 1, 0, {0, 0, 0, 105}, closed},
      {"length 118", 3, 0, {0, 0, 0, 118}, closed},
      {"length 2^32-1", 1, 0, {255, 255, 255, 255}, closed},
      {"command 0", 1, 4, {0, 0, 0, 0}, closed},
      {"command 4", 3, 4, {0, 0, 0, 4}, closed},
      {"media request of 106 bytes", 1, 4, {0, 0, 0, 3}, closed},
      {"list request of 119 bytes", 3, 4, {0, 0, 0, 1}, closed},
      {"no address", 2, 18, {'x'}, closed},
      {"bytes behind the address", 2, 33, {'1'}, closed},
      {"stamp not sign-extended", 2, 78, {0}, closed},
      {"another auth", 3, 62, {0, 0}, 30},
      {"another stamp", 2, 85, {1}, 30},
      {"another key id", 1, 89, {1}, 30},
      {"unknown file", 1, 90, {1, 2, 3}, 10},
      {"unknown file", 3, 90, {1, 2, 3}, 10},
  };
  uint64_t bad = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.name);
    bytes request = make_request(row.command, 1, film, 0, 10);
    sign(request, server.url(film));
    std::copy(row.change.begin(), row.change.end(), request.begin() + row.at);
    raw_client client(server, 0);
    client.send(request);
    const bytes response = client.receive_response();
    if (row.result == closed) {
      ++bad;
      EXPECT_TRUE(response.empty());
      EXPECT_NE(client.ending("closed"), "open");
    } else {
      ASSERT_GE(response.size(), 18U);
      EXPECT_EQ(get32(&response[14]), row.result);
      EXPECT_TRUE(row.result == 0 || response.size() == (row.command == 3 ? 37U : 18U));
    }
    EXPECT_EQ(server.log().back().error.empty(), row.result != closed);
  }
  EXPECT_EQ(server.totals(0).bad_requests, bad);
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
