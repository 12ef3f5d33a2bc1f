/*
 * c2ms.h - the player's interface of libc2ms, in C99, for C and C++.
 *
 * A player opens a media file by its URL and reads it like a local, seekable file. The library
 * fetches the bytes from several servers at once. The usual course is also the first section:
 *
 *     c2ms_options options = {.struct_size = sizeof options, .memory = 16 << 20, .user = 42};
 *     int32_t err, n;
 *     c2ms_mgmt *lib = c2ms_mgmt_start(&options, &err);
 *     c2ms_sess *film = c2ms_sess_start(lib, "kesp://entry.example/film?fid=0011...", NULL, &err);
 *     if (film == NULL) return fail(c2ms_sess_error(err));
 *     while ((n = c2ms_sess_read_some(film, C2MS_HERE, buf, 1, sizeof buf, -1)) > 0) play(buf, n);
 *     c2ms_sess_end(film);
 *     c2ms_mgmt_clean(lib);
 *
 * Words. The entry server names the media servers. A node is a connection to one server. A pack is
 * the unit in which the cache holds the media. The agent, on the same machine, and the report
 * server are told of each play; the agent may refuse it.
 *
 * Threads. Any thread may make any call. Reads of one session take turns: a second reader waits
 * for the first. Seeks, queries and the close may come from another thread while a read waits. The
 * library calls two functions of the player's: the callback of c2ms_sess_open1 and the function
 * given to c2ms_set_diag. They must not call back into the same session.
 *
 * Blocking. A call that may wait says so, and for how long. All others never wait for the network.
 *
 * Results. 0 or a positive count is success. -1 means that the first argument is NULL. -2 means
 * that the next thing needed is missing; in the data calls that is the cache. -1000 to -1017 are
 * the session codes below; c2ms_sess_error gives their texts. A call on a session that another
 * thread is closing returns C2MS_CLOSED; c2ms_sess_close and c2ms_sess_idx_size return 0 then. Each
 * function lists its other results, for example "0; -1; -2 no cache".
 *
 * "Kept for compatibility" marks behaviour that looks wrong, but that players may rely on.
 *
 * Effects on the whole process, from the start of a context on:
 *   - c2ms_mgmt_init ignores the signals SIGCHLD, SIGTSTP, SIGTTOU, SIGPIPE and SIGTTIN, once in a
 *     process, so wait() and system() no longer see how a child ended. c2ms_mgmt_start leaves
 *     signals alone.
 *   - Threads named "c2ms-N" run until c2ms_mgmt_clean: eight, or as many as c2ms_mgmt_start was
 *     told. Threads for opens, name look-ups and reports are started when they are needed. All of
 *     them block all signals.
 *   - Diagnostic lines go to standard output unless c2ms_set_diag says otherwise, or every context
 *     was started with C2MS_QUIET.
 *   - Descriptors are opened with close-on-exec. A connection whose descriptor would be 1024 or
 *     above is not made.
 */
#ifndef C2MS_H
#define C2MS_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(__GNUC__)
#define C2MS_API __attribute__((visibility("default")))
#else
#define C2MS_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The context: configuration, identity, memory and threads. One is enough for all films. */
typedef struct c2ms_mgmt c2ms_mgmt;
/* A session: one opened media URL. It belongs to its context and is valid until c2ms_sess_close. */
typedef struct c2ms_sess c2ms_sess;

/* Session codes. */
enum {
  C2MS_OK = 0,
  C2MS_INVALID_PARAMETER = -1000,  /* "Invalid Parameter" */
  C2MS_INVALID_URL = -1001,        /* "Invalid URL" */
  C2MS_UNSUPPORTED_SCHEME = -1002, /* "Unsupported URL Scheme" */
  C2MS_NO_MEMORY = -1003,          /* "Memory allocation error" */
  C2MS_ENTRY_UNAVAILABLE = -1004,  /* "Entry Server unavailable" */
  C2MS_CLOSED = -1005,             /* "Session closed" */
  C2MS_OPEN_TIMEOUT = -1006,       /* "Session open timeout" */
  C2MS_MEDIA_NOT_EXIST = -1007,    /* "Media not exist" */
  C2MS_UNAUTHORIZED = -1008,       /* "User unauthorized" */
  C2MS_AUTH_FAILED = -1009,        /* "Authenticate failed" */
  C2MS_IN_DEBT = -1010,            /* "User in debt" */
  C2MS_CACHING = -1011,            /* "Net data caching" */
  C2MS_CANCELLED = -1012,          /* "Open cancelled" */
  C2MS_TIMED_OUT = -1013,          /* "Timed out" */
  C2MS_OPENING = -1014,            /* "Session opening" */
  C2MS_NO_CACHE_MEMORY = -1015,    /* "No cache memory left" */
  C2MS_NO_ENGINE = -1016,          /* "No threads or descriptors" */
  C2MS_NO_CIPHERS = -1017          /* "No DES or MD5" */
};

/* What the data calls return besides session codes (c2ms_read_text gives their texts). */
enum {
  C2MS_NO_SESSION = -1, /* the session is NULL */
  C2MS_NO_CACHE = -2,   /* before c2ms_sess_cache_init */
  C2MS_END = -200,      /* the end of the file, or no file is selected */
  C2MS_NO_PACKS = -201  /* the cache has no packs: c2ms_sess_cache_init has failed */
};

/* What c2ms_sess_idx_open and c2ms_sess_idx_open_asyn return besides session codes, C2MS_NO_SESSION
 * and C2MS_NO_CACHE (c2ms_idx_text gives their texts). The same numbers mean other things in the
 * data calls. */
