/* Writes a film of SIZE bytes to a file. */
#include "film.h"

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  if (argc != 3) return fprintf(stderr, "usage: lab-film SIZE FILE\n"), 2;
  const uint64_t size = strtoull(argv[1], NULL, 10);
  FILE *file = fopen(argv[2], "wb");
  static uint8_t block[1 << 16];
  if (!file) return perror(argv[2]), 1;
  for (uint64_t at = 0; at < size; at += sizeof block) {
    const size_t some = size - at < sizeof block ? (size_t)(size - at) : sizeof block;
    for (size_t i = 0; i < some; ++i) block[i] = film_byte(at + i);
    if (fwrite(block, 1, some, file) != some) return perror(argv[2]), 1;
  }
  return fclose(file) == 0 ? 0 : 1;
}
