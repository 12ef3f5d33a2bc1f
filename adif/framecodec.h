// Bits, variable-length and fixed-width integers, and text codecs over a frame's content. The
// conventions of adif/frame.h hold; a bad offset (below 0 or beyond the content's end) gives -1.
#pragma once

#include <cstdint>

#include "adif/frame.h"

/// Sets or clears bit `bit` of the content; bit 0 is the most significant of the first byte. 0; -1
/// for null or a bit outside the content.
int setBit(frame_t *frame, int bit, int value);

/// Shift the whole content, as one big-endian number of fixed width, by `n` bits; zeros enter. 0;
/// -1 for null or `n` below 0.
int shiftBitLeft(frame_t *frame, int n);
int shiftBitRight(frame_t *frame, int n);

/// Multi-byte integers (MBI2Uint, Uint2MBI in adif/strutil.h): read at an offset, or taken from the
/// head; `*value` may be null. The bytes read, -1 for none. A last byte that is missing is no
/// error.
int peekUintvar(const frame_t *frame, int offset, uint32_t *value);
int extractUintvar(frame_t *frame, uint32_t *value);

/// Write one in front of the byte at `offset`, or at the tail. The bytes added, or -1.
int insertUintvar(frame_t **handle, int offset, uint32_t value);
int appendUintvar(frame_t **handle, uint32_t value);

/// Read (without taking) and append an unsigned big-endian integer of `width` 1..8 bytes. `width`;
/// -1 for another width, null, a failed growth, or too few bytes from `offset`.
int decodeNetInt(const frame_t *frame, int offset, int width, uint64_t *value);
int encodeInt(frame_t **handle, uint64_t value, int width);

/// Append the coded form of `from`'s whole content to `*to`, which may be the same frame. The bytes
/// appended, with `*to`'s content unchanged unless that is above 0; -1 for an empty or null `from`,
/// a null `to` or a failed growth; -100 for a text that is malformed (adif/base64.h,
/// adif/strutil.h).
int binToBase64(const frame_t *from, frame_t **to);
int base64ToBin(const frame_t *from, frame_t **to);
int frame_bin_to_ascii(const frame_t *from, frame_t **to);
int frame_ascii_to_bin(const frame_t *from, frame_t **to);

/// Readers for decoders, with the byte iterator's results: 0; -1 for null or a count below 0; -100
/// when the content is too short, and nothing is taken then. They take from the head, the Last ones
/// from the tail; a null `out` drops. A multi-byte integer without its last byte is too short here.
int GetFirstByte(frame_t *frame, uint8_t *out);
int GetnFirstBytes(frame_t *frame, void *out, int n);
int GetLastByte(frame_t *frame, uint8_t *out);
int GetnLastBytes(frame_t *frame, void *out, int n);
int GetUintvar(frame_t *frame, uint32_t *value);

/// Drops the white space that the content begins with. The bytes dropped, -1 for null.
int StripBlanks(frame_t *frame);
