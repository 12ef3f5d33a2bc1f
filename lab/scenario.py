"""Scenarios: networks as data, and what is to be done over them. scenarios.json holds them, and
docs/lab.md tells how to write one."""
import bisect
import copy
import itertools
import json
import math
import os
import random

import anynet
import world

PAYLOAD = 1448 / 1500  # of a full packet, the rest is headers
FOREVER_MS = 1e9
ENTRY = {"rtt_ms": 30}
LEAST_QUEUE = 64 << 10
WALK_S = 300  # a random walk repeats after that


def load():
    with open(os.path.join(os.path.dirname(__file__), "scenarios.json")) as file:
        known = json.load(file)
    return {name: resolve(known, name) for name in known}


def by_name(known, name):
    if name.startswith("random:"):
        return anynet.random_scenario(name)
    if name not in known:
        raise world.Failed(f"no scenario {name}; there are {', '.join(known)} and random:SEED")
    return known[name]


def resolve(known, name):
    """A scenario with what it takes over from another ("like") and its links one by one."""
    own = known[name]
    whole = copy.deepcopy(resolve(known, own["like"])) if "like" in own else {}
    whole.update(copy.deepcopy(own))
    whole["name"] = name
    links = []
    for link in whole["links"]:
        links += [dict(link, count=1) for _ in range(link.get("count", 1))]
    for number, changes in whole.pop("change", {}).items():
        links[int(number)].update(changes)
    whole["links"] = links
    return whole


def walk(low, high, step_ms, rng):
    """A random walk between two rates, reflected at both."""
    rate, steps = rng.uniform(low, high), []
    for _ in range(int(WALK_S * 1000 / step_ms)):
        steps.append((step_ms, rate))
        rate += rng.gauss(0, (high - low) / 10)
        rate = 2 * low - rate if rate < low else 2 * high - rate if rate > high else rate
        rate = min(max(rate, low), high)
    return steps


def outages_of(given, rng):
    """[(from_ms, to_ms)] of a list of seconds, or of about one outage in so many seconds."""
    if isinstance(given, list):
        return [(begin * 1000, FOREVER_MS if end is None else end * 1000) for begin, end in given]
    outages, at = [], rng.uniform(0, given["every_s"])
    while at < WALK_S:
        outages.append((at * 1000, (at + given["for_s"]) * 1000))
        at += given["for_s"] + given["every_s"] * rng.uniform(0.5, 1.5)
    return outages


class Link:
    """A link with everything that a seed decides."""

    def __init__(self, given, rng):
        mbit = given.get("mbit")
        if isinstance(mbit, dict):
            self.steps = walk(*mbit["walk"], mbit["step_ms"], rng)
        elif isinstance(mbit, list):
            self.steps = [(ms, rate) for ms, rate in mbit]
        else:
            self.steps = [(1000, mbit)] if mbit is not None else []
        self.rtt_ms, self.jitter_ms = given["rtt_ms"], given.get("jitter_ms", 0)
        self.outages = outages_of(given.get("outages", []), rng)
        loss = given.get("loss", {})
        self.loss = {way: loss.get(way, loss) for way in ("down", "up")}
        self.ends = list(itertools.accumulate(ms for ms, _ in self.steps))
        self.queue = given.get("queue", self.usual_queue())

    def mean_mbit(self):
        return sum(ms * rate for ms, rate in self.steps) / self.ends[-1]

    def usual_queue(self):
        """60 ms at the link's rate, half the bandwidth-delay product, at least 64 KiB."""
        if not self.steps:
            return 16 << 20
        return int(max(LEAST_QUEUE, self.mean_mbit() * 125 * max(60, self.rtt_ms / 2)))

    def text(self, address):
        lines = [f"link {address} {self.rtt_ms / 2} {self.jitter_ms} {self.queue}"]
        lines += [f"rate {ms} {rate}" for ms, rate in self.steps]
        for way, loss in self.loss.items():
            lines.append(f"loss {way} {loss.get('single', 0)} {loss.get('burst', 0)} {loss.get('burst_packets', 1)}")
        lines += [f"outage {begin} {end}" for begin, end in self.outages]
        return lines

    def payload_mbit(self, ms):
        """What it carries at a time, headers and losses taken off."""
        if any(begin <= ms < end for begin, end in self.outages):
            return 0
        rate = self.steps[bisect.bisect(self.ends, ms % self.ends[-1])][1]
        loss = self.loss["down"]
        return rate * PAYLOAD * (1 - loss.get("single", 0)) * (1 - loss.get("burst", 0))


class Net:
    """The network of a scenario for one seed: the emulator's settings and what the links could carry."""

    def __init__(self, scenario, seed):
        rng = random.Random(f"{scenario['name']} {seed}")
        self.seed = seed
        self.links = [Link(each, rng) for each in scenario["links"]]
        self.access = scenario.get("access")
        self.mbit = sum(link.mean_mbit() for link in self.links)  # outages not taken off
        if self.access:
            self.mbit = min(self.mbit, self.access["mbit"])
        best = max(range(len(self.links)), key=lambda i: self.links[i].mean_mbit())
        self.best = world.server_address(best)
        self.addresses = [world.server_address(i) for i in range(len(self.links))]
        self.cumulative = []

    def settings(self):
        lines = [f"seed {self.seed}"]
        lines += Link(ENTRY, random.Random(0)).text(world.ENTRY)
        for link, address in zip(self.links, self.addresses):
            lines += link.text(address)
        if self.access:
            lines += [f"access {self.access['queue']}", f"rate 1000 {self.access['mbit']}"]
        return "\n".join(lines) + "\n"

    def bytes_per_s(self, seconds):
        """What all links together carry at a time."""
        mbit = sum(link.payload_mbit(seconds * 1000) for link in self.links)
        if self.access:
            mbit = min(mbit, self.access["mbit"] * PAYLOAD)
        return mbit * 125e3

    def ideal_bytes(self, seconds):
        """What they could have carried up to a time, in steps of 10 ms."""
        step = 0.01
        while len(self.cumulative) <= seconds / step:
            before = self.cumulative[-1] if self.cumulative else 0
            self.cumulative.append(before + self.bytes_per_s(len(self.cumulative) * step) * step)
        index = seconds / step
        whole = math.floor(index)
        return (self.cumulative[whole - 1] if whole else 0) + (index - whole) * step * self.bytes_per_s(seconds)
