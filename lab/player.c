/* Plays, downloads or seeks in a film and tells how it went as one JSON object. */
#include "player.h"

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

double clock_seconds(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (double)now.tv_sec + (double)now.tv_nsec / 1e9;
}

void wait_until(double when) {
  const double left = when - clock_seconds();
  if (left <= 0) return;
  const struct timespec time = {(time_t)left, (long)((left - (double)(time_t)left) * 1e9)};
  nanosleep(&time, NULL);
}

static c2ms_sess *open_film(c2ms_mgmt *library, const char *url, int32_t pack, struct player *p) {
  int32_t code = 0;
  c2ms_sess *const film = c2ms_sess_open(library, url, &code);
  if (!film) return fprintf(stderr, "lab-player: %s\n", c2ms_sess_error(code)), NULL;
  c2ms_sess_attr(film, NULL, NULL, &p->size, NULL);
  if (c2ms_sess_cache_init(film, c2ms_sess_pack_size(film, pack)) != 0 ||
      c2ms_sess_range(film, 0, p->size) != 0) {
    fprintf(stderr, "lab-player: the cache or the range was refused\n");
    c2ms_sess_close(film);
    return NULL;
  }
  return film;
}

static void print_run(const struct player *p, const c2ms_stats *s, double opened, int cut) {
  printf("{\"size\": %" PRIu64 ", \"wrong\": %" PRIu64 ", \"taken\": %" PRIu64
         ", \"cut\": %s, \"opened_s\": %.4f, \"started_s\": %.4f, \"finished_s\": %.4f, "
         "\"stalled_s\": %.4f, "
         "\"longest_s\": %.4f, \"stalls\": %d, \"seek_ms\": [",
         p->size, p->wrong, p->taken, cut ? "true" : "false", opened, p->started, p->finished,
         p->stalled, p->longest, p->stalls);
  for (int i = 0; i < p->seeks; ++i) printf("%s%.2f", i ? "," : "", p->seek_ms[i]);
  printf("],\n\"received\": %" PRIu64 ", \"discarded\": %" PRIu64 ", \"overhead\": %" PRIu64
         ", \"requests\": %" PRIu64 ", \"redundant\": %" PRIu64 ", \"won\": %" PRIu64
         ", \"failures\": %" PRIu64 ",\n",
         s->bytes_received, s->bytes_discarded, s->bytes_overhead, s->requests, s->redundant,
         s->won, s->failures);
  print_samples();
  printf("}\n");
}

static int run(c2ms_mgmt *library, char **argv) {
  static struct player p;
  p.rate = atof(argv[4]);
  p.limit = atof(argv[5]);
  p.began = clock_seconds();
  p.film = open_film(library, argv[2], atoi(argv[3]), &p);
  if (!p.film) return 1;
  const double opened = clock_seconds() - p.began;
  start_samples(&p);
  const int result = strcmp(argv[1], "play") == 0 ? play(&p)
                     : strcmp(argv[1], "seek") == 0
                         ? seek_about(&p, atoi(argv[7]), (unsigned)atoi(argv[6]))
                         : download(&p);
  p.finished = clock_seconds() - p.began;
  const int cut = stop_samples();
  c2ms_stats stats = {0};
  c2ms_sess_stats(p.film, &stats, sizeof stats);
  if (result != 0 && !cut) fprintf(stderr, "lab-player: a read gave %d\n", result);
  print_run(&p, &stats, opened, cut);
  c2ms_sess_close(p.film);
  return result != 0 && !cut;
}

int main(int argc, char **argv) {
  if (argc != 8)
    return fprintf(
               stderr,
               "usage: lab-player download|play|seek URL PACK BYTES_PER_S LIMIT_S SEED SEEKS\n"),
           2;
  c2ms_set_diag(NULL, NULL);
  c2ms_mgmt *const library = c2ms_mgmt_init(NULL, 0, 0, NULL, 8 << 20);
  if (!library) return fprintf(stderr, "lab-player: the library does not start\n"), 1;
  const int status = run(library, argv);
  c2ms_mgmt_clean(library);
  return status;
}
