// The examples of docs/protocol.md are what both sides of the wire write and read.
#include <sstream>

#include "c2ms/report/report.h"
#include "c2ms/wire/pdu.h"
#include "local.h"
#include "testing/report_wire.h"

namespace {

using refserver::bytes;
using refserver::hex;

/// The hexadecimal examples in order. Each line's offset counts what stands before it.
std::vector<bytes> examples() {
  constexpr size_t column = 6, width = 52;
  std::vector<bytes> all;
  std::ifstream page(C2MS_PAGE);
  for (std::string line; std::getline(page, line);) {
    if (line.substr(0, 6) == "0000  ") all.emplace_back();
    if (line.size() < column || line.substr(4, 2) != "  " || all.empty()) continue;
    if (line.find_first_not_of("0123456789abcdef") != 4) continue;
    EXPECT_EQ(std::stoul(line.substr(0, 4), nullptr, 16), all.back().size()) << line;
    std::istringstream pairs(line.substr(column, width));
    for (std::string pair; pairs >> pair;)
      all.back().push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
  }
  return all;
}

/// The page's player, whose media is demo.mp4.
class Page : public Local {
 protected:
  void SetUp() override {
    const uint8_t hid[20] = {2, 0xfc, 0, 0, 0, 1};
    std::copy_n(hid, 20, mgmt->hid);
    mgmt->uid_low = mgmt->uid_high = 0;
    mgmt->build_time = 0x4e942a37;
    std::strcpy(mgmt->local_ip_text, "192.0.2.2");
    ASSERT_EQ(page.size(), 8U);
    ASSERT_EQ(page[0].size(), 119U);
    std::copy_n(&page[0][62], 16, sess->auth);
    std::copy_n(&page[0][90], 16, sess->fid);
    for (uint8_t i = 0; i < 8; ++i) sess->token[i] = static_cast<uint8_t>(0xa1 + i);
    sess->stamp = 1'700'000'000;
    sess->open_time = 1'700'000'000;
    sess->keyid = 7;
    std::strcpy(sess->media_name, "demo.mp4");
    sess->media_size = 1'027'854;
    sess->media_type = 7;
    sess->desc_count = 1;
    for (uint32_t command = 1; command <= 3; ++command)
      ASSERT_EQ(c2ms_pdu_init(sess, &pdus[command], command), 0);
  }

  /// The server's view of the request with this command.
  refserver::request asked(uint32_t command) {
    pdus[3].range_offset = 4;
    pdus[3].range_length = 8;
    bytes whole(119);
    whole.resize(static_cast<size_t>(c2ms_pdu_encode(&pdus[command], whole.data(), 119)));
    EXPECT_TRUE(command != 3 || whole == page[0]) << hex(whole);
    refserver::request request;
    std::string why;
    EXPECT_EQ(refserver::parse_request(whole, &request, &why), whole.size()) << why;
    return request;
  }
  const std::vector<bytes> page = examples();
  c2ms_pdu pdus[4];  // by command
};

TEST_F(Page, MessagesOfServers) {
  using namespace refserver;
  const list_entry entry{.address = 0x7f000001, .port = 33425};
  const bytes list = list_body(std::span(&entry, 1), 1);
  EXPECT_EQ(hex(encode_response(asked(1), 0, list)), hex(page[1]));
  const bytes film = description_body({.tag = "demo.mp4", .size = 1'027'854, .type = 7, .load = 1});
  EXPECT_EQ(hex(encode_response(asked(2), 0, film)), hex(page[2]));
  bytes media = encode_response(asked(3), 0, media_body(1, 4, 8, 0));
  for (const char c : std::string("ftypisom")) media.push_back(static_cast<uint8_t>(c));
  EXPECT_EQ(hex(media), hex(page[3]));
  const bytes sealed = encipher(request_key(asked(1)), list);
  EXPECT_EQ(hex(encode_response(asked(1), 1, sealed)), hex(page[4]));
  EXPECT_EQ(hex({c2ms_pdu_key(&pdus[1]), 8}), "6bc0029c9d00e7a5");
}

TEST_F(Page, MessagesToTheAgent) {
  const c2ms::report_facts facts = c2ms::report_facts_of(sess);
  refserver::report_message message;
  std::string why;
  for (const auto &[kind, whole] : {std::pair(c2ms::report_kind::ping, &page[5]),
                                    std::pair(c2ms::report_kind::play_begin, &page[7])}) {
    uint8_t buf[c2ms::report_buffer_bytes];
    const int n =
        c2ms::encode_report(facts, kind, c2ms::report_body::clear, 1'700'000'000, buf, sizeof buf);
    ASSERT_GT(n, 0);
    EXPECT_EQ(hex({buf, static_cast<size_t>(n)}), hex(*whole));
    ASSERT_TRUE(refserver::parse_report(refserver::report_channel::agent, *whole, &message, &why))
        << why;
    EXPECT_TRUE(whole != &page[5] || refserver::encode_reply(message, 0) == page[6]);
  }
}

}  // namespace
