// The records of the session core, which point at each other, with the lock that guards each group
// of fields. Everybody in this folder includes it; what may be done with a record stands in its
// module's header.
//
// Records are pooled: their memory lives until the management context is cleaned, so that a stale
// pointer reads a record and never freed memory. Locks and events are made once with a record and
// survive recycling.
#pragma once

#include <netinet/in.h>
#include <sys/time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "adif/bmempool.h"
#include "adif/confile.h"
#include "adif/frame.h"
#include "adif/lock.h"
#include "adif/memunit.h"
#include "adif/stack.h"
#include "adif/sync.h"
#include "c2ms/core/estimate.h"
#include "c2ms/core/limits.h"
#include "c2ms/core/pace.h"
#include "c2ms/core/parts.h"
#include "c2ms/core/ranks.h"
#include "c2ms/core/strand.h"
#include "c2ms/core/worker.h"
#include "eprobe/probe.h"

struct c2ms_mgmt;
struct c2ms_sess;
struct c2ms_node;
struct c2ms_unit;
struct c2ms_pack;
struct c2ms_cache;
struct c2ms_trace_event;

namespace c2ms {

/// Makes the record in fresh (zeroed) pool memory on first use; later uses keep locks and events.
template <class Record>
void construct_once(Record *record) {
  // Read through a volatile word: the object does not exist yet when the memory is fresh.
  if (*reinterpret_cast<const volatile uint32_t *>(record) != 0) return;
  new (record) Record();
  record->mark.constructed = 1;
}

}  // namespace c2ms

enum c2ms_node_state : uint32_t {
  C2MS_NODE_NULL = 0,
  C2MS_NODE_DISCONNECTED = 1,
  C2MS_NODE_CONNECTING = 2,
  C2MS_NODE_CONNECTED = 3,
  C2MS_NODE_WAITING_SRVLIST_RESP = 4,
  C2MS_NODE_WAITING_DESCMEDIA_RESP = 5,
  C2MS_NODE_READY = 6,
  C2MS_NODE_WAITING_GETMEDIA_RESP = 7,
};

enum c2ms_unit_state : uint8_t {
  UNIT_NULL = 0,
  UNIT_INIT = 1,
  UNIT_SENT = 2,
  UNIT_GETHDR = 3,
  UNIT_GETBODY = 4,
  UNIT_GETPAYLOAD = 5,
  UNIT_END = 10,
};

enum c2ms_pack_state : uint8_t {
  pack_idle = 0,
  pack_requested = 1,
  pack_receiving = 2,
  pack_ready = 3
};

/// One message of the wire protocol, as fields (wire/pdu.h).
struct c2ms_pdu {
  uint32_t total_length;
  uint32_t command_id;
  uint32_t sequence_id;
  uint16_t prot_version;
  uint32_t client_version;  // of a request
  uint32_t result;          // of a response
  char local_ip[16];
  uint8_t hid[20];
  uint64_t uid;
  uint8_t auth[16];
  int64_t stamp;
  uint32_t keyid;
  uint8_t fid[16];
  uint64_t range_offset;
  uint32_t range_length;
  uint8_t range_flag;
  // Fixed part of a media response.
  uint16_t media_load;  // the node's load
  uint64_t media_position;
  uint32_t media_aux;
  uint32_t payload_length;
  uint8_t payload_flag;

  uint8_t key[8];  // enciphers the answer to this request
  c2ms_sess *session;
};

