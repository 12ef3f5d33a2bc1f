/*
 * c2ms.h - the player's interface of libc2ms, in C99, usable from C and C++.
 *
 * A media file is opened by its URL and read as if it were a local, seekable file, while its bytes
 * come from several servers at once:
 *
 *     c2ms_mgmt *lib = c2ms_mgmt_init(NULL, uid_low, uid_high, NULL, 16 << 20);
 *     int32_t err;
 *     c2ms_sess *film = c2ms_sess_open(lib, "kesp://entry.example/film?fid=0011...", &err);
 *     uint64_t size;
 *     c2ms_sess_attr(film, NULL, NULL, &size, NULL);
 *     c2ms_sess_cache_init(film, c2ms_sess_pack_size(film, 65536));
 *     c2ms_sess_range(film, 0, size);
 *     while ((n = c2ms_sess_read(film, buf, sizeof buf, 0)) > 0) play(buf, n);
 *     c2ms_sess_close(film);
 *     c2ms_mgmt_clean(lib);
 *
 * Threads. Every call may be made from any thread. Reads and receives of one session are
 * serialised; seeks, queries and the close may come from another thread while a read waits. The
 * callback given to c2ms_sess_open1 and the function given to c2ms_set_diag must not call back into
 * the same session.
 *
 * Process-wide effects of c2ms_mgmt_init. The signals SIGCHLD, SIGTSTP, SIGTTOU, SIGPIPE and
 * SIGTTIN are ignored from then on (so wait() and system() no longer see how a child ended); eight
 * threads named "c2ms-N" with all signals blocked run until c2ms_mgmt_clean; diagnostic lines go to
 * standard output unless c2ms_set_diag says otherwise; descriptors are opened with close-on-exec,
 * and connections whose descriptor would be 1024 or above are not made.
 *
 * Results. 0 or a positive count is success. -1 stands for a NULL first argument, -2 for the next
 * missing thing (in the data calls: no cache yet); the session codes below (-1000 to -1011) have a
 * text, given by c2ms_sess_error.
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

/* The library's root object: configuration, identity, memory, threads. One per process is enough.
 */
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

/* Compiled-in defaults. Set them before c2ms_mgmt_init; the texts must outlive it. The two servers
 * are host names or dotted addresses; as built they name this machine, so that nothing leaves it by
 * accident. */
extern C2MS_API uint32_t g_oemid;           /* OEM id reported to servers, 102 */
extern C2MS_API uint32_t g_version;         /* client version reported to servers, 30 */
extern C2MS_API uint32_t g_vendorid;        /* vendor id, 0 */
extern C2MS_API uint16_t g_proto_ver;       /* protocol version on the wire, 1 */
extern C2MS_API const char *g_entry_server; /* entry server of URLs without a host */
extern C2MS_API const char *g_perf_server;  /* report server, looked up once by c2ms_mgmt_init */
extern C2MS_API const char *g_build_time;   /* "Oct 11 2011 11:18:31" */

/* ---- The library -------------------------------------------------------------------------------
 */

/* Starts the library: memory, threads, configuration, identity.
 * conf_path: a configuration file (first 63 characters), or NULL or "" for none. Only a regular
 * file up to 1 MiB is read; a missing or malformed one leaves the defaults. Section "Communication
 * Option", keys "Entry Server" (a host without port), "Build TCP Max Time", "Cyclic Connection
 * Check Time", "Session Check Time" (seconds; the last one holds until a play is reported, then it
 * is 8). uid_low, uid_high: the halves of the 64-bit user id. hid: 20 bytes of
 * hardware id (copied), or NULL to take the first Ethernet interface's address. mem_size: bytes
 * from which the sessions' caches are cut, raised to 8 MiB when smaller. Looks up g_perf_server
 * (may block as long as the resolver does). The context; NULL, with a diagnostic line that says
 * why, when memory or descriptors can't be had (the engine takes 16; 8 of them must be below 1024)
 * or when libgcrypt is older than 1.8.0 or refuses DES or MD5 (FIPS mode). Only these two end the
 * process instead: status 2 when a worker thread can't be started, status 1 when there is no memory
 * for what the file says. */