enum {
  C2MS_IDX_NOT_RECEIVED = -200, /* five receives failed */
  C2MS_IDX_TIMEOUT = -201,      /* not complete within 30 seconds */
  C2MS_IDX_NO_INDEX = -300,     /* not a readable index file */
  C2MS_IDX_EMPTY = -301,        /* empty */
  C2MS_IDX_TOO_BIG = -350,      /* no memory, or more than 64 MiB, packed or unpacked */
  C2MS_IDX_DAMAGED = -400,      /* damaged, or no memory while it is unpacked */
  C2MS_IDX_NO_MOOV = -401       /* an MP4 media without a `moov` among its first 20 boxes */
};

/* ==== The usual start: a context, a film, reading at positions =============================== */

/* What c2ms_mgmt_start may be told besides (c2ms_options.flags). */
enum {
  C2MS_SET_SIGNALS = 1, /* ignore the signals that c2ms_mgmt_init ignores */
  C2MS_QUIET = 2,       /* no diagnostic lines to standard output */
  C2MS_NO_REPORTS = 4   /* tell neither agent nor report server of plays */
};

/* How a context is started. Set struct_size, leave what you do not need 0. */
typedef struct c2ms_options {
  uint32_t struct_size;  /* sizeof(c2ms_options) */
  uint32_t flags;        /* C2MS_SET_SIGNALS, C2MS_QUIET, C2MS_NO_REPORTS */
  uint64_t memory;       /* bytes for the caches of all sessions, at least 8 MiB; 0: 8 MiB */
  uint64_t user;         /* the 64-bit user id */
  const char *conf_path; /* as in c2ms_mgmt_init */
  const uint8_t *hid;    /* as in c2ms_mgmt_init */
  uint32_t threads;      /* of the engine, 1 to 8; 0: as many as processors, at most 8 */
  uint32_t reserved;
} c2ms_options;

/* c2ms_mgmt_init for a library inside somebody else's program: it never ends the process, and it
 * leaves signals as they are unless C2MS_SET_SIGNALS is given. The library never raises SIGPIPE.
 * Memory is touched as it is used: a context of 256 MiB starts as quickly as one of 8 MiB.
 *
 * options: NULL for the defaults. err: NULL, or receives 0 or
 *   C2MS_INVALID_PARAMETER struct_size is 0, threads is above 8, or memory is more than the address
 *     space or 32 GiB hold;
 *   C2MS_NO_MEMORY; C2MS_NO_ENGINE threads or descriptors cannot be had;
 *   C2MS_NO_CIPHERS libgcrypt is older than 1.8.0 or refuses DES or MD5.
 * Blocks as c2ms_mgmt_init. Result: the context, which c2ms_mgmt_clean frees; or NULL. */
C2MS_API c2ms_mgmt *c2ms_mgmt_start(const c2ms_options *options, int32_t *err);

/* What c2ms_sess_start and c2ms_sess_begin may be told besides (c2ms_film.flags). */
enum {
  C2MS_NO_INDEX = 1, /* leave the index of the media alone */
  C2MS_OPEN_ONLY = 2 /* as c2ms_sess_open: the player makes the cache and selects the range */
};

/* How a film is started. Set struct_size, leave what you do not need 0. */
typedef struct c2ms_film {
  uint32_t struct_size; /* sizeof(c2ms_film) */
  uint32_t flags;       /* C2MS_NO_INDEX, C2MS_OPEN_ONLY */
  uint64_t cache_bytes; /* of the context's memory; 0: all that is free at that moment */
  uint64_t range_begin; /* the part of the media to play: its first byte, */
  uint64_t range_size;  /* and its length; 0: up to the end of the media */
  int32_t pack_size;    /* a wish as in c2ms_sess_pack_size; 0: the library chooses */
  uint32_t weight;      /* as in c2ms_sess_weight; 0: 100 */
} c2ms_film;

/* Opens a media and prepares it for reading: c2ms_sess_open, c2ms_sess_cache_init with its part of
 * the memory, c2ms_sess_range, and c2ms_sess_idx_open when the media has an index. An index that
 * cannot be had within 10 seconds is done without. Every byte of the range is delivered: the last
 * pack of size 0 that c2ms_sess_pack_size tells of does not exist here.
 *
 * how: NULL for the defaults. Blocks as c2ms_sess_open, and 10 seconds longer for an index at most.
 * Result: the session, to be ended with c2ms_sess_close or c2ms_sess_end; or NULL. err: NULL, or
 * receives 0, a code of c2ms_sess_open, or
 *   C2MS_INVALID_PARAMETER struct_size is 0, or the range does not lie in the media;
 *   C2MS_NO_CACHE_MEMORY the context has not that much memory left, or less than 64 KiB. */
C2MS_API c2ms_sess *c2ms_sess_start(c2ms_mgmt *mgmt, const char *url, const c2ms_film *how,
                                    int32_t *err);

/* The same without waiting: the result is the session while it opens. Until it is open, all calls
 * on it but c2ms_sess_wait, c2ms_sess_cancel, c2ms_sess_ready_fd, c2ms_sess_close and
 * c2ms_sess_end return C2MS_OPENING; after an open that has failed, they return its code. A failed
 * one must be closed, too. The library opens up to 16 sessions of a context at once; more wait for
 * their turn.
 *
 * Result: the session; or NULL, with err C2MS_INVALID_PARAMETER, C2MS_INVALID_URL,
 * C2MS_UNSUPPORTED_SCHEME, C2MS_NO_MEMORY (also when no thread can be had) or C2MS_CLOSED. */
