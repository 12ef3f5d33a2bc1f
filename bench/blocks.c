/*
 * blocks.c - makes a film whose picture and sound come in long blocks, and plays it to count the
 * fetched bytes. The benches run it (places.cpp).
 *
 *     blocks remux IN OUT SECONDS     OUT, an MP4 file, holds IN's streams in blocks of that length
 *     blocks play [--seek] URL|FILE   reads all packets as a player would; of a URL through
 *                                     c2ms_sess_read_at, with --seek through seek and receive
 *
 * "play" prints a line: "packets N sum S size B fetched F redundant R"; the sum covers every
 * packet. Exit status 0, 1 failed, 2 usage.
 */
#include <c2ms.h>
#include <libavformat/avformat.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { io_buffer = 32768, pack_bytes = 65536, arena_bytes = 8 << 20, patience_ms = 20000 };

/* Packets in the order in which they were read. */
struct packets {
  AVPacket **all;
  size_t count, room;
};

static int keep(struct packets *list, const AVPacket *packet) {
  if (list->count == list->room) {
    const size_t room = list->room ? 2 * list->room : 1024;
    AVPacket **const all = realloc(list->all, room * sizeof *all);
    if (!all) return -1;
    list->all = all;
    list->room = room;
  }
  AVPacket *const copy = av_packet_clone(packet);
  if (!copy) return -1;
  list->all[list->count++] = copy;
  return 0;
}

