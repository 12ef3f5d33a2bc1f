/* What the session looked like over time. */
#include <inttypes.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>

#include "player.h"

#define PERIOD_S 0.1
#define MOST 20000

static struct {
  double time, stalled;
  uint64_t position, ahead, received;
} sample[MOST];
static int samples;
static atomic_int stopped, cut;
static pthread_t thread;

static void *look(void *argument) {
  const struct player *p = argument;
  while (!atomic_load(&stopped) && samples < MOST) {
    c2ms_stats stats;
    const double now = clock_seconds();
    if (c2ms_sess_stats(p->film, &stats, sizeof stats) == 0) {
      sample[samples].time = now - p->began;
      sample[samples].stalled = p->stalled;
      sample[samples].position = stats.position;
      sample[samples].ahead = stats.buffered_ahead;
      sample[samples++].received = stats.bytes_received;
    }
    if (now - p->began > p->limit) {
      atomic_store(&cut, 1);
      c2ms_sess_cancel(p->film, 1);
      return NULL;
    }
    wait_until(now + PERIOD_S);
  }
  return NULL;
}

void start_samples(struct player *p) {
  if (pthread_create(&thread, NULL, look, p) != 0) atomic_store(&stopped, 2);
}

int stop_samples(void) {
  if (atomic_exchange(&stopped, 1) == 0) pthread_join(thread, NULL);
  return atomic_load(&cut);
}

void print_samples(void) {
  printf("\"samples\": [");
  for (int i = 0; i < samples; ++i)
    printf("%s[%.3f,%" PRIu64 ",%" PRIu64 ",%" PRIu64 ",%.3f]", i ? ",\n" : "\n", sample[i].time,
           sample[i].position, sample[i].ahead, sample[i].received, sample[i].stalled);
  printf("]");
}
