/* A complete player: fetches the media of a URL and writes its bytes to standard output.
 *     cc -std=c99 player.c -lc2ms -o player && ./player 'kesp://...' > film.mp4 */
#include <c2ms.h>

static void complain(void *arg, const char *line) {
  fputs(line, (FILE *)arg);
}

/* Plays from pos to the end of the file. Returns 0 when every byte was played. */
static int play(c2ms_sess *film, uint64_t pos, uint64_t size) {
  static char buf[65536];
  int32_t n = c2ms_sess_seek(film, pos);
  while (n >= 0 && pos < size) {
    n = c2ms_sess_read(film, buf, sizeof buf,
                       0); /* waits until the buffer is full or the file ends */
    if (n > 0 && fwrite(buf, 1, (size_t)n, stdout) != (size_t)n) return 1;
    if (n > 0) pos += (uint64_t)n;
  }
  if (n < 0) fprintf(stderr, "player: read failed: %s (%d)\n", c2ms_read_text(n), (int)n);
  return n < 0 || fflush(stdout) != 0;
}

static int open_and_play(c2ms_mgmt *lib, const char *url) {
  int32_t err = 0;
  uint64_t size = 0;
  int failed = 1;
  c2ms_sess *film =
      c2ms_sess_open(lib, url, &err); /* waits until a server has described the media */
  if (!film) {
    fprintf(stderr, "player: %s\n", c2ms_sess_error(err));
    return 1;
  }
  c2ms_sess_attr(film, NULL, NULL, &size, NULL);
  if (c2ms_sess_cache_init(film, c2ms_sess_pack_size(film, 0)) == 0 &&
      c2ms_sess_range(film, 0, size) == 0) {
    failed = play(film, 0, size);
  }
  c2ms_sess_close(film);
  return failed;
}

int main(int argc, char **argv) {
  c2ms_mgmt *lib;
  int failed;
  if (argc != 2) {
    fprintf(stderr, "usage: player URL > FILE\n");
    return 2;
  }
  c2ms_set_diag(complain, stderr); /* standard output is for the film */
  lib = c2ms_mgmt_init(NULL, 0, 0, NULL, 16 << 20);
  if (!lib) {
    fprintf(stderr, "player: the library cannot start\n");
    return 1;
  }
  failed = open_and_play(lib, argv[1]);
  c2ms_mgmt_clean(lib);
  return failed;
}
