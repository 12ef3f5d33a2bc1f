// The periodic check of a session.
#pragma once

#include "c2ms/core/records.h"

/// The periodic supervision of a session: reports on it, grows it towards four usable nodes, asks
/// the entry server again when they are lost, asks again for missing packs, starts the next check.
/// Inside the strand. 0; -1 NULL; -2 no context.
int c2ms_sess_check(c2ms_sess *sess);
