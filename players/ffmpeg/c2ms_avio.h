/*
 * c2ms_avio.h - a media of libc2ms as an AVIOContext, for every program that uses libavformat.
 *
 *     AVIOContext *io;
 *     int result = c2ms_avio_open(&io, library, "kesp://...", NULL, NULL);
 *     if (result < 0) return result;
 *     format->pb = io;                                 (an AVFormatContext of avformat_alloc_context)
 *     avformat_open_input(&format, NULL, NULL, NULL);
 *     ...
 *     avformat_close_input(&format);
 *     c2ms_avio_close(&io);
 *
 * Link with `pkg-config c2ms-avio`.
 */
#ifndef C2MS_AVIO_H
#define C2MS_AVIO_H

#include <c2ms.h>
#include <libavformat/avio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Opens a media and gives a context that reads, seeks and tells the size. Reads wait for one byte
 * and take what is there.
 *
 * how: as in c2ms_sess_start, NULL for the defaults. interrupt: NULL, or is asked every 20
 * milliseconds while the open or a read waits; when it says so, they end with AVERROR_EXIT. It must
 * live as long as the context.
 *
 * Result: 0; AVERROR(ENOENT) no such media, AVERROR(EACCES) refused, AVERROR(EHOSTUNREACH) or
 * AVERROR(ETIMEDOUT) no server, AVERROR(EINVAL) a bad URL or range, AVERROR(ENOMEM), AVERROR_EXIT.
 */
int c2ms_avio_open(AVIOContext **io, c2ms_mgmt *library, const char *url, const c2ms_film *how,
                   const AVIOInterruptCB *interrupt);

/* Ends the session and frees the context; *io becomes NULL. Never waits for the network. NULL, and
 * a pointer to NULL, are ignored. */
void c2ms_avio_close(AVIOContext **io);

/* The session behind a context, for its figures; it belongs to the context. */
c2ms_sess *c2ms_avio_session(const AVIOContext *io);

#ifdef __cplusplus
}
#endif

#endif
