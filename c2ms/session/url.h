// Session URLs: scheme, host, port, path and the query's parameters, taken apart in the session
// record.
#pragma once

#include "c2ms/core/records.h"

/// Takes session->url apart (once). 0; -1 no session; -100 empty; -101 a port outside 0 to 65535.
int c2ms_sess_url_parse(c2ms_sess *sess);

/// Takes the query's parameters "fid", "auth" (hexadecimal), "stamp" and "keyid" (decimal, at most
/// 32 bits); an absent host or port becomes the configured entry server and 3528. 0; -1 no session;
/// -2 no context.
int c2ms_sess_para_parse(c2ms_sess *sess);
