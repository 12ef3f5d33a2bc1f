// Messages in frames, and their print. Part of wire/pdu.h.
#include "adif/frame.h"
#include "c2ms/core/diag.h"
#include "c2ms/core/records.h"
#include "c2ms/wire/pdu.h"

namespace {

const char *command_line(uint32_t command) {
  switch (command) {
    case C2MS_GET_SRVLIST_REQ:
      return "Command Name: C2MS_GET_SRVLIST_REQ";
    case C2MS_DESC_MEDIA_REQ:
      return "Command Name: C2MS_DESC_MEDIA_REQ";
    case C2MS_GET_MEDIA_REQ:
      return "Command Name: C2MS_GET_MEDIA_REQ";
    case C2MS_GET_SRVLIST_RESP:
      return "Command Name: C2MS_GET_SRVLIST_RESP";
    case C2MS_DESC_MEDIA_RESP:
      return "Command Name: C2MS_DESC_MEDIA_RESP";
    case C2MS_GET_MEDIA_RESP:
      return "Command Name: C2MS_GET_MEDIA_RESP";
    default:
      return "Request Type: unknown PDU";
  }
}

}  // namespace

int c2ms_pdu_encode2(c2ms_pdu *pdu, frame_t **frame) {
  if (pdu == nullptr) return -1;
  if (frame == nullptr) return -2;
  uint8_t bytes[c2ms::request_buffer_bytes];
  const int length = c2ms_pdu_encode(pdu, bytes, sizeof bytes);
  if (length < 1) return length;
  const int before = frameLength(*frame);
  putnLastBytes(frame, bytes, length);
  return frameLength(*frame) == before + length ? length : -100;
}

int c2ms_pdu_decode2(c2ms_pdu *pdu, const frame_t *frame) {
  return c2ms_pdu_decode(pdu, bytePointer(frame), frameLength(frame));
}

void c2ms_pdu_print(const c2ms_pdu *pdu) {
  if (pdu == nullptr) return;
  constexpr char rule[] = "-----------------------------------------------------";
  c2ms::diag("\n%s\n", rule);
  c2ms::diag("Total Length: %u\n", pdu->total_length);
  c2ms::diag("Command ID  : %u\n", pdu->command_id);
  c2ms::diag("Sequence ID : %u\n", pdu->sequence_id);
  c2ms::diag("Prot Version: %04x\n", pdu->prot_version);
  c2ms::diag("%s\n%s\n", command_line(pdu->command_id), rule);
  c2ms::diag_deliver();
}
