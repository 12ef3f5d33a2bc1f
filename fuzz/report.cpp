// The reporting channels' readers: the library's decoders of replies, and the reference side's
// reader of messages. A reply is understood only when it is a header of the right kind with a
// result behind it; what the reference side accepts as a message of its channel is canonical, and
// no beginning of it is accepted.
#include <vector>

#include "c2ms/report/auth.h"
#include "c2ms/report/perf.h"
#include "c2ms/report/report.h"
#include "require.h"
#include "testing/report_wire.h"

using namespace refserver;

static void replies(const std::vector<uint8_t> &input) {
  struct decoder {
    int (*decode)(const void *, int);
    uint32_t type;
  };
  constexpr decoder decoders[] = {{c2ms_auth_ping_decode, report_ping},
                                  {c2ms_auth_playbgn_decode, report_begin},
                                  {c2ms_auth_playend_decode, report_end},
                                  {c2ms_perf_playbgn_decode, report_begin}};
  for (const decoder &d : decoders) {
    require(d.decode(nullptr, 22) == -100);
    const int result = d.decode(input.data(), static_cast<int>(input.size()));
    const bool whole = input.size() >= 22 && get32(&input[4]) == (d.type | response_bit);
    require(result == (whole ? static_cast<int>(get32(&input[18])) : -100));
  }
}

// A datagram answers when it is one whole message of the request's number; on a stream the length
// tells how much is still to come.
static void framing(const std::vector<uint8_t> &input) {
  using namespace c2ms;
  const auto size = static_cast<int64_t>(input.size());
  const uint32_t total = size >= 4 ? get32(&input[0]) : 0;
  const uint32_t number = size >= report_header_bytes ? get32(&input[8]) : 0;
  const bool whole = size >= report_header_bytes && size <= report_buffer_bytes && total == size;
  require(answers_report(input.data(), size, number) == whole);
  require(!answers_report(input.data(), size, number + 1) && !answers_report(nullptr, -1, 0));
  require(!answers_report(input.data(), report_buffer_bytes + 1, number));  // it has been cut
  if (size < 4) return;
  const uint8_t length[4] = {input[0], input[1], input[2], input[3]};
  const int left = reply_bytes_left(length);
  const bool fits = total > 4 && total <= report_buffer_bytes;
  require(left == (fits ? static_cast<int>(total) - 4 : total <= 4 ? -501 : -600));
}

static void messages(report_channel channel, const std::vector<uint8_t> &input) {
  report_message message;
  std::string why;
  if (!parse_report(channel, input, &message, &why)) {
    require(!why.empty());
    return;
  }
  require(!report_name(message.type).empty() && to_json(message).back() == '}');
  const bool clear = channel == report_channel::agent;
  const size_t coded = clear ? message.body.size() : (message.body.size() / 8 + 1) * 8;
  require(input.size() == report_header_size + coded);
  for (size_t part = 0; part < input.size(); ++part)
    require(!parse_report(channel, std::span(input).first(part), &message, &why));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > 2 * max_report_size) return 0;
  const std::vector<uint8_t> input(data, data + size);
  replies(input);
  framing(input);
  messages(report_channel::agent, input);
  messages(report_channel::performance, input);
  return 0;
}