C2MS_API c2ms_sess *c2ms_sess_begin(c2ms_mgmt *mgmt, const char *url, const c2ms_film *how,
                                    int32_t *err);

/* Waits until a session is open, at most timeout_ms milliseconds; 0 or less asks without waiting.
 * Any number of threads. Result: 0 it is open; C2MS_OPENING not yet; the code that has ended the
 * open, C2MS_CANCELLED among them (c2ms_sess_cancel); C2MS_CLOSED; -1. */
C2MS_API int c2ms_sess_wait(c2ms_sess *sess, int32_t timeout_ms);

#define C2MS_HERE UINT64_MAX /* in place of a position: the read position */

/* Reads at a position as soon as something useful is there: waits for `min` bytes and copies up to
 * `len`. With min 0 it never waits. The position moves to the end of what is delivered. Reads of
 * the index's part and beyond it are one.
 *
 * pos: a position, or C2MS_HERE. min: 0 to len. timeout_ms: 0 does not wait, below 0 waits without
 * limit.
 *
 * Result: the count of bytes. It is below min only at the end of the file, or when another thread
 * has seeked, selected a file or changed the index. Otherwise C2MS_TIMED_OUT: min bytes were not
 * there in time; none is delivered, the position is pos, and the bytes that have come stay in the
 * cache. All others are those of c2ms_sess_read. */
C2MS_API int c2ms_sess_read_some(c2ms_sess *sess, uint64_t pos, void *buf, int32_t min, int32_t len,
                                 int32_t timeout_ms);

/* A descriptor for poll(2): readable while c2ms_sess_read_some at the read position with min 1
 * would return at once, and when an open has ended. Poll for POLLIN; never read from it. It belongs
 * to the session and lives until its close; every call gives the same one. Whatever makes the
 * position readable makes the descriptor readable; it ceases to be readable in a call that finds
 * nothing to read. As long as it is readable nothing is written to it. Result: the descriptor; -1;
 * C2MS_NO_ENGINE no descriptor can be had; C2MS_CLOSED. */
C2MS_API int c2ms_sess_ready_fd(c2ms_sess *sess);

/* c2ms_sess_close without waiting for agent and report server: they hear of the end from a thread
 * of the library, in the same order. Blocks for a few milliseconds at most, until the calls that
 * wait on the session have left. What is not told when c2ms_mgmt_clean is called is told then (see
 * there). Result: 0; -1. */
C2MS_API int c2ms_sess_end(c2ms_sess *sess);

/* The MIME type of the media, after its type number: "video/mp4", or "application/octet-stream" for
 * types that have none. Constant. */
C2MS_API const char *c2ms_sess_mime(c2ms_sess *sess);

/* ==== Several films in one context =========================================================== */

/* Changes the size of a session's cache while it plays. What lies ahead of the reader stays, as far
 * as the new cache holds it. bytes: rounded down to whole packs, at least 16 packs. Blocks while
 * another thread is in c2ms_sess_idx_open, 30 seconds at most; a waiting read ends with what it
 * has. Result: 0; -1; C2MS_NO_CACHE; C2MS_NO_CACHE_MEMORY the context has not that much left,
 * nothing has changed; C2MS_NO_MEMORY no heap memory for the records of the packs, likewise. */
C2MS_API int c2ms_sess_resize(c2ms_sess *sess, uint64_t bytes);

/* How important a session is beside the others of its context: 1 to 1000, at first 100. A session
 * asks its servers for bytes only while every session of a greater weight has enough ahead: three
 * quarters of what its cache can hold, or the rest of its file. Set the next film to 1 while it
 * fills in the background, and to 100 when it plays. Result: 0; -1; C2MS_INVALID_PARAMETER. */
C2MS_API int c2ms_sess_weight(c2ms_sess *sess, uint32_t weight);

/* ==== The same step by step: start, open, prepare, read, close, stop ========================= */

/* Starts the library: memory, threads, configuration, identity.
 *
 * conf_path: a configuration file, or NULL or "" for none. Only its first 63 characters are used.
 *   A file that is missing, malformed, over 1 MiB or no regular file leaves the defaults. These
 *   are the keys of its section "Communication Option"; the times are seconds, 1 to 86400:
 *     Entry Server                  host, without port, of URLs that name none (g_entry_server)
 *     Build TCP Max Time            limit for making a connection (10)
 *     Cyclic Connection Check Time  between two checks of a connection (3)
 *     Session Check Time            between two checks of a session (5). The first check of any
 *                                   session sets it to 8 for all later ones.
 * uid_low, uid_high: the halves of the 64-bit user id.
 * hid: 20 bytes of hardware id, copied; or NULL to take the first Ethernet interface's address.
 * mem_size: bytes of memory for the caches of all sessions; less than 8 MiB is raised to 8 MiB.
 *
 * Blocks as long as the name look-up of g_perf_server takes. Result: the context, which
 * c2ms_mgmt_clean frees. NULL, with a diagnostic line that says why, when there is not enough
 * memory, when the 16 descriptors of the engine cannot be had (8 of them must be below 1024), or
 * when libgcrypt is older than 1.8.0 or refuses DES or MD5 (FIPS mode). The process ends with
 * status 2 when a worker thread cannot be started, and with status 1 when there is no memory for
 * the contents of the configuration file. */
C2MS_API c2ms_mgmt *c2ms_mgmt_init(const char *conf_path, uint32_t uid_low, uint32_t uid_high,
                                   const uint8_t *hid, int32_t mem_size);

