/*
 * c2ms.h - the player's interface of libc2ms, in C99, usable from C and C++.
 *
 * A player opens a media file by its URL and reads it as if it were a local, seekable file. Behind
 * that the bytes come from several servers at once. The common path is the first section:
 *
 *     c2ms_mgmt *lib = c2ms_mgmt_init(NULL, uid_low, uid_high, NULL, 16 << 20);
 *     int32_t err;
 *     c2ms_sess *film = c2ms_sess_open(lib, "kesp://entry.example/film?fid=0011...", &err);
 *     uint64_t size;
 *     c2ms_sess_attr(film, NULL, NULL, &size, NULL);
 *     c2ms_sess_cache_init(film, c2ms_sess_pack_size(film, 0));
 *     c2ms_sess_range(film, 0, size);
 *     while ((n = c2ms_sess_read(film, buf, sizeof buf, 0)) > 0) play(buf, n);
 *     c2ms_sess_close(film);
 *     c2ms_mgmt_clean(lib);
 *
 * Threads. Any thread may make any call. Reads of one session take turns: a second reader waits
 * for the first. Seeks, queries and the close may come from another thread while a read waits. Two
 * functions of yours run inside the library's work: the callback of c2ms_sess_open1 and the
 * function given to c2ms_set_diag. They must not call back into the same session.
 *
 * Blocking. A call that may wait says so, and for how long. All others never wait for the network.
 *
 * Results. 0 or a positive count is success. -1 means that the first argument is NULL, -2 that the
 * next thing is missing (in the data calls: the session has no cache yet). -1000 to -1011 are the
 * session codes below; c2ms_sess_error gives their texts. "0; -1; -2 no cache" lists the results.
 *
 * Effects on the whole process. From c2ms_mgmt_init on:
 *   - the signals SIGCHLD, SIGTSTP, SIGTTOU, SIGPIPE and SIGTTIN are ignored, so wait() and
 *     system() no longer see how a child ended;
 *   - eight threads named "c2ms-N" run with all signals blocked until c2ms_mgmt_clean; threads for
 *     name look-ups and for reports are started when they are needed;
 *   - diagnostic lines go to standard output unless c2ms_set_diag says otherwise;
 *   - descriptors are opened with close-on-exec. A connection whose descriptor would be 1024 or
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

/* The library's root object: configuration, identity, memory, threads. One film at a time needs
 * one; two films at a time need one each, since a session takes all of the cache memory. */
typedef struct c2ms_mgmt c2ms_mgmt;
/* One opened media URL. Belongs to its c2ms_mgmt; valid until c2ms_sess_close. */
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
  C2MS_CACHING = -1011             /* "Net data caching" */
};

/* ==== The common path: start, open, prepare, read, close, stop =============================== */

/* Starts the library: memory, threads, configuration, identity.
 *
 * conf_path: a configuration file, or NULL or "" for none. Its first 63 characters count. Only a
 *   regular file of at most 1 MiB is read; a missing or malformed one leaves the defaults. Section
 *   "Communication Option", keys "Entry Server" (a host without port), "Build TCP Max Time",
 *   "Cyclic Connection Check Time" and "Session Check Time" (seconds). The last one holds until a
 *   play is reported; from then on it is 8.
 * uid_low, uid_high: the halves of the 64-bit user id.
 * hid: 20 bytes of hardware id, copied; or NULL to take the first Ethernet interface's address.
 * mem_size: bytes from which the sessions' caches are cut; less than 8 MiB is raised to 8 MiB.
 *
 * Blocks while it looks g_perf_server up, as long as the resolver does. Result: the context, which
 * c2ms_mgmt_clean frees; or NULL, with a diagnostic line that says why, when memory or descriptors
 * can't be had (the engine takes 16; 8 of them must be below 1024), or when libgcrypt is older than
 * 1.8.0 or refuses DES or MD5 (FIPS mode). Two things end the process instead: status 2 when a
 * worker thread can't be started, status 1 when there is no memory for what the file says. */
C2MS_API c2ms_mgmt *c2ms_mgmt_init(const char *conf_path, uint32_t uid_low, uint32_t uid_high,
                                   const uint8_t *hid, int32_t mem_size);

