/*
 * c2ms_mpv.c - plays kesp:// and kedp:// URLs in mpv. The file belongs into mpv's folder of scripts
 * (~/.config/mpv/scripts/c2ms.so, or /etc/mpv/scripts); mpv finds it there by itself.
 *
 * mpv calls open, read and seek on its own demuxer thread and cancel on another one.
 */
#include <c2ms.h>
#include <mpv/client.h>
#include <mpv/stream_cb.h>
#include <stdlib.h>
#include <string.h>

enum { memory_bytes = 256 << 20, cache_bytes = 64 << 20 };

struct stream {
  c2ms_sess *sess;
  uint64_t pos, size;
};

static int64_t read_stream(void *cookie, char *buf, uint64_t len) {
  struct stream *const s = cookie;
  const int32_t most = len < (1 << 20) ? (int32_t)len : 1 << 20;
  const int32_t n = c2ms_sess_read_some(s->sess, s->pos, buf, 1, most, -1);
  if (n == C2MS_END) return 0;
  if (n < 0) return -1;
  s->pos += (uint64_t)n;
  return n;
}

static int64_t seek_stream(void *cookie, int64_t offset) {
  struct stream *const s = cookie;
  if (offset < 0 || (uint64_t)offset > s->size) return MPV_ERROR_GENERIC;
  s->pos = (uint64_t)offset;
  return offset;
}

static int64_t size_of_stream(void *cookie) {
  return (int64_t)((struct stream *)cookie)->size;
}

/* The player stops the film: reads end at once, and for good. */
static void cancel_stream(void *cookie) {
  c2ms_sess_cancel(((struct stream *)cookie)->sess, 1);
}

static void close_stream(void *cookie) {
  struct stream *const s = cookie;
  c2ms_sess_end(s->sess);
  free(s);
}

static void say(const char *url, int32_t code) {
  /* mpv has no log for plugins in C; it shows what they print. */
  fprintf(stderr, "[c2ms] %s: %s\n", url, c2ms_sess_error(code));
}

/* Begins the open and gives mpv the stream while it goes on: the first read waits for it, and a
 * cancel ends it. */
static int open_stream(void *library, char *url, mpv_stream_cb_info *info) {
  c2ms_film how;
  int32_t code = 0;
  struct stream *const s = calloc(1, sizeof *s);
  if (!s) return MPV_ERROR_LOADING_FAILED;
  memset(&how, 0, sizeof how);
  how.struct_size = sizeof how;
  how.cache_bytes = cache_bytes;
  s->sess = c2ms_sess_start(library, url, &how, &code);
  if (!s->sess) {
    say(url, code);
    free(s);
    return MPV_ERROR_LOADING_FAILED;
  }
  c2ms_sess_attr(s->sess, NULL, NULL, &s->size, NULL);
  info->cookie = s;
  info->read_fn = read_stream;
  info->seek_fn = seek_stream;
  info->size_fn = size_of_stream;
  info->close_fn = close_stream;
  info->cancel_fn = cancel_stream;
  return 0;
}

/* mpv runs this on a thread of its own until the player ends. */
__attribute__((visibility("default"))) int mpv_open_cplugin(mpv_handle *mpv) {
  c2ms_options options;
  int32_t code = 0;
  memset(&options, 0, sizeof options);
  options.struct_size = sizeof options;
  options.flags = C2MS_QUIET;
  options.memory = memory_bytes;
  c2ms_mgmt *const library = c2ms_mgmt_start(&options, &code);
  if (!library) {
    say("no library", code);
    return -1;
  }
  mpv_stream_cb_add_ro(mpv, "kesp", library, open_stream);
  mpv_stream_cb_add_ro(mpv, "kedp", library, open_stream);
  while (mpv_wait_event(mpv, -1)->event_id != MPV_EVENT_SHUTDOWN) {
  }
  /* Streams may still be open: the library goes with the process, and it stays loaded. */
  return 0;
}
