// The diagnostic dump of a session (c2ms_sess_print): formatted in memory under the locks, then
// written.
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <string>

#include "adif/strutil.h"
#include "c2ms.h"
#include "c2ms/core/call.h"
#include "c2ms/core/records.h"
#include "c2ms/core/time.h"
#include "c2ms/fetch/dispatch.h"
#include "c2ms/fetch/node_list.h"
#include "c2ms/fetch/node_record.h"
#include "c2ms/fetch/unit.h"

namespace {

using namespace c2ms;

constexpr char rule[] = "------------------------------------------------\n";

const char *media_type_name(uint8_t type) {
  static constexpr const char *names[] = {"bin", "wmv", "avi", "flv", "rmvb", "rm",
                                          "frf", "mp4", "ts",  "mkv", "7z"};
  return type < std::size(names) ? names[type] : "bin";
}

__attribute__((format(printf, 2, 3))) void add(std::string *text, const char *format, ...) {
  char line[768];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  try {
    *text += line;
  } catch (const std::bad_alloc &) {  // without memory the dump is shorter
  }
}

unsigned long printable(uint64_t value) {
  return static_cast<unsigned long>(value);
}

void add_media(std::string *text, const c2ms_sess *sess) {
  char fid[33] = {};
  bin_to_ascii(sess->fid, 16, fid, nullptr);
  add(text, "HID: %s\n", sess->hid_text);
  add(text, "URL: %s\n", sess->url);
  add(text, "FID: %s\n", fid);
  add(text, "Size: %llu\n", static_cast<unsigned long long>(sess->media_size));
  add(text, "MIME: %s\n", media_type_name(sess->media_type));
  add(text, "IdxLen: %u\n", sess->idx_len);
  add(text, "Described: %d\n", static_cast<int>(sess->desc_count.load()));
  add(text, "SeekNum: %u\n\n", sess->seek_num.load());
}

void add_pack(std::string *text, c2ms_unit *unit) {
  c2ms_pack *const pack = unit->pack.load();
  if (pack == nullptr) {
    add(text, "        BoundPack: none\n");
    return;
  }
  const adif::Guard lock(pack->lock);
  add(text, "        BoundPackIndex:%d Len:%d UnitNum:%d PackInd:%d RcvLen:%d\n", pack->index,
      pack->size, pack->unit_count, unit->pack_index, pack->len);
}

void add_units(std::string *text, c2ms_sess *sess) {
  const adif::Guard lock(sess->unit_lock);
  add(text, "UnitNum: %d\n", sk_num(sess->units));
  for (int i = 0; i < sk_num(sess->units); ++i) {
    auto *const unit = static_cast<c2ms_unit *>(sk_value(sess->units, i));
    add(text, "    UnitID:%lu PackInd:%d Length:%u RcvLen:%d State:%d\n", printable(unit->unit_id),
        unit->pack_index, unit->range_length, unit->received.load(), unit->state.load());
    add_pack(text, unit);
  }
  add(text, "\n");
}

void add_download(std::string *text, c2ms_node *node) {
  const adif::Guard lock(node->download_lock);
  const c2ms_unit *const unit = node->download_unit;
  if (unit == nullptr) {
    add(text, "        Unit: none\n");
    return;
  }
  add(text, "        UnitID:%lu PackInd:%d Length:%u RcvLen:%d State:%s\n",
      printable(unit->unit_id), unit->pack_index, unit->range_length, unit->received.load(),
      unit_state_name(unit->state));
}

void add_node(std::string *text, c2ms_node *node) {
  const c2ms_node_perf &perf = node->perf;
  // The line and a newline more: a blank line parts the node's name from its figures.
  add(text, "    NodeID:%lu %s:%d FD:%d Level:%d Type:0x%02X Load:%d Times:%d ReadyTimes:%d\n\n",
      printable(node->node_id), node->host, static_cast<int>(node->port), GetDeviceFD(node->device),
      static_cast<int>(node->level), node->type, node->load, node->failures, node->ready_times);
  add(text, "        State: %s\n", node_state_name(node->state));
  add(text, "        LastActiveTime: %lu  CurrentTime: %lu\n",
      printable(static_cast<uint64_t>(node->last_active_at_us / 1'000'000)),
      printable(static_cast<uint64_t>(now_us() / 1'000'000)));
  add(text, "        TN:%d  RTT:%lld  AccRTT:%lld  AvgRTT:%lld\n", perf.TN,
      static_cast<long long>(perf.RTT), static_cast<long long>(perf.AccRTT),
      static_cast<long long>(perf.AvgRTT));
  add(text, "        AccBytes:%lld  AccTime:%lld  Speed:%.4f  AvgSpeed:%.4f\n",
      static_cast<long long>(perf.AccBytes), static_cast<long long>(perf.AccTime), perf.Speed,
      perf.AvgSpeed);
}

// The strand keeps the nodes where they are; their download locks rank above the list's.
void add_nodes(std::string *text, c2ms_sess *sess) {
  add(text, "ReadyNum: %d\n", sess->ready_num.load());
  const int count = c2ms_sess_node_num(sess);
  add(text, "NodeNum: %d\n", count);
  for (int i = 0; i < count; ++i) {
    c2ms_node *node;
    {
      const adif::Guard lock(sess->list_lock);
      node = static_cast<c2ms_node *>(sk_value(sess->node_list, i));
      if (node == nullptr) return;
      add_node(text, node);
    }
    add_download(text, node);
  }
}

}  // namespace

void c2ms_sess_print(c2ms_sess *sess, FILE *out) {
  if (sess == nullptr) return;
  const CallGuard call(sess);
  if (!call) return;
  std::string text;
  {
    const Turn strand(sess);
    add(&text, "%s", rule);
    add_media(&text, sess);
    add(&text, "FastTime: %ld\n\n", static_cast<long>(c2ms_sess_fasttime(sess)));
    add_units(&text, sess);
    add_nodes(&text, sess);
  }
  add(&text, "%s", rule);
  FILE *const stream = out != nullptr ? out : stdout;
  std::fputs(text.c_str(), stream);
  std::fflush(stream);
}
