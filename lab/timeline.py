"""One run over time: what each server sends, what is ahead of the reader, where the reader is."""
import bisect

from scenario import PAYLOAD

AHEAD_COLOUR = "#b9c7d3"
SERVERS = ["#3b7dd8", "#57a773", "#e8a33d", "#8e5bd0", "#2aa5a0", "#b0793b", "#7a8b99", "#c75b9b"]
BIN_S = 0.5
WIDTH, SENT, AHEAD = 420, 90, 45
RING_MIB = 7


def binned(sent, sample_s, bins):
    """Mbit/s of payload for each bin of one link's samples."""
    per = round(BIN_S / sample_s)
    return [sum(sent[i * per:(i + 1) * per]) * 8e-6 * PAYLOAD / BIN_S for i in range(bins)]


def nice(value):
    """A round number at or above it."""
    for step in (1, 2, 5, 10, 20, 50, 100, 200, 500, 1000):
        if value <= step:
            return step
    return value


def draw(svg, left, top, one, net, title, what):
    """Draws a panel; net: the network, for what it could have carried."""
    length = one["finished_s"]
    bins = max(int(length / BIN_S), 1)
    x = lambda seconds: left + seconds / length * WIDTH
    svg.text(left, top - 18, title, 12, weight="bold")
    svg.text(left, top - 6, what, 9, colour="#5a6875")
    capacity = [net.bytes_per_s(i * BIN_S) * 8e-6 for i in range(bins)]
    most = max(max(capacity) * 1.08, 0.1)
    base = top + SENT
    y = lambda mbit: base - min(mbit / most, 1) * SENT
    stack = [0.0] * bins
    for link, colour in zip(one["links"], SERVERS):
        above = [a + b for a, b in zip(stack, binned(link["sent"], 0.1, bins))]
        points = [(x(i * BIN_S), y(value)) for i, value in enumerate(above)]
        under = [(x(i * BIN_S), y(value)) for i, value in enumerate(stack)]
        svg.area(points + under[::-1], colour)
        stack = above
    svg.line([(x(i * BIN_S), y(value)) for i, value in enumerate(capacity)], "#1d2b3a", 1.2)
    if one["do"] == "play":
        svg.line([(left, y(one["rate"] * 8e-6)), (left + WIDTH, y(one["rate"] * 8e-6))], "#d64545", 1, "5 3")
    svg.text(left - 5, top + 9, f"{most:.0f}", 10, "end")
    svg.text(left - 5, base, "Mbit/s", 10, "end")
    reader(svg, left, base + 8, one, x)
    axis(svg, left, base + 8 + AHEAD, length, x)
    svg.reach(left + WIDTH, base + AHEAD + 24)


def reader(svg, left, top, one, x):
    """What is ahead of the reader as an area, its place in the film as a line, stalls in red."""
    base = top + AHEAD
    svg.rect(left, top, WIDTH, AHEAD, "#f3f5f7")
    samples = one["samples"]
    if not samples:
        return
    times = [sample[0] for sample in samples]
    points = [(x(sample[0]), base - min(sample[2] / (RING_MIB << 20), 1) * AHEAD) for sample in samples]
    svg.area([(points[0][0], base), *points, (points[-1][0], base)], AHEAD_COLOUR)
    for at in range(int(times[-1] / BIN_S) + 1):
        first, last = (bisect.bisect(times, edge * BIN_S) for edge in (at, at + 1))
        stalled = samples[min(last, len(samples) - 1)][4] - samples[max(first - 1, 0)][4]
        if stalled > 0.02:
            begin = x(at * BIN_S)
            svg.rect(begin, top, x((at + 1) * BIN_S) - begin, AHEAD, "#d64545", min(stalled / BIN_S, 1) * 0.75)
    svg.line([(x(sample[0]), base - sample[1] / one["size"] * AHEAD) for sample in samples], "#1d2b3a", 1.2)
    svg.text(left - 5, top + 9, f"{RING_MIB} MiB", 10, "end")


def axis(svg, left, base, length, x):
    step = nice(length / 8)
    for i in range(int(length / step) + 1):
        svg.line([(x(i * step), base), (x(i * step), base + 3)], "#1d2b3a")
        svg.text(x(i * step), base + 13, f"{i * step:g} s", 9, "middle")


def legend(svg, left, top):
    at = left
    entries = [("#3b7dd8", "sent by the first server"), ("#57a773", "second"), ("#e8a33d", "third"), ("#8e5bd0", "fourth")]
    for colour, words in entries:
        svg.rect(at, top - 9, 10, 10, colour)
        svg.text(at + 14, top, words)
        at += 34 + 5.6 * len(words)
    for colour, words, dash in (("#1d2b3a", "above: what the links could carry; below: the reader's place", ""),
                                ("#d64545", "the film's rate", "5 3")):
        svg.line([(at, top - 4), (at + 18, top - 4)], colour, 1.4, dash)
        svg.text(at + 22, top, words)
        at += 44 + 5.6 * len(words)
    svg.rect(at, top - 9, 10, 10, AHEAD_COLOUR)
    svg.text(at + 14, top, "ahead of the reader")
    svg.rect(at + 130, top - 9, 10, 10, "#d64545", 0.75)
    svg.text(at + 144, top, "stalled (the paler, the less)")
