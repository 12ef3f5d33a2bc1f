// The performance channel: the begin and the end of a play over TCP, its going on as datagrams, to
// port 3528 of the report server (the context's perf_server_ip); bodies are enciphered
// (report/report.h). The session's check and its closing drive it (session/reporting.h).
//
// A sender blocks as said and holds no lock meanwhile: never call one inside a strand or on a
// thread of the engine. It reads the session only before it waits. Any thread. While the context is
// being cleaned up an exchange ends with the wait that is running.
//
// Results of the senders: 0 once sent, for play begin the server's result code; or -1 no session,
// -2 no management context, -200 not connected, -300 no connection in time (2000 ms), -100 not
// encoded or a reply of another kind, -400 not sent in time (1000 ms; a refused connection shows
// here), -500 no reply (8000 ms), -501 a reply's length of 4 or less, -600 the rest of a reply
// missing (8000 ms) or longer than 1024 bytes in all. Play alive: -100 no socket, -200 not encoded,
// -300 not sent.
#pragma once

#include "c2ms/core/records.h"
#include "c2ms/report/report.h"

int c2ms_perf_playbgn(c2ms_sess *sess);  ///< play begin; waits for the server's reply
int c2ms_perf_playend_bgn(
    c2ms_sess *sess);  ///< play begin of a session that ends; waits for no reply
int c2ms_perf_playend(c2ms_sess *sess);
int c2ms_perf_playalive(c2ms_sess *sess);  ///< one datagram, does not wait

// The same for facts taken before.
int c2ms_perf_playbgn(const c2ms::report_facts &facts);
int c2ms_perf_playend_bgn(const c2ms::report_facts &facts);
int c2ms_perf_playend(const c2ms::report_facts &facts);
int c2ms_perf_playalive(const c2ms::report_facts &facts);

// Write a message and take its sequence number: bytes written, -1 no session, -2 no buffer or a
// length below 1, -3 no management context, -100 when the buffer is too small.
int c2ms_perf_playbgn_encode(c2ms_sess *sess, void *buf, int len);
int c2ms_perf_playend_encode(c2ms_sess *sess, void *buf, int len);
int c2ms_perf_playalive_encode(c2ms_sess *sess, void *buf, int len);

/// The server's result (replies are in clear), or -100 for what is no such reply.
int c2ms_perf_playbgn_decode(const void *buf, int len);
