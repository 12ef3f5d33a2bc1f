/*
 * probe.c - reads all packets of a media through c2ms_avio and prints them as framecrc does, so
 * that a test can compare them with those of the local file. With --seeks, seeks to forty places
 * instead and prints the first packet of the picture at each.
 *
 *     c2ms-avio-probe [--seeks] URL|FILE
 */
#include <inttypes.h>
#include <libavformat/avformat.h>
#include <libavutil/adler32.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "c2ms_avio.h"

enum { places = 40 };

static void print_packet(const AVPacket *packet) {
  printf("%d, %" PRId64 ", %d, 0x%08lx\n", packet->stream_index, packet->dts, packet->size,
         (unsigned long)av_adler32_update(0, packet->data, (unsigned)packet->size));
}

static int print_all(AVFormatContext *format, AVPacket *packet) {
  int result;
  while ((result = av_read_frame(format, packet)) >= 0) {
    print_packet(packet);
    av_packet_unref(packet);
  }
  return result == AVERROR_EOF ? 0 : result;
}

static int print_places(AVFormatContext *format, AVPacket *packet) {
  const int video = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, NULL, 0);
  for (int i = 0; i < places; ++i) {
    /* All over the film, in no order. */
    const int64_t at = format->duration / places * (i * 17 % places);
    if (av_seek_frame(format, -1, at, AVSEEK_FLAG_BACKWARD) < 0) return -1;
    do {
      av_packet_unref(packet);
      if (av_read_frame(format, packet) < 0) return -1;
    } while (packet->stream_index != video);
    print_packet(packet);
    av_packet_unref(packet);
  }
  return 0;
}

static int give_up_at(void *until) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec >= *(time_t *)until;
}

static int probe(const char *name, int seeks) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  time_t until = now.tv_sec + 60;
  const AVIOInterruptCB interrupt = {give_up_at, &until};
  const c2ms_options options = {
      .struct_size = sizeof options, .flags = C2MS_QUIET | C2MS_NO_REPORTS, .memory = 16 << 20};
  c2ms_mgmt *const library = c2ms_mgmt_start(&options, NULL);
  AVFormatContext *format = avformat_alloc_context();
  AVPacket *packet = av_packet_alloc();
  AVIOContext *io = NULL;
  int result = 0;
  if (strncmp(name, "ke", 2) == 0) {
    result = c2ms_avio_open(&io, library, name, NULL, &interrupt);
    format->pb = io;
  }
  if (result == 0) result = avformat_open_input(&format, io ? NULL : name, NULL, NULL);
  if (result == 0) result = avformat_find_stream_info(format, NULL);
  if (result >= 0) result = seeks ? print_places(format, packet) : print_all(format, packet);
  if (result < 0) fprintf(stderr, "c2ms-avio-probe: %s\n", av_err2str(result));
  av_packet_free(&packet);
  avformat_close_input(&format);
  c2ms_avio_close(&io);
  c2ms_mgmt_clean(library);
  return result < 0;
}

int main(int argc, char **argv) {
  av_log_set_level(AV_LOG_ERROR);
  if (argc < 2) return 2;
  return probe(argv[argc - 1], argc == 3 && strcmp(argv[1], "--seeks") == 0);
}
