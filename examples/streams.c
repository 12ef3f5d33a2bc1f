/*
 * streams.c - measures what a real demuxer gains from a media's index: opens a URL with libavformat
 * through the library and prints how long it took until all streams were found.
 *
 *     streams [--index] [--pack BYTES] URL
 *
 * Output, one line: "index yes|no result R, N streams, open S s, index S s, streams S s, total S
 * s"; total runs from the start of c2ms_sess_open to the end of avformat_find_stream_info. Exit
 * status 0, 1 failed, 2 usage.
 */
#include <c2ms.h>
#include <libavformat/avformat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

enum { io_buffer = 32768, end_of_file = -200 };

/* The demuxer's view of a session. It keeps the end itself, because the library turns a seek to the
 * end into one to the last byte. */
struct source {
  c2ms_sess *sess;
  int64_t pos, size;
};

static double now_s(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static int read_source(void *opaque, uint8_t *buf, int len) {
  struct source *const s = opaque;
  if (s->pos >= s->size) return AVERROR_EOF;
  const int n = c2ms_sess_read(s->sess, buf, len, 0);
  if (n == end_of_file) return AVERROR_EOF;
  if (n < 0) return AVERROR(EIO);
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
  if (offset < s->size && c2ms_sess_seek(s->sess, (uint64_t)offset) < 0) return AVERROR(EIO);
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
  c2ms_sess *const sess = c2ms_sess_open(library, url, &error);
  if (!sess) {
    fprintf(stderr, "streams: %s\n", c2ms_sess_error(error));
    return 1;
  }
  const double opened = now_s();
  uint64_t size = 0;
  c2ms_sess_attr(sess, NULL, NULL, &size, NULL);
  c2ms_sess_cache_init(sess, c2ms_sess_pack_size(sess, pack));
  const int index = with_index ? c2ms_sess_idx_open(sess, NULL) : 0;
  /* Opening the index leaves the session on the media. */
  if (!with_index || c2ms_sess_idxfile(sess, NULL, NULL) != 1) c2ms_sess_range(sess, 0, size);
  const double indexed = now_s();
  struct source source = {sess, 0, (int64_t)size};
  const int streams = find_streams(&source);
  const double found = now_s();
  printf(
      "index %s result %d, %d streams, open %.3f s, index %.3f s, streams %.3f s, total %.3f s\n",
      with_index ? "yes" : "no", index, streams, opened - start, indexed - opened, found - indexed,
      found - start);
  c2ms_sess_close(sess);
  return streams > 0 ? 0 : 1;
}

int main(int argc, char **argv) {
  int with_index = 0;
  int32_t pack = 65536;
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
  c2ms_set_diag(NULL, NULL);
  c2ms_mgmt *const library = c2ms_mgmt_init(NULL, 1, 0, NULL, 16 << 20);
  if (!library) return 1;
  const int status = time_streams(library, argv[i], with_index, pack);
  c2ms_mgmt_clean(library);
  return status;
}
