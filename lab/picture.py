"""All results as one picture: bars for shares, stalls and seeks, and runs over time below."""
import math

import run
import scenario as scenarios
import table
import timeline
from svg import Svg

LEFT, LABEL, BAR, ROW = 20, 220, 300, 13
OURS, THEIRS = ["#a9c9ee", "#6ea4de", "#2f6fb5", "#12407a"], ["#e8a33d", "#c98a2b", "#9aa5b1"]
RED = "#d64545"
MOST_STALL_S = 40
MIB = 1 << 20


def colours(rows):
    names = list(dict.fromkeys(who for columns in rows.values() for who in columns))
    ours = [name for name in names if name.startswith("c2ms")]
    theirs = [name for name in names if name not in ours]
    darkest = OURS[-len(ours):] if 0 < len(ours) <= len(OURS) else OURS * (1 + len(ours) // len(OURS))
    return dict(zip(ours, darkest)) | dict(zip(theirs, THEIRS))


def heading(svg, x, y, title, words):
    svg.text(x, y, title, 13, weight="bold")
    svg.text(x, y + 15, words, 10, colour="#5a6875")
    return y + 30


def name_row(svg, x, y, name, what, count):
    svg.text(x, y + 10, name, 11 if len(name) < 32 else 8.5, weight="bold")
    svg.text(x, y + 22, what, 8, colour="#5a6875")
    return y + max(count * ROW, 26) + 6


def shares(svg, x, y, rows, shade, whats):
    y = heading(svg, x, y, "Downloads", "share of what the links could carry in the same time; the line is all of it")
    top = y
    for name, columns in rows.items():
        for i, (who, one) in enumerate(columns.items()):
            at = y + i * ROW
            svg.rect(x + LABEL, at, one["share"] * BAR, ROW - 2, shade[who])
            twice = f", twice {one['twice'] / MIB:.1f} MiB" if (one["twice"] or 0) > 0.005 * one["size"] else ""
            svg.text(x + LABEL + one["share"] * BAR + 4, at + 9, f"{one['share']:.2f} {who}{twice}", 9)
        y = name_row(svg, x, y, name, whats[name], len(columns))
    svg.line([(x + LABEL + BAR, top - 3), (x + LABEL + BAR, y - 5)], "#1d2b3a", 1)
    return y + 16


def stalls(svg, x, y, rows, shade, whats):
    y = heading(svg, x, y, "Plays", f"seconds that the player stood still (bars end at {MOST_STALL_S} s)")
    for name, columns in rows.items():
        for i, (who, one) in enumerate(columns.items()):
            at, stalled = y + i * ROW, one["stalled_s"]
            width = min(stalled / MOST_STALL_S, 1) * BAR * 0.6
            svg.rect(x + LABEL, at, max(width, 2), ROW - 2, RED if stalled > 0.05 else "#57a773")
            svg.rect(x + LABEL - 7, at, 5, ROW - 2, shade[who])
            words = f"{table.figure(one)}  {who}"
            words += f", twice {one['twice'] / MIB:.1f} MiB" if one["twice"] > 0.005 * one["size"] else ""
            svg.text(x + LABEL + max(width, 2) + 4, at + 9, words, 9)
        least = next(iter(columns.values()))["ideal"]
        ideal = f"{name}   ideal: {least['stalled_s']:.1f}, start {least['start_s']:.1f}"
        y = name_row(svg, x, y, ideal, whats[name], len(columns))
    return y + 16


def seeks(svg, x, y, rows, shade, whats):
    y = heading(svg, x, y, "Seeks", "ms until 64 KiB are there: median, 90 %, worst; the line is the ideal (logarithmic)")
    place = lambda ms: x + LABEL + (math.log10(max(ms, 10)) - 1) / 3 * BAR
    for name, columns in rows.items():
        for i, (who, one) in enumerate(columns.items()):
            at = y + i * ROW + ROW / 2 - 1
            values = [one["median_ms"], one["p90_ms"], one["worst_ms"]]
            svg.line([(place(values[0]), at), (place(values[2]), at)], shade[who], 3)
            for value, radius in zip(values, (5, 4, 3)):
                svg.dot(place(value), at, radius, shade[who])
            svg.text(place(values[2]) + 8, at + 3, f"{table.figure(one)}  {who}", 9)
        ideal = place(next(iter(columns.values()))["ideal"]["together_ms"])
        svg.line([(ideal, y - 3), (ideal, y + len(columns) * ROW)], "#1d2b3a", 1)
        y = name_row(svg, x, y, name, whats[name], len(columns))
    return y + 16


def told_over_time(found):
    """For each scenario a run of the library's to be shown: that of the pack with the best median, middle seed."""
    chosen = {}
    for one in found:
        if one.get("samples"):
            chosen.setdefault(one["scenario"], {}).setdefault(one["who"], []).append(one)

    def badness(one):
        return {"download": lambda: -one["share"], "play": lambda: one["stalled_s"], "seek": lambda: one["median_ms"]}[
            one["do"]]()

    shown = []
    for columns in chosen.values():
        ordered = [sorted(runs, key=badness) for runs in columns.values()]
        best = min((runs[len(runs) // 2] for runs in ordered), key=badness)
        shown.append(best)
    return shown


def draw(found, path, congestion):
    svg = Svg()
    known = scenarios.load()
    rows = table.medians(found)
    whats = {name: scenarios.by_name(known, name)["what"] for name in rows}
    shade = colours(rows)
    svg.text(LEFT, 26, f"The library on emulated networks ({congestion}); medians of the seeds", 16, weight="bold")
    kinds = {"download": shares, "play": stalls, "seek": seeks}
    left = right = 56
    has_downloads = any(next(iter(columns.values()))["do"] == "download" for columns in rows.values())
    for do, paint in kinds.items():
        those = {name: columns for name, columns in rows.items() if next(iter(columns.values()))["do"] == do}
        if do == "download" and those:
            left = paint(svg, LEFT, left, those, shade, whats)
        elif those:
            right = paint(svg, LEFT + (640 if has_downloads else 0), right, those, shade, whats)
    y = max(left, right) + 10
    shown = told_over_time(found)
    if shown:
        timeline.legend(svg, LEFT, y)
    for i, one in enumerate(shown):
        x = LEFT + 50 + (i % 2) * 560
        top = y + 46 + (i // 2) * 200
        net = run.Plan(scenarios.by_name(known, one["scenario"]), one["seed"]).net
        unit = " KiB" if one["who"] != "c2ms" else ""
        title = f"{one['scenario']}, {one['who']}{unit}: {table.figure(one)}"
        timeline.draw(svg, x, top, one, net, title, whats[one["scenario"]])
    svg.write(path)