/// One request and its response on a node: control exchanges (embedded in nodes) and range
/// downloads. A download asks for a run of neighbouring packs, which its answer fills one after the
/// other; it is bound to each of them. A unit belongs to the queue (unit lock), to a node (its
/// download lock) or to the strand; `pack` alone is also written by the cache, under that pack's
/// lock, and is compared again under it before use.
struct c2ms_unit {
  c2ms::pooled mark{};
  uint32_t unit_id = 0;
  std::atomic<uint8_t> state{UNIT_NULL};
  uint8_t is_download = 0;
  uint8_t fid[16]{};
  uint64_t range_offset = 0;
  uint32_t range_length = 0;
  uint8_t range_flag = 0;
  int32_t pack_index = -1;   // the pack that the answer's next byte belongs to
  int32_t first_index = -1;  // of the run
  int32_t run_packs = 0;
  int32_t pack_bytes = 0;   // of each pack but the file's last
  int32_t skip = 0;         // bytes of the first pack that were there and are not asked for
  uint32_t generation = 0;  // of the cache when the unit was issued
  c2ms_pdu request{};
  uint8_t request_bytes[c2ms::request_buffer_bytes]{};
  uint32_t request_length = 0;
  c2ms_pdu response{};
  frame_t *frame = nullptr;
  std::atomic<int32_t> received{0};
  std::atomic<c2ms_pack *> pack{nullptr};  // of pack_index; NULL: it wants nothing of this unit
  bool redundant = false;                  // issued while another unit had the pack
  uint32_t meant_for = 0;    // id of the node that is to take it from the queue; 0: any
  bool filled_pack = false;  // its answer completed a pack
  bool ahead = false;        // sent before the answer to the request before it had ended
  bool is_out = false;       // counted as sent, not as ended; guarded by the session's speed lock
  timeval sent_time{}, first_time{}, end_time{};
  uint32_t node_id = 0;
  c2ms_node *node = nullptr;
  uint32_t session_id = 0;
  c2ms_sess *session = nullptr;
  c2ms_mgmt *library = nullptr;
};

/// One slot of the ring.
struct c2ms_pack {
  c2ms::pooled mark{};
  adif::Mutex lock{c2ms::rank_pack};
  // Fixed while the pack belongs to a cache.
  c2ms_cache *cache = nullptr;
  int32_t slot = -1;
  uint8_t *buf = nullptr;
  // Guarded by lock.
  int32_t size GUARDED_BY(lock) = 0;
  c2ms_unit *units[8] GUARDED_BY(lock) = {};
  int32_t unit_count GUARDED_BY(lock) = 0;
  int32_t index GUARDED_BY(lock) = -1;
  std::atomic<uint8_t> state{pack_idle};  // written under lock
  uint8_t flag GUARDED_BY(lock) = 0;  // of the last answer that completed it, whatever it held then
  int32_t len GUARDED_BY(lock) = 0;
  std::atomic<int64_t> not_before_at_us{0};  // an idle pack is not asked for again before this
};

/// A session's ring of packs; embedded in the session record.
///
///   media packs:   0 1 2 [3 4 5 6 7 8 9 10] 11 12 ...      packnum 8, reserve 1
///                         ^first_index       ^first_index + packnum (exclusive)
///   slots:         media pack i lies in slot i mod packnum: 8 9 10 3 4 5 6 7
///                         read_index is 4: one pack is kept behind it, six lie ahead
struct c2ms_cache {
  adif::Mutex lock{c2ms::rank_cache};
  // Guarded by lock; the pack list and what depends on the buffer change under the read gate too.
  uint8_t fid[17]{};
  uint64_t base_offset GUARDED_BY(lock) = 0;
  uint8_t range_flag GUARDED_BY(lock) = 0;
  uint8_t *buffer GUARDED_BY(lock) = nullptr;
  int32_t buffer_size GUARDED_BY(lock) = 0;
  int32_t used_size GUARDED_BY(lock) = 0;
  pointer_stack *packs = nullptr;
  int32_t reserve GUARDED_BY(lock) = 0;
  int32_t last_pack_len GUARDED_BY(lock) = 0;
  uint64_t read_pos GUARDED_BY(lock) = 0;
  int32_t read_index GUARDED_BY(lock) = 0;
  uint64_t traced_pos GUARDED_BY(lock) = 0;   // of the last place that was recorded
  int64_t traced_at_us GUARDED_BY(lock) = 0;  // when that was
  int32_t max_first GUARDED_BY(lock) = 0;
  int32_t buffering_size GUARDED_BY(lock) = 0;
  int32_t buffering_packs GUARDED_BY(lock) = 0;
  int32_t read_calls GUARDED_BY(lock) = 0;
  int32_t short_reads GUARDED_BY(lock) = 0;
  c2ms::wait_count waits[c2ms::wait_causes] GUARDED_BY(lock);
  uint32_t served_seek GUARDED_BY(lock) = 0;  // seek_count of the last bytes that were delivered
  c2ms::Pace pace GUARDED_BY(lock);           // at which the reader takes bytes
  int64_t sought_at_us GUARDED_BY(lock) = 0;  // when the reader last went elsewhere; 0: it has not
  int32_t urgent_end GUARDED_BY(lock) =
      0;  // packs before it are what the first read after a seek needs
  // Written under lock; read without it where a second look under a pack's lock follows.
  uint64_t media_size = 0;
  std::atomic<int32_t> packsize{c2ms::default_pack_bytes};
  std::atomic<int32_t> packnum{0};
  std::atomic<int32_t> total_packs{0};
  std::atomic<int32_t> first_index{0};
  uint64_t other_pos GUARDED_BY(lock) =
      c2ms::no_place;                        // a second reading place (c2ms_cache_place)
  int32_t wanted_from GUARDED_BY(lock) = 0;  // prefetching begins there (c2ms_cache_seek_to)
  int32_t idle_from GUARDED_BY(lock) = 0;    // no wanted pack from wanted_from up to here is idle
  c2ms::cache_use use GUARDED_BY(lock) = c2ms::cache_use::play;
  // The file's first and last packs, once they have left the ring (ring/ends.h).
  uint8_t *ends GUARDED_BY(lock) = nullptr;
  int32_t end_packs GUARDED_BY(lock) = 0;                          // of each end
  int32_t end_len[2 * c2ms::max_end_packs] GUARDED_BY(lock) = {};  // 0: not kept
  std::atomic<uint32_t> generation{
      0};  // of file and buffer: a unit of another one delivers nothing
  std::atomic<uint32_t> seek_count{0};   // a reader that finds it changed ends with what it has
  std::atomic<int32_t> gate_seekers{0};  // threads at the read gate that the reader gives way to
  bool gives_way = true;                 // under the gate: not while the index is fetched
  // The waiting reader: it publishes which packs it needs, and whoever makes the last of them there
  // counts up and signals.
  struct event *event = nullptr;
  std::atomic<uint32_t> wake_count{0};
  std::atomic<int32_t> need_index{-1};  // the first pack that it lacks; written under lock
  int32_t need_last GUARDED_BY(lock) = 0;
  int32_t need_len GUARDED_BY(lock) = 0;  // bytes of the last one
  std::atomic<bool> need_urgent{false};
  uint32_t session_id = 0;
  c2ms_sess *session = nullptr;
};

