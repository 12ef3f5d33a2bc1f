"""Random networks of the same kinds as the scenarios, so that none of these is special."""
import math
import random

MOST_MBIT = 150


def between(rng, low, high):
    """As often in each decade."""
    return round(math.exp(rng.uniform(math.log(low), math.log(high))), 2)


def random_link(rng):
    rate = between(rng, 0.5, 50)
    link = {"mbit": rate, "rtt_ms": between(rng, 5, 600)}
    kind = rng.random()
    if kind < 0.2:
        link["mbit"] = {"walk": [round(rate / 5, 2), rate], "step_ms": rng.choice([100, 200, 1000])}
    elif kind < 0.3:
        link["mbit"] = [[rng.randrange(2000, 15000), rate], [rng.randrange(2000, 15000), round(rate / 10, 2)]]
    if rng.random() < 0.25:
        link["loss"] = {"single": between(rng, 0.0005, 0.02)}
    elif rng.random() < 0.15:
        link["loss"] = {"burst": between(rng, 0.001, 0.02), "burst_packets": rng.randrange(2, 20)}
    if rng.random() < 0.3:
        link["jitter_ms"] = round(link["rtt_ms"] * rng.uniform(0, 0.25), 1)
    if rng.random() < 0.15:
        link["outages"] = {"every_s": rng.randrange(8, 40), "for_s": round(rng.uniform(0.3, 4), 1)}
    return link


def top_mbit(link):
    mbit = link["mbit"]
    return mbit["walk"][1] if isinstance(mbit, dict) else max(step[1] for step in mbit) if isinstance(mbit, list) else mbit


def random_scenario(name):
    """random:SEED, or random:SEED:download, :play or :seek."""
    _, seed, *do = name.split(":")
    rng = random.Random(f"network {seed}")
    kind = rng.choice(["download", "play", "seek"])
    share = rng.choice([0.4, 0.6, 0.7])
    links = [random_link(rng) for _ in range(rng.randrange(2, 5))]
    while sum(map(top_mbit, links)) > MOST_MBIT:
        links.sort(key=top_mbit)
        links[-1]["mbit"] = between(rng, 0.5, 20)
    found = {"name": name, "do": do[0] if do else kind, "play_share": share, "seconds": 30, "links": links}
    if rng.random() < 0.2:
        mbit = round(sum(map(top_mbit, links)) * rng.uniform(0.4, 0.9), 1)
        found["access"] = {"mbit": mbit, "queue": int(max(64 << 10, mbit * 125 * rng.choice([30, 100, 300])))}
    found["what"] = f"{len(links)} links, {sum(map(top_mbit, links)):.0f} Mbit/s at most"
    return found
