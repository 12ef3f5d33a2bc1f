// The authorisation channel: datagrams to an agent on this machine (127.0.0.1, UDP port 3528),
// bodies in clear (report/report.h). It is asked for a sign of life (ping) and told of the begin,
// the going on and the end of a play. The session's check and its closing drive it
// (session/reporting.h).
//
// A sender blocks as said and holds no lock meanwhile: never call one inside a strand or on a
// thread of the engine. It reads the session only before it waits. Any thread.
//
// Results of the senders: the agent's result code (0 and above), or -1 no session, -2 no management
// context, -100 no socket or a reply of another kind, -200 not encoded, -300 not sent, -400 no
// reply in time, -500 not received (nobody listens there). Replies that do not come from the
// agent's port, carry another sequence number or are no whole message are passed over while the
// time lasts.
#pragma once

#include "c2ms/core/records.h"
#include "c2ms/report/report.h"

// Wait for a reply: ping 2000 ms, play begin and play end 8000 ms. Play alive does not wait: 0 once
// sent.
int c2ms_auth_ping(c2ms_sess *sess);
int c2ms_auth_playbgn(c2ms_sess *sess);
int c2ms_auth_playend(c2ms_sess *sess);
int c2ms_auth_playalive(c2ms_sess *sess);

// The same for facts taken before.
int c2ms_auth_ping(const c2ms::report_facts &facts);
int c2ms_auth_playbgn(const c2ms::report_facts &facts);
int c2ms_auth_playend(const c2ms::report_facts &facts);
int c2ms_auth_playalive(const c2ms::report_facts &facts);

// Write a message and take its sequence number: bytes written, -1 no session, -2 no buffer or a
// length below 1, -3 no management context, -100 when the buffer is too small.
int c2ms_auth_ping_encode(c2ms_sess *sess, void *buf, int len);
int c2ms_auth_playbgn_encode(c2ms_sess *sess, void *buf, int len);
int c2ms_auth_playend_encode(c2ms_sess *sess, void *buf, int len);
int c2ms_auth_playalive_encode(c2ms_sess *sess, void *buf, int len);

// The agent's result, or -100 for what is no such reply.
int c2ms_auth_ping_decode(const void *buf, int len);
int c2ms_auth_playbgn_decode(const void *buf, int len);
int c2ms_auth_playend_decode(const void *buf, int len);