/// A walk over the boxes of an MP4 media (wire/boxes.h).
struct c2ms_box_walk {
  uint64_t media_size = 0;
  uint64_t pos = 0;       // of the box whose header is wanted
  uint64_t box_size = 0;  // of the `moov` box, once it is found
  int32_t boxes = 0;      // passed
  int32_t have = 0;       // bytes of the header
  uint8_t header[16]{};
};

/// What an open of the index knows until it has ended.
struct c2ms_idx_opening {
  uint64_t range_base = 0, range_size = 0;  // of the media, what the cache goes back to
  uint32_t generation = 0;  // of the cache since it was pointed at what is being read
  int32_t last_read = 0;    // result of the read that completed the file
  uint8_t *buf = nullptr;   // unpacked, not yet in memory for readers
  uint32_t buf_len = 0;
  c2ms_box_walk walk;
};

/// Running statistics of a media node's transfers (fetch/node_record.h). Guarded by the session's
/// list lock.
struct c2ms_node_perf {
  int32_t TN;
  int64_t RTT, AccRTT, AvgRTT;
  int64_t AccTime, AccBytes;
  double Speed, AvgSpeed;
};

/// One connection of a session to one server. Fields without a guard named belong to the session's
/// strand.
struct c2ms_node {
  c2ms::pooled mark{};
  uint32_t level = 0;
  uint16_t load = 0;
  uint8_t type = 0;
  c2ms::from_memory remembered = c2ms::from_memory::no;
  uint32_t node_id = 0;
  std::atomic<uint32_t> state{C2MS_NODE_NULL};  // written under the session's counter_lock
  uint32_t ip = 0;                              // network order
  uint32_t port = 0;
  char host[64]{};
  int32_t failures = 0;  // of the connection in a row, until a description comes
  int32_t ready_times = 0;
  rac_connection *device = nullptr;
  rac_timer *connect_timer = nullptr;
  rac_timer *life_timer = nullptr;
  std::atomic<int64_t> last_active_at_us{0};
  c2ms_unit srvlist_unit, descmedia_unit;
  adif::Mutex download_lock{c2ms::rank_download};
  c2ms_unit *download_unit GUARDED_BY(download_lock) = nullptr;
  // Asked for ahead: its answer comes after that of download_unit.
  c2ms_unit *next_unit GUARDED_BY(download_lock) = nullptr;
  int64_t asked_at_us = 0;   // when the range was asked for that is still to come; 0: none is
  bool takes_ahead = true;   // its server has answered every request that was sent ahead
  int64_t opened_at_us = 0;  // when it last began to connect
  int64_t probed_at_us = 0;  // when it was last asked for anything
  int64_t anew_at_us = 0;    // when a hopeless answer was last given up
  c2ms::Estimate estimate;   // guarded by the session's speed lock
  c2ms_node_perf perf{};
  c2ms::tally counts;  // guarded by the session's speed lock
  uint32_t session_id = 0;
  c2ms_sess *session = nullptr;
  c2ms_mgmt *library = nullptr;
  // The brake on reconnecting.
  uint32_t backoff_ms = 0;
  bool retried = false;  // the attempt at once has been used
  int64_t ready_at_us = 0;
  int short_answers = 0;
};

