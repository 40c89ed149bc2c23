#!/usr/bin/env python3
"""Cuts an update at every byte: cuts.py BINDIR [options].

For every number of bytes that a target has received or sent, the simulated unit stands still at just
this byte and something goes wrong: the line closes, the unit loses power, the updater is killed, the
launcher is killed, or the host loses power (launcher, guard and updater are killed together). Then
the launcher runs again and must end verified, with the files' images in the unit."""
import argparse
import collections
import concurrent.futures
import dataclasses
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import time

from campaign import Unit, commit, fail, keep, positive

KINDS = ("line", "unit", "updater", "launcher", "host")
SIZES = (40, 61, 50)
UNITS = {1: "micro", 0: "camera"}
SUCCESS = 0
TRIES = 20


@dataclasses.dataclass(frozen=True)
class Cut:
    """Something goes wrong after `at` bytes received ("rx") or sent ("tx") by the unit on `port`."""
    kind: str
    port: int
    direction: str
    at: int

    def fault(self):
        return f"freeze unit={UNITS[self.port]} {'at' if self.direction == 'rx' else 'sent'}={self.at}"

    def __str__(self):
        return f"--kind {self.kind} --port {self.port} --direction {self.direction} --at {self.at}"


class Wrong(Exception):
    """A promise that was broken."""


class Missed(Wrong):
    """The run ended before its cut: on a busy machine the updater misses an answer now and then, or
    the lock of another unit's run is still there (terminals' numbers are reused at once)."""


def launcher(binaries, *options):
    return [str(binaries / "kestrelwatch"), *options, "all"]


