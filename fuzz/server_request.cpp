// The media server's reader of requests, and its answers to what it accepts, with any fault: reads
// only what is there, accepts whole requests alone and never refuses the beginning of a good one.
#include <cstdint>

#include "require.h"
#include "testing/responder.h"

using namespace refserver;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  const fault order{.kind = static_cast<fault_kind>(data[0] % fault_kinds),
                    .value = uint64_t{data[1]} << data[2] % 64};
  const bytes input(data + 3, data + size);
  request r;
  std::string error;
  const size_t taken = parse_request(input, &r, &error);
  require(taken == 0 || (error.empty() && taken <= input.size()));
  if (taken == 0) return 0;
  require(taken == (r.command == command_media ? media_request_size : control_request_size));
  for (size_t part = 0; part < taken; ++part)
    require(parse_request(std::span(input).first(part), &r, &error) == 0 && error.empty());

  parse_request(input, &r, &error);
  media_file film;
  film.size = 1000;
  const service s{.nodes = {{0x7f000001, 3528, 2, 0}, {0x7f000002, 3528, 2, 0}},
                  .file = &film,
                  .encipher = (data[2] & 64) != 0,
                  .check_auth = false};
  const reply answer = respond(r, s, &order);
  require(answer.pdu.size() <= 18 + 2 + 10 * 65535U + 8);
  require(answer.payload <= 1000 || order.kind == fault_kind::payload_longer);
  return 0;
}
