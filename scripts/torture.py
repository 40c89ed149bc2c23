#!/usr/bin/env python3
"""Lets every fallible call of every program fail once: torture.py BINDIR [options].

For each scenario the program runs once with its calls counted; then again and again with one call
failing, in each way that this call can fail. Calls that come from one place of the program are alike:
of each place the first three, the last, and three drawn by the seed are taken, or all with --all."""
import argparse
import collections
import concurrent.futures
import dataclasses
import errno
import os
import pathlib
import random
import re
import struct
import subprocess
import sys

from campaign import Result, Unit, commit, fail, keep, positive

SOURCE = pathlib.Path(__file__).resolve().parent.parent / "tools" / "failcalls" / "failcalls.cpp"
SITES = 8192
TABLE_SIZE = 64 * 4 + 8 + 8 + 64 * SITES * 8

IO = ("EIO", "EINTR", "EAGAIN")
WAYS = {  # how each kind of call fails
    "open": ("EIO", "EINTR", "EMFILE", "ENXIO"), "read": (*IO, "short"),
    "write": (*IO, "ENOSPC", "ENOSPC:on", "short"), "close": ("EIO",),
    "select": ("EINTR", "ENOMEM"), "poll": ("EINTR", "ENOMEM"), "ioctl": ("EIO", "ENXIO"),
    "tcgetattr": ("EIO",), "tcsetattr": ("EIO",), "tcdrain": ("EIO", "EINTR"), "stat": ("EIO", "ENOMEM"),
    "fstat": ("EIO",), "lstat": ("EIO",), "fopen": ("EIO", "EMFILE", "ENOMEM"), "fdopen": ("ENOMEM",),
    "fread": ("EIO", "short"), "fwrite": ("ENOSPC", "ENOSPC:on", "short"), "fflush": ("ENOSPC",),
    "fclose": ("EIO", "ENOSPC"), "mkfifo": ("ENOSPC",), "mkdir": ("ENOSPC",), "mkdtemp": ("ENOSPC",),
    "unlink": ("EIO",), "rename": ("EIO",), "symlink": ("ENOSPC",), "fsync": ("EIO",),
    "ftruncate": ("EIO",), "fork": ("EAGAIN", "ENOMEM"), "posix_spawn": ("EAGAIN", "ENOMEM"),
    "pipe": ("EMFILE",), "posix_openpt": ("ENOSPC", "EMFILE"), "grantpt": ("EACCES",),
    "unlockpt": ("EIO",), "ptsname": ("ENOTTY",), "flock": ("EIO", "EINTR", "ENOLCK"),
    "fcntl": ("EIO", "EMFILE"), "dup2": ("EBUSY",), "setsid": ("EPERM",),
    "pthread_create": ("EAGAIN",), "pthread_mutex_init": ("ENOMEM",), "pthread_cond_init": ("ENOMEM",),
    "clock_gettime": ("EINVAL",), "gettimeofday": ("EINVAL",), "malloc": ("ENOMEM",),
    "calloc": ("ENOMEM",), "mmap": ("ENOMEM",), "signalfd": ("EMFILE",)}

UNSTEADY = ("poll", "clock_gettime", "read", "write", "ioctl")  # their number differs from run to run
ALLOCATORS = ("malloc", "calloc")  # a sanitizer keeps these to itself

# A run that stops on purpose says one of these; everything else that ends by a signal is a crash.
STOPS = re.compile(r"^Assertion failed: .*|what\(\):  std::bad_alloc|kestrelsim: .*memory.*"
                   r"|^libgcc_s\.so\.1 must be .*", re.MULTILINE)  # the last: no memory to load it


@dataclasses.dataclass(frozen=True)
class Scenario:
    name: str
    arguments: tuple[str, ...]
    statuses: frozenset[int]
    updates: bool = False      # status 0 says that the unit holds what the files offer
    simulated: bool = False    # the simulator is the program under torture

    @property
    def program(self):
        return "kestrelsim" if self.simulated else self.arguments[0]


def scenarios():
    updater = frozenset((0, 1, 255))
    launcher = frozenset((0, 1, 255, *range(100, 128)))
    shell = frozenset(range(51))
    return [
        Scenario("query", ("kestrelflash", "all", "q"), updater),
        Scenario("update", ("kestrelflash", "all"), updater, updates=True),
        Scenario("progress", ("kestrelflash", "all", "-p", "progress", "0", "100"), updater, updates=True),
        Scenario("reboot", ("kestrelflash", "micro", "rebootoverlook"), updater),
        Scenario("launcher", ("kestrelwatch", "all"), launcher, updates=True),
        Scenario("simulator", ("kestrelflash", "all"), frozenset((0, 1, 2, 3)), simulated=True),
        Scenario("store", ("harborsh", "-s", "unit", "-c",
                           "config speed 1 fast; configdump; configdelete speed 1; config other 1 slow; "
                           "cullfilter add x; cullfilter save; sleep 50; tasks; modules"), shell),
        Scenario("log", ("harborsh", "-l", "7", "-c", "log 3 fan stopped; ring; log 4 fan turns"), shell),
    ]


