"""Checks the emulator itself: is what it does what it was told?"""
import json
import os
import subprocess
import sys

import world
from scenario import PAYLOAD

PROBE = os.path.join(os.path.dirname(__file__), "probe.py")


class Findings:
    def __init__(self):
        self.good = True

    def judge(self, what, value, low, high, unit=""):
        good = low <= value <= high
        self.good = self.good and good
        print(f"  {'ok   ' if good else 'WRONG'} {what}: {value:.4g} {unit} (wanted {low:.4g} to {high:.4g})", flush=True)


def probe(here, space, *words):
    command = [sys.executable, PROBE, *[str(word) for word in words]]
    process = here.run(command, space, stdout=subprocess.PIPE, text=True)
    if words[0] in ("echo", "source") and process.stdout.readline() != "ready\n":
        raise world.Failed("a probe did not start")
    return process


def result(process):
    return json.loads(process.communicate(timeout=60)[0])


def in_world(emulator, folder, links, work, seed=5, access=""):
    """work(world, addresses) over these links; what it returns, and the emulator's counts. Repeated when the
    machine was paused meanwhile."""
    addresses = [world.server_address(i) for i in range(len(links))]
    settings = f"seed {seed}\n" + "".join(
        f"link {address} {link}\n" for address, link in zip(addresses, links)) + access
    for _ in range(3):
        with world.World(emulator, settings, "cubic", folder) as here:
            found = work(here, addresses)
            counted = here.finish()
        if world.on_time(counted):
            break
        print(f"  repeated: the machine was late ({counted['late_ms']})")
    return found, counted


def round_trips(pinged):
    return [at - pinged["sent"][number] for number, at in pinged["back"]]


def in_order(pinged):
    numbers = [number for number, _ in pinged["back"]]
    return numbers == sorted(numbers)


