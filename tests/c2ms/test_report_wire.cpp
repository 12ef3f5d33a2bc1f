// What the reporting channels put on the wire, byte by byte, and that the reference side reads the
// same.
#include "c2ms/report/perf.h"
#include "c2ms/report/report.h"
#include "local.h"
#include "testing/report_wire.h"

namespace {

using namespace c2ms;

class ReportWire : public Local {
 protected:
  ReportWire() {
    mgmt->vendorid = 7;
    mgmt->build_time = 0x4e942a37;
    for (uint8_t i = 0; i < 8; ++i) sess->token[i] = static_cast<uint8_t>(0xa1 + i);
    sess->open_time = 1'600'000'000;
    sess->close_time = 1'600'000'100;
    std::strcpy(sess->media_name, "film.mp4");
    sess->media_size = 5'000'000'000;
    sess->media_type = 7;
    sess->desc_count = 1;
    sess->seek_num = 3;
    const adif::Guard lock(sess->speed_lock);
    sess->total_bytes = 9'000'000'000;
    sess->recv_time = 4'500'000;
    sess->realtime_speed = 1234.9;
  }
};

struct golden {
  report_kind kind;
  report_body body;
  const char *hex;
};

using enum report_kind;
using enum report_body;

// An alive differs from the end before it in its header alone.
constexpr golden messages[] = {
    {ping, clear, "00000012000000010000000100026553f100"},
    {play_begin, clear,
     "00000084000001010000000200020000000100000066000000070000001e4e942a37f0f1f2f3f4f5f6f7f8f9fa"
     "fbfcfdfeff00010203112233445566778800000001a1a2a3a4a5a6a7a80102030405060708090a0b0c0d0e0f10"
     "0a0101c8000000098000000100000007000000012a05f200000000005f5e1000000866696c6d2e6d7034"},
    {play_end, clear,
     "0000007e000001020000000300026553f100f0f1f2f3f4f5f6f7f8f9fafbfcfdfeff0001020311223344556677"
     "8800000001a1a2a3a4a5a6a7a80102030405060708090a0b0c0d0e0f10000000030000000218711a0000000000"
     "0044aa20000004d2000000005f5e1000000000005f5e10640000000000000000001e8480"},
    {play_alive, clear, nullptr},
    {play_begin, enciphered,
     "0000008a0000010100000005000200000001c6462bf031948c351a7d45ee076844643e59f0bcaf3aa202dd633f"
     "9b2d057df01fd1a50d50c46066f213e3c80b946d40ebffbf141a1db00e905ecd0ebe234bc4ae896c20dfa276e8"
     "64753a8b997566073a6030281acb0f8e89077c6ca0359faab3ed6834b7faa93b8db7704ddd9de96ed07904dc04"
     "3351de"},
    {play_end, enciphered,
     "00000082000001020000000600026553f1003e59f0bcaf3aa202dd633f9b2d057df01fd1a50d50c46066f213e3"
     "c80b946d40ebffbf141a1db00e905ecd0ebe234bc4ae896c20dfa276e8aa9e6d9f1bc849d5c40bb3397fc621f5"
     "c897e9123a7e1f4fb3ed6834b7faa93b0b87e6a056ed0fec7b9327c4de2ef7e0f2e08c72507c6581"},
    {play_alive, enciphered, nullptr},
};

TEST_F(ReportWire, EveryMessageByteByByte) {
  const report_facts facts = report_facts_of(sess);
  std::string body_text;
  uint32_t sequence = 0;
  for (const golden &g : messages) {
    uint8_t buf[report_buffer_bytes];
    const int n = encode_report(facts, g.kind, g.body, 1'700'000'000, buf, sizeof buf);
    ASSERT_GT(n, 0);
    const std::span<const uint8_t> whole(buf, static_cast<size_t>(n));
    const std::string text = to_hex(buf, whole.size());
    if (g.hex != nullptr) body_text = g.hex;
    EXPECT_EQ(text.substr(36), body_text.substr(36));
    EXPECT_TRUE(g.hex == nullptr || text == g.hex) << text;
    EXPECT_EQ(encode_report(facts, g.kind, g.body, 1'700'000'000, buf, n - 1), -100);
    const auto channel = g.body == report_body::clear ? refserver::report_channel::agent
                                                      : refserver::report_channel::performance;
    refserver::report_message message;
    std::string why;
    ASSERT_TRUE(refserver::parse_report(channel, whole, &message, &why)) << why;
    EXPECT_EQ(message.type, static_cast<uint32_t>(g.kind));
    EXPECT_EQ(message.sequence, ++sequence);
    if (g.kind == ping) continue;
    const bool begins = g.kind == play_begin;
    EXPECT_EQ(message["uid"], "1234605616436508552");
    EXPECT_EQ(begins ? message["media_name"] : message["average_speed"],
              begins ? "film.mp4" : "2000000");
  }
}

TEST_F(ReportWire, NamesOfEveryLength) {
  for (size_t length = 0; length <= 36; ++length) {
    std::memset(sess->media_name, 0, sizeof sess->media_name);
    std::memset(sess->media_name, 'x', length);
    uint8_t coded[report_buffer_bytes];
    const auto n = static_cast<size_t>(c2ms_perf_playbgn_encode(sess, coded, sizeof coded));
    refserver::report_message message;
    std::string why;
    ASSERT_TRUE(
        refserver::parse_report(refserver::report_channel::performance, {coded, n}, &message, &why))
        << why;
    EXPECT_EQ(message["media_name"], std::string(length, 'x'));
  }
}

}  // namespace