def call_names():
    """The kinds of calls in the table's order, from the library's source."""
    body = SOURCE.read_text().split("kNames[kCalls] = {", 1)[1].split("}", 1)[0]
    return re.findall(r'"(\w+)"', body)


class Table:
    """The file through which the preloaded library counts."""

    def __init__(self, path):
        self.path = path
        with open(path, "wb") as file:
            file.truncate(TABLE_SIZE)

    def read(self):
        """Counts by kind, how often the planned call failed, and where the calls of each kind came from."""
        with open(self.path, "rb") as file:
            counts = struct.unpack("64I", file.read(256))
            hits = struct.unpack("I", file.read(4))[0]
            sites = []
            for call, count in enumerate(counts):
                file.seek(272 + call * SITES * 8)
                sites.append(struct.unpack(f"{min(count, SITES)}Q", file.read(8 * min(count, SITES))))
        return counts, hits, sites


def preloaded(binaries, scenario, table, plan):
    """The environment that lets one call fail. A sanitizer's library comes before ours: it starts the
    program, and its malloc is left alone."""
    libraries = subprocess.run(["ldd", str(binaries / scenario.program)], capture_output=True,
                               text=True).stdout
    environment = {
        "LD_PRELOAD": ":".join([*re.findall(r"=> (\S*lib[at]san\S*)", libraries),
                                str(binaries / "failcalls.so")]),
        "FAILCALLS_PROGRAM": scenario.program, "FAILCALLS_TABLE": str(table.path),
        "ASAN_OPTIONS": "detect_leaks=1:exitcode=98:detect_stack_use_after_return=1"}
    if plan:
        name, nth, how = plan
        how, _, stays = how.partition(":")
        number = how if how == "short" else getattr(errno, how)
        environment["FAILCALLS_PLAN"] = f"{name}:{nth}:{number}" + (":on" if stays else "")
    return environment


def one_run(binaries, scenario, options, plan):
    """One run of a scenario: its table of calls, what was wrong ("" if nothing), how it ended."""
    with Unit(binaries, seed=options.seed) as unit:
        table = Table(unit.root / "calls")
        (unit.images / "progress").write_text("")
        command = [str(binaries / scenario.arguments[0]), *scenario.arguments[1:]]
        environment = preloaded(binaries, scenario, table, plan)
        if scenario.simulated:
            if unit.start(environment=environment):
                unit.run(command, limit=options.limit)
            result = Result(unit.stop(), unit.simulator_output(), 0, unit.left_behind(2))
        elif unit.start():
            result = unit.run(command, environment, options.limit)
        else:
            fail("the simulator does not start: " + unit.simulator_output())
        wrong = judge(scenario, unit, result)
        if plan and plan[0] == "unlink" and wrong.startswith("leaves"):
            wrong = ""  # what could not be removed stays
        return table.read(), wrong, result


def judge(scenario, unit, result):
    """What is wrong about a run, "" if nothing."""
    if result.status is None:
        return "hangs"
    if result.crashed:
        return "" if STOPS.search(result.output) else f"ends by signal {-result.status}"
    if result.status == 98 or "Sanitizer" in result.output:
        return "sanitizer"
    if result.status not in scenario.statuses:
        return f"status {result.status}"
    if result.left:
        return "leaves " + ", ".join(sorted(result.left))
    if scenario.updates and result.status == 0 and not unit.correct():
        if scenario.program == "kestrelflash" and silent_success(result.output):
            return ""
        return "status 0, wrong unit"
    if scenario.program != "kestrelflash" and result.status != 0 and not result.output.strip():
        return f"status {result.status} without a word"
    return ""


def silent_success(output):
    """The updater's known successes that are none: a block of the microcontroller without its ACK."""
    return "Could not open" in output or "Failed reading the version" in output or \
        output.count("GOT A [ACK] FROM KESTREL") < 12 or "UNKNOWN RESPONSE" in output


