#!/usr/bin/env python3
"""Plants small defects, one at a time, in a scratch copy of the tree and tells which test catches each.

usage: run.py [--named | --page] [NAME...]      (./dev defects)

The defects stand in table.txt. Each is built in one scratch folder, build/defects, and judged by the tests that
its entry names; when these pass, by the whole suite (not with --named). The results of all runs are kept beside the scratch copy;
--page writes the page of them, docs/planted-defects.md, and plants nothing. Exit status 1: a defect was missed,
does not compile or does not apply any more, or the tree fails without any.
"""

import fcntl
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
SCRATCH = ROOT / "build" / "defects"
RESULTS = ROOT / "build" / "defects-results.tsv"
PAGE = ROOT / "docs" / "planted-defects.md"
JOBS = os.environ.get("JOBS", str(os.cpu_count() or 1))
SUITE_SECONDS = 400
# ccache finds what other folders have compiled: the scratch copy is laid out as the tree is.
ENV = {**os.environ, "CCACHE_BASEDIR": str(SCRATCH), "ASAN_OPTIONS": "detect_stack_use_after_return=1"}


class Defect:
    def __init__(self, name):
        self.name, self.why, self.preset = name, "", "check"
        self.edits = []  # (file, old, new)
        self.runs = []  # (program, gtest filter or "")


def fail(text):
    sys.exit(f"defects: {text}")


