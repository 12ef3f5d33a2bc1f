/* The player's three ways: as fast as it goes, at the film's rate, seeking about. */
#include <stdlib.h>

#include "film.h"
#include "player.h"

#define START_S 2.0        /* of media before a play begins */
#define NOT_LATE_S 0.010   /* less is no stall */
#define SAME_STALL_S 0.5   /* between late pieces */
#define END_OF_FILE (-200) /* of the data calls */

static uint8_t buffer[SEEK_READ];

/* Reads up to `want` bytes at `pos` and looks at them. Bytes, 0 at the end, or the library's
 * code. */
static int take(struct player *p, uint64_t pos, int32_t want) {
  if (pos >= p->size) return 0;
  if (p->size - pos < (uint64_t)want) want = (int32_t)(p->size - pos);
  const int got = c2ms_sess_read(p->film, buffer, want, 0);
  if (got > 0 && !film_matches(buffer, (size_t)got, pos)) ++p->wrong;
  if (got > 0) p->taken += (uint64_t)got;
  return got == END_OF_FILE ? 0 : got;
}

int download(struct player *p) {
  uint64_t pos = 0;
  for (int got; pos < p->size; pos += (uint64_t)got) {
    got = take(p, pos, PIECE);
    if (got <= 0) return got < 0 ? got : -1;
    if (pos == 0) p->started = clock_seconds() - p->began;
  }
  return 0;
}

static void wait_for_start(struct player *p) {
  int32_t percent = 0;
  c2ms_sess_buffering(p->film, (int32_t)(START_S * p->rate));
  for (;;) {
    c2ms_sess_bufratio(p->film, &percent);
    if (percent >= 100 || clock_seconds() - p->began > p->limit) return;
    wait_until(clock_seconds() + 0.005);
  }
}

/* Late pieces that follow each other closely are one stall. */
static void stall_for(struct player *p, double late) {
  static double end, length;
  const double now = clock_seconds();
  if (now - late - end > SAME_STALL_S) {
    length = 0;
    ++p->stalls;
  }
  end = now;
  length += late;
  p->stalled = p->stalled + late;
  if (length > p->longest) p->longest = length;
}

/* How much too late a busy machine ended the sleep: that is no fault of the library's. */
static double sleep_until(double due) {
  if (clock_seconds() >= due) return 0;
  wait_until(due);
  return clock_seconds() - due;
}

/* Takes pieces at their due times until `end`; what comes late moves all that follows. */
static int pace(struct player *p, uint64_t pos, uint64_t end) {
  double due = clock_seconds();
  for (int got; pos < end; pos += (uint64_t)got) {
    const double overslept = sleep_until(due);
    got = take(p, pos, PIECE);
    const double late = clock_seconds() - due;
    if (late - overslept > NOT_LATE_S) stall_for(p, late - overslept);
    if (late > NOT_LATE_S) due += late;
    if (got <= 0) return got < 0 ? got : -1;
    due += (double)got / p->rate;
  }
  return 0;
}

int play(struct player *p) {
  wait_for_start(p);
  p->started = clock_seconds() - p->began;
  return pace(p, 0, p->size);
}

int seek_about(struct player *p, int count, unsigned seed) {
  const uint64_t second = (uint64_t)p->rate, room = p->size - 2 * second - SEEK_READ;
  int got = pace(p, 0, 2 * second);
  if (got != 0) return got;
  p->started = clock_seconds() - p->began;
  srandom(seed);
  if (count > MOST_SEEKS) count = MOST_SEEKS;
  for (p->seeks = 0; p->seeks < count; ++p->seeks) {
    const uint64_t pos = ((uint64_t)random() << 31 | (uint64_t)random()) % room;
    const double begin = clock_seconds();
    if (c2ms_sess_seek(p->film, pos) != 0) return -1;
    for (int32_t have = 0; have < SEEK_READ; have += got) {
      got = take(p, pos + (uint64_t)have, SEEK_READ - have);
      if (got <= 0) return got < 0 ? got : -1;
    }
    p->seek_ms[p->seeks] = (clock_seconds() - begin) * 1e3;
    got = pace(p, pos + SEEK_READ, pos + SEEK_READ + second);
    if (got != 0) return got;
  }
  return 0;
}
