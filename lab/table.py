"""What the runs found, as lines and as tables in Markdown."""
import statistics

MIB = 1 << 20


def line(one):
    """One run, as it ends."""
    words = f"{one['scenario']:6} seed {one['seed']}  {one['who']:16} {figure(one)}"
    if one["do"] != "seek" and one["twice"] is not None:
        words += f"  twice {one['twice'] / MIB:.1f} MiB"
    if one.get("cut"):
        words += "  (cut short)"
    if one["attempts"] > 1:
        words += f"  ({one['attempts']} attempts{'' if one['on_time'] else ', late all the same'})"
    return words


def figure(one):
    """The figures of a run, or medians of several, in the words of what was done."""
    if one["do"] == "download":
        return f"{one['share']:.2f}"
    if one["do"] == "play":
        more = ">" if one.get("cut") else ""
        return f"{more}{one['stalled_s']:.1f} ({one['longest_s']:.1f}), start {one['started_s']:.1f}"
    return f"{one['median_ms']:.0f} / {one['p90_ms']:.0f} / {one['worst_ms']:.0f}"


def ideal(one):
    if one["do"] == "play":
        return f"{one['ideal']['stalled_s']:.1f}, start {one['ideal']['start_s']:.1f}"
    if one["do"] == "seek":
        return f"{one['ideal']['together_ms']:.0f}, best link {one['ideal']['best_link_ms']:.0f}"
    return "1"


def medians(found):
    """{scenario: {who: medians of its runs' figures}}, in order of appearance."""
    groups = {}
    for one in found:
        groups.setdefault(one["scenario"], {}).setdefault(one["who"], []).append(one)
    return {name: {who: median(runs) for who, runs in columns.items()} for name, columns in groups.items()}


def median(runs):
    middle = dict(runs[0])
    for name, value in runs[0].items():
        if isinstance(value, (int, float)) and not isinstance(value, bool):
            middle[name] = statistics.median(run[name] for run in runs)
    middle["ideal"] = {name: statistics.median(run["ideal"][name] for run in runs) for name in runs[0]["ideal"]}
    middle["cut"] = any(run.get("cut") for run in runs)
    middle["on_time"] = all(run["on_time"] for run in runs)
    return middle


TITLES = {"download": "Downloads: share of the ideal",
          "play": "Plays: seconds stalled (longest stall), start in seconds",
          "seek": "Seeks: median / 90 % / worst in ms"}


def markdown(found):
    text = []
    rows = medians(found)
    for do, title in TITLES.items():
        those = {name: columns for name, columns in rows.items() if next(iter(columns.values()))["do"] == do}
        if not those:
            continue
        whos = list(dict.fromkeys(who for columns in those.values() for who in columns))
        text += [f"## {title}", "", "| | ideal | " + " | ".join(whos) + " |", "|---" * (len(whos) + 2) + "|"]
        for name, columns in those.items():
            cells = [figure(columns[who]) + note(columns[who]) if who in columns else "" for who in whos]
            text.append(f"| {name} | {ideal(next(iter(columns.values())))} | " + " | ".join(cells) + " |")
        text.append("")
    return "\n".join(text)


def note(one):
    words = ""
    if one["do"] != "seek" and (one["twice"] or 0) > one["size"] / 100:
        words += f" (twice {one['twice'] / MIB:.1f} MiB)"
    return words + ("" if one["on_time"] else " (late)")