C2MS_API c2ms_mgmt *c2ms_mgmt_init(const char *conf_path, uint32_t uid_low, uint32_t uid_high,
                                   const uint8_t *hid, int32_t mem_size);

/* Stops and frees everything, sessions that are still open included: calls that wait on them return
 * C2MS_CLOSED first. Waits for an exchange of reporting and a name look-up under way to end (some 8
 * seconds and the resolver's time at worst), and for each open session as its close does. No other
 * call on the context may start once this one has. 0, or -1 for NULL. */
C2MS_API int c2ms_mgmt_clean(c2ms_mgmt *mgmt);

/* Reads the configuration file again; what it says holds for what starts afterwards. 0, or -1 for
 * NULL. Ends the process with status 1 when there is no memory for what the file says. */
C2MS_API int c2ms_mgmt_readconf(c2ms_mgmt *mgmt);

/* Identity. Texts and bytes belong to the context (c2ms_natip: to the C library's static buffer).
 * With NULL: 0, an empty text, or the compiled-in default. */
C2MS_API uint64_t c2ms_uid(c2ms_mgmt *mgmt);
C2MS_API const uint8_t *c2ms_hid(c2ms_mgmt *mgmt);  /* 20 bytes and a zero */
C2MS_API const char *c2ms_localip(c2ms_mgmt *mgmt); /* dotted address of this device, or "" */
C2MS_API const char *c2ms_natip(c2ms_mgmt *mgmt);
C2MS_API uint32_t c2ms_oemid(c2ms_mgmt *mgmt);
C2MS_API uint32_t c2ms_version(c2ms_mgmt *mgmt);
C2MS_API int32_t c2ms_buildtime(c2ms_mgmt *mgmt); /* seconds since the epoch */

/* Hands diagnostic lines (with their line feeds) to fn instead of standard output; NULL: silence.
 * Process-wide; may be called at any time. fn runs on any thread with no lock of the library held;
 * a line under way when this returns may still reach the former function. */
C2MS_API void c2ms_set_diag(void (*fn)(void *arg, const char *line), void *arg);

/* ---- Opening and closing -----------------------------------------------------------------------
 */

/* Opens a media: "kesp://" or "kedp://", then optional host[:port] (default: the configured entry
 * server, port 3528), a path and a query with the keys fid (32 hexadecimal digits: the media's id),
 * auth (32 hexadecimal digits), stamp and keyid (decimal). Values end at a blank, tab, comma or
 * semicolon. What is longer than 511 characters, or a host than 63, is cut off there, with the keys
 * that come behind. Example:
 *     kesp://127.0.0.1:3528/film?fid=00112233445566778899aabbccddeeff;stamp=7;keyid=3
 * Blocks until a server has described the media, at most about 21 seconds (and a name look-up).
 * err: NULL, or receives 0 or a session code. The session, or NULL. */
C2MS_API c2ms_sess *c2ms_sess_open(c2ms_mgmt *mgmt, const char *url, int32_t *err);

/* The same; cb is called about once a second while the open waits (not during the name look-up),
 * and a negative result ends the open with C2MS_UNAUTHORIZED, as a server's refusal does. */
C2MS_API c2ms_sess *c2ms_sess_open1(c2ms_mgmt *mgmt, const char *url, int32_t *err,
                                    int32_t (*cb)(void));

/* Asks the entry server for media servers again; the open media goes on. Done by the library itself
 * when its servers are lost. May block in a name look-up. 0, -1 for NULL, -100 when no connection
 * could be started, C2MS_CLOSED. */
C2MS_API int c2ms_sess_reopen(c2ms_sess *sess);

