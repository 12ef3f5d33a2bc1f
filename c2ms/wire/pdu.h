// The message format between client and servers: requests are built and encoded, response headers
// and bodies decoded. Big-endian integers; a request is 106 or 119 bytes, a response begins with 18
// bytes (header and result). Nothing here touches a socket; every decoder takes a pointer and a
// length and is safe on any bytes. Any thread, each record by one at a time.
#pragma once

#include <cstdint>

#include "c2ms/core/records.h"

enum c2ms_command : uint32_t {
  C2MS_GET_SRVLIST_REQ = 1,
  C2MS_DESC_MEDIA_REQ = 2,
  C2MS_GET_MEDIA_REQ = 3,
  C2MS_GET_SRVLIST_RESP = 0x80000001,
  C2MS_DESC_MEDIA_RESP = 0x80000002,
  C2MS_GET_MEDIA_RESP = 0x80000003,
};

/// Clears the record, fills header and body of a request from the session's URL parameters and the
/// library's identity, and builds the key that enciphers its answer. Takes the session's next
/// sequence id. 0; -1 no session, -2 no record, -3 session without context. Another command is only
/// stored.
int c2ms_pdu_init(c2ms_sess *session, c2ms_pdu *pdu, uint32_t command);

/// Writes the message; its length (the total length field), -1 no record, -2 no buffer or no size,
/// -3 no session, -4 no context, -100 when `size` bytes are not enough.
int c2ms_pdu_encode(c2ms_pdu *pdu, void *buffer, int size);

/// Reads a header and, as far as it is there, the fixed part of a response's body. Bytes consumed;
/// -1 no record, -2 no buffer or fewer than 14 bytes.
int c2ms_pdu_decode(c2ms_pdu *pdu, const void *buffer, int length);

/// The 8 key bytes; an empty string for NULL.
const uint8_t *c2ms_pdu_key(const c2ms_pdu *pdu);

/// The per-request key, from the request's own sequence id and length and the identity in it: see
/// the body.
void c2ms_pdu_build_key(c2ms_pdu *pdu, const uint8_t *session_fid);

/// The same bytes appended to a frame, and read from a frame's content (which stays). As above;
/// -100 also when the frame can't grow.
int c2ms_pdu_encode2(c2ms_pdu *pdu, frame_t **frame);
int c2ms_pdu_decode2(c2ms_pdu *pdu, const frame_t *frame);

/// Prints header and command name as diagnostic lines (standard output, unless the player takes
/// them).
void c2ms_pdu_print(const c2ms_pdu *pdu);

/// Releases a heap record; 0, -1 for NULL.
int c2ms_pdu_free(c2ms_pdu *pdu);

namespace c2ms {

/// One entry of a server list. Address and port are as sent: 0 stands for the sender's and the
/// default.
struct list_entry {
  uint32_t address;  // host value of the big-endian number
  uint16_t port;
  uint8_t type;
  uint16_t load;
};

/// Reads a list's body (behind the result): the entries used, at most max_list_entries and at most
/// those whose bytes are there; -1 when not even the count is.
int parse_server_list(const uint8_t *body, int length, list_entry *out);

/// A media's description.
struct description {
  char name[37];
  uint64_t size;
  uint8_t type;
  uint32_t idx_len;
  uint8_t idx_fid[16];
  uint16_t load;
};

/// Reads a description's body. False when it is truncated or its size can't be one of a file (2^63
/// up).
bool parse_description(const uint8_t *body, int length, description *out);

/// The bytes of a control response from behind the result, in the clear. Deciphers into `scratch`
/// (at least `length` bytes) when result is 1. Length, or -1 when the body does not decipher.
int plain_body(const c2ms_pdu &request, uint32_t result, const uint8_t *body, int length,
               uint8_t *scratch, const uint8_t **plain);

}  // namespace c2ms