/* Opens a media. The URL is "kesp://" or "kedp://", then optionally host[:port], a path and a
 * query. Without a host the configured entry server is asked, at port 3528. Keys of the query: fid
 * (32 hexadecimal digits, the media's id), auth (32 hexadecimal digits), stamp and keyid (decimal).
 * A value ends at a blank, tab, comma or semicolon. A URL is cut off after 511 characters, a host
 * after 63; keys that stand behind the cut are lost. Example:
 *     kesp://127.0.0.1:3528/film?fid=00112233445566778899aabbccddeeff;stamp=7;keyid=3
 *
 * err: NULL, or receives 0 or a session code. Blocks until a server has described the media: at
 * most about 21 seconds and a name look-up. Result: the session, ended by c2ms_sess_close; NULL. */
C2MS_API c2ms_sess *c2ms_sess_open(c2ms_mgmt *mgmt, const char *url, int32_t *err);

/* Tells what was opened. Every output may be NULL. fid_text: room for 33 bytes, receives 32
 * hexadecimal digits and a zero. name: room for 37 bytes. size: in bytes. type: 0 bin, 1 wmv, 2
 * avi, 3 flv, 4 rmvb, 5 rm, 6 frf, 7 mp4, 8 ts, 9 mkv, 10 7z. Result: 0; -1. */
C2MS_API int c2ms_sess_attr(c2ms_sess *sess, char *fid_text, char *name, uint64_t *size,
                            uint8_t *type);

/* Gives a pack size for c2ms_sess_cache_init. wanted 0: the library chooses, which suits every
 * network. Any other: that many bytes or slightly more, at least 4096. A multiple of 4096 where
 * that is possible. A pack is the grain of the cache; how much is asked for at once follows from
 * the network.
 *
 * Why it is needed: when a file's size is a multiple of the pack size, its last pack is never
 * delivered. This call avoids that for the media and for its index. It does not know of parts:
 * whoever selects a part with c2ms_sess_range adds 1 to a pack size that divides the part's size.
 * Result: the size in bytes; -1. */
C2MS_API int32_t c2ms_sess_pack_size(c2ms_sess *sess, int32_t wanted);

/* Gives the session its cache: all memory of the context that is free at this moment, cut into
 * packs of pack_size bytes (at least 4096). Two sessions at a time need a context each. May be
 * called again; the former cache is given back first. Afterwards no file is selected, and reads
 * give -200 until c2ms_sess_range or c2ms_sess_set_media selects one. Blocks while a read is in
 * progress. Result: 0; -1; -2 less than one pack is left; -5 no heap memory for what describes the
 * packs; C2MS_CLOSED. After -5 the session has no packs; the call may be repeated. */
C2MS_API int c2ms_sess_cache_init(c2ms_sess *sess, int32_t pack_size);

/* Selects the part of the media that reads deliver: size bytes from base_offset. The same as
 * c2ms_sess_set_media(sess, 0, base_offset, size). */
C2MS_API int c2ms_sess_range(c2ms_sess *sess, uint64_t base_offset, uint64_t size);

/* Copies up to len bytes from the read position to buf and moves the position behind them. With
 * buf NULL it skips them.
 *
 * nonblock not 0: takes what is there, 0 bytes included, and never waits.
 * nonblock 0: waits until len bytes or the end of the file are there. While no server can be
 *   reached it keeps waiting, as long as that takes; the library asks its servers again by
 *   itself. It ends short when another thread seeks or selects a file, at the end of the part
 *   that an open index covers, and at a pack of size 0 (see c2ms_sess_pack_size).
 *
 * Result: the count of bytes (0 for len below 1), or
 *   -1, -2 no cache, -201 the cache has no packs;
 *   -200 at the end of the file, or when no file is selected;
 *   C2MS_CLOSED when the session closes, or while reading is cancelled (c2ms_sess_cancel);
 *   C2MS_MEDIA_NOT_EXIST, C2MS_UNAUTHORIZED, C2MS_AUTH_FAILED or C2MS_IN_DEBT when the servers
 *   refuse and no node is left that serves. The last three also come from an agent that refuses
 *   the play: then at once, and until the close. */