/* Closes the session: waiting calls on it return C2MS_CLOSED, its connections and memory are given
 * back, and agent and report server are told of the end. That takes milliseconds when they answer
 * or when nobody is there, and at worst 43 seconds when both keep each exchange waiting (each wait
 * has its bound: ping and connection 2 s, sending 1 s, a reply 8 s). Of two closes at one time the
 * second does nothing; afterwards the handle must not be used at all, it may soon be another
 * session's. 0, or -1 for NULL. */
C2MS_API int c2ms_sess_close(c2ms_sess *sess);

/* The text of a session code; "" for any other number. Constant. */
C2MS_API const char *c2ms_sess_error(int32_t code);

/* ---- The file ----------------------------------------------------------------------------------
 */

/* What was opened; every output may be NULL. fid_text: 33 bytes, receives 32 hexadecimal digits and
 * a zero. name: 37 bytes. size: bytes. type: 0 bin, 1 wmv, 2 avi, 3 flv, 4 rmvb, 5 rm, 6 frf, 7
 * mp4, 8 ts, 9 mkv, 10 7z. 0, or -1. */
C2MS_API int c2ms_sess_attr(c2ms_sess *sess, char *fid_text, char *name, uint64_t *size,
                            uint8_t *type);

/* 1 when the media has a separate index file, else 0; -1 for NULL. idx_text: 33 bytes or NULL, its
 * id; len: its length in bytes, or NULL. */
C2MS_API int c2ms_sess_idxfile(c2ms_sess *sess, char *idx_text, uint32_t *len);

/* A pack size for c2ms_sess_cache_init: at or just above wanted, at least 4096, a multiple of 4096
 * where that is possible, such that neither the media's size nor its index's length is a multiple
 * of it. (The last pack of a file, or of a part that c2ms_sess_range selects, whose size is a
 * multiple of the pack size is never delivered. This call avoids it for whole files; who selects
 * a part adds 1 to a pack size that divides it.) Small packs start and seek fast; big packs suit
 * long delays. -1 for NULL. */
C2MS_API int32_t c2ms_sess_pack_size(c2ms_sess *sess, int32_t wanted);

/* Gives the session its cache: all memory of the context that is free at this moment, cut into
 * packs of pack_size bytes (raised to 4096); two sessions at a time need a context each. May be
 * called again; a former cache is given back first. No file is selected afterwards (reads give -200
 * until then): c2ms_sess_range or c2ms_sess_set_media does that. Waits for a read in progress to
 * end. 0; -1 NULL; -2 less than one pack is left; -5 no heap memory for what describes the packs;
 * C2MS_CLOSED. After -5 there is no pack; the call may be repeated. */
C2MS_API int c2ms_sess_cache_init(c2ms_sess *sess, int32_t pack_size);

/* Selects what reads deliver: which 0 the media, any other value its index file; size bytes from
 * base_offset. Positions of reads and seeks count from base_offset. Drops what was cached and goes
 * to position 0. Ends a waiting read. 0; -1; -2 no cache; -100 no index file; -201 the cache has no
 * pack; -202 the size needs more than 2^31-1 packs; C2MS_CLOSED. */
C2MS_API int c2ms_sess_set_media(c2ms_sess *sess, int which, uint64_t base_offset, uint64_t size);

/* c2ms_sess_set_media(sess, 0, base_offset, size). */
C2MS_API int c2ms_sess_range(c2ms_sess *sess, uint64_t base_offset, uint64_t size);

/* Moves the read position; pos at or past the end becomes the last byte. Never waits for the
 * network; ends a waiting read, which returns what it has. While an index is being opened it does
 * nothing: the open ends at position 0. 0; -1; -2 no cache; C2MS_CLOSED. */
C2MS_API int c2ms_sess_seek(c2ms_sess *sess, uint64_t pos);

