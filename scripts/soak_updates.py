#!/usr/bin/env python3
"""Whole updates in a row: soak_updates.py BINDIR [N].

Every update offers new images. A seed decides what goes wrong: a fault of the simulated unit, a kill at
some moment, a second caller. Each verdict is compared with what the unit then really holds."""
import argparse
import collections
import concurrent.futures
import json
import os
import pathlib
import random
import signal
import subprocess
import sys
import threading
import time

from campaign import IMAGES, LOCKED, Unit, commit, fail, keep, positive

FAULTS = (
    "noise unit=micro answer=version count=2", "noise unit=camera answer=device-type count=3",
    "drop unit=micro answer=block block={block}", "drop unit=micro answer=version",
    "drop unit=camera answer=device-type", "drop unit=camera answer=flash-mode",
    "late unit=micro answer=block block={block} ms=80", "late unit=camera answer=block ms=300",
    "split unit=micro answer=version", "split unit=camera answer=block",
    "duplicate unit=micro answer=block block={block}", "duplicate unit=camera answer=block",
    "corrupt unit=micro answer=version byte=4 value=0x77", "corrupt unit=micro answer=block block={block}",
    "short unit=micro answer=block block={block}", "short unit=micro answer=version count=3",
    "nack unit=micro block={block} attempt=1", "nack unit=micro block={block}",
    "nack unit=camera image=system", "wrong-type unit=camera times=1",
    "close unit=micro at={byte}", "close unit=camera at={byte}", "silent unit=micro answer=block",
    "noise unit=micro answer=block block={block}",
)
DEEDS = ("kestrelflash", "kestrelwatch", None, "second caller")  # None: everything at once


class Book:
    """The counts of all workers."""

    def __init__(self):
        self.lock = threading.Lock()
        self.verdicts = collections.Counter()
        self.false_failures = collections.Counter()
        self.wrong = []

    def note(self, verdict):
        with self.lock:
            self.verdicts[verdict] += 1

    def false_failure(self, cause):
        with self.lock:
            self.false_failures[cause] += 1

    def complain(self, text):
        with self.lock:
            self.wrong.append(text)
            print(f"updates: {text}", flush=True)


def offer(unit, rng, number):
    """New images, with versions that differ from the last ones."""
    for name, most in zip(IMAGES, (6144, 3000, 3000)):
        size = rng.randint(1, most) if rng.random() < 0.9 else most
        body = bytearray(rng.randbytes(size))
        body[0] = number % 250 + 1
        (unit.images / name).write_bytes(body)
    for name in ("overlookcamver", "overlooksysver"):
        (unit.images / name).write_text(f"{number % 0x7000 + 1:04x}\n")


def right(unit, number):
    """Whether the unit holds the images and runs the versions that are offered."""
    versions = json.loads((unit.state / "versions.json").read_text())
    return unit.correct() and versions["micro"] == number % 250 + 1 and \
        all(int(versions[name], 16) == number % 0x7000 + 1 for name in ("camera", "system"))


def verdict_of(path):
    """The verdict event of a run; None when it was cut off before."""
    try:
        events = [json.loads(line) for line in path.read_text().splitlines()]
    except (OSError, json.JSONDecodeError):
        return None
    return next((event for event in events if event.get("event") == "verdict"), None)


def start(unit, options, journal):
    return subprocess.Popen([str(options.binaries / "kestrelwatch"), "--give-up", "3", "--json",
                             str(journal), "all"], cwd=unit.images, stdin=subprocess.DEVNULL,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=unit.environment())


def disturb(unit, options, rng, deed, book):
    """Does at a moment of its own what the draw says. Returns whether somebody was killed."""
    time.sleep(rng.random() * 0.3)
    if deed == "second caller":
        second = start(unit, options, unit.root / "second.json")
        status = second.wait(options.limit)
        book.note(f"second caller: {'refused' if status == LOCKED else 'after the first'}")
        return False
    killed = False
    for pid, name in unit.processes():
        if deed in (None, name):
            try:
                os.kill(pid, signal.SIGKILL)
                killed = True
            except ProcessLookupError:
                pass
    return killed


