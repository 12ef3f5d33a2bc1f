// Names of the faults and their text form, see faults.h.
#include "testing/faults.h"

#include <algorithm>
#include <charconv>

namespace refserver {

static constexpr uint8_t control = on_srvlist | on_desc, any = control | on_media;

static constexpr fault_info table[] = {
    {"refuse", "the port refuses new connections, for ms (0: for good)", fault_kind::refuse, 0},
    {"drop_accepted", "new connections are reset at once", fault_kind::drop_accepted, 0},
    {"down", "at a request everything closes, back after ms (0: never)", fault_kind::down, any},
    {"mute", "the request is never answered", fault_kind::mute, any},
    {"close_at", "closes after value bytes of the response", fault_kind::close_at, any},
    {"reset_at", "resets after value bytes of the response", fault_kind::reset_at, any},
    {"stall_at", "after value bytes silent for ms (0: for ever)", fault_kind::stall_at, any},
    {"drip", "the first value bytes (0: all) one by one, ms apart", fault_kind::drip, any},
    {"twice", "the response is sent two times", fault_kind::twice, any},
    {"unsolicited", "value bytes nobody asked for, ms afterwards", fault_kind::unsolicited, any},
    {"wrong_command", "command id xored with value (0: 0x10)", fault_kind::wrong_command, any},
    {"wrong_sequence", "sequence raised by value (0: 1)", fault_kind::wrong_sequence, any},
    {"wrong_version", "version xored with value (0: 0xffff)", fault_kind::wrong_version, any},
    {"total_length", "the length field says value", fault_kind::total_length, any},
    {"short_pdu", "the PDU ends after value bytes", fault_kind::short_pdu, any},
    {"refusal", "result value (0: 10)", fault_kind::refusal, any},
    {"payload_longer", "value (0: 1) bytes too many", fault_kind::payload_longer, on_media},
    {"payload_shorter", "value (0: 1) bytes too few", fault_kind::payload_shorter, on_media},
    {"payload_empty", "no media bytes", fault_kind::payload_empty, on_media},
    {"list_size", "a list of value entries", fault_kind::list_size, on_srvlist},
    {"list_count", "the count says value", fault_kind::list_count, on_srvlist},
    {"list_zero", "addresses 0; ports too unless value is 1", fault_kind::list_zero, on_srvlist},
    {"list_duplicates", "the first node in every entry", fault_kind::list_duplicates, on_srvlist},
    {"list_self", "lists nothing but the sender", fault_kind::list_self, on_srvlist},
    {"cipher_garbage", "enciphered with wrong padding", fault_kind::cipher_garbage, control},
    {"cipher_length", "enciphered, cut within a block", fault_kind::cipher_length, control},
    {"desc_size", "the media's size is value", fault_kind::desc_size, on_desc},
    {"desc_type", "the media's type code is value", fault_kind::desc_type, on_desc},
    {"desc_truncated", "the body is cut to value bytes", fault_kind::desc_truncated, on_desc},
};
static_assert(std::size(table) == fault_kinds - 1);

std::span<const fault_info> fault_table() {
  return table;
}

const fault_info &fault_describe(fault_kind kind) {
  static constexpr fault_info nothing{"", "", fault_kind::none, 0};
  const auto *found = std::find_if(std::begin(table), std::end(table),
                                   [kind](const fault_info &row) { return row.kind == kind; });
  return found == std::end(table) ? nothing : *found;
}

uint8_t fault_targets(const fault &order) {
  const uint8_t possible = fault_describe(order.kind).on;
  return order.on == 0 ? possible : possible & order.on;
}

// A whole number, hexadecimal behind "0x".
template <class Number>
static bool parse_number(std::string_view text, Number *out) {
  const int base = text.starts_with("0x") ? 16 : 10;
  if (base == 16) text.remove_prefix(2);
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), *out, base);
  return failure == std::errc() && end == text.data() + text.size();
}

static bool parse_targets(std::string_view text, uint8_t *on) {
  if (text == "list")
    *on |= on_srvlist;
  else if (text == "desc")
    *on |= on_desc;
  else if (text == "media")
    *on |= on_media;
  else
    return false;
  return true;
}

static bool parse_setting(std::string_view setting, fault *out, int *node) {
  const size_t equals = setting.find('=');
  if (equals == std::string_view::npos) return false;
  const std::string_view key = setting.substr(0, equals), value = setting.substr(equals + 1);
  if (key == "value") return parse_number(value, &out->value);
  if (key == "ms") return parse_number(value, &out->ms) && out->ms >= 0;
  if (key == "from") return parse_number(value, &out->from) && out->from > 0;
  if (key == "node" && value == "entry") return (*node = -1) == -1;
  if (key == "node") return parse_number(value, node) && *node >= 0;
  if (key == "on") return parse_targets(value, &out->on);
  return false;
}

std::optional<fault> fault_parse(std::string_view text, int *node, std::string *error) {
  fault out;
  *node = every_node;
  const size_t name_end = std::min(text.find_first_of(":,"), text.size());
  const std::string_view name = text.substr(0, name_end);
  for (const fault_info &row : table)
    if (row.name == name) out.kind = row.kind;
  if (out.kind == fault_kind::none) {
    *error = "unknown fault '" + std::string(name) + "'";
    return {};
  }
  for (size_t at = name_end; at < text.size();) {
    const size_t end = std::min(text.find(',', at + 1), text.size());
    const std::string_view piece = text.substr(at + 1, end - at - 1);
    const bool good =
        text[at] == ':' ? parse_number(piece, &out.count) : parse_setting(piece, &out, node);
    if (!good) {
      *error = "cannot read '" + std::string(piece) + "' of fault '" + std::string(text) + "'";
      return {};
    }
    at = end;
  }
  return out;
}

}  // namespace refserver