/* Copies up to len bytes from the read position to buf (NULL: skips them) and moves the position.
 * nonblock 0: waits until len bytes, the end of the file or one of the ends below; otherwise takes
 * what is there, 0 included. Ends short: a seek or a file selection by another thread, a pack of
 * size 0 (see c2ms_sess_pack_size). While servers are unreachable it keeps waiting: they are asked
 * again. Bytes delivered; -200 at the end of the file, or when none is selected; -1; -2 no cache;
 * -201 the cache has no packs; C2MS_CLOSED; C2MS_MEDIA_NOT_EXIST, C2MS_UNAUTHORIZED,
 * C2MS_AUTH_FAILED, C2MS_IN_DEBT when the servers refuse and no node is left that serves; the last
 * three also, at once and until the close, when the agent refuses the play. len below 1 gives 0.
 * C2MS_CLOSED also while reading is cancelled (c2ms_sess_cancel). */
C2MS_API int c2ms_sess_read(c2ms_sess *sess, void *buf, int32_t len, int32_t nonblock);

/* The same with a budget: when timeout_ms milliseconds are used up, what is there is delivered (0
 * included). 0 or less does not wait. */
C2MS_API int c2ms_sess_recv(c2ms_sess *sess, void *buf, int32_t len, int32_t timeout_ms);

/* The same at a position: seek and receive as one call, for hosts that pull at positions. The
 * position moves to the end of what is delivered. Two places may be read in turn (a file whose
 * audio and video come in long blocks): while they are at most half the cache apart nothing is
 * fetched twice; a place that is left further behind is given up. A read inside an open index ends
 * short at the end of its part. Results as above; -200 also for any pos at or past the end. */
C2MS_API int c2ms_sess_read_at(c2ms_sess *sess, uint64_t pos, void *buf, int32_t len,
                               int32_t timeout_ms);

/* on not 0: calls that wait in c2ms_sess_read, c2ms_sess_recv, c2ms_sess_read_at,
 * c2ms_sess_idx_open or c2ms_sess_idx_open_asyn return C2MS_CLOSED at once, and so do later ones,
 * whatever is there, until it is switched off with 0. Who waited while it was switched on is ended
 * also when it is switched off again at once. A cancelled read has delivered nothing, whatever
 * stands in its buffer: the position is where it was, unless somebody has seeked. A cancelled
 * c2ms_sess_idx_open is an open that failed; an incremental one goes on after the switching off.
 * Everything else works, and what is on its way still arrives. Lasts until the close. Any thread,
 * never blocks, takes no memory; not for signal handlers. 0; -1; C2MS_CLOSED. */
C2MS_API int c2ms_sess_cancel(c2ms_sess *sess, int on);

/* Says how many bytes ahead of the position the player wants before it plays (0: none); at most
 * what the cache holds ahead. 0; -1; -2 no cache. */
C2MS_API int c2ms_sess_buffering(c2ms_sess *sess, int32_t bytes);

/* How much of that lead is there, in percent (0 to 100), through ratio. 0; -1; -2 no cache; -3 no
 * ratio; -400 no server has been usable for 4 seconds (ratio is written all the same). */
C2MS_API int c2ms_sess_bufratio(c2ms_sess *sess, int32_t *ratio);

/* ---- The index ---------------------------------------------------------------------------------
 */

/* A media may come with a separate, compressed index file (c2ms_sess_idxfile). Of an MP4 media it
 * holds the `moov` box: once open, reads of that part of the media are served from memory, it is
 * not downloaded again, and while the position lies in it the cache fills with what will be played
 * next. Of any other media it stands for the file's first bytes. Set the cache up first. Every open
 * that fetches, good or bad, leaves the session on the media, at position 0 of the range that was
 * selected (the whole media if none was). A closed session gives C2MS_CLOSED.
 *
 * What an open index changes: a read ends short at the end of its part. A receive that would leave
 * the part is served through the cache, which still takes packs that lie wholly in the index from
 * memory. */