/* Opens a media. Example of a URL:
 *     kesp://127.0.0.1:3528/film?fid=00112233445566778899aabbccddeeff;stamp=7;keyid=3
 * A URL is kesp:// or kedp:// (both mean the same), then [host[:port]][/path[?query]]. Without a
 * host the configured entry server is asked, without a port 3528 is used. Keys of the
 * query: fid (32 hexadecimal digits, the media's id), auth (32 hexadecimal digits), stamp and keyid
 * (decimal). A value ends at a blank, tab, comma or semicolon. Only the first 511 characters of a
 * URL and 63 of a host are used; keys behind that are lost.
 *
 * Blocks until a server has described the media: at most about 21 seconds and a name look-up.
 *
 * Result: the session, to be ended with c2ms_sess_close; or NULL. err: NULL, or receives 0 or
 *   C2MS_INVALID_PARAMETER mgmt is NULL;
 *   C2MS_INVALID_URL no URL, fewer than 8 characters, or a port outside 0 to 65535;
 *   C2MS_UNSUPPORTED_SCHEME; C2MS_NO_MEMORY;
 *   C2MS_ENTRY_UNAVAILABLE the entry server's name is not found, or it cannot be reached;
 *   C2MS_OPEN_TIMEOUT no server has described the media in time, or none is left that could;
 *   C2MS_MEDIA_NOT_EXIST, C2MS_UNAUTHORIZED, C2MS_AUTH_FAILED, C2MS_IN_DEBT a server refuses;
 *   C2MS_CLOSED c2ms_mgmt_clean has begun. */
C2MS_API c2ms_sess *c2ms_sess_open(c2ms_mgmt *mgmt, const char *url, int32_t *err);

/* Describes the media. Every output may be NULL. fid_text: room for 33 bytes, receives 32
 * hexadecimal digits and a zero. name: room for 37 bytes. size: in bytes. type: 0 bin, 1 wmv, 2
 * avi, 3 flv, 4 rmvb, 5 rm, 6 frf, 7 mp4, 8 ts, 9 mkv, 10 7z. Result: 0; -1. */
C2MS_API int c2ms_sess_attr(c2ms_sess *sess, char *fid_text, char *name, uint64_t *size,
                            uint8_t *type);

/* Gives a pack size for c2ms_sess_cache_init. wanted 0: the library chooses (32 KiB packs today),
 * which suits every network, because requests ask for runs of neighbouring packs. Any other wish
 * gives that many bytes or slightly more, at least 4096, and a multiple of 4096 where possible.
 *
 * Kept for compatibility: when the pack size divides a file's size, the last pack of the file is
 * never delivered. The size from this call does not divide the size of the media or of its index.
 * It takes no account of c2ms_sess_range: if it divides the size of a selected part, add 1 to it.
 * Result: the size in bytes; -1. */
C2MS_API int32_t c2ms_sess_pack_size(c2ms_sess *sess, int32_t wanted);

/* Gives the session its cache: all memory of the context that is free at this moment, cut into
 * packs of pack_size bytes (at least 4096). It may be called again; the former cache is given back
 * first. Afterwards no file is selected, and reads give C2MS_END until c2ms_sess_range or
 * c2ms_sess_set_media selects one. A read that waits in another thread ends with what it has.
 * Blocks while another thread is in c2ms_sess_idx_open, 30 seconds at most.
 *
 * Result: 0; -1; -2 less than one pack of memory is free; -5 no heap memory for the records of the
 * packs. After -5 the session has no packs; the call may be repeated. */
C2MS_API int c2ms_sess_cache_init(c2ms_sess *sess, int32_t pack_size);

/* Selects the part of the media that reads deliver: size bytes from base_offset. The same as
 * c2ms_sess_set_media(sess, 0, base_offset, size). */
C2MS_API int c2ms_sess_range(c2ms_sess *sess, uint64_t base_offset, uint64_t size);

/* Copies up to len bytes from the read position to buf and moves the position behind them. With
 * buf NULL it skips them.
 *
 * nonblock not 0: never waits. Delivers what has arrived, which may be 0 bytes; 0 also while
 *   another thread reads.
 * nonblock 0: waits until len bytes have arrived or the file ends, however long no server can be
 *   reached; the library keeps asking its servers. The result is short when another thread seeks,
 *   selects a file, makes a cache or opens or closes the index, at the end of the part that an open
 *   index covers, and before an undeliverable last pack (see c2ms_sess_pack_size).
 *
 * Result: the count of bytes (0 for len below 1), or
 *   C2MS_NO_SESSION, C2MS_NO_CACHE, C2MS_NO_PACKS;
 *   C2MS_END at the end of the file, or when no file is selected;
 *   C2MS_CLOSED when the session closes, or while reading is cancelled (c2ms_sess_cancel);
 *   C2MS_MEDIA_NOT_EXIST, C2MS_UNAUTHORIZED, C2MS_AUTH_FAILED or C2MS_IN_DEBT when the servers
 *   refuse and no node is left that serves. The last three also when the agent refuses the play:
 *   then every read returns the code at once until the session is closed. */
C2MS_API int c2ms_sess_read(c2ms_sess *sess, void *buf, int32_t len, int32_t nonblock);

/* Moves the read position. Kept for compatibility: a pos at or past the end becomes the last byte.
 * A waiting read ends and returns what it has. While an index is being opened, and while no file is
 * selected, the call returns 0 and moves nothing. Result: 0; -1; -2 no cache. */