def read_table():
    defects, defect, file, old = [], None, None, None
    for number, line in enumerate((Path(__file__).parent / "table.txt").read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("["):
            defect, file = Defect(line.strip("[]")), None
            defects.append(defect)
            continue
        key, _, value = (part.strip() for part in line.partition(":"))
        if key == "why":
            defect.why = value
        elif key == "file":
            file = value
        elif key == "old":
            old = value
        elif key == "new":
            defect.edits.append((file, old, value))
        elif key == "run":
            program, _, pattern = value.partition(" ")
            defect.runs.append((program, pattern.strip()))
        elif key == "build":
            defect.preset = value
        else:
            fail(f"table.txt:{number}: what is '{key}'?")
    names = [d.name for d in defects]
    if len(set(names)) != len(names):
        fail("two defects of one name")
    return defects


def edited(defect):
    """The files with the defect in them: {path: text}. Any white space matches any other."""
    texts = {}
    for file, old, new in defect.edits:
        text = texts.get(file) or (ROOT / file).read_text()
        pattern = r"\s+".join(re.escape(word) for word in old.split())
        found = re.findall(pattern, text)
        if len(found) != 1:
            fail(f"{defect.name}: found {len(found)} times in {file}: {old}")
        texts[file] = re.sub(pattern, lambda _: new, text)
    return texts


def copy_tree():
    """Brings the scratch copy up to date; files that are the same keep their time, so that little is built."""
    files = subprocess.run(["git", "ls-files", "-co", "--exclude-standard"], cwd=ROOT, check=True,
                           capture_output=True, text=True).stdout.splitlines()
    for file in files:
        source, copy = ROOT / file, SCRATCH / file
        if not source.is_file() or (copy.is_file() and copy.read_bytes() == source.read_bytes()):
            continue
        copy.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(source, copy)


def run(command, seconds, env=None):
    """(exit status or None after `seconds`, output); the whole process group ends with the time."""
    process = subprocess.Popen(command, cwd=SCRATCH, env=env or ENV, stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        output, _ = process.communicate(timeout=seconds)
        return process.returncode, output.decode(errors="replace")
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        output, _ = process.communicate()
        return None, output.decode(errors="replace")


def build(preset, targets):
    if not (SCRATCH / "build" / preset / "build.ninja").is_file():
        # Left-over variables are no news in a file that something was taken out of.
        status, output = run(["cmake", "--preset", preset, "-DC2MS_WERROR=OFF"], 120)
        if status != 0:
            fail(output[-2000:])
    return run(["cmake", "--build", f"build/{preset}", "-j", JOBS, "--target", *targets], 1800)


def test_command(preset, program, pattern):
    command = [f"build/{preset}/bin/{program}"]
    if program == "sweep":
        command.append(pattern or "--quick")
    elif pattern:
        command += [f"--gtest_filter={pattern}", "--gtest_brief=0", "--gtest_fail_fast"]
    elif program.startswith("fuzz_"):
        command.append(f"fuzz/corpus/{program[5:]}")
    return command


def culprit(program, status, output):
    """The test that failed, and how."""
    failed = re.findall(r"^\[  FAILED  \] (\S+?),? ", output, re.M)
    if failed:
        return f"{program} {failed[0]}"
    begun = re.findall(r"^\[ RUN      \] (\S+)", output, re.M)
    name = f"{program} {begun[-1]}" if begun else program
    return f"{name} ({'never ends' if status is None else f'ends with status {status}'})"


def suite(preset):
    """The first test of the whole suite that fails, or None."""
    status, output = build(preset, ["all"])
    if status != 0:
        fail(output[-2000:])
    status, output = run(["ctest", "--test-dir", f"build/{preset}", "-j", "2", "--stop-on-failure"], SUITE_SECONDS)
    if status == 0:
        return None
    failed = re.findall(r"Test +#\d+: (\S+) .*\*\*\*", output)
    return f"suite: {failed[0]}" if failed else f"suite: status {status}"


def judge(defect, seconds_of, whole_suite):
    """What caught it, or None."""
    texts = edited(defect)
    for file, text in texts.items():
        (SCRATCH / file).write_text(text)
    try:
        status, output = build(defect.preset, sorted({program for program, _ in defect.runs}))
        if status != 0:
            fail(f"{defect.name} does not compile\n{output[-3000:]}")
        for program, pattern in defect.runs:
            limit = 20 + 6 * seconds_of[defect.preset, program, pattern]
            status, output = run(test_command(defect.preset, program, pattern), limit)
            if status != 0:
                return culprit(program, status, output)
        return suite(defect.preset) if whole_suite else None
    finally:
        for file in texts:
            shutil.copy(ROOT / file, SCRATCH / file)


def baseline(defects):
    """Every test that is going to judge passes without a defect; how long each takes."""
    seconds_of = {}
    for preset in sorted({d.preset for d in defects}):
        runs = sorted({r for d in defects if d.preset == preset for r in d.runs})
        status, output = build(preset, sorted({program for program, _ in runs}))
        if status != 0:
            fail(output[-3000:])
        for program, pattern in runs:
            begin = time.monotonic()
            status, output = run(test_command(preset, program, pattern), 300)
            if status != 0 or "[  PASSED  ] 0 tests" in output:
                fail(f"without a defect: {culprit(program, status, output)} {pattern}\n{output[-1500:]}")
            seconds_of[preset, program, pattern] = time.monotonic() - begin
    return seconds_of


def read_results():
    if not RESULTS.is_file():
        return {}
    return dict(line.split("\t", 1) for line in RESULTS.read_text().splitlines())


def keep(name, by):
    results = read_results()
    results[name] = by or ""
    RESULTS.write_text("".join(f"{n}\t{b}\n" for n, b in results.items()))


def write_page(defects):
    results = read_results()
    caught = sum(1 for d in defects if results.get(d.name))
    lines = ["# Planted defects", "",
             "Written by `./dev defects --page` from the last runs of `./dev defects`: each of these small defects was",
             "planted alone in a copy of the tree (`defects/table.txt` has the text of each), and the first",
             f"failing test is named. {caught} of {len(defects)} are caught.", "",
             "| Defect | What it breaks | Caught by |", "|---|---|---|"]
    for d in defects:
        by = results.get(d.name)
        lines.append(f"| {d.name} | {d.why} | {f'`{by}`' if by else '**missed**' if by == '' else 'not run'} |")
    PAGE.write_text("\n".join(lines) + "\n")
    print(f"{PAGE.relative_to(ROOT)}: {caught} of {len(defects)} caught")


def main():
    defects = read_table()
    names = sys.argv[1:]
    if names == ["--page"]:
        return write_page(defects)
    whole_suite = "--named" not in names
    names = [name for name in names if name != "--named"]
    unknown = set(names) - {d.name for d in defects}
    if unknown:
        fail(f"no such defect: {', '.join(sorted(unknown))}")
    chosen = [d for d in defects if not names or d.name in names]
    for defect in chosen:
        edited(defect)  # all apply, before the first is built
    lock = open(ROOT / "build" / "defects.lock", "w")
    fcntl.flock(lock, fcntl.LOCK_EX)  # one scratch folder, one user
    copy_tree()
    seconds_of = baseline(chosen)
    missed = []
    for defect in chosen:
        begin = time.monotonic()
        by = judge(defect, seconds_of, whole_suite)
        keep(defect.name, by)
        print(f"{defect.name:32} {by or 'MISSED'}  ({time.monotonic() - begin:.0f} s)", flush=True)
        if not by:
            missed.append(defect.name)
    print(f"{len(chosen) - len(missed)} of {len(chosen)} caught" + (f"; missed: {', '.join(missed)}" if missed else ""))
    sys.exit(1 if missed else 0)


main()