/* Fetches and opens the index; waits up to 30 seconds. len: NULL, or receives the index's length in
 * bytes once it is unpacked, else 0. 0, also at once when the media has no index file or the index
 * is open already; -1; -2 no cache; C2MS_CLOSED closed or cancelled; -200 five receives failed;
 * -201 not complete within 30 seconds; -300 no readable container; -301 empty; -350 no memory, or
 * more than 64 MiB, packed or not; -400 damaged, or no memory in the midst of unpacking; -401 an
 * MP4 media without a `moov` among its first 20 boxes. */
C2MS_API int c2ms_sess_idx_open(c2ms_sess *sess, uint32_t *len);

/* The same for players that poll: takes what has arrived and never waits. C2MS_CACHING: call again
 * later, and do not read in between (the cache serves the index file until the open ends). When the
 * index is open: for MP4 media the byte count of the read that completed it (1 or more), for others
 * 0. Else the codes above, and C2MS_NO_MEMORY without memory for the packed file; the next call
 * starts again. A failed read is no end: its negative result is added to the count of bytes, and
 * the index then does not complete (this is meant); after long waiting, close the index and open it
 * again. Selecting a file or a new cache between the calls makes the next one start again. */
C2MS_API int c2ms_sess_idx_open_asyn(c2ms_sess *sess, uint32_t *len);

/* Copies min(len, length - off) bytes to buf (NULL: none): always from the index's beginning, off
 * limits the count alone (this is meant; read the media itself for other parts). Waits for a read
 * in progress. The count; 0 when len is below 1 or off at or past the length; -1; -100 not open;
 * -101 no buffer. */
C2MS_API int c2ms_sess_idx_read(c2ms_sess *sess, void *buf, int32_t len, uint32_t off);

/* Where in the media the open index lies, in bytes; 0 while there is none. 0, or -1. */
C2MS_API int c2ms_sess_idx_offset(c2ms_sess *sess, uint64_t *offset);

/* Length of the open index in bytes; 0 while there is none, or for NULL. */
C2MS_API uint32_t c2ms_sess_idx_size(c2ms_sess *sess);

/* 0 no index file; 1 there is one; 2 it is open and lies at the end of the media; -1; -2 neither.
 */
C2MS_API int c2ms_sess_idx_attr(c2ms_sess *sess);

/* 1 when the media's byte at pos belongs to the open index, else 0 (always 0 for an index at
 * position 0); -1 for NULL. */
C2MS_API int c2ms_sess_is_in_idx(c2ms_sess *sess, uint64_t pos);

/* Closes the index, or gives up an incremental open. Ends a waiting read. 0, or -1. */
C2MS_API int c2ms_sess_idx_close(c2ms_sess *sess);

/* ---- Figures -----------------------------------------------------------------------------------
 */

/* Bytes per millisecond over the last two-second window; 0 for NULL. */
C2MS_API double c2ms_sess_realtime_recvspeed(c2ms_sess *sess);
/* Bytes per millisecond of receiving since the open; 0 before any, -1.0 for NULL. */
C2MS_API double c2ms_sess_average_recvspeed(c2ms_sess *sess);
/* Microseconds that the best node is expected to need for one pack: at least 200,000; 20,000,000
 * when unknown; 1,000,000 without a node or for NULL. */
C2MS_API int32_t c2ms_sess_fasttime(c2ms_sess *sess);
/* What follows is counted per session since the open ("total"), over the last time ("interval") or
 * as it is at the moment of the call ("instant"). Speeds are bytes per millisecond, times
 * microseconds. Zero is "none yet" throughout. */

/* How often a reader had to wait for a pack, for how long together, and for how long at most:
 * totals. A receive that gives up and is repeated counts as often. */
typedef struct c2ms_wait_stats {
  uint64_t count;
  uint64_t total_us;
  uint64_t longest_us;
} c2ms_wait_stats;

