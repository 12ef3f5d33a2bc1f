// Reads and writes messages of the reporting channels on the receivers' side, see report_wire.h.
#include "testing/report_wire.h"

#include <cstdio>

namespace refserver {

namespace {

constexpr des_key performance_key{'Q', 'a', 'Z', 'i', 'X', 'u', 'R', 'o'};

enum class shape : uint8_t { u32, u64, address, hex8, hex16, hex20, text };

struct column {
  std::string_view name;
  shape is;
};

constexpr column begin_columns[] = {
    {"oemid", shape::u32},        {"vendorid", shape::u32},   {"version", shape::u32},
    {"build_time", shape::u32},   {"hid", shape::hex20},      {"uid", shape::u64},
    {"sess_id", shape::u32},      {"token", shape::hex8},     {"fid", shape::hex16},
    {"local_ip", shape::address}, {"keyid", shape::u32},      {"stamp", shape::u32},
    {"media_type", shape::u32},   {"media_size", shape::u64}, {"open_time", shape::u64},
    {"media_name", shape::text},
};

constexpr column progress_columns[] = {
    {"hid", shape::hex20},         {"uid", shape::u64},        {"sess_id", shape::u32},
    {"token", shape::hex8},        {"fid", shape::hex16},      {"seek_num", shape::u32},
    {"total_bytes", shape::u64},   {"recv_time", shape::u64},  {"realtime_speed", shape::u32},
    {"open_time", shape::u64},     {"close_time", shape::u64}, {"read_pos", shape::u64},
    {"average_speed", shape::u32},
};

std::span<const column> columns(uint32_t type) {
  if (type == report_begin) return begin_columns;
  if (type == report_end || type == report_alive) return progress_columns;
  return {};
}

uint64_t number(std::span<const uint8_t> data) {
  uint64_t value = 0;
  for (const uint8_t byte : data) value = value << 8 | byte;
  return value;
}

std::string dotted(std::span<const uint8_t> a) {
  return std::to_string(a[0]) + "." + std::to_string(a[1]) + "." + std::to_string(a[2]) + "." +
         std::to_string(a[3]);
}

size_t width(shape is) {
  switch (is) {
    case shape::u32:
    case shape::address:
      return 4;
    case shape::u64:
    case shape::hex8:
      return 8;
    case shape::hex16:
      return 16;
    case shape::hex20:
      return 20;
    case shape::text:
      return 2;
  }
  return 0;
}

// Takes one field from the front of `rest`; false when it is incomplete.
bool take(const column &c, std::span<const uint8_t> &rest, std::string *out) {
  if (rest.size() < width(c.is)) return false;
  const auto data = rest.first(width(c.is));
  rest = rest.subspan(data.size());
  if (c.is == shape::text) {
    const size_t length = number(data);
    if (rest.size() < length) return false;
    out->assign(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(length));
    rest = rest.subspan(length);
  } else if (c.is == shape::address) {
    *out = dotted(data);
  } else if (c.is == shape::u32 || c.is == shape::u64) {
    *out = std::to_string(number(data));
  } else {
    *out = hex(data);
  }
  return true;
}

bool refuse(std::string *error, const char *why) {
  *error = why;
  return false;
}

bool is_number(const report_message &message, std::string_view name) {
  for (const column &c : columns(message.type))
    if (c.name == name) return c.is == shape::u32 || c.is == shape::u64;
  return false;
}

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<uint8_t>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (byte < ' ' || byte > '~') {  // bytes of unknown encoding become Latin-1
      char escape[8];
      std::snprintf(escape, sizeof escape, "\\u%04x", byte);
      out += escape;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

}  // namespace

std::string report_message::operator[](std::string_view name) const {
  for (const auto &[key, text] : fields)
    if (key == name) return text;
  return {};
}

uint32_t report_length(std::span<const uint8_t> input) {
  return input.size() < 4 ? 0 : get32(input.data());
}

bool parse_report(report_channel channel, std::span<const uint8_t> whole, report_message *out,
                  std::string *error) {
  *out = {};
  out->channel = channel;
  if (whole.size() < report_header_size || whole.size() > max_report_size)
    return refuse(error, "size");
  if (report_length(whole) != whole.size()) return refuse(error, "total length");
  out->type = get32(&whole[4]);
  out->sequence = get32(&whole[8]);
  out->value = get32(&whole[14]);
  if (number(whole.subspan(12, 2)) != 2) return refuse(error, "version");
  const bool known = !report_name(out->type).empty();
  if (!known || (out->type == report_ping && channel != report_channel::agent))
    return refuse(error, "kind");
  const auto body = whole.subspan(report_header_size);
  out->body.assign(body.begin(), body.end());
  if (channel == report_channel::performance && !decipher(performance_key, body, &out->body))
    return refuse(error, "cipher");
  std::span<const uint8_t> rest = out->body;
  for (const column &c : columns(out->type)) {
    std::string text;
    if (!take(c, rest, &text)) return refuse(error, "short body");
    out->fields.emplace_back(c.name, text);
  }
  return rest.empty() || refuse(error, "long body");
}

std::string_view report_name(uint32_t type) {
  switch (type) {
    case report_ping:
      return "ping";
    case report_begin:
      return "play_begin";
    case report_end:
      return "play_end";
    case report_alive:
      return "play_alive";
    default:
      return {};
  }
}

std::string to_json(const report_message &message) {
  std::string line = R"({"channel":")";
  line += message.channel == report_channel::agent ? "agent" : "performance";
  line += R"(","message":")";
  line += report_name(message.type);
  line += R"(","sequence":)" + std::to_string(message.sequence);
  line += R"(,"value":)" + std::to_string(message.value);
  for (const auto &[name, value] : message.fields) {
    line += ",\"";
    line += name;
    line += "\":" + (is_number(message, name) ? value : quoted(value));
  }
  return line + "}";
}

bytes encode_reply(const report_message &message, uint32_t result) {
  bytes out(report_header_size + 4);
  put32(&out[0], static_cast<uint32_t>(out.size()));
  put32(&out[4], message.type | response_bit);
  put32(&out[8], message.sequence);
  put16(&out[12], 2);
  put32(&out[14], message.value);
  put32(&out[18], result);
  return out;
}

}  // namespace refserver
