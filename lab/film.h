/* The laboratory's film: every eight bytes tell their place, so that a reader knows of each byte
 * whether it is the right one. */
#ifndef LAB_FILM_H
#define LAB_FILM_H

#include <stddef.h>
#include <stdint.h>

/* The byte at a position. */
static inline uint8_t film_byte(uint64_t pos) {
  uint64_t word = (pos / 8 + 1) * 0x9e3779b97f4a7c15u;
  word ^= word >> 29;
  return (uint8_t)(word >> (pos % 8 * 8));
}

/* Does a buffer hold the film's bytes from pos on? */
static inline int film_matches(const uint8_t *bytes, size_t size, uint64_t pos) {
  uint8_t wrong = 0;
  for (size_t i = 0; i < size; ++i) wrong |= (uint8_t)(bytes[i] ^ film_byte(pos + i));
  return wrong == 0;
}

#endif