/// A server that an entry server named.
struct c2ms_server {
  uint32_t addr;
  uint32_t port;
  char name[64];
  uint8_t type;
  uint32_t count;
};

enum class c2ms_life : int { pooled = 0, live, closing };

/// One opened URL. Fields without a guard named belong to the strand, or are written once while
/// opening.
struct c2ms_sess {
  c2ms::pooled mark{};
  std::atomic<uint32_t> sess_id{0};
  int32_t open_pending = 0;
  uint8_t url_type = 0;
  char hid_text[21]{};
  char url[512]{};
  uint8_t url_parsed = 0;
  const char *scheme = nullptr;
  int32_t scheme_len = 0;
  char host[64]{};
  uint32_t host_len = 0;
  uint32_t port = c2ms::default_port;
  const char *path = nullptr;
  int32_t path_len = 0;
  const char *query = nullptr;
  int32_t query_len = 0;
  uint8_t fid[17]{}, auth[17]{};
  uint32_t stamp = 0, keyid = 0;
  std::atomic<int32_t> status{0};
  std::atomic<uint8_t> hook_registered{0};
  struct event *event = nullptr;
  std::atomic<uint32_t> wake_count{0};
  // The open (session/opening.h): 0 open, C2MS_OPENING, or what has ended it.
  std::atomic<int32_t> opened{0};
  std::atomic<c2ms::open_job> opener{c2ms::open_job::none};
  c2ms::open_wishes wishes;

  // Media description: written in the strand before desc_count becomes 1, constant afterwards.
  char media_name[37]{};
  uint64_t media_size = 0;
  uint8_t media_type = 0;
  uint8_t idx_fid[17]{};
  uint32_t idx_len = 0;
  std::atomic<uint32_t> desc_count{0};
  std::atomic<uint32_t> seek_num{0};

  // Speed statistics, and the recorder beside them: a unit that completes is counted and recorded
  // under one lock, in few cache lines.
  adif::Mutex speed_lock{c2ms::rank_speed};
  std::atomic<bool> tracing{false};
  c2ms::recorder trace GUARDED_BY(speed_lock);
  std::atomic<uint64_t> total_bytes{0}, window_bytes{0};  // received; since the last count
  std::atomic<uint64_t> recv_time{0};                     // microseconds
  int64_t window_at_us GUARDED_BY(speed_lock) = 0;
  double realtime_speed GUARDED_BY(speed_lock) = 0;
  c2ms::tally departed GUARDED_BY(speed_lock);    // of nodes that are gone
  uint64_t forgotten GUARDED_BY(speed_lock) = 0;  // bytes of packs that were not completed
  uint64_t twice GUARDED_BY(speed_lock) = 0;      // payload that made no pack longer
  std::atomic<uint64_t> delivered{0};             // bytes
  uint64_t cache_limit = 0;
  std::atomic<uint32_t> weight{c2ms::usual_weight};  // beside the other sessions (fetch/share.h)
  rac_timer *speed_timer = nullptr;

  std::atomic<uint32_t> next_pdu_id{1};

  // Units waiting for a node, by offset.
  adif::Mutex unit_lock{c2ms::rank_unit_queue};
  pointer_stack *units GUARDED_BY(unit_lock) = nullptr;
  std::atomic<int32_t> unit_num{0};  // their number, for a look without the lock

