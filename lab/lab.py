"""./dev lab: plays, downloads and seeks over emulated networks, beside other programs."""
import argparse
import json
import os
import signal
import sys

import check
import run
import scenario as scenarios
import table
import world

MOST_DIGITS = 3


def lacking():
    """What this machine lacks for the laboratory; empty when it can work."""
    if os.geteuid() != 0:
        return "root, for network namespaces and routes"
    if not os.path.exists("/dev/net/tun"):
        return "/dev/net/tun, the kernel's TUN device"
    return ""


def parse(words):
    parser = argparse.ArgumentParser(prog="./dev lab", description=__doc__)
    parser.add_argument("scenario", nargs="*", help="names of lab/scenarios.json (default: all), check, or list")
    parser.add_argument("--pack", default="16,64,256", help="sizes of packs in KiB; 0: the library chooses")
    parser.add_argument("--seeds", type=int, default=3, help="runs of each; the median is shown")
    parser.add_argument("--seed", type=int, default=1, help="the first of them")
    parser.add_argument("--congestion", default="cubic", help="congestion control of all connections, e.g. bbr")
    parser.add_argument("--build", default="build/release", help="folder whose lib/ holds the library to try")
    parser.add_argument("--bin", default="build/release/bin", help="folder of the laboratory's programs")
    parser.add_argument("--out", default="build/lab", help="folder for the results")
    return parser.parse_args(words)


def chosen(names):
    known = scenarios.load()
    for name in names:
        if name not in known:
            raise world.Failed(f"no scenario {name}; there are {', '.join(known)}")
    return [known[name] for name in names or known]


def measure(lab, options, those):
    """All runs, the programs in turn, seed after seed, so that what disturbs the machine disturbs all alike."""
    found = []
    for seed in range(options.seed, options.seed + options.seeds):
        for scenario in those:
            plan = run.Plan(scenario, seed)
            for who in (run.Ours(int(pack)) for pack in options.pack.split(",")):
                one = lab.run(plan, who)
                found.append(one)
                print(table.line(one), flush=True)
    return found


def main(words):
    options = parse(words)
    if "list" in options.scenario:
        for name, scenario in scenarios.load().items():
            print(f"{name:6} {scenario['what']}")
        return 0
    lack = lacking()
    if lack:
        print(f"lab: this needs {lack}", file=sys.stderr)
        return 1
    os.makedirs(options.out, exist_ok=True)
    os.setpriority(os.PRIO_PROCESS, 0, -10)
    lab = run.Laboratory(options.bin, os.path.join(options.build, "lib"), options.out, options.congestion)
    if "check" in options.scenario:
        return 0 if check.check(lab.program("lab-emulator"), options.out) else 1
    found = measure(lab, options, chosen(options.scenario))
    with open(os.path.join(options.out, "results.json"), "w") as file:
        json.dump({"congestion": options.congestion, "runs": found}, file)
    text = table.markdown(found)
    with open(os.path.join(options.out, "results.md"), "w") as file:
        file.write(text)
    print("\n" + text)
    return 0


if __name__ == "__main__":
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        sys.exit(main(sys.argv[1:]))
    except world.Failed as failure:
        print(f"lab: {failure}", file=sys.stderr)
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)