C2MS_API int c2ms_sess_seek(c2ms_sess *sess, uint64_t pos);

/* Closes the session: waiting calls on it return C2MS_CLOSED, its connections and memory are given
 * back, and agent and report server are told of the end, both at the same time. When two threads
 * close the session, the second call does nothing. Nobody may use the handle afterwards: it may
 * soon belong to another session.
 *
 * Blocks for milliseconds when agent and report server answer, and when there are none. If they
 * let every message time out, it blocks for 26 seconds at most: first the exchange that is under
 * way ends, then those of the close follow (limits: ping 2 s, connection 2 s, sending 1 s, reply
 * 8 s). Result: 0; -1. */
C2MS_API int c2ms_sess_close(c2ms_sess *sess);

/* Stops the library and frees everything, open sessions included. Calls that wait on those return
 * C2MS_CLOSED first. No other call on the context may begin once this one has. Blocks until agent
 * and report server have heard of the sessions that c2ms_sess_end has closed, at most 2 seconds,
 * and until the message that is under way ends: 10 seconds at most in all. Result: 0; 1 the end of
 * a session could not be told; -1. */
C2MS_API int c2ms_mgmt_clean(c2ms_mgmt *mgmt);

/* The text of a session code; "" for any other number. The text is constant. */
C2MS_API const char *c2ms_sess_error(int32_t code);

/* The text of any result of a data call (c2ms_sess_read, _recv, _read_at): of session codes that of
 * c2ms_sess_error, "OK" for 0 and more, "Unknown result" for a number that they never return. Never
 * NULL or empty; constant. */
C2MS_API const char *c2ms_read_text(int32_t result);
/* The same for the results of c2ms_sess_idx_open and c2ms_sess_idx_open_asyn. */
C2MS_API const char *c2ms_idx_text(int32_t result);

/* ==== Other ways to open ===================================================================== */

/* c2ms_sess_open with a callback. While the open waits for servers, it calls cb about once a second
 * on this thread; during the name look-up it does not. A negative result of cb ends the open with
 * C2MS_UNAUTHORIZED, which is also the code of a server's refusal. */
C2MS_API c2ms_sess *c2ms_sess_open1(c2ms_mgmt *mgmt, const char *url, int32_t *err,
                                    int32_t (*cb)(void));

/* c2ms_sess_open for a host with an interrupt callback: calls cb(arg) every 20 milliseconds on this
 * thread, during the name look-up as well. A negative result ends the open with C2MS_CANCELLED. */
C2MS_API c2ms_sess *c2ms_sess_open2(c2ms_mgmt *mgmt, const char *url, int32_t *err,
                                    int32_t (*cb)(void *arg), void *arg);

/* Asks the entry server for media servers again; the open media stays open. The library does this
 * by itself when its servers are lost. May block in a name look-up. Result: 0; -1; -100 no
 * connection could be started. */
C2MS_API int c2ms_sess_reopen(c2ms_sess *sess);

/* ==== Other ways to read ===================================================================== */

/* c2ms_sess_read with a time limit: waits at most timeout_ms milliseconds, then delivers what has
 * arrived, which may be 0 bytes. A timeout_ms of 0 or less does not wait. Results: those of
 * c2ms_sess_read. */
C2MS_API int c2ms_sess_recv(c2ms_sess *sess, void *buf, int32_t len, int32_t timeout_ms);

/* Seek and receive in one call, for players that read at given positions: no other thread's seek
 * can come between. The position moves to the end of what is delivered. Inside an open index the
 * result is short at the end of the part that the index covers. Results: those of c2ms_sess_recv;
 * C2MS_END also for a pos at or past the end.
 *
 * A player may read at two places in turn, as in a file whose audio and video come in long blocks.
 * As long as the places are at most half the cache apart, nothing is fetched twice. A place that
 * falls further behind is given up. */
C2MS_API int c2ms_sess_read_at(c2ms_sess *sess, uint64_t pos, void *buf, int32_t len,
                               int32_t timeout_ms);

/* Switches cancel on (`on` not 0) or off (0). While it is on, c2ms_sess_read, c2ms_sess_recv,
 * c2ms_sess_read_at, c2ms_sess_idx_open and c2ms_sess_idx_open_asyn return C2MS_CLOSED at once,
 * even if bytes have arrived. A call already waiting returns C2MS_CLOSED even if cancel is switched
 * off again immediately. Everything else works, and the cache keeps filling.
 *
 * While a session opens (c2ms_sess_begin), switching cancel on ends the open with C2MS_CANCELLED,
 * within 20 milliseconds and for good.
 *
 * A cancelled read delivers nothing, whatever its buffer holds: the position is where it was before
 * the call, unless another thread has moved it. A cancelled c2ms_sess_idx_open has failed; an
 * incremental open continues once cancel is off. Cancel stays on until it is switched off or the
 * session closes. The call never blocks and takes no memory, but it is not for signal handlers.
 * Result: 0; -1. */
C2MS_API int c2ms_sess_cancel(c2ms_sess *sess, int on);

/* Selects what reads deliver: size bytes from base_offset of the media (which 0) or of its index
 * file (any other which). Reads and seeks count positions from base_offset. Empties the cache, goes
 * to position 0 and ends a waiting read. Blocks while another thread is in c2ms_sess_idx_open, 30
 * seconds at most. Result: 0; -1; -2 no cache; -100 the media has no index file; -201 the cache has
 * no packs; -202 the size needs more than 2^31-1 packs, or base_offset + size is above 2^64-1. */