C2MS_API int c2ms_sess_read(c2ms_sess *sess, void *buf, int32_t len, int32_t nonblock);

/* Moves the read position. A pos at or past the end becomes the last byte. A waiting read ends and
 * returns what it has. While an index is being opened this does nothing: the open ends at position
 * 0. Never waits for the network. Result: 0; -1; -2 no cache; C2MS_CLOSED. */
C2MS_API int c2ms_sess_seek(c2ms_sess *sess, uint64_t pos);

/* Closes the session. Waiting calls on it return C2MS_CLOSED; its connections and its memory are
 * given back; agent and report server are told of the end, both at the same time. When two threads
 * close at the same time, the second call does nothing. Afterwards nobody may use the handle: it
 * may soon be another session's.
 *
 * Blocks for milliseconds when agent and report server answer or when nobody is there. When they
 * keep every exchange waiting it takes 26 seconds at worst: the exchange that is under way and
 * those of the end, each with its bound (ping 2 s, connection 2 s, sending 1 s, a reply 8 s).
 * Result: 0; -1. */
C2MS_API int c2ms_sess_close(c2ms_sess *sess);

/* Stops the library and frees everything, open sessions included: calls that wait on them return
 * C2MS_CLOSED first. No other call on the context may start once this one has. Blocks until the
 * running report exchange of each session and a running name look-up end (8 seconds and the
 * resolver's time at worst). Result: 0; -1. */
C2MS_API int c2ms_mgmt_clean(c2ms_mgmt *mgmt);

/* The text of a session code; "" for any other number. The text is constant. */
C2MS_API const char *c2ms_sess_error(int32_t code);

/* ==== Other ways to open ===================================================================== */

/* c2ms_sess_open with a callback. While the open waits it calls cb about once a second, on this
 * thread; not during the name look-up. A negative result of cb ends the open with
 * C2MS_UNAUTHORIZED, as a server's refusal does. */
C2MS_API c2ms_sess *c2ms_sess_open1(c2ms_mgmt *mgmt, const char *url, int32_t *err,
                                    int32_t (*cb)(void));

/* Asks the entry server for media servers again; the open media goes on. The library does this by
 * itself when its servers are lost. May block in a name look-up. Result: 0; -1; -100 no connection
 * could be started; C2MS_CLOSED. */
C2MS_API int c2ms_sess_reopen(c2ms_sess *sess);

/* ==== Other ways to read ===================================================================== */

/* c2ms_sess_read with a budget: waits at most timeout_ms milliseconds, then delivers what is
 * there, 0 bytes included. A timeout_ms of 0 or less does not wait. Results: c2ms_sess_read. */
C2MS_API int c2ms_sess_recv(c2ms_sess *sess, void *buf, int32_t len, int32_t timeout_ms);

/* Seek and receive as one call, for hosts that ask for positions: no other thread's seek can come
 * between. The position moves to the end of what is delivered. Inside an open index it ends short
 * at the end of the index's part. Results as of c2ms_sess_recv; -200 also for a pos at or past
 * the end.
 *
 * Two places may be read in turn, as in a file whose audio and video come in long blocks. While
 * they are at most half the cache apart, nothing is fetched twice. A place that is left further
 * behind is given up. */
C2MS_API int c2ms_sess_read_at(c2ms_sess *sess, uint64_t pos, void *buf, int32_t len,
                               int32_t timeout_ms);

/* Switches cancel on (`on` not 0) or off (0). While it is on, c2ms_sess_read, c2ms_sess_recv,
 * c2ms_sess_read_at, c2ms_sess_idx_open and c2ms_sess_idx_open_asyn return C2MS_CLOSED at once,
 * whatever is there. A call already waiting returns C2MS_CLOSED even if cancel is switched off
 * again immediately. Everything else works, and the cache keeps filling.
 *
 * A cancelled read has delivered nothing, whatever stands in its buffer: the position is where it
 * was, unless another thread has moved it. A cancelled c2ms_sess_idx_open has failed; an
 * incremental open continues once cancel is off. Cancel stays on until it is switched off or the
 * session closes. Never blocks and takes no memory; not for signal handlers. Result: 0; -1;
 * C2MS_CLOSED. */
C2MS_API int c2ms_sess_cancel(c2ms_sess *sess, int on);

