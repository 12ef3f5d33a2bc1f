// Diagnostic lines: to standard output, or to the player's function (c2ms_set_diag in c2ms.h).
#pragma once

namespace c2ms {

/// Formats a line. Inside a strand it waits until diag_deliver(), which who leaves the strand
/// calls; a silenced player's lines are not even formatted.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

/// A context is being made. From here on the foundation's lines go the same way, at once: its calls
/// that say something are made with no lock held. Standard output gets no lines while every context
/// so far wants it quiet.
void diag_new_context(bool wants_quiet);

/// Delivers this thread's waiting lines. Call it with no lock held.
void diag_deliver();

}  // namespace c2ms