def check_delays(emulator, folder, findings):
    """Round trips beside a stream of 200 Mbit/s."""
    def work(here, addresses):
        probe(here, here.servers, "echo")
        probe(here, here.servers, "source")
        load = probe(here, here.client, "sink", addresses[2], 1, 4)
        pings = [probe(here, here.client, "ping", address, 500, 10, 100) for address in addresses[:2]]
        return [result(each) for each in pings], result(load)

    links = ["10 0 1000000\nrate 1000 50", "80 10 1000000\nrate 1000 50", "5 0 1000000\nrate 1000 200"]
    ((plain, jittered), load), counted = in_world(emulator, folder, links, work)
    trips = sorted(round_trips(plain))
    findings.judge("round trip of 20 ms, median", trips[len(trips) // 2], 20, 20.8, "ms")
    findings.judge("... and of 90 %", trips[int(len(trips) * 0.9)], 20, 21, "ms")
    trips = sorted(round_trips(jittered))
    findings.judge("160 ms and twice up to 10 ms of jitter, least", trips[0], 160, 165, "ms")
    findings.judge("... and of 95 %, the machine's pauses left out", trips[int(len(trips) * 0.95)], 172, 181, "ms")
    findings.judge("... in order", in_order(jittered), True, True)
    findings.judge("all came back", len(plain["back"]) + len(jittered["back"]), 1000, 1000)
    findings.judge("200 Mbit/s beside them", load["bytes_per_s"] * 8e-6 / PAYLOAD, 190, 204, "Mbit/s")
    findings.judge("packets handed on late, 99 %", counted["late_ms"]["p99"], 0, 1, "ms")


def check_rates(emulator, folder, findings):
    """One long stream each; then two through one access link. What lay in queues when the measuring began may make
    it 2 % too quick."""
    def work(here, addresses):
        probe(here, here.servers, "source")
        sinks = [probe(here, here.client, "sink", address, 2, 6) for address in addresses]
        return [result(each)["bytes_per_s"] * 8e-6 / PAYLOAD for each in sinks]

    links = ["5 0 65536\nrate 1000 8", "20 0 400000\nrate 1000 50", "10 0 250000\nrate 500 4\nrate 500 16"]
    (slow, quick, changing), _ = in_world(emulator, folder, links, work)
    findings.judge("a link of 8 Mbit/s", slow, 7.8, 8.16, "Mbit/s")
    findings.judge("a link of 50 Mbit/s", quick, 48, 51, "Mbit/s")
    findings.judge("a link of 4 and 16 Mbit/s in turn", changing, 9.5, 10.2, "Mbit/s")
    links = ["5 0 1000000\nrate 1000 20", "20 0 1000000\nrate 1000 20"]
    shares, counted = in_world(emulator, folder, links, work, access="access 256000\nrate 1000 20\n")
    findings.judge("two such behind an access link of 20 Mbit/s", sum(shares), 19.4, 20.4, "Mbit/s")
    findings.judge("... whose queue drops", counted["access_full"], 1, 1e6, "packets")


def check_queue(emulator, folder, findings):
    """300 datagrams of 1500 bytes at once into a queue of 100 of them."""
    def work(here, addresses):
        probe(here, here.servers, "echo")
        return result(probe(here, here.client, "ping", addresses[0], 300, 0, 1472))

    back, counted = in_world(emulator, folder, ["5 0 150000\nrate 1000 1"], work)
    findings.judge("a queue of 100 packets lets through", len(back["back"]), 100, 103, "packets")
    findings.judge("... and drops", counted["links"][0]["down"]["queue_full"], 197, 200, "packets")
    findings.judge("... the last one leaves after 1.2 s", round_trips(back)[-1], 1180, 1260, "ms")


def check_loss(emulator, folder, findings):
    def work(here, addresses):
        probe(here, here.servers, "echo")
        return [result(probe(here, here.client, "ping", address, 15000, 0.1, 60)) for address in addresses]

    links = ["1 0 9000000\nloss down 0.02 0 1", "1 0 9000000\nloss up 0 0.03 6"]
    (single, burst), counted = in_world(emulator, folder, links, work)
    findings.judge("2 % of single packets lost", 1 - len(single["back"]) / 15000, 0.0155, 0.0245)
    findings.judge("3 % lost in bursts", 1 - len(burst["back"]) / 15000, 0.02, 0.04)
    numbers = [number for number, _ in burst["back"]]
    gaps = [b - a - 1 for a, b in zip(numbers, numbers[1:]) if b - a > 1]
    findings.judge("... of 6 packets on average", sum(gaps) / max(len(gaps), 1), 4.6, 7.6)
    lost = [counted["links"][0]["down"]["lost"], counted["links"][1]["up"]["lost"]]
    findings.judge("both as counted", sum(lost), *[30000 - len(single["back"]) - len(burst["back"])] * 2)
    (again, _), _ = in_world(emulator, folder, links, work)
    findings.judge("the same seed loses the same", [n for n, _ in again["back"]] == [n for n, _ in single["back"]], 1, 1)
    (other, _), _ = in_world(emulator, folder, links, work, seed=6)
    findings.judge("another seed others", [n for n, _ in other["back"]] != [n for n, _ in single["back"]], 1, 1)


def check_outage(emulator, folder, findings):
    def work(here, addresses):
        probe(here, here.servers, "echo")
        return result(probe(here, here.client, "ping", addresses[0], 600, 5, 60))

    found, _ = in_world(emulator, folder, ["10 0 100000\noutage 1000 2000"], work)
    silent = [at for number, at in enumerate(found["sent"]) if number not in {n for n, _ in found["back"]}]
    findings.judge("an outage from 1 s on begins with what would be answered then", silent[0], 985, 996, "ms")
    findings.judge("... and ends at 2 s", silent[-1], 1989, 2001, "ms")
    findings.judge("... and lets nothing through meanwhile", len(silent), 199, 205, "packets")


def check(emulator, folder):
    """True when all is as it should be."""
    findings = Findings()
    for part in (check_delays, check_rates, check_queue, check_loss, check_outage):
        print(part.__name__.replace("check_", ""))
        part(emulator, folder, findings)
    return findings.good