def one_update(unit, options, rng, number, book):
    offer(unit, rng, number)
    faults = []
    if rng.random() < 0.5:
        faults = ["--fault", rng.choice(FAULTS).format(block=rng.randrange(12), byte=rng.randint(1, 9000))]
    deed = rng.choice(DEEDS) if rng.random() < 0.4 else "nothing"
    what = f"update {number} ({' '.join(faults[1:]) or 'no fault'}, {deed or 'all killed'})"
    if not unit.start("--power-fail", "--seed", str(number), *faults):
        fail("the simulator does not start: " + unit.simulator_output())
    journal = unit.root / "events.json"
    process = start(unit, options, journal)
    killed = deed != "nothing" and disturb(unit, options, rng, deed, book)
    try:
        status = process.wait(options.limit)
    except subprocess.TimeoutExpired:
        book.complain(f"{what}: does not end")
        unit.kill_left()
        process.wait()
        status = None
    if not unit.all_ended(options.limit):
        book.complain(f"{what}: leaves {', '.join(name for _, name in unit.processes())}")
        unit.kill_left()
    unit.stop()
    holds = right(unit, number)
    verdict = verdict_of(journal)
    cause = verdict["cause"] if verdict else "killed"
    book.note(cause)
    if status == 0 and not holds:
        book.complain(f"{what}: status 0, and the unit does not hold the files")
    if verdict and holds and status != 0 and not killed:
        book.false_failure(cause)


def recover(unit, options, number, book):
    """An undisturbed run must always bring the unit back."""
    for _ in range(3):
        if not unit.start("--power-fail"):
            fail("the simulator does not start: " + unit.simulator_output())
        result = unit.run_patiently([str(options.binaries / "kestrelwatch"), "--retries", "3", "all"],
                                   options.limit)
        unit.stop()
        if result.status == 0:
            break
    if result.status != 0 or not right(unit, number):
        book.complain(f"update {number}: not brought back, status {result.status}\n{result.output}")
    if result.left:
        book.complain(f"update {number}: leaves {', '.join(result.left)}")


def worker(options, first, book):
    rng = random.Random(f"{options.seed} {first}")
    with Unit(options.binaries, options.seed) as unit:
        number = first
        for done, number in enumerate(range(first, options.updates, options.workers)):
            one_update(unit, options, rng, number, book)
            if done % 10 == 9:
                recover(unit, options, number, book)
        recover(unit, options, number, book)
        files = sorted(path.name for path in unit.temporary.rglob("*") if path.suffix != ".lock")
        if files:
            book.complain(f"files left over: {', '.join(files)}")


def memory():
    """Kilobytes that the machine has left."""
    lines = pathlib.Path("/proc/meminfo").read_text().splitlines()
    return int(next(line for line in lines if line.startswith("MemAvailable")).split()[1])


def main():
    parser = argparse.ArgumentParser(prog="./run soak updates", description=__doc__.splitlines()[0])
    parser.add_argument("binaries", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("updates", type=positive, nargs="?", default=10000, help="default 10000")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--limit", type=positive, default=60, help="seconds for a run (default 60)")
    parser.add_argument("--keep", metavar="SECTION", help="write the table into docs/FAULTS.md")
    options = parser.parse_args()
    options.binaries = options.binaries.resolve()
    options.workers = 2 * (os.cpu_count() or 1)
    before = (len(os.listdir("/proc/self/fd")), memory())
    book, began = Book(), time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(options.workers) as pool:
        for done in [pool.submit(worker, options, first, book) for first in range(options.workers)]:
            done.result()
    after = (len(os.listdir("/proc/self/fd")), memory())
    if after[0] != before[0]:
        book.complain(f"{after[0] - before[0]} descriptors more than at the start")
    rows = ["| verdict | updates |", "|---|---|",
            *(f"| {name} | {count} |" for name, count in sorted(book.verdicts.items()))]
    false = sum(book.false_failures.values())
    summary = [f"{options.updates} updates, {len(book.wrong)} broken promises, {false} false failures "
               "(the unit held the files, and the verdict was another)" +
               "".join(f"; {name} {count}" for name, count in sorted(book.false_failures.items()))]
    print("\n".join(rows + summary))
    print(f"free memory {(after[1] - before[1]) // 1024:+d} MB, {time.monotonic() - began:.0f} s")
    if options.keep:
        keep(options.keep, [f"Commit {commit()}, seed {options.seed}.", "", *rows, "", *summary])
    print(f"updates: {len(book.wrong)} failed")
    return 1 if book.wrong else 0


if __name__ == "__main__":
    sys.exit(main())
