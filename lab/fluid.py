"""What a play must stall at least: a ring is filled by all links together, without any delay, and
drained at the film's rate."""

RING_BYTES = 8 * (1 << 20) * 7 / 8
START_S = 2.0
STEP_S = 0.005


def least(net, rate, size, limit_s):
    """(seconds until the start, seconds of stall) of a film of `size` bytes played at `rate` bytes/s."""
    received = played = at = stalled = 0.0
    start = None
    while played < size and at < limit_s:
        received = min(received + net.bytes_per_s(at) * STEP_S, played + RING_BYTES, size)
        at += STEP_S
        if start is None:
            if received >= min(START_S * rate, RING_BYTES, size):
                start = at
            continue
        want = min(rate * STEP_S, size - played)
        got = min(want, received - played)
        played += got
        stalled += STEP_S * (want - got) / want
    return start if start is not None else limit_s, stalled