/* Selects what reads deliver: size bytes from base_offset of the media (which 0) or of its index
 * file (any other which). Reads and seeks count positions from base_offset. Drops what was cached,
 * goes to position 0 and ends a waiting read. Result: 0; -1; -2 no cache; -100 no index file; -201
 * the cache has no pack; -202 the size needs more than 2^31-1 packs; C2MS_CLOSED. */
C2MS_API int c2ms_sess_set_media(c2ms_sess *sess, int which, uint64_t base_offset, uint64_t size);

/* Says how many bytes the player wants ahead of the position before it plays; 0: none. More than
 * the cache holds ahead counts as that. Result: 0; -1; -2 no cache. */
C2MS_API int c2ms_sess_buffering(c2ms_sess *sess, int32_t bytes);

/* Writes to ratio how much of that lead is there, in percent (0 to 100). Result: 0; -1; -2 no
 * cache; -3 no ratio; -400 no server has been usable for 4 seconds (ratio is written as well). */
C2MS_API int c2ms_sess_bufratio(c2ms_sess *sess, int32_t *ratio);

/* ==== The index ============================================================================== */

/* A media may have a separate, compressed index file. For an MP4 media it holds the `moov` box.
 * Once it is open, reads of that part of the media come from memory and the part is not downloaded
 * again; while the position lies in it, the cache fills with what will be played next. For any
 * other media it stands for the file's first bytes.
 *
 * Set the cache up before an open. Every open that fetches, successful or not, leaves the session
 * on the media, at position 0 of the range that was selected (of the whole media if none was).
 *
 * While an index is open, a read ends short at the end of its part. A receive that would leave the
 * part goes through the cache, which still takes packs that lie wholly in the index from memory.
 * A closed session gives C2MS_CLOSED. */

/* Tells whether the media has an index file. idx_text: NULL, or room for 33 bytes; receives its
 * id. len: NULL, or receives its length in bytes. Result: 1 it has one; 0 it has none; -1. */
C2MS_API int c2ms_sess_idxfile(c2ms_sess *sess, char *idx_text, uint32_t *len);

/* Fetches and opens the index. len: NULL, or receives the unpacked index's length in bytes, 0
 * while there is none. Blocks for at most 30 seconds. Result: 0, also at once when the media has
 * no index file or the index is open already; or
 *   -1, -2 no cache, C2MS_CLOSED closed or cancelled;
 *   -200 five receives failed; -201 not complete within 30 seconds;
 *   -300 no readable container; -301 empty;
 *   -350 no memory, or more than 64 MiB, packed or unpacked;
 *   -400 damaged, or no memory while it is unpacked;
 *   -401 an MP4 media without a `moov` among its first 20 boxes. */
C2MS_API int c2ms_sess_idx_open(c2ms_sess *sess, uint32_t *len);

/* The same for players that poll: takes what has arrived and never waits. Result:
 *   C2MS_CACHING: call again later, and do not read in between, because the cache serves the index
 *   file until the open ends;
 *   0 or more: the index is open. For an MP4 media it is the byte count of the read that completed
 *   it (1 or more), for others 0;
 *   otherwise a code of c2ms_sess_idx_open, or C2MS_NO_MEMORY without memory for the packed file.
 *   The next call starts again.
 * A failed read does not end the open: its negative result is added to the count of bytes, and
 * then the index never completes. This is meant. After long waiting, close the index and open it
 * again. When a file is selected or a cache made between two calls, the next call starts again. */
C2MS_API int c2ms_sess_idx_open_asyn(c2ms_sess *sess, uint32_t *len);

/* Copies min(len, length - off) bytes of the index to buf; with NULL none. The copy always begins
 * at the index's first byte: off limits the count alone. This is meant; read the media itself for
 * other parts. Blocks while a read is in progress. Result: the count; 0 when len is below 1 or
 * off is at or past the length; -1; -100 not open; -101 no buffer; C2MS_CLOSED. */
C2MS_API int c2ms_sess_idx_read(c2ms_sess *sess, void *buf, int32_t len, uint32_t off);

/* Writes to offset where in the media the open index lies, in bytes; 0 while none is open. Result:
 * 0; -1. */
