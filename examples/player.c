/* A complete player: fetches the media of a URL and writes its bytes to standard output.
 *     cc -std=c99 player.c -lc2ms -o player && ./player 'kesp://...' > film.mp4 */
#include <c2ms.h>
#include <string.h>

/* Writes the whole film. Returns C2MS_END, or the code of the failure. */
static int32_t play(c2ms_sess *film) {
  static char buf[65536];
  int32_t n;
  do { /* waits for one byte, takes what is there */
    n = c2ms_sess_read_some(film, C2MS_HERE, buf, 1, sizeof buf, -1);
    if (n > 0 && fwrite(buf, 1, (size_t)n, stdout) != (size_t)n) return C2MS_CLOSED;
  } while (n >= 0);
  return fflush(stdout) == 0 ? n : C2MS_CLOSED;
}

int main(int argc, char **argv) {
  c2ms_options options;
  c2ms_mgmt *lib;
  c2ms_sess *film;
  int32_t code = 0;
  if (argc != 2) {
    fprintf(stderr, "usage: player URL > FILE\n");
    return 2;
  }
  memset(&options, 0, sizeof options);
  options.struct_size = sizeof options;
  options.flags = C2MS_QUIET; /* standard output is for the film */
  options.memory = 16 << 20;  /* bytes for caches */
  lib = c2ms_mgmt_start(&options, &code);
  film = lib ? c2ms_sess_start(lib, argv[1], NULL, &code) : NULL;
  if (film) {
    code = play(film);
    c2ms_sess_end(film);
  }
  if (code != C2MS_END) fprintf(stderr, "player: %s\n", c2ms_read_text(code));
  if (lib) c2ms_mgmt_clean(lib); /* agent and report server hear of the end */
  return code == C2MS_END ? 0 : 1;
}
