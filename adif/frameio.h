// Frames to and from files and sockets, and their diagnostics. The conventions of adif/frame.h
// hold. Sockets are stream sockets; time-outs are milliseconds, 0 or less without limit, and no
// call raises SIGPIPE. The non-blocking receivers that the session core uses are in adif/frame.h.
#pragma once

#include <cstdint>
#include <cstdio>

#include "adif/frame.h"

/// Appends up to `n` bytes read from a stream at its position; blocks as the stream does. The bytes
/// appended (0 at its end, or for `n` < 1); -1 for a null argument, a read error that came before
/// any byte, or a failed growth.
int appendFromFile(frame_t **handle, FILE *stream, int n);

/// Appends a regular file whole. Its size; -1, with the frame as it was, when it cannot be read, is
/// not regular or does not fit.
int appendFile(frame_t **handle, const char *path);

/// Writes the content as a whole file (file_write of adif/fileutil.h); for a stream see outString.
/// The bytes written; -1 for null or a failed write.
int writeToFile(const frame_t *frame, const char *path);

/// Waits until something has come and appends up to `n` bytes of it by one receive. The bytes; 0
/// when the peer has closed; -1 for an error or bad arguments.
int appendFromSocket(frame_t **handle, int fd, int n);

/// Sends the whole content, waiting for room; the content stays. Its length (0 for an empty frame);
/// -1 for an error.
int writeToSocket(const frame_t *frame, int fd);

/// Appends up to `n` bytes of what is there, without waiting. The bytes (0: nothing there); -1 when
/// the peer has closed, even after bytes, for an error or for bad arguments.
int frameRecv(frame_t **handle, int fd, int n);

/// Sends what fits without waiting and takes it from the head. The bytes sent (0: no room, or an
/// empty frame); -1 for an error.
int frameSend(frame_t *frame, int fd);

/// Appends exactly `n` bytes, or what came when the time is over. `n`; 0 for the time-out; -1 for a
/// closed peer, an error or bad arguments. `*total_out` (may be null) tells the bytes appended.
int frame_tcp_receive(int fd, frame_t **handle, int n, int timeout_ms, int *total_out);

/// Sends the whole content, which stays. Its length; 0 for the time-out; -1 for an error or an
/// empty frame. `*total_out` (may be null) tells the bytes sent.
int frame_tcp_send(int fd, const frame_t *frame, int timeout_ms, int *total_out);

/// Dump up to `n` content bytes from `offset` (printOctet of adif/trace.h) to standard output or a
/// stream. The lines printed; -1 for null or a bad offset.
int printBytes(const frame_t *frame, int offset, int n);
int printToFile(const frame_t *frame, int offset, int n, FILE *stream);

/// Prints the record's fields and dumps the content. The lines printed; -1 for null.
int outputFrame(const frame_t *frame, FILE *stream);

/// Checks the invariants of a frame, and of those chained behind it. The number of frames; 0 for
/// null; -1 when one is broken.
int traverseCheck(const frame_t *frame);