C2MS_API int c2ms_sess_idx_offset(c2ms_sess *sess, uint64_t *offset);

/* The length of the open index in bytes; 0 while none is open, and for NULL. */
C2MS_API uint32_t c2ms_sess_idx_size(c2ms_sess *sess);

/* What index there is. Result: 0 no index file; 1 there is one; 2 it is open and lies at the end
 * of the media; -1; -2 neither. */
C2MS_API int c2ms_sess_idx_attr(c2ms_sess *sess);

/* Whether the media's byte at pos belongs to the open index. Result: 1 it does; 0 it does not
 * (always for an index at position 0); -1. */
C2MS_API int c2ms_sess_is_in_idx(c2ms_sess *sess, uint64_t pos);

/* Closes the index, or gives up an incremental open. Ends a waiting read. Result: 0; -1. */
C2MS_API int c2ms_sess_idx_close(c2ms_sess *sess);

/* ==== Figures ================================================================================ */

/* Bytes per millisecond over the last two-second window; 0 for NULL. */
C2MS_API double c2ms_sess_realtime_recvspeed(c2ms_sess *sess);
/* Bytes per millisecond of receiving since the open; 0 before any, -1.0 for NULL. */
C2MS_API double c2ms_sess_average_recvspeed(c2ms_sess *sess);
/* Microseconds that the best node's requests have taken on average, whatever their length: at least
 * 200,000; 20,000,000 when unknown; 1,000,000 without a node or for NULL. */
C2MS_API int32_t c2ms_sess_fasttime(c2ms_sess *sess);

/* The fields below are counted for one session: since the open ("total"), over the last two
 * seconds ("interval"), or as they are at the moment of the call ("instant"). Speeds are bytes per
 * millisecond, times microseconds. 0 means "none yet". */

/* Readers' waits for packs, totals: how many, how long together, and the longest. A receive that
 * gives up and is repeated counts each time. */
typedef struct c2ms_wait_stats {
  uint64_t count;
  uint64_t total_us;
  uint64_t longest_us;
} c2ms_wait_stats;

/* One media server's connection. */
typedef struct c2ms_node_stats {
  uint64_t bytes_received; /* total, media bytes */
  uint64_t requests;       /* total, ranges asked for; the next two and up to two in flight */
  uint64_t completed;      /* total, answered whole */
  uint64_t given_up;       /* total, refused, or ended with the connection */
  uint64_t failures;       /* total, connections that could not be made or broke */
  uint64_t round_trip_us;  /* average since the connection's begin, request to last byte */
  double speed;            /* instant, of the last answer */
  double average_speed;    /* average since the connection's begin */
  double share;            /* of the session's bytes_received, 0 to 1 */
  uint32_t state; /* instant: 1 disconnected, 2 connecting, 3 connected, 4 asking for servers,
                   * 5 asking for the description, 6 ready, 7 downloading */
  uint32_t port;
  uint32_t level; /* 0 the entry server itself, 1 named by it, ... */
  uint32_t load;  /* instant, as the server reported it last */
  char address[64];
  uint64_t reserved[4];
} c2ms_node_stats;

#define C2MS_STATS_NODES 8 /* media nodes of one session at most */