  // Nodes. The counters follow the nodes' states (c2ms_node_state_to).
  c2ms_node *entry_node = nullptr;
  uint32_t entry_ip = 0;  // of the entry server that was last asked; network order
  bool lookup_pending = false;
  bool list_due = false;   // a media node has failed: is another server list needed?
  uint8_t entry_asks = 0;  // lists asked for again because all servers of the last one failed
  adif::Mutex counter_lock{c2ms::rank_counters};
  std::atomic<int32_t> ready_num{0};     // written under counter_lock
  std::atomic<int32_t> usable_num{0};    // written under counter_lock
  std::atomic<int32_t> has_active{0};    // written under counter_lock
  std::atomic<int64_t> active_at_us{0};  // when has_active last changed
  int32_t download_num GUARDED_BY(counter_lock) = 0;
  int64_t download_at_us GUARDED_BY(counter_lock) = 0;
  int64_t reopened_at_us = 0;
  uint32_t answers = 0;         // ranges that came in full
  uint32_t answers_seen = 0;    // by the last check
  int64_t fruitless_at_us = 0;  // since when checks have seen requests out and no answer; 0: not so
  adif::Mutex list_lock{c2ms::rank_node_list};
  pointer_stack *node_index GUARDED_BY(list_lock) = nullptr;  // every node, by address and port
  pointer_stack *node_list GUARDED_BY(list_lock) = nullptr;  // media nodes, best first after a sort
  pointer_stack *server_list GUARDED_BY(list_lock) = nullptr;

  // Cache.
  c2ms_cache cache_record;
  std::atomic<c2ms_cache *> cache{nullptr};  // &cache_record once set up
  // The cache's memory, of the context's arena (ring/memory.h). Changed under the read gate.
  c2ms::cache_block cache_block[c2ms::max_cache_blocks];
  int32_t cache_blocks = 0;
  adif::Gate read_gate{c2ms::rank_read_gate};

  // Index (player/idx.h). Changed under the read gate; the words that tell where the window lies
  // are written under the cache's lock too.
  uint8_t *idx_zbuf = nullptr;
  int64_t idx_zrecv = 0;
  uint32_t idx_started = 0;
  c2ms_idx_opening idx_opening;
  uint8_t *idx_buf = nullptr;
  std::atomic<uint32_t> idx_buf_len{0};
  std::atomic<uint64_t> idx_offset{0};
  uint64_t idx_box_len = 0;  // of the box that the index stands for
  std::atomic<uint32_t> moov_at_end{0};
  std::atomic<uint8_t> idx_mem{0};

  rac_timer *check_timer = nullptr;
  rac_timer *watch_timer = nullptr;  // while something is under way (fetch/watch.h)
  bool watches_soon = false;         // it runs for a deadline that is near
  bool yields = false;               // has asked for nothing because another session needs the line
  int64_t open_time = 0;             // seconds
  std::atomic<int64_t> close_time{0};  // the same; 0 until the session closes
  uint8_t token[8]{};
  c2ms_mgmt *mgmt = nullptr;
  rac_core *probe = nullptr;

  // The descriptor for a host's poll loop (player/ready.h): wanted by this session, and readable.
  // It is made once with the record.
  std::atomic<bool> ready_wanted{false}, ready_lit{false};
  std::atomic<int> ready_fd{-1};

  // Reporting (session/reporting.h). States are written by the running job of their channel; counts
  // belong to the strand.
  std::atomic<uint8_t> perf_state{0};  // 0 play begin not reported, 1 reported
  std::atomic<uint8_t> auth_state{
      0};                        // 0 play begin not accepted, 1 accepted, 255 no agent answers
  int32_t perf_alive_count = 0;  // checks since then
  int32_t auth_alive_count = 0;
  bool perf_alive_owed = false, auth_alive_owed = false;  // due, but no job could take it yet
  std::atomic<int32_t> refusal{0};  // the agent's, as a session code; lasts until the close

  // Life (core/strand.h).
  c2ms::Strand strand;
  std::atomic<c2ms_life> life{c2ms_life::pooled};
  std::atomic<int32_t> calls{0};  // player's calls inside
  std::atomic<bool> dispatch_due{false};
  // c2ms_sess_cancel: bit 0 while it is on, above it how often it was switched on.
  std::atomic<uint32_t> cancel{0};
  uint32_t cancel_seen = 0;  // by the call that holds the read gate, when it began to wait for it

