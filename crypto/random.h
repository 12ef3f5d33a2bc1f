// Random texts from fixed alphabets, and a generator that mixes entropy fed by the caller.
#pragma once

#include <cstdint>

/// Alphabets of GetRandomString().
inline constexpr int kRandomLetters = 0;       ///< 52 letters
inline constexpr int kRandomAlphanumeric = 1;  ///< letters and digits
inline constexpr int kRandomPassword = 2;      ///< a letter first, then letters, digits, signs
inline constexpr int kRandomSigns = 3;         ///< as 2 with '|' and without '/', also in front
inline constexpr int kRandomSigns2 = 4;        ///< the same as 3
inline constexpr int kRandomDigits = 5;

/// Writes `length` characters to `out`, without an ending zero; a negative length writes none. 0;
/// -1 for null or a kind outside 0 ... 5. Uses rand(3) of the process and seeds it: on the first
/// call with the time, and on each call made in a later second with that same first time again, so
/// the sequence restarts. Kept for compatibility: names repeat from one second to the next. Never
/// for secrets. One thread at a time.
int GetRandomString(char *out, int length, int kind);

/// An entropy pool: bytes of any quality are mixed in (SHA-256), and once enough have come any
/// number of bytes can be drawn. Plain storage of the caller's; one thread at a time.
struct rand_state {
  uint8_t pool[32];
  uint64_t drawn;    ///< blocks drawn since the last mixing
  uint32_t missing;  ///< bytes to feed before the first draw
};

/// Empties the pool: 256 bytes are to be fed before the first draw.
void RandInit(rand_state *state);
/// Mixes in `length` bytes and counts them. 0; -1 for null or a length below 1.
int RandUpdate(rand_state *state, const void *data, int length);
/// Into `*bytes_needed`: how many bytes still have to be fed. 0; -1 for null.
int RandBytesNeeded(uint32_t *bytes_needed, const rand_state *state);
/// Draws `length` bytes. 0; -1 for null or a length below 1, or while bytes are still to be fed.
int GenerateBytes(void *out, int length, rand_state *state);
/// Wipes the pool, which is to be fed again before it serves.
void RandFinal(rand_state *state);
/// A pool fed from the system's entropy source, ready to draw from. 0; -1 for null or when the
/// source fails.
int RandCreate(rand_state *state);
/// Mixes in the clocks and the processor time of this moment; counts as no bytes.
void RandMix(rand_state *state);