def measure(options, tries=TRIES):
    """The messages of an uncut update: for each port and direction the offsets at which they end."""
    with Unit(options.binaries, options.seed, SIZES) as unit:
        log = unit.root / "log"
        if not unit.start("--power-fail", "--log", str(log)):
            fail("the simulator does not start: " + unit.simulator_output())
        result = unit.run(launcher(options.binaries), limit=options.limit)
        if result.status != SUCCESS and tries > 1:
            return measure(options, tries - 1)
        if result.status != SUCCESS or not unit.correct():
            fail(f"an update without a cut ends with {result.status}:\n{result.output}")
        unit.stop()
        ends = collections.defaultdict(list)
        for line in log.read_text().splitlines():
            event = json.loads(line)
            if "bytes" in event and event["port"] in UNITS:
                ends[event["port"], event["dir"]].append(len(event["bytes"].replace(" ", "")) // 2)
    return {key: [sum(sizes[:n + 1]) for n in range(len(sizes))] for key, sizes in ends.items()}


def all_cuts(ends, kinds):
    return [Cut(kind, port, direction, at) for (port, direction), offsets in sorted(ends.items())
            for at in range(1, offsets[-1] + 1) for kind in kinds]


def sampled(cuts, ends, options):
    """Every end of a message with its neighbours in one way each, and as many others as asked; ways and
    others are drawn by the seed."""
    near = {(port, direction, end + d) for (port, direction), offsets in ends.items()
            for end in offsets for d in (-1, 0, 1)}
    rng = random.Random(options.seed)
    rng.shuffle(cuts)
    boundary = {(cut.port, cut.direction, cut.at): cut for cut in cuts}
    chosen = [cut for place, cut in boundary.items() if place in near]
    return chosen + [cut for cut in cuts if cut not in chosen][:options.sample]


def strike(cut, unit, process):
    """Does what the cut says; a unit that goes on is let go on."""
    if cut.kind == "line":
        unit.simulator.send_signal(signal.SIGUSR2)
        return
    if cut.kind == "unit":
        unit.simulator.kill()
        unit.simulator.wait()
        # The number of its terminal is another one's as soon as that is opened.
        for node in unit.dev.iterdir():
            node.unlink()
        return
    if cut.kind == "updater":
        unit.kill_left("kestrelflash")
    elif cut.kind == "launcher":
        process.kill()
    else:
        unit.kill_left()
    unit.simulator.send_signal(signal.SIGUSR1)


def cut_run(cut, unit, options):
    """The run that is cut. Returns its status (None when the launcher was killed) and its output."""
    with open(unit.root / "cut.out", "wb") as out:
        process = subprocess.Popen(launcher(options.binaries), cwd=unit.images, stdout=out,
                                   stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                   env=unit.environment())
    limit = time.monotonic() + options.limit
    while "frozen" not in unit.simulator_output():
        if process.poll() is not None:
            raise Missed(f"the cut never came; status {process.returncode}")
        if time.monotonic() > limit:
            raise Wrong("the cut never came, and the run does not end")
        time.sleep(0.001)
    strike(cut, unit, process)
    try:
        status = process.wait(options.limit)
    except subprocess.TimeoutExpired:
        raise Wrong("the cut run does not end") from None
    if not unit.all_ended(options.limit):
        raise Wrong("left running: " + ", ".join(name for _, name in unit.processes()))
    output = (unit.root / "cut.out").read_text(errors="replace")
    return (None if cut.kind in ("launcher", "host") else status), output


def check(cut, options):
    """One cut and the run after it. Returns how the cut run ended, or what is wrong."""
    for _ in range(TRIES):
        result = check_once(cut, options)
        if not isinstance(result, Missed):
            break
        time.sleep(0.3)
    return result


def check_once(cut, options):
    with Unit(options.binaries, options.seed, SIZES) as unit:
        try:
            if not unit.start("--power-fail", "--fault", cut.fault()):
                fail("the simulator does not start: " + unit.simulator_output())
            status, output = cut_run(cut, unit, options)
            if status == SUCCESS and not unit.correct():
                raise Wrong("status 0, and the unit does not hold the files\n" + output)
            if cut.kind != "host" and unit.left_behind(1):
                raise Wrong("left behind: " + ", ".join(unit.left_behind(0)))
            if cut.kind in ("line", "unit"):
                unit.stop()
                if not unit.start("--power-fail"):
                    raise Wrong("the simulator does not start again: " + unit.simulator_output())
            again = unit.run_patiently(launcher(options.binaries, "--retries", "3"), options.limit)
            if again.status != SUCCESS:
                raise Wrong(f"the next run ends with {again.status}\n{again.output}")
            if not unit.correct():
                raise Wrong("the next run ends with 0, and the unit does not hold the files")
            if again.left:
                raise Wrong("the next run leaves " + ", ".join(again.left))
            return "killed" if status is None else f"status {status}"
        except Wrong as wrong:
            return wrong


def read_options():
    parser = argparse.ArgumentParser(prog="./run cuts", description=__doc__.splitlines()[0])
    parser.add_argument("binaries", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("--sample", type=positive,
                        help="the ends of messages with their neighbours, and so many others")
    parser.add_argument("--seed", type=int, default=1, help="images and sample (default 1)")
    parser.add_argument("--kind", choices=KINDS, action="append", help="only these cuts")
    parser.add_argument("--port", type=int, choices=sorted(UNITS), help="only this port")
    parser.add_argument("--direction", choices=("rx", "tx"), help="as the unit sees it")
    parser.add_argument("--at", type=positive, help="only after so many bytes")
    parser.add_argument("--limit", type=positive, default=60, help="seconds for a run (default 60)")
    parser.add_argument("--keep", metavar="SECTION", help="write the table into docs/FAULTS.md")
    options = parser.parse_args()
    options.binaries = options.binaries.resolve()
    for name in ("kestrelflash", "kestrelwatch", "kestrelsim"):
        if not (options.binaries / name).exists():
            fail(f"{options.binaries} holds no {name}")
    return options


def choose(options, ends):
    cuts = [cut for cut in all_cuts(ends, options.kind or KINDS)
            if options.port in (None, cut.port) and options.direction in (None, cut.direction) and
            options.at in (None, cut.at)]
    if not cuts:
        fail("no such byte: " + ", ".join(f"port {port} {direction} has {offsets[-1]}"
                                          for (port, direction), offsets in sorted(ends.items())))
    return sampled(cuts, ends, options) if options.sample else cuts


def main():
    options = read_options()
    ends = measure(options)
    cuts = choose(options, ends)
    began = time.monotonic()
    counts = collections.defaultdict(collections.Counter)
    failures = 0
    with concurrent.futures.ThreadPoolExecutor(2 * (os.cpu_count() or 1)) as pool:
        runs = {pool.submit(check, cut, options): cut for cut in cuts}
        for run in concurrent.futures.as_completed(runs):
            cut, result = runs[run], run.result()
            if isinstance(result, Wrong):
                failures += 1
                print(f"cut {cut} --seed {options.seed}: {result}", flush=True)
                result = "wrong"
            counts[cut.kind][result] += 1
    verdicts = sorted({result for by_result in counts.values() for result in by_result})
    rows = [f"| {kind} | {sum(counts[kind].values())} | " +
            " | ".join(str(counts[kind][verdict]) for verdict in verdicts) + " |"
            for kind in KINDS if kind in counts]
    table = ["| what was cut | cuts | " + " | ".join(verdicts) + " |",
             "|---" * (2 + len(verdicts)) + "|", *rows]
    print("\n".join(table))
    summary = (f"{len(cuts)} cuts, {len(cuts) - failures} recovered by the next run, "
               f"{time.monotonic() - began:.0f} s")
    if options.keep:
        keep(options.keep, [f"Commit {commit()}, seed {options.seed}: {summary}.", "", *table])
    print(f"cuts: {summary}, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