def chosen(sites, rng, everything, unsteady):
    """Which calls of a kind to fail: numbers from 1."""
    if everything:
        return range(1, len(sites) + 1)
    places = collections.defaultdict(list)
    for n, site in enumerate(sites, 1):
        places[site].append(n)
    picked = set()
    for numbers in places.values():
        if unsteady:
            numbers = numbers[:max(3, len(numbers) // 2)]
        picked.update(numbers[:3] + numbers[-1:] + rng.sample(numbers, min(3, len(numbers))))
    return sorted(picked)


def plans(scenario, options, names):
    """Every call and way to fail that is to be tried, and the number of calls of a run without faults."""
    (counts, _, sites), wrong, result = one_run(options.binaries, scenario, options, None)
    if wrong:
        fail(f"{scenario.name}: without any fault: {wrong}\n{result.output}")
    rng = random.Random(options.seed)
    found = [(name, n, how) for call, name in enumerate(names)
             if counts[call] and not (options.under and name in ALLOCATORS)
             for n in chosen(sites[call], rng, options.all, name in UNSTEADY) for how in WAYS[name]]
    if options.sample and options.sample < len(found):
        found = rng.sample(found, options.sample)
    return found, sum(counts)


def campaign(scenario, options, pool, names):
    found, calls = plans(scenario, options, names)
    done = collections.Counter(calls=calls)
    stops, bad = collections.Counter(), []
    runs = {pool.submit(one_run, options.under or options.binaries, scenario, options, plan): plan
            for plan in found}
    for run in concurrent.futures.as_completed(runs):
        (_, hits, _), wrong, result = run.result()
        done["runs"] += 1
        done["reached"] += hits > 0
        done["succeeded"] += result.status == 0 and not wrong
        if result.crashed and not wrong:
            done["stopped on purpose"] += 1
            stops[STOPS.search(result.output).group()] += 1
        if wrong:
            bad.append((runs[run], wrong, result))
    done["wrong"] = len(bad)
    return done, stops, bad


COLUMNS = ("calls", "runs", "reached", "succeeded", "stopped on purpose", "wrong")


def report(scenario, done, bad, options):
    print(f"{scenario.name}: " + ", ".join(f"{done[column]} {column}" for column in COLUMNS), flush=True)
    for (name, nth, how), wrong, result in sorted(bad, key=lambda row: row[0]):
        print(f"  {scenario.name}: {name} number {nth} fails with {how}: {wrong}")
        if options.verbose:
            print("    " + "\n    ".join(result.output.splitlines()[-12:]))


def read_options():
    parser = argparse.ArgumentParser(prog="./run torture", description=__doc__.splitlines()[0])
    parser.add_argument("binaries", type=pathlib.Path, help=argparse.SUPPRESS)
    parser.add_argument("--under", type=pathlib.Path, metavar="BINDIR",
                        help="calls are counted in the first folder's programs, and fail in this one's")
    parser.add_argument("--seed", type=int, default=1, help="which calls are drawn (default 1)")
    parser.add_argument("--all", action="store_true", help="every call, not some of each place")
    parser.add_argument("--sample", type=positive, help="at most so many runs a scenario")
    parser.add_argument("--only", default="", help="scenarios whose name begins so")
    parser.add_argument("--limit", type=positive, default=60, help="seconds for one run (default 60)")
    parser.add_argument("--verbose", action="store_true", help="the last lines of what went wrong")
    parser.add_argument("--keep", metavar="SECTION", help="write the table into docs/FAULTS.md")
    options = parser.parse_args()
    for folder in filter(None, (options.binaries, options.under)):
        if not (folder / "failcalls.so").exists():
            fail(f"{folder} holds no failcalls.so")
    options.binaries = options.binaries.resolve()
    options.under = options.under and options.under.resolve()
    return options


def main():
    options = read_options()
    names = call_names()
    if set(names) != set(WAYS):
        fail("kinds without a way to fail: " + ", ".join(set(names) ^ set(WAYS)))
    wanted = [s for s in scenarios() if s.name.startswith(options.only)]
    if not wanted:
        fail(f"no scenario begins with {options.only}")
    rows, failures, all_stops = [], 0, collections.Counter()
    with concurrent.futures.ThreadPoolExecutor(2 * (os.cpu_count() or 1)) as pool:
        for scenario in wanted:
            done, stops, bad = campaign(scenario, options, pool, names)
            report(scenario, done, bad, options)
            rows.append(" | ".join(["", scenario.name, *(str(done[c]) for c in COLUMNS), ""]).strip())
            all_stops += stops
            failures += len(bad)
            if done["reached"] * 10 < done["runs"] * 9:
                print(f"  {scenario.name}: too few runs reached their fault")
                failures += 1
    for text, count in sorted(all_stops.items()):
        print(f"stopped on purpose {count} times: {text}")
    if options.keep:
        keep(options.keep, [f"Commit {commit()}, seed {options.seed}.", "",
                            "| scenario | " + " | ".join(COLUMNS) + " |",
                            "|---" * (len(COLUMNS) + 1) + "|", *rows, "",
                            *(f"- stopped on purpose {count} times: `{text}`"
                              for text, count in sorted(all_stops.items()))])
    print(f"torture: {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