static int keep_all(AVFormatContext *in, struct packets *list) {
  AVPacket *packet = av_packet_alloc();
  int result = packet ? 0 : -1;
  while (result == 0 && av_read_frame(in, packet) >= 0) {
    result = keep(list, packet);
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  return result;
}

static int write_block(const AVFormatContext *in, AVFormatContext *out, const struct packets *list,
                       unsigned stream, double from_s, double to_s) {
  for (size_t i = 0; i < list->count; ++i) {
    AVPacket *const packet = list->all[i];
    if ((unsigned)packet->stream_index != stream) continue;
    const AVRational base = in->streams[stream]->time_base;
    const double at_s = (double)packet->dts * av_q2d(base);
    if (at_s < from_s || at_s >= to_s) continue;
    av_packet_rescale_ts(packet, base, out->streams[stream]->time_base);
    packet->pos = -1;
    if (av_write_frame(out, packet) < 0) return -1;
    packet->stream_index = -1; /* written */
  }
  return 0;
}

static int write_blocks(const AVFormatContext *in, AVFormatContext *out, const struct packets *list,
                        double seconds) {
  const double length_s = (double)in->duration / AV_TIME_BASE + seconds;
  for (double from_s = -seconds; from_s < length_s; from_s += seconds) {
    for (unsigned stream = 0; stream < in->nb_streams; ++stream) {
      if (write_block(in, out, list, stream, from_s, from_s + seconds) < 0) return -1;
    }
  }
  return 0;
}

static int remux(const char *from, const char *to, double seconds) {
  AVFormatContext *in = NULL, *out = NULL;
  AVDictionary *options = NULL;
  struct packets list = {0};
  int result = avformat_open_input(&in, from, NULL, NULL);
  if (result >= 0) result = avformat_find_stream_info(in, NULL);
  if (result >= 0) result = avformat_alloc_output_context2(&out, NULL, "mp4", to);
  for (unsigned i = 0; result >= 0 && i < in->nb_streams; ++i) {
    AVStream *const stream = avformat_new_stream(out, NULL);
    result = stream ? avcodec_parameters_copy(stream->codecpar, in->streams[i]->codecpar) : -1;
    if (stream) stream->codecpar->codec_tag = 0;
  }
  if (result >= 0) result = avio_open(&out->pb, to, AVIO_FLAG_WRITE);
  av_dict_set(&options, "movflags", "faststart", 0);
  if (result >= 0) result = avformat_write_header(out, &options);
  if (result >= 0) result = keep_all(in, &list);
  if (result >= 0) result = write_blocks(in, out, &list, seconds);
  if (result >= 0) result = av_write_trailer(out);
  while (list.count > 0) av_packet_free(&list.all[--list.count]);
  free(list.all);
  av_dict_free(&options);
  if (out) avio_closep(&out->pb);
  avformat_free_context(out);
  avformat_close_input(&in);
  return result < 0 ? 1 : 0;
}

/* The demuxer's view of a session. */
struct source {
  c2ms_sess *sess;
  int64_t pos, size;
  int64_t stands_at; /* the session's position, with --seek */
  int seeks;
};

static int read_source(void *opaque, uint8_t *buf, int len) {
  struct source *const s = opaque;
  if (s->pos >= s->size) return AVERROR_EOF;
  int n;
  if (s->seeks) {
    if (s->pos != s->stands_at) c2ms_sess_seek(s->sess, (uint64_t)s->pos);
    n = c2ms_sess_recv(s->sess, buf, len, patience_ms);
  } else {
    n = c2ms_sess_read_at(s->sess, (uint64_t)s->pos, buf, len, patience_ms);
  }
  if (n <= 0) return AVERROR(EIO);
  s->pos += n;
  s->stands_at = s->pos;
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

/* Reads all packets. Returns their number, or a negative error. */
static long read_packets(AVFormatContext *format, uint64_t *sum) {
  long count = 0;
  AVPacket *packet = av_packet_alloc();
  if (!packet || avformat_find_stream_info(format, NULL) < 0) count = -1;
  for (; count >= 0 && av_read_frame(format, packet) >= 0; ++count) {
    uint64_t hash = 14695981039346656037u ^ (uint64_t)packet->dts ^ (uint64_t)packet->stream_index;
    for (int i = 0; i < packet->size; ++i) hash = (hash ^ packet->data[i]) * 1099511628211u;
    *sum += hash;
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  return count;
}

static long play_source(struct source *source, uint64_t *sum) {
  AVFormatContext *format = avformat_alloc_context();
  uint8_t *const buffer = av_malloc(io_buffer);
  AVIOContext *io = NULL;
  if (format && buffer)
    io = avio_alloc_context(buffer, io_buffer, 0, source, read_source, NULL, seek_source);
  if (!io) av_free(buffer);
  long count = -1;
  if (io) {
    format->pb = io;
    if (avformat_open_input(&format, NULL, NULL, NULL) == 0) count = read_packets(format, sum);
    av_freep(&io->buffer);
  }
  avformat_close_input(&format);
  avio_context_free(&io);
  return count;
}

static int play_url(const char *url, int seeks) {
  c2ms_set_diag(NULL, NULL);
  c2ms_mgmt *const library = c2ms_mgmt_init(NULL, 1, 0, NULL, arena_bytes);
  int32_t error = 0;
  c2ms_sess *const sess = library ? c2ms_sess_open(library, url, &error) : NULL;
  long count = -1;
  if (sess) {
    uint64_t size = 0, sum = 0;
    c2ms_sess_attr(sess, NULL, NULL, &size, NULL);
    c2ms_sess_cache_init(sess, c2ms_sess_pack_size(sess, pack_bytes));
    c2ms_sess_range(sess, 0, size);
    struct source source = {sess, 0, (int64_t)size, 0, seeks};
    count = play_source(&source, &sum);
    c2ms_stats stats;
    c2ms_sess_stats(sess, &stats, sizeof stats);
    printf("packets %ld sum %llu size %llu fetched %llu redundant %llu\n", count,
           (unsigned long long)sum, (unsigned long long)size,
           (unsigned long long)stats.bytes_received, (unsigned long long)stats.redundant);
    c2ms_sess_close(sess);
  }
  c2ms_mgmt_clean(library);
  return count > 0 ? 0 : 1;
}

static int play_file(const char *path) {
  AVFormatContext *format = NULL;
  uint64_t sum = 0;
  if (avformat_open_input(&format, path, NULL, NULL) < 0) return 1;
  const long count = read_packets(format, &sum);
  printf("packets %ld sum %llu size 0 fetched 0 redundant 0\n", count, (unsigned long long)sum);
  avformat_close_input(&format);
  return count > 0 ? 0 : 1;
}

int main(int argc, char **argv) {
  av_log_set_level(AV_LOG_ERROR);
  if (argc == 5 && strcmp(argv[1], "remux") == 0)
    return remux(argv[2], argv[3], strtod(argv[4], NULL));
  const int seeks = argc == 4 && strcmp(argv[2], "--seek") == 0;
  if (argc == 3 + seeks && strcmp(argv[1], "play") == 0) {
    const char *const what = argv[argc - 1];
    return strstr(what, "://") ? play_url(what, seeks) : play_file(what);
  }
  fprintf(stderr, "usage: blocks remux IN OUT SECONDS | blocks play [--seek] URL|FILE\n");
  return 2;
}
