// Every number of the session core that has a meaning, in one place.
#pragma once

#include <cstdint>

namespace c2ms {

// Defaults of the configuration, in seconds; the speed window in milliseconds.
inline constexpr int32_t build_tcp_max_time_s = 10;
inline constexpr int32_t conn_check_time_s = 3;
inline constexpr int32_t sess_check_time_s = 5;
inline constexpr int32_t speed_count_period_ms = 2000;
inline constexpr int32_t max_period_s = 86400;  // what a configuration may ask for at most

inline constexpr int32_t min_arena_bytes = 0x800000;
inline constexpr uint32_t engine_threads = 8;
inline constexpr uint32_t default_port = 3528;

// Timer commands.
inline constexpr uint32_t timer_node_connect = 7550;
inline constexpr uint32_t timer_node_life = 7551;
inline constexpr uint32_t timer_sess_check = 7563;
inline constexpr uint32_t timer_speed_count = 7564;
inline constexpr uint32_t timer_sess_watch = 7565;
inline constexpr uint32_t watch_near_ms = 20;  // while a reader waits, or soon will
inline constexpr uint32_t watch_far_ms = 100;  // while anything else is under way

// Node types (bits).
inline constexpr uint8_t node_serves_list = 0x01;
inline constexpr uint8_t node_serves_media = 0x02;

// Nodes.
inline constexpr int32_t max_failed_attempts = 3;  // of a node that is no media node
inline constexpr int max_media_nodes = 8;          // of one session
inline constexpr int max_other_nodes = 16;         // the same, which only know others
inline constexpr int wanted_media_nodes = 4;       // a session grows towards this many
inline constexpr int max_list_entries = 4;         // of one server list
// More than a session may hold at one time: growth, list and replacement together stay below.
inline constexpr int snapshot_nodes = 32;
inline constexpr uint32_t max_level = 4;
inline constexpr uint32_t first_backoff_ms = 250;
inline constexpr int64_t settled_us = 10'000'000;  // ready that long: the backoff starts anew
inline constexpr int64_t stalled_us =
    10'000'000;  // a transfer without a byte for that long is dropped
inline constexpr int64_t min_rtt_us = 200'000;
inline constexpr int max_short_answers = 3;

// Sessions.
inline constexpr uint32_t usual_weight = 100;
inline constexpr int open_timeouts = 20;  // one-second waits of an open
inline constexpr int max_entry_asks = 8;  // the pause between two doubles up to here
inline constexpr int64_t reopen_after_us = 20'000'000;
inline constexpr int64_t ratio_stalled_us = 4'000'000;

// Reporting.
inline constexpr int32_t reporting_check_time_s =
    8;  // of every session once one has tried to report
inline constexpr int32_t alive_period_s = 120;
inline constexpr int max_failed_opens_waiting = 32;  // to be reported; further ones are not

// The index of a media.
inline constexpr uint64_t max_index_bytes = uint64_t{64} << 20;  // packed or not
inline constexpr int64_t index_open_ms = 30'000;
inline constexpr int64_t index_start_ms = 10'000;  // of a film that starts, which can do without
inline constexpr int32_t index_receive_ms = 10'000;
inline constexpr int max_index_failures = 5;
inline constexpr int max_boxes = 20;
inline constexpr int box_header_bytes = 16;
inline constexpr int32_t moov_end_slack =
    1000;  // bytes behind a `moov` that still counts as the end
inline constexpr uint8_t media_type_mp4 = 7;

// Units and packs.
inline constexpr uint32_t pdu_header_bytes = 14;
inline constexpr uint32_t max_pdu_bytes = 1024;
inline constexpr int max_surplus_reads = 4;             // of 1024 bytes behind a control response
inline constexpr uint32_t control_response_bytes = 18;  // header and result
inline constexpr uint32_t media_response_bytes = 37;    // and the fixed part
inline constexpr int request_buffer_bytes = 256;
inline constexpr int unit_frame_bytes = 160;
inline constexpr int max_units_per_pack = 5;
inline constexpr int32_t max_cache_blocks = 8;    // of the arena, for one session
inline constexpr int32_t max_end_packs = 128;     // of the file's beginning, and of its end
inline constexpr uint64_t no_place = UINT64_MAX;  // of a position
inline constexpr int32_t default_pack_bytes = 8192;
inline constexpr int32_t min_pack_bytes = 4096;
// What the library chooses: small enough that a seek is served by several servers, big enough that
// packs cost little.
inline constexpr int32_t chosen_pack_bytes = 32 * 1024;
inline constexpr int32_t receive_slice_bytes =
    256 * 1024;  // received under one hold of a pack's lock
inline constexpr int32_t receive_event_bytes =
    1024 * 1024;  // then the thread's other sockets have a turn
inline constexpr int64_t empty_pack_pause_us =
    1'000'000;                                         // between two requests for a pack of size 0
inline constexpr int64_t no_memory_pause_us = 50'000;  // before a unit is tried for again

}  // namespace c2ms
