/*
 * streams.c - measures what a real demuxer gains from a media's index: opens a URL with libavformat
 * through the library and prints how long it took until all streams were found.
 *
 *     streams [--index] [--pack BYTES] URL
 *
 * Output, one line: "index yes|no, N streams, start S s, streams S s, total S s"; the start
 * includes the index when there is one, total runs to the end of avformat_find_stream_info. Exit
 * status 0, 1 failed, 2 usage.
 */
#include <c2ms.h>
#include <libavformat/avformat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { io_buffer = 32768 };

/* The demuxer's view of a session: it reads at positions. */
struct source {
  c2ms_sess *sess;
  int64_t pos, size;
};

static double now_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

/* Waits for one byte and takes what is there; never 0, which a demuxer takes for a failure. */
static int read_source(void *opaque, uint8_t *buf, int len) {
  struct source *const s = opaque;
  const int n = c2ms_sess_read_some(s->sess, (uint64_t)s->pos, buf, 1, len, -1);
  if (n == C2MS_END) return AVERROR_EOF;
  if (n < 1) return AVERROR(EIO);
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

/* Returns the number of streams, or a negative error. */
static int find_streams(struct source *source) {
  AVFormatContext *format = avformat_alloc_context();
  uint8_t *const buffer = av_malloc(io_buffer);
  AVIOContext *io = NULL;
  if (format && buffer) {
    io = avio_alloc_context(buffer, io_buffer, 0, source, read_source, NULL, seek_source);
  }
  int result = -1;
  if (io) {
    format->pb = io;
    result = avformat_open_input(&format, NULL, NULL, NULL); /* frees format when it fails */
    if (result == 0) result = avformat_find_stream_info(format, NULL);
    if (result >= 0) result = (int)format->nb_streams;
    av_freep(&io->buffer);
  } else {
    av_free(buffer);
  }
  avformat_close_input(&format);
  avio_context_free(&io);
  return result;
}

static int time_streams(c2ms_mgmt *library, const char *url, int with_index, int32_t pack) {
  const double start = now_s();
  int32_t error = 0;
  const c2ms_film how = {
      .struct_size = sizeof how, .flags = with_index ? 0 : C2MS_NO_INDEX, .pack_size = pack};
  c2ms_sess *const sess = c2ms_sess_start(library, url, &how, &error);
  if (!sess) {
    fprintf(stderr, "streams: %s\n", c2ms_sess_error(error));
    return 1;
  }
  const double opened = now_s();
  uint64_t size = 0;
  c2ms_sess_attr(sess, NULL, NULL, &size, NULL);
  struct source source = {sess, 0, (int64_t)size};
  const int streams = find_streams(&source);
  const double found = now_s();
  printf("index %s, %d streams, start %.3f s, streams %.3f s, total %.3f s\n",
         c2ms_sess_idx_size(sess) > 0 ? "yes" : "no", streams, opened - start, found - opened,
         found - start);
  c2ms_sess_end(sess);
  return streams > 0 ? 0 : 1;
}

int main(int argc, char **argv) {
  int with_index = 0;
  int32_t pack = 0; /* the library chooses */
  int i = 1;
  for (; i < argc - 1; ++i) {
    if (strcmp(argv[i], "--index") == 0) {
      with_index = 1;
    } else if (strcmp(argv[i], "--pack") == 0) {
      pack = (int32_t)strtol(argv[++i], NULL, 10);
    } else {
      break;
    }
  }
  if (i != argc - 1) {
    fprintf(stderr, "usage: streams [--index] [--pack BYTES] URL\n");
    return 2;
  }
  av_log_set_level(AV_LOG_ERROR);
  const c2ms_options options = {
      .struct_size = sizeof options, .flags = C2MS_QUIET, .memory = 16 << 20, .user = 1};
  c2ms_mgmt *const library = c2ms_mgmt_start(&options, NULL);
  if (!library) return 1;
  const int status = time_streams(library, argv[i], with_index, pack);
  c2ms_mgmt_clean(library);
  return status;
}
