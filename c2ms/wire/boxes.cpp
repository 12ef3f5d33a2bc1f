// See boxes.h.
#include "c2ms/wire/boxes.h"

#include <algorithm>

#include "adif/byteiter.h"

namespace {

struct box_header {
  uint64_t size;
  uint8_t type[4];
};

box_header decode(uint8_t (&bytes)[16]) {
  byte_iter it;
  iter_set_text(&it, bytes, sizeof bytes);
  box_header box{};
  uint32_t size = 0;
  iter_get_uint32BE(&it, &size);
  for (uint8_t &c : box.type) iter_get_uint8(&it, &c);
  box.size = size;
  if (size == 1) iter_get_uint64BE(&it, &box.size);
  return box;
}

bool is_moov(const box_header &box) {
  constexpr uint8_t name[] = {'m', 'o', 'o', 'v'};
  return std::equal(name, name + 4, box.type, [](uint8_t a, uint8_t b) { return a == (b | 0x20); });
}

}  // namespace

c2ms_box_result c2ms_idx_box(c2ms_box_walk *walk) {
  const box_header box = decode(walk->header);
  if (is_moov(box)) {
    const uint64_t rest = walk->media_size - std::min(walk->pos, walk->media_size);
    walk->box_size = box.size == 0 ? rest : std::min(box.size, rest);
    return box_is_moov;
  }
  if (box.size >= walk->media_size - std::min(walk->pos, walk->media_size)) return box_past_end;
  walk->pos += box.size;
  ++walk->boxes;
  return walk->boxes < c2ms::max_boxes ? box_passed : box_not_found;
}

bool c2ms_idx_at_end(uint64_t media_size, uint64_t offset, uint32_t len) {
  const auto rest = static_cast<int32_t>(static_cast<uint32_t>(media_size - offset - len));
  return rest >= -c2ms::moov_end_slack && rest <= c2ms::moov_end_slack;
}
