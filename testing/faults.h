// The faults that the media server can commit on request: the name of each, the meaning of its
// numbers, and the exchanges to which it belongs. Used by the server, by c2ms-server's --fault and
// by tests.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace refserver {

enum class fault_kind : uint8_t {
  none,
  // the connection
  refuse,         ///< new connections are refused (ECONNREFUSED) for `ms`, 0: until cleared
  drop_accepted,  ///< a new connection is accepted and reset at once
  down,           ///< at the request, port and all connections close for `ms`, 0: for good
  mute,           ///< the request is read and never answered
  // the stream of one response, header and payload counted together from byte 0
  close_at,     ///< closed normally after `value` bytes (0: instead of the response)
  reset_at,     ///< reset after `value` bytes
  stall_at,     ///< silent for `ms` (0: for ever) after `value` bytes, then goes on
  drip,         ///< the first `value` bytes (0: all) one by one, `ms` apart
  twice,        ///< the whole response is sent two times
  unsolicited,  ///< `value` bytes (0: 37) that nobody asked for, `ms` after the response
  // header fields
  wrong_command,   ///< the command id is xored with `value` (0: 0x10)
  wrong_sequence,  ///< the sequence id is raised by `value` (0: 1)
  wrong_version,   ///< the version is xored with `value` (0: 0xffff)
  total_length,    ///< the field is `value`; the bytes stay as they are
  short_pdu,       ///< the PDU is cut to `value` bytes, which is also its length field
  refusal,         ///< the result is `value` (0: 10), no payload follows
  // media responses
  payload_longer,   ///< announces and sends `value` (0: 1) bytes more than asked for
  payload_shorter,  ///< announces and sends `value` (0: 1) bytes fewer than asked for
  payload_empty,    ///< announces 0 bytes and sends none
  // server lists
  list_size,        ///< `value` entries: the nodes again and again
  list_count,       ///< the count is `value`; the entries stay as they are
  list_zero,        ///< addresses are 0; ports too unless `value` is 1
  list_duplicates,  ///< every entry is the first node
  list_self,        ///< the only entry is the sender itself
  // enciphered control responses
  cipher_garbage,  ///< result 1 with whole blocks whose padding is wrong
  cipher_length,   ///< result 1 with a length that is no multiple of 8
  // descriptions
  desc_size,       ///< the media's size is `value`
  desc_type,       ///< the type code is `value`
  desc_truncated,  ///< the body behind the result is cut to `value` bytes
};

/// How many kinds there are, `none` included.
inline constexpr int fault_kinds = static_cast<int>(fault_kind::desc_truncated) + 1;

/// Exchanges that a fault can be limited to; 0 in `fault::on` means all that its kind belongs to.
enum fault_target : uint8_t { on_srvlist = 1, on_desc = 2, on_media = 4 };

/// An order to commit a fault. The server counts the matching requests (for drop_accepted: the
/// connections) and commits the fault on numbers `from` to `from` + `count` - 1.
struct fault {
  fault_kind kind = fault_kind::none;
  uint64_t value = 0;  ///< as each kind says
  int ms = 0;          ///< as each kind says
  uint32_t from = 1;
  uint32_t count = UINT32_MAX;  ///< UINT32_MAX: for ever
  uint8_t on = 0;               ///< fault_target bits
};

/// What --help tells about one kind.
struct fault_info {
  std::string_view name;  ///< as in the enumeration
  std::string_view help;
  fault_kind kind;
  uint8_t on;  ///< fault_target bits of the exchanges it can belong to
};

/// Every kind but `none`, in the order of the enumeration.
std::span<const fault_info> fault_table();

/// The row of `kind`; of `none` a row without name.
const fault_info &fault_describe(fault_kind kind);

/// The exchanges that `order` really belongs to.
uint8_t fault_targets(const fault &order);

/// As a node in fault_parse: all media nodes. -1 is the entry server, as in media_server.h.
inline constexpr int every_node = -2;

/// Reads a fault from text
/// "KIND[:N][,value=V][,ms=M][,from=K][,on=list|desc|media][,node=I|entry]", where N is the count.
/// `node` receives I, or every_node without it. An empty result means that the text is wrong;
/// `error` says why.
std::optional<fault> fault_parse(std::string_view text, int *node, std::string *error);

}  // namespace refserver