/* One media server's connection. */
typedef struct c2ms_node_stats {
  uint64_t bytes_received; /* total, media bytes */
  uint64_t requests;       /* total, ranges asked for; the next two and one that may be in flight */
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

/* The figures of a session. It grows at its end only. */
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
  uint64_t redundant; /* for a pack that was late from another node */
  uint64_t won;       /* redundant ones that were faster */
  uint64_t wasted;    /* completed, but the pack was no longer wanted or there already */
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
  uint32_t in_flight;       /* instant, requests; a node has two while it copies an answer */
  uint32_t units_queued;    /* instant, requests that wait for a node */
  uint32_t index_state;     /* instant: 0 the media has none, 1 not open, 2 being opened, 3 open */
  uint32_t index_bytes;     /* instant, of the open index; not part of memory_bytes */
  uint32_t report_state;    /* instant: report server 0 not told yet, 1 told of the play */
  uint32_t agent_state;     /* instant: agent 0 not told yet, 1 accepted, 255 nobody answers */
  uint32_t nodes_usable;    /* instant, that are ready or downloading */
  uint32_t nodes;           /* instant, entries of node */

  c2ms_node_stats gone; /* totals of connections that have ended: with the nodes' own, the totals */
  c2ms_node_stats node[C2MS_STATS_NODES]; /* best first at the last look */
} c2ms_stats;

/* Takes a snapshot of the session. struct_size: sizeof(c2ms_stats) as the player was compiled; a
 * smaller one gets what fits, a bigger one zeros behind. Looks at every pack: microseconds, rarely
 * a millisecond; for once a second rather than for every frame. 0; -1; -2 no stats; C2MS_CLOSED. */
C2MS_API int c2ms_sess_stats(c2ms_sess *sess, c2ms_stats *stats, size_t struct_size);

/* Bytes from begin to end (exclusive). */
typedef struct c2ms_byte_range {
  uint64_t begin;
  uint64_t end;
} c2ms_byte_range;

/* The stretches of the selected file that can be read at once now, lowest first, each as long as it
 * goes: at most max of them to ranges (NULL: none). How many there are; -1; -2 no cache;
 * C2MS_CLOSED. */
C2MS_API int c2ms_sess_ranges(c2ms_sess *sess, c2ms_byte_range *ranges, int max);

/* What happens in a session, for pictures of a play: one event. What a kind does not name
 * is 0. Positions count in the media. */
enum {
  C2MS_TRACE_REQUEST = 1, /* a request has ended: pos, bytes that came, duration, node; detail 0 it
                           * filled its pack, which is complete at that moment and was not before,
                           * 1 it was in vain, 2 it was given up. Requests of one node overlap by
                           * the time in which an answer is copied */
  C2MS_TRACE_SEEK = 2,    /* the player has moved the position: pos */
  C2MS_TRACE_WAIT = 3,    /* a reader has waited: pos, duration; detail 0 no node, 1 late, 2 after a
                           * seek, 3 cancelled */
  C2MS_TRACE_NODE = 4, /* detail: the new state as in c2ms_node_stats, 0 gone; not the steps between
                        * 6 and 7 */
  C2MS_TRACE_PLACE =
      5 /* the position has come to another pack, small packs: moved by a 64th of the
         * cache, or come to the end: pos; the cache is placed for bytes from begin on
         */
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

/* Begins to record with room for this many events (C2MS_TRACE_MOST at most); the oldest give way.
 * 0: stops, and gives the room back, as the close does. What was recorded before is gone. Costs
 * next to nothing while off. 0; -1; C2MS_NO_MEMORY; C2MS_CLOSED. */
C2MS_API int c2ms_sess_trace(c2ms_sess *sess, int events);

/* Takes up to max recorded events, oldest first, ordered by when they ended. lost: NULL, or
 * receives how many have given way since the beginning. How many; -1; -2 no events; C2MS_CLOSED. */
C2MS_API int c2ms_sess_trace_read(c2ms_sess *sess, c2ms_trace_event *events, int max,
                                  uint64_t *lost);

/* Writes a readable dump of session, queue and nodes to out (NULL: standard output). */
C2MS_API void c2ms_sess_print(c2ms_sess *sess, FILE *out);

#ifdef __cplusplus
}
#endif

#endif