/* The figures of a session. Later versions add fields at the end only. */
typedef struct c2ms_stats {
  uint32_t struct_size; /* bytes that the library has filled in */
  int32_t status;       /* instant: 0, or the session code that the servers caused */

  /* Place, instant, in positions of reads. */
  uint64_t position;
  uint64_t size;       /* of the selected file */
  uint64_t ring_begin; /* what the cache is placed for, exclusive of the end */
  uint64_t ring_end;
  uint64_t buffered_bytes; /* that can be read now, all together */
  uint64_t buffered_ahead; /* in one piece from the position */

  /* Bytes of the media, totals. received = kept + discarded, at every moment. */
  uint64_t bytes_received;
  uint64_t bytes_kept;      /* of packs that were completed, and so far of those under way */
  uint64_t bytes_discarded; /* late, double, or of a pack that was given up half way */
  uint64_t bytes_delivered; /* to the player, skipped ones (no buffer) and the index included */
  uint64_t bytes_overhead;  /* received besides: headers, server lists, descriptions */
  uint64_t receiving_us;    /* while at least one node was downloading */

  /* Requests for ranges, totals. requests = completed + given_up + in_flight, at every moment. */
  uint64_t requests;
  uint64_t completed;
  uint64_t given_up;
  uint64_t redundant; /* for packs that were late from another node */
  uint64_t won;       /* redundant ones that completed a pack first */
  uint64_t wasted;    /* completed, but brought no pack to its end */
  uint64_t failures;  /* of nodes' connections */

  /* Readers' waits by cause. */
  c2ms_wait_stats wait_no_node;   /* no server could deliver for some of the time */
  c2ms_wait_stats wait_late;      /* the pack came late */
  c2ms_wait_stats wait_seek;      /* first bytes after a seek, or after the file was selected */
  c2ms_wait_stats wait_cancelled; /* until a cancel or the close */

  double speed;         /* interval: the last two seconds, all bytes */
  double average_speed; /* total: over receiving_us */

  uint64_t memory_bytes;     /* instant: the session's cache */
  uint64_t memory_cap_bytes; /* of the context: all sessions' caches together */

  uint32_t seeks;           /* total, calls */
  uint32_t reads;           /* total, calls that reached the cache */
  uint32_t short_reads;     /* total, of these, that got fewer bytes than asked for */
  uint32_t buffered_ranges; /* instant, as c2ms_sess_ranges gives them */
  uint32_t in_flight;       /* instant, requests; a node has at most two */
  uint32_t units_queued;    /* instant, requests that wait for a node; mostly none */
  uint32_t index_state;     /* instant: 0 the media has none, 1 not open, 2 being opened, 3 open */
  uint32_t index_bytes;     /* instant, of the open index; not part of memory_bytes */
  uint32_t report_state;    /* instant: report server 0 not told yet, 1 told of the play */
  uint32_t agent_state;     /* instant: agent 0 not told yet, 1 accepted, 255 nobody answers */
  uint32_t nodes_usable;    /* instant, that are ready or downloading */
  uint32_t nodes;           /* instant, entries of node */

  c2ms_node_stats gone; /* totals of connections that have ended: with the nodes' own, the totals */
  c2ms_node_stats node[C2MS_STATS_NODES]; /* best first at the last look */
} c2ms_stats;

/* Takes a snapshot of the session. struct_size: sizeof(c2ms_stats) as the player was compiled. A
 * smaller one gets the fields that fit; a bigger one gets zeros behind them. Looks at every pack,
 * which takes microseconds, rarely a millisecond: call it once a second rather than for every
 * frame. Result: 0; -1; -2 no stats; C2MS_CLOSED. */
C2MS_API int c2ms_sess_stats(c2ms_sess *sess, c2ms_stats *stats, size_t struct_size);

/* Bytes from begin to end (exclusive). */
typedef struct c2ms_byte_range {
  uint64_t begin;
  uint64_t end;
} c2ms_byte_range;

/* Writes to ranges the stretches of the selected file that can be read at once now: lowest first,
 * each as long as it goes, at most max of them. ranges may be NULL. Result: how many stretches
 * there are, which may be more than max; -1; -2 no cache; C2MS_CLOSED. */
C2MS_API int c2ms_sess_ranges(c2ms_sess *sess, c2ms_byte_range *ranges, int max);

/* Writes a readable dump of session, queue and nodes to out (NULL: standard output). */
C2MS_API void c2ms_sess_print(c2ms_sess *sess, FILE *out);

/* ==== A recording of what happens ============================================================ */

/* Kinds of events. Fields of c2ms_trace_event that a kind does not name are 0. Positions count in
 * the media. */
