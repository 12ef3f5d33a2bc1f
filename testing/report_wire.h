// The receivers' side of the two reporting channels: reads messages of players strictly and writes
// replies. It is written from docs/protocol.md alone and shares nothing with the library's encoder.
// Used by report_service, its tests and fuzz/report.cpp.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "testing/wire.h"

namespace refserver {

/// The channel decides whether bodies are enciphered.
enum class report_channel : uint8_t { agent, performance };

inline constexpr uint32_t report_ping = 1, report_begin = 257, report_end = 258, report_alive = 259;
inline constexpr size_t report_header_size = 18, max_report_size = 1024;
inline constexpr uint16_t report_udp_tcp_port = 3528;

/// A message as it arrived.
struct report_message {
  report_channel channel = report_channel::agent;
  uint32_t type = 0;
  uint32_t sequence = 0;
  uint32_t value = 0;  ///< time of a ping and an end, session id of a begin and an alive
  bytes body{};        ///< in clear
  /// The fields in order: numbers in decimal, ids in hexadecimal, addresses dotted, texts as they
  /// came.
  std::vector<std::pair<std::string_view, std::string>> fields{};

  /// The field of this name; "" when there is none.
  std::string operator[](std::string_view name) const;
};

/// The length that the first four bytes announce; 0 while they have not arrived.
uint32_t report_length(std::span<const uint8_t> input);

/// Reads one whole message. False: not acceptable, and `error` says why.
bool parse_report(report_channel channel, std::span<const uint8_t> whole, report_message *out,
                  std::string *error);

/// "ping", "play_begin", "play_end", "play_alive" or "".
std::string_view report_name(uint32_t type);

/// One line of JSON, without its line feed.
std::string to_json(const report_message &message);

/// The reply to a message.
bytes encode_reply(const report_message &message, uint32_t result);

}  // namespace refserver
