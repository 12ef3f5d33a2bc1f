// The event pump: the one handler that the session core gives the engine for every device and
// timer.
#pragma once

/// Handles an engine event (probe_event) of a device or timer of kind `kind`; `mgmt` is the
/// management context. Runs on the engine's threads. Finds the node or session by the id that the
/// device or timer carries, enters its strand, and ignores what does not match any more. 0 handled;
/// negative not handled or stale, as the engine ignores.
int c2ms_pump(void *mgmt, void *dev, int event, int kind);