  // The door of the reporting threads: a job that was cancelled looks here when its turn comes.
  std::atomic<c2ms::report_job> perf_job{c2ms::report_job::none};
  std::atomic<c2ms::report_job> auth_job{c2ms::report_job::none};
  // The closing thread's facts, once there is one; signalled is each end of a job.
  std::atomic<const c2ms::report_facts *> farewell{nullptr};
  struct event *report_event = nullptr;
};

/// The root object.
struct c2ms_mgmt {
  // Configuration; the periods are words of their own that any thread may read.
  adif::Mutex conf_lock{c2ms::rank_registry};
  c2ms::host_name entry_server GUARDED_BY(conf_lock){};
  std::atomic<int32_t> build_tcp_max_time{c2ms::build_tcp_max_time_s};
  std::atomic<int32_t> conn_check_time{c2ms::conn_check_time_s};
  std::atomic<int32_t> sess_check_time{c2ms::sess_check_time_s};
  std::atomic<int32_t> speed_count_period{c2ms::speed_count_period_ms};
  uint32_t version = 0;
  uint16_t proto_ver = 0;
  char des_key[9]{};
  char conf_path[64]{};
  conf_mgmt *conf GUARDED_BY(conf_lock) = nullptr;
  uint32_t oemid = 0, vendorid = 0;
  int32_t build_time = 0;
  uint32_t perf_server_ip = 0;
  uint32_t uid_low = 0, uid_high = 0;

  // Identity: written once, found later when no network was up at the start.
  adif::Mutex identity_lock{c2ms::rank_registry};
  uint8_t hid[21]{};
  char local_ip_text[16]{};
  uint32_t local_ip = 0;
  int64_t identity_asked_at_us GUARDED_BY(identity_lock) = 0;

  adif::Mutex node_lock{c2ms::rank_registry};
  pointer_stack *nodes GUARDED_BY(node_lock) = nullptr;
  adif::Mutex sess_lock{c2ms::rank_registry};
  pointer_stack *sessions GUARDED_BY(sess_lock) = nullptr;
  adif::Mutex known_lock{c2ms::rank_registry};
  c2ms::known_record known[32] GUARDED_BY(known_lock);
  std::atomic<uint32_t> next_node_id{1}, next_sess_id{1}, next_unit_id{1};

  block_pool *sess_pool = nullptr, *node_pool = nullptr, *unit_pool = nullptr, *pack_pool = nullptr;
  adif::Mutex cut_lock{
      c2ms::rank_registry};  // one session at a time looks what is free and takes it
  adif::Mutex mem_lock{c2ms::rank_memory};
  mem_unit *mem = nullptr;
  int64_t mem_size = 0;
  uint8_t *arena = nullptr;
  rac_core *probe = nullptr;
  // The handler of every device and timer (session/pump.h); set before the first is made.
  int (*on_event)(void *mgmt, void *device, int event, int kind) = nullptr;

  c2ms::patience patience;  // constant once sessions are open

  c2ms::Worker resolver{"c2ms-resolver"};  // looks names up for sessions that reopen by themselves

  c2ms::Worker openers{"c2ms-open", c2ms::Worker::most_threads};  // of sessions begun elsewhere

  // Reporting.
  std::atomic<uint32_t> next_message{1};  // sequence number, shared by both channels
  c2ms::report_waits report_waits;        // constant once sessions are open, as the next
  uint32_t agent_ip = htonl(INADDR_LOOPBACK);
  c2ms::Worker perf_reporter{"c2ms-report", c2ms::Worker::most_threads};
  c2ms::Worker auth_reporter{"c2ms-agent", c2ms::Worker::most_threads};
  std::atomic<int> perf_failed_opens{0}, auth_failed_opens{0};     // that wait to be reported
  c2ms::Worker closers{"c2ms-close", c2ms::Worker::most_threads};  // of sessions that have ended
  std::atomic<int> farewells{0};    // their sessions that agent and report server have not heard of
  std::atomic<bool> untold{false};  // one was given up because the context was cleaned
  bool reports = true;              // constant once sessions are open
  bool may_exit = true;             // the process, as c2ms_mgmt_init and _readconf tell

  std::atomic<bool> closing{false};
  std::atomic<int32_t> calls{0};  // opens and closes under way
};