C2MS_API int c2ms_sess_set_media(c2ms_sess *sess, int which, uint64_t base_offset, uint64_t size);

/* Sets how many bytes the player wants ahead of the position before it plays; 0: none. The most
 * that the cache can hold ahead is the limit. Result: 0; -1; -2 no cache. */
C2MS_API int c2ms_sess_buffering(c2ms_sess *sess, int32_t bytes);

/* Writes to ratio how much of that has arrived, in percent (0 to 100). Result: 0; -1; -2 no cache;
 * -3 ratio is NULL; -400 no server has been usable for 4 seconds (ratio is written as well). */
C2MS_API int c2ms_sess_bufratio(c2ms_sess *sess, int32_t *ratio);

/* ==== The index ============================================================================== */

/* A media may have a separate, compressed index file. For an MP4 media it holds the `moov` box;
 * for any other media it stands for the file's first bytes. Once the index is open, reads of that
 * part of the media come from memory and the part is not downloaded again. While the position lies
 * in that part, the cache fills with what will be played next.
 *
 * Make the cache before opening the index. Every open that fetches, successful or not, leaves the
 * session on the media, at position 0 of the range that was selected (of the whole media if none
 * was).
 *
 * While an index is open, c2ms_sess_read and c2ms_sess_read_at end short at the end of its part. A
 * c2ms_sess_recv that reaches beyond the part goes through the cache; packs that lie wholly in the
 * index still come from memory. */

/* Tells whether the media has an index file. idx_text: NULL, or room for 33 bytes; receives its
 * id. len: NULL, or receives its length in bytes. Result: 1 it has one; 0 it has none; -1. */
C2MS_API int c2ms_sess_idxfile(c2ms_sess *sess, char *idx_text, uint32_t *len);

/* Fetches and opens the index. len: NULL, or receives the length in bytes of the index that this
 * call has unpacked, otherwise 0, also when the index was open already (see c2ms_sess_idx_size).
 * A read that waits in another thread ends with what it has. Blocks for at most 30 seconds. Result:
 * 0, at once when the media has no index file or the index is open already; or
 *   C2MS_NO_SESSION, C2MS_NO_CACHE, C2MS_CLOSED when closed or cancelled, or a C2MS_IDX code. */
C2MS_API int c2ms_sess_idx_open(c2ms_sess *sess, uint32_t *len);

/* The incremental open, for players that poll: takes what has arrived and never waits. Result:
 *   C2MS_CACHING: call again later. Do not read in between: until the open ends, the cache serves
 *   the index file;
 *   0 or more: the index is open. For an MP4 media it is the byte count of the read that completed
 *   the file (1 or more), for others 0;
 *   otherwise a code of c2ms_sess_idx_open, or C2MS_NO_MEMORY without memory for the packed file.
 *   The next call starts again, except after C2MS_CLOSED from a cancel.
 * When a file is selected or a cache made between two calls, the next call starts again. Kept for
 * compatibility: a failed read does not end the open, but its negative result is added to the count
 * of bytes, and then the index never completes. If it takes too long, close the index and open it
 * again. */
C2MS_API int c2ms_sess_idx_open_asyn(c2ms_sess *sess, uint32_t *len);

/* Copies min(len, length - off) bytes of the index to buf; with buf NULL it copies none. Kept for
 * compatibility: the copy always begins at the index's first byte, and off only limits the count.
 * For other parts, read the media itself. Blocks while another thread reads or opens the index.
 * Result: the count; 0 when len is below 1 or off is at or past the length; -1; -100 no index is
 * open; -101 the open index has no bytes. */
C2MS_API int c2ms_sess_idx_read(c2ms_sess *sess, void *buf, int32_t len, uint32_t off);

/* Writes to offset (or NULL) where in the media the open index lies, in bytes; 0 while none is
 * open. Result: 0; -1. */
C2MS_API int c2ms_sess_idx_offset(c2ms_sess *sess, uint64_t *offset);

/* The length of the open index in bytes; 0 while none is open, and for NULL. */
C2MS_API uint32_t c2ms_sess_idx_size(c2ms_sess *sess);

/* Which index the media has. Result: 0 no index file; 1 there is one, open or not; 2 it is open and
 * lies at the end of the media; -1; -2 none of these. */
C2MS_API int c2ms_sess_idx_attr(c2ms_sess *sess);

/* Whether the media's byte at pos belongs to the open index. Result: 1 it does; 0 it does not
 * (always for an index at position 0); -1. */
C2MS_API int c2ms_sess_is_in_idx(c2ms_sess *sess, uint64_t pos);

/* Closes the index, or gives up an incremental open. Ends a waiting read. Blocks while another
 * thread is in c2ms_sess_idx_open, 30 seconds at most. Result: 0; -1. */
C2MS_API int c2ms_sess_idx_close(c2ms_sess *sess);

/* ==== Figures ================================================================================ */

/* Bytes received per millisecond in the last full window of two seconds; 0 for NULL. */
C2MS_API double c2ms_sess_realtime_recvspeed(c2ms_sess *sess);
/* Bytes received per millisecond, over the time since the open in which at least one node was
 * downloading; 0 before any, -1.0 for NULL. */
C2MS_API double c2ms_sess_average_recvspeed(c2ms_sess *sess);
/* Average duration in microseconds of the requests to the node with the best average speed, however
 * long the requests were: at least 200,000; 20,000,000 while unknown; 1,000,000 without a node or
 * for NULL. */
C2MS_API int32_t c2ms_sess_fasttime(c2ms_sess *sess);

