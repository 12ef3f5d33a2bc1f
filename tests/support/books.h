// A session's figures, which must agree with each other at every moment.
#pragma once

#include "c2ms.h"
#include "c2ms/core/records.h"
#include "support/findings.h"

namespace support {

/// The session's figures, after they were looked at.
c2ms_stats check_books(Findings &findings, c2ms_sess *sess);

}  // namespace support
