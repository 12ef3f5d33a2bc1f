"""One run: a scenario, a seed and a program that fetches the film."""
import json
import os
import subprocess

import fluid
import scenario as scenarios
import world
from scenario import PAYLOAD

ATTEMPTS = 3
SEEK_IDEAL_BYTES = 64 << 10


class Plan:
    """What is to be done over one scenario's network with one seed."""

    def __init__(self, scenario, seed):
        self.scenario, self.seed, self.do = scenario, seed, scenario["do"]
        self.net = scenarios.Net(scenario, seed)
        seconds = scenario.get("seconds", 40)
        mbit = scenario.get("play_mbit", self.net.mbit * scenario.get("play_share", PAYLOAD))
        self.rate = mbit * 125e3  # of the film
        self.size = int(self.rate * seconds) | 1
        self.limit = {"download": 1.5, "play": 3.5, "seek": 6}[self.do] * seconds
        self.ideal = self.ideals()

    def ideals(self):
        if self.do == "play":
            start, stall = fluid.least(self.net, self.rate, self.size, self.limit)
            return {"start_s": start, "stalled_s": stall}
        if self.do == "seek":
            links = self.net.links
            together = min(link.rtt_ms for link in links) + SEEK_IDEAL_BYTES / self.net.bytes_per_s(0) * 1000
            best = min(link.rtt_ms + SEEK_IDEAL_BYTES / (link.payload_mbit(0) * 125) for link in links)
            return {"together_ms": together, "best_link_ms": best}
        return {}

    def share(self, taken, seconds):
        return taken / self.net.ideal_bytes(seconds)


def quantile(values, share):
    values = sorted(values)
    return values[min(int(len(values) * share), len(values) - 1)] if values else None


class Laboratory:
    """Where the programs are and what holds for all runs."""

    def __init__(self, binaries, library, folder, congestion):
        self.bin, self.library, self.folder, self.congestion = binaries, library, folder, congestion

    def program(self, name):
        return os.path.join(self.bin, name)

    def film(self, size):
        path = os.path.join(self.folder, "film.bin")
        if not os.path.exists(path) or os.path.getsize(path) != size:
            subprocess.run([self.program("lab-film"), str(size), path], check=True)
        return path

    def run(self, plan, who):
        """The figures of one run that the machine was quick enough for; of the last attempt otherwise."""
        film = self.film(plan.size)
        for attempt in range(1, ATTEMPTS + 1):
            with world.World(self.program("lab-emulator"), plan.net.settings(), self.congestion, self.folder) as here:
                found = who.fetch(self, here, plan, film)
                counted = here.finish()
            if world.on_time(counted):
                break
        found.update(scenario=plan.scenario["name"], seed=plan.seed, who=who.name, do=plan.do, ideal=plan.ideal,
                     rate=plan.rate, size=plan.size, late_ms=counted["late_ms"], on_time=world.on_time(counted),
                     attempts=attempt, access_full=counted["access_full"],
                     links=[link for link in counted["links"] if link["address"] != world.ENTRY])
        return found


class Ours:
    """The library, with a size of packs in KiB; 0: it chooses."""

    def __init__(self, pack):
        self.pack, self.name = pack, f"c2ms {pack}" if pack else "c2ms"

    def fetch(self, lab, here, plan, film):
        addresses = [world.ENTRY, *plan.net.addresses]
        server = here.run([lab.program("c2ms-server"), "--any-auth", "--nodes", str(len(addresses) - 1),
                           "--listen", ",".join(addresses), film], here.servers, stdout=subprocess.PIPE, text=True)
        url = server.stdout.readline().strip()
        if not url:
            raise world.Failed("c2ms-server did not start")
        environment = dict(os.environ, LD_LIBRARY_PATH=lab.library)
        player = here.run([lab.program("lab-player"), plan.do, url, str(self.pack << 10), str(plan.rate),
                           str(plan.limit), str(plan.seed), str(plan.scenario.get("seeks", 30))], here.client, stdout=subprocess.PIPE, text=True,
                          env=environment)
        said, _ = player.communicate(timeout=plan.limit + 120)
        if player.returncode != 0:
            raise world.Failed(f"{plan.scenario['name']}: the player ended with {player.returncode}")
        found = json.loads(said)
        if found["wrong"]:
            raise world.Failed(f"{plan.scenario['name']}: {found['wrong']} pieces were not the film's")
        totals = world.stop(server).splitlines()
        sent = sum(int(line.split()[-1]) for line in totals if line.startswith("node "))
        found["twice"] = max(sent - plan.size, 0) if plan.do != "seek" and not found["cut"] else found["discarded"]
        if plan.do == "download":
            found["share"] = plan.share(found["taken"], found["finished_s"])
        if plan.do == "seek":
            for name, part in (("median", 0.5), ("p90", 0.9), ("worst", 1)):
                found[name + "_ms"] = quantile(found["seek_ms"], part)
        return found