/* The fields below belong to one session. They count since the open ("total"), over the last full
 * window of two seconds ("interval"), or at the moment of the call ("instant"). Speeds are bytes
 * per millisecond, times microseconds. 0 means "none yet". */

/* Waits of readers for packs, totals: their number, their sum, and the longest. A receive that
 * reaches its time limit and is repeated counts each time. */
typedef struct c2ms_wait_stats {
  uint64_t count;
  uint64_t total_us;
  uint64_t longest_us;
} c2ms_wait_stats;

/* One media server's connection. */
typedef struct c2ms_node_stats {
  uint64_t bytes_received; /* total, media bytes */
  uint64_t requests;       /* total, for ranges; completed + given_up + in flight (at most two) */
  uint64_t completed;      /* total, whose answer has ended */
  uint64_t given_up;       /* total, refused, or ended with the connection */
  uint64_t failures;       /* total, connections that broke or could not be made */
  uint64_t round_trip_us;  /* average since the node exists, from request to last byte */
  double speed;            /* instant, of the last answer */
  double average_speed;    /* average since the node exists */
  double share;            /* of the session's bytes_received, 0 to 1 */
  uint32_t state; /* instant: 1 disconnected, 2 connecting, 3 connected, 4 asking for servers,
                   * 5 asking for the description, 6 ready, 7 downloading */
  uint32_t port;
  uint32_t level; /* 0 the entry server itself, 1 named by it, 2 named by one of those, ... */
  uint32_t load;  /* instant, as the server reported it last */
  char address[64];
  uint64_t reserved[4];
} c2ms_node_stats;

#define C2MS_STATS_NODES 8 /* most media nodes of a session */

/* The figures of a session. Later versions add fields at the end only. */
typedef struct c2ms_stats {
  uint32_t struct_size; /* bytes that the library has filled in */
  int32_t status;       /* instant: 0, or the session code that the servers caused last */

  /* Places, instant, counted like the positions of reads. */
  uint64_t position;
  uint64_t size;       /* of the selected file */
  uint64_t ring_begin; /* the cache is for the bytes from here up to ring_end */
  uint64_t ring_end;
  uint64_t buffered_bytes; /* all bytes that can be read now */
  uint64_t buffered_ahead; /* of these, in one piece from the position on */

  /* Bytes of the media, totals. received = kept + discarded, at every moment. */
  uint64_t bytes_received;
  uint64_t bytes_kept;      /* of completed packs, and what packs under way have so far */
  uint64_t bytes_discarded; /* came twice or too late, or of a pack that was given up */
  uint64_t bytes_delivered; /* to the player, also without a buffer and from the index */
  uint64_t bytes_overhead;  /* received beside the media: headers, lists, descriptions */
  uint64_t receiving_us;    /* while at least one node was downloading */

  /* Requests for ranges, totals. requests = completed + given_up + in_flight, at every moment. */
  uint64_t requests;
  uint64_t completed;
  uint64_t given_up;
  uint64_t redundant; /* for packs that another node had been asked for */
  uint64_t won;       /* of these, completed a pack */
  uint64_t wasted;    /* completed, but brought no pack to its end */
  uint64_t failures;  /* of nodes' connections */

  /* Readers' waits by cause. */
  c2ms_wait_stats wait_no_node;   /* at some time in it no node could deliver */
  c2ms_wait_stats wait_late;      /* the pack came late */
  c2ms_wait_stats wait_seek;      /* first bytes after a seek, or after the file was selected */
  c2ms_wait_stats wait_cancelled; /* ended by a cancel or the close */

  double speed;         /* interval: the last two seconds, all bytes */
  double average_speed; /* total: over receiving_us */

  uint64_t memory_bytes;     /* instant: the session's cache */
  uint64_t memory_cap_bytes; /* of the context, for the caches of all sessions */

  uint32_t seeks;           /* total, calls of c2ms_sess_seek */
  uint32_t reads;           /* total, calls that reached the cache */
  uint32_t short_reads;     /* total, of these, with fewer bytes than asked for */
  uint32_t buffered_ranges; /* instant, as c2ms_sess_ranges gives them */
  uint32_t in_flight;       /* instant, requests; at most two for each node */
  uint32_t units_queued;    /* instant, requests that wait for a node; usually 0 */
  uint32_t index_state;     /* instant: 0 the media has none, 1 not open, 2 being opened, 3 open */
  uint32_t index_bytes;     /* instant, of the open index; not part of memory_bytes */
  uint32_t report_state;    /* instant: 0 report server not told yet, 1 told of the play */
  uint32_t agent_state;     /* instant: 0 agent has not accepted yet, 1 accepted, 255 no agent */
  uint32_t nodes_usable;    /* instant, ready or downloading */
  uint32_t nodes;           /* instant, entries of node */

  c2ms_node_stats gone; /* sums over the nodes that have gone; with those in node, the totals */
  c2ms_node_stats node[C2MS_STATS_NODES]; /* fastest first, as last sorted */
} c2ms_stats;

/* Takes a snapshot of the session. struct_size: sizeof(c2ms_stats) as the player was compiled. If
 * it is smaller than the library's, the fields that fit are filled in; if it is bigger, zeros
 * follow. Looks at every pack, which takes microseconds, rarely a millisecond: call it once a
 * second rather than for every frame. Result: 0; -1; -2 stats is NULL. */
C2MS_API int c2ms_sess_stats(c2ms_sess *sess, c2ms_stats *stats, size_t struct_size);

/* Bytes from begin to end (exclusive). */
typedef struct c2ms_byte_range {
  uint64_t begin;
  uint64_t end;
} c2ms_byte_range;

