/* The laboratory's player: what its parts share. It sees nothing of the library but c2ms.h. */
#ifndef LAB_PLAYER_H
#define LAB_PLAYER_H

#include <c2ms.h>
#include <stdint.h>

#define PIECE (32 << 10)     /* what a player takes at a time */
#define SEEK_READ (64 << 10) /* what it wants after a seek */
#define MOST_SEEKS 1000

struct player {
  c2ms_sess *film;
  uint64_t size, wrong;   /* wrong: pieces that were not the film's bytes */
  double rate;            /* bytes per second of a play; 0: a download */
  double limit;           /* seconds after which it is cut short */
  double began;           /* when the open began, by the clock */
  double started;         /* seconds from then: the first byte was there, or the play began */
  double finished;        /* seconds from then */
  _Atomic double stalled; /* seconds that pieces came too late; samples see it grow */
  double longest;         /* stall */
  int stalls, seeks;
  uint64_t taken; /* bytes */
  double seek_ms[MOST_SEEKS];
};

double clock_seconds(void);
void wait_until(double when);

/* The three ways to play. 0, or what the library returned. */
int download(struct player *p);
int play(struct player *p);
int seek_about(struct player *p, int count, unsigned seed);

/* Looks at the session each 100 ms until stop_samples, and prints what it saw. Ends the reads at
 * the limit. */
void start_samples(struct player *p);
int stop_samples(void); /* was it cut short? */
void print_samples(void);

#endif