enum {
  /* A request, for one pack or several, has ended: pos, bytes that came, duration, node. detail 0:
   * it completed a pack; 1: in vain; 2: given up. Two requests of one node overlap when the second
   * left before the answer to the first had ended. */
  C2MS_TRACE_REQUEST = 1,
  /* The player has moved the position: pos. */
  C2MS_TRACE_SEEK = 2,
  /* A reader has waited: pos, duration. detail 0: no node; 1: the pack was late; 2: after a seek;
   * 3: cancelled. */
  C2MS_TRACE_WAIT = 3,
  /* A connection has a new state: node. detail: the state as in c2ms_node_stats, 0: gone. The
   * steps between 6 and 7 are left out. */
  C2MS_TRACE_NODE = 4,
  /* Where the reader is: pos; and the bytes from begin on that the cache is placed for. Recorded
   * when a file is selected, and after a move that ends at the end of the file, a 16th of the
   * cache away from the last place, or 50 ms after it. */
  C2MS_TRACE_PLACE = 5
};
typedef struct c2ms_trace_event {
  int64_t time_us;     /* when it began, since the recording did */
  int64_t duration_us; /* 0: a moment */
  uint64_t pos;
  uint64_t begin;
  uint64_t bytes;
  uint32_t kind;
  uint32_t detail;
  uint32_t node;    /* number of the connection; 0 none */
  uint32_t address; /* of its server, network order */
  uint32_t port;
  uint32_t reserved;
} c2ms_trace_event;

#define C2MS_TRACE_MOST (1 << 20)

/* Begins to record, with room for `events` events (at most C2MS_TRACE_MOST); when it is full the
 * oldest give way. 0 stops and gives the room back, as the close does. What was recorded before is
 * gone. Costs next to nothing while off. Result: 0; -1; C2MS_NO_MEMORY; C2MS_CLOSED. */
C2MS_API int c2ms_sess_trace(c2ms_sess *sess, int events);

/* Takes up to max recorded events, oldest first; they are ordered by when they ended. lost: NULL,
 * or receives how many have given way since the recording began. Result: how many were taken; -1;
 * -2 no events; C2MS_CLOSED. */
C2MS_API int c2ms_sess_trace_read(c2ms_sess *sess, c2ms_trace_event *events, int max,
                                  uint64_t *lost);

/* ==== Configuration, identity, diagnostics =================================================== */

/* Compiled-in defaults. Set them before c2ms_mgmt_init; the texts must outlive it. The two servers
 * are host names or dotted addresses. As built they name this machine, so that nothing leaves it
 * by accident. */
extern C2MS_API uint32_t g_oemid;           /* OEM id reported to servers, 102 */
extern C2MS_API uint32_t g_version;         /* client version reported to servers, 30 */
extern C2MS_API uint32_t g_vendorid;        /* vendor id, 0 */
extern C2MS_API uint16_t g_proto_ver;       /* protocol version on the wire, 1 */
extern C2MS_API const char *g_entry_server; /* entry server of URLs without a host */
extern C2MS_API const char *g_perf_server;  /* report server, looked up once by c2ms_mgmt_init */
extern C2MS_API const char *g_build_time;   /* "Oct 11 2011 11:18:31" */

/* Reads the configuration file again. What it says holds for what starts afterwards. Ends the
 * process with status 1 when there is no memory for what the file says. Result: 0; -1. */
C2MS_API int c2ms_mgmt_readconf(c2ms_mgmt *mgmt);

/* Identity. Texts and bytes belong to the context; that of c2ms_natip is the C library's static
 * buffer. For NULL: 0, an empty text, or the compiled-in default. */
C2MS_API uint64_t c2ms_uid(c2ms_mgmt *mgmt);
C2MS_API const uint8_t *c2ms_hid(c2ms_mgmt *mgmt);  /* 20 bytes and a zero */
C2MS_API const char *c2ms_localip(c2ms_mgmt *mgmt); /* dotted address of this device, or "" */
C2MS_API const char *c2ms_natip(c2ms_mgmt *mgmt);
C2MS_API uint32_t c2ms_oemid(c2ms_mgmt *mgmt);
C2MS_API uint32_t c2ms_version(c2ms_mgmt *mgmt);
C2MS_API int32_t c2ms_buildtime(c2ms_mgmt *mgmt); /* seconds since the epoch */

/* Hands diagnostic lines, each with its line feed, to fn instead of standard output. NULL:
 * silence. Holds for the whole process; may be called at any time. fn runs on any thread, with no
 * lock of the library held. A line that is under way when this returns may still reach the former
 * function. */
C2MS_API void c2ms_set_diag(void (*fn)(void *arg, const char *line), void *arg);

#ifdef __cplusplus
}
#endif

#endif