/* Writes to ranges (or NULL) at most max stretches of the selected file that can be read now
 * without waiting: lowest first, each as long as possible. Result: how many stretches there are,
 * which may be more than max; -1; -2 no cache. */
C2MS_API int c2ms_sess_ranges(c2ms_sess *sess, c2ms_byte_range *ranges, int max);

/* Writes a readable dump of session, queue and nodes to out (NULL: standard output). */
C2MS_API void c2ms_sess_print(c2ms_sess *sess, FILE *out);

/* ==== A recording of what happens ============================================================ */

/* Kinds of events. Fields of c2ms_trace_event that a kind does not name are 0. Positions count in
 * the media. */
enum {
  /* A request, for one pack or several, has ended: pos, bytes received, duration, node. detail 0:
   * it completed a pack; 1: it completed none; 2: it was given up. Two requests of one node overlap
   * when the second was sent before the answer to the first had ended. */
  C2MS_TRACE_REQUEST = 1,
  /* c2ms_sess_seek has moved the position: pos. */
  C2MS_TRACE_SEEK = 2,
  /* A reader has waited: pos, duration. detail 0: no node; 1: the pack was late; 2: after a seek;
   * 3: cancelled. */
  C2MS_TRACE_WAIT = 3,
  /* A node has a new state. detail: the state as in c2ms_node_stats, 0: gone. Changes between 6 and
   * 7 are left out. */
  C2MS_TRACE_NODE = 4,
  /* The reader is at pos, and the cache is for `bytes` bytes from begin on. Recorded when a file is
   * selected, and after a move that ends at the end of the file, at least a 16th of the cache away
   * from the last recorded place, or at least 50 ms after it. */
  C2MS_TRACE_PLACE = 5
};
typedef struct c2ms_trace_event {
  int64_t time_us;     /* when it began, counted from the start of the recording */
  int64_t duration_us; /* 0 for events without duration */
  uint64_t pos;
  uint64_t begin;
  uint64_t bytes;
  uint32_t kind;
  uint32_t detail;
  uint32_t node;    /* number of the node; 0 none */
  uint32_t address; /* of its server, in network order */
  uint32_t port;
  uint32_t reserved;
} c2ms_trace_event;

#define C2MS_TRACE_MOST (1 << 20)

/* Starts to record, with room for `events` events (at most C2MS_TRACE_MOST). When the room is full,
 * a new event replaces the oldest. 0 stops and frees the room, as the close does. Either way,
 * earlier events are lost. Costs next to nothing while off. Result: 0; -1; C2MS_NO_MEMORY. */
C2MS_API int c2ms_sess_trace(c2ms_sess *sess, int events);

/* Takes up to max recorded events out of the room, oldest first, in the order in which they ended.
 * lost: NULL, or receives how many have been replaced since the recording began. Result: how many
 * were taken; -1; -2 events is NULL. */
C2MS_API int c2ms_sess_trace_read(c2ms_sess *sess, c2ms_trace_event *events, int max,
                                  uint64_t *lost);

/* ==== Configuration, identity, diagnostics =================================================== */

/* Compiled-in defaults. Set them before c2ms_mgmt_init; the texts must stay valid. The two servers
 * are host names or dotted addresses. As built they name this machine, so that nothing leaves it
 * by accident. */
extern C2MS_API uint32_t g_oemid;           /* OEM id reported to servers, 102 */
extern C2MS_API uint32_t g_version;         /* client version reported to servers, 30 */
extern C2MS_API uint32_t g_vendorid;        /* vendor id, 0 */
extern C2MS_API uint16_t g_proto_ver;       /* protocol version on the wire, 1 */
extern C2MS_API const char *g_entry_server; /* entry server of URLs without a host */
extern C2MS_API const char *g_perf_server;  /* report server, looked up once by c2ms_mgmt_init */
extern C2MS_API const char *g_build_time;   /* "Oct 11 2011 11:18:31" */

/* Reads the configuration file again. The values apply to whatever starts afterwards. The process
 * ends with status 1 when there is no memory for the contents of the file. Result: 0; -1. */
C2MS_API int c2ms_mgmt_readconf(c2ms_mgmt *mgmt);

/* Identity. Texts and bytes belong to the context, except that of c2ms_natip: it is the C library's
 * static buffer. For NULL the result is 0, an empty text, or the compiled-in default. */
C2MS_API uint64_t c2ms_uid(c2ms_mgmt *mgmt);
C2MS_API const uint8_t *c2ms_hid(c2ms_mgmt *mgmt);  /* 20 bytes and a zero */
C2MS_API const char *c2ms_localip(c2ms_mgmt *mgmt); /* dotted address of this device, or "" */
C2MS_API const char *c2ms_natip(c2ms_mgmt *mgmt);   /* the same address, "0.0.0.0" when unknown */
C2MS_API uint32_t c2ms_oemid(c2ms_mgmt *mgmt);
C2MS_API uint32_t c2ms_version(c2ms_mgmt *mgmt);
C2MS_API int32_t c2ms_buildtime(c2ms_mgmt *mgmt); /* seconds since the epoch */

/* Hands diagnostic lines, each with its line feed, to fn instead of standard output; with fn NULL
 * there are none. Applies to the whole process and may be called at any time. fn runs on any
 * thread, with no lock of the library held. A line that is under way when this call returns may
 * still reach the former function. */
C2MS_API void c2ms_set_diag(void (*fn)(void *arg, const char *line), void *arg);

#ifdef __cplusplus
}
#endif

#endif
