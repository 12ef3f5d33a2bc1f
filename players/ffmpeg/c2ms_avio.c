/* See c2ms_avio.h. */
#include "c2ms_avio.h"

#include <libavutil/error.h>
#include <libavutil/mem.h>
#include <stdio.h>

enum { buffer_bytes = 32768, step_ms = 20 };

struct source {
  c2ms_sess *sess;
  const AVIOInterruptCB *interrupt;
  int64_t pos, size;
};

static int interrupted(const struct source *s) {
  return s->interrupt && s->interrupt->callback && s->interrupt->callback(s->interrupt->opaque);
}

static int av_error(int32_t code) {
  switch (code) {
    case C2MS_MEDIA_NOT_EXIST:
      return AVERROR(ENOENT);
    case C2MS_UNAUTHORIZED:
    case C2MS_AUTH_FAILED:
    case C2MS_IN_DEBT:
      return AVERROR(EACCES);
    case C2MS_ENTRY_UNAVAILABLE:
      return AVERROR(EHOSTUNREACH);
    case C2MS_OPEN_TIMEOUT:
      return AVERROR(ETIMEDOUT);
    case C2MS_INVALID_PARAMETER:
    case C2MS_INVALID_URL:
    case C2MS_UNSUPPORTED_SCHEME:
      return AVERROR(EINVAL);
    case C2MS_NO_MEMORY:
    case C2MS_NO_CACHE_MEMORY:
      return AVERROR(ENOMEM);
    case C2MS_CANCELLED:
    case C2MS_CLOSED:
      return AVERROR_EXIT;
    case C2MS_END:
      return AVERROR_EOF;
    default:
      return AVERROR(EIO);
  }
}

static int read_source(void *opaque, uint8_t *buf, int len) {
  struct source *const s = opaque;
  int32_t n;
  do {
    if (interrupted(s)) return AVERROR_EXIT;
    n = c2ms_sess_read_some(s->sess, (uint64_t)s->pos, buf, 1, len, s->interrupt ? step_ms : -1);
  } while (n == C2MS_TIMED_OUT);
  if (n < 1) return n == 0 ? AVERROR(EIO) : av_error(n);
  s->pos += n;
  return n;
}

static int64_t seek_source(void *opaque, int64_t offset, int whence) {
  struct source *const s = opaque;
  if (whence & AVSEEK_SIZE) return s->size;
  whence &= ~AVSEEK_FORCE;
  if (whence == SEEK_CUR) offset += s->pos;
  if (whence == SEEK_END) offset += s->size;
  if (offset < 0 || offset > s->size) return AVERROR(EINVAL);
  return s->pos = offset;
}

/* Waits until the session is open, and asks the host in between. */
static int32_t wait_open(const struct source *s) {
  int32_t code;
  while ((code = c2ms_sess_wait(s->sess, step_ms)) == C2MS_OPENING) {
    if (interrupted(s)) c2ms_sess_cancel(s->sess, 1);
  }
  return code;
}

static AVIOContext *context_of(struct source *s) {
  uint8_t *const buffer = av_malloc(buffer_bytes);
  AVIOContext *const io =
      buffer ? avio_alloc_context(buffer, buffer_bytes, 0, s, read_source, NULL, seek_source)
             : NULL;
  if (!io) av_free(buffer);
  return io;
}

int c2ms_avio_open(AVIOContext **io, c2ms_mgmt *library, const char *url, const c2ms_film *how,
                   const AVIOInterruptCB *interrupt) {
  int32_t code = 0;
  uint64_t size = 0;
  struct source *const s = av_mallocz(sizeof *s);
  *io = NULL;
  if (!s) return AVERROR(ENOMEM);
  s->interrupt = interrupt;
  s->sess = c2ms_sess_begin(library, url, how, &code);
  if (s->sess) code = wait_open(s);
  if (code == 0 && !(*io = context_of(s))) code = C2MS_NO_MEMORY;
  if (code != 0) {
    c2ms_sess_end(s->sess);
    av_free(s);
    return av_error(code);
  }
  c2ms_sess_attr(s->sess, NULL, NULL, &size, NULL);
  if (how) size = how->range_size ? how->range_size : size - how->range_begin;
  s->size = (int64_t)size;
  return 0;
}

void c2ms_avio_close(AVIOContext **io) {
  if (!io || !*io) return;
  struct source *const s = (*io)->opaque;
  c2ms_sess_end(s->sess);
  av_free(s);
  av_freep(&(*io)->buffer);
  avio_context_free(io);
}

c2ms_sess *c2ms_avio_session(const AVIOContext *io) {
  const struct source *const s = io->opaque;
  return s->sess;
}
