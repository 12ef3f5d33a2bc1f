"""./dev lab: plays, downloads and seeks over emulated networks, beside other programs."""
import argparse
import json
import os
import signal
import sys

import check
import others
import picture
import run
import scenario as scenarios
import table
import world

SHORT_PACK = "256"


def lacking():
    """What this machine lacks for the laboratory; empty when it can work."""
    if os.geteuid() != 0:
        return "root, for network namespaces and routes"
    if not os.path.exists("/dev/net/tun"):
        return "/dev/net/tun, the kernel's TUN device"
    return ""


def parse(words):
    parser = argparse.ArgumentParser(prog="./dev lab", description=__doc__)
    parser.add_argument("scenario", nargs="*", help="names of lab/scenarios.json (default: all), random:SEED, short, check, "
                        "or list")
    parser.add_argument("--pack", help="sizes of packs in KiB, 0: the library chooses; without the other programs "
                        "unless --others is there, too (default: 16,64,256 and the others)")
    parser.add_argument("--others", action="store_true", help="aria2c and curl beside it")
    parser.add_argument("--seeds", type=int, default=3, help="runs of each; the median is shown")
    parser.add_argument("--seed", type=int, default=1, help="the first of them")
    parser.add_argument("--congestion", default="cubic", help="congestion control of all connections, e.g. bbr")
    parser.add_argument("--build", default="build/release", help="folder whose lib/ holds the library to try")
    parser.add_argument("--bin", default="build/release/bin", help="folder of the laboratory's programs")
    parser.add_argument("--out", default="build/lab", help="folder for the results")
    return parser.parse_args(words)


def chosen(names):
    known = scenarios.load()
    if names == ["short"]:
        return [scenario for scenario in known.values() if "judge" in scenario]
    whole = [name for name, scenario in known.items() if "judge" not in scenario]
    return [scenarios.by_name(known, name) for name in names or whole]


def contestants(options):
    packs = (options.pack or "16,64,256").split(",")
    ours = [run.Ours(int(pack)) for pack in packs]
    return ours, others.all_others() if options.others or not options.pack else []


def measure(lab, options, those):
    """All runs, the programs in turn, seed after seed, so that what disturbs the machine disturbs all alike."""
    found = []
    ours, theirs = contestants(options)
    for seed in range(options.seed, options.seed + options.seeds):
        for scenario in those:
            plan = run.Plan(scenario, seed)
            for who in ours + (theirs if plan.do == "download" else []):
                one = lab.run(plan, who)
                found.append(one)
                print(table.line(one), flush=True)
    return found


def judge(found):
    """Do the figures keep the bounds of their scenarios? What the machine was too slow for says nothing."""
    known, good = scenarios.load(), True
    for one in found:
        for name, (low, high) in known[one["scenario"]]["judge"].items():
            value, kept = one[name], low <= one[name] <= high
            verdict = "ok" if kept else "MISSED" if one["on_time"] else "not judged: the machine was late"
            good = good and (kept or not one["on_time"])
            print(f"{one['scenario']}, {one['who']}: {name} {value:.3g}, wanted {low:g} to {high:g}: {verdict}")
    return good


def main(words):
    options = parse(words)
    short = options.scenario == ["short"]
    if short:
        options.seeds, options.pack = 1, options.pack or SHORT_PACK
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
    picture.draw(found, os.path.join(options.out, "results.svg"), options.congestion)
    print("\n" + text)
    print(f"written: {options.out}/results.json, results.md, results.svg")
    return 0 if not short or judge(found) else 1


if __name__ == "__main__":
    signal.signal(signal.SIGINT, signal.default_int_handler)  # even where it was ignored
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    try:
        sys.exit(main(sys.argv[1:]))
    except world.Failed as failure:
        print(f"lab: {failure}", file=sys.stderr)
        sys.exit(1)
    except KeyboardInterrupt:
        sys.exit(130)
