#!/usr/bin/env python3
"""Runs the benchmarks of a build and prints their figures beside their goals, as the tables of
docs/BENCHMARKS.md. Usage: bench.py BINDIR [--write]; --write also renews that page.

Every figure is the median of seven repetitions of one run. A peer's figure comes from the same
process as ours."""
import json
import pathlib
import platform
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# One row: what it is, our benchmark, the peer's (or None), how they are compared, the goal.
#   "ratio": our time / peer's time, at most the goal
#   "share": percent of the processor that our time takes at the line's rate, under the goal
#   "times": peer's time / our time, at least the goal
#   "ns":    our time in nanoseconds, at most the goal
#   "shown": our time, without a goal
#   "allocs": our allocations after the first round, at most the goal
TABLES = [
    ("Framing, one camera block: share of the processor while the line is in use", "bench_framing", [
        ("ordinary firmware bytes", "framing/ordinary", None, "share", 1),
        ("erased flash, all 0xFF", "framing/all_ff", None, "share", 1),
        ("machine code", "framing/machine_code", None, "share", 1),
    ]),
    ("Operating-system services", "bench_os", [
        ("event there and back beside a bare mutex and condition", "EventRoundTrip/real_time",
         "BareRoundTrip/real_time", "ratio", 1.15),
        ("the same beside a pair of eventfds", "EventRoundTrip/real_time",
         "EventfdRoundTrip/real_time", "ratio", None),
        ("the same with a time-out armed, beside the bare pair",
         "EventRoundTripWithTimeOut/real_time", "BareRoundTrip/real_time", "ratio", None),
        ("sm_p, sm_v beside a mutex with priority inheritance", "Semaphore/real_time",
         "MutexPriorityInheritance/real_time", "ratio", 1.1),
        ("the same beside a default mutex", "Semaphore/real_time", "MutexDefault/real_time",
         "ratio", None),
        ("the same, two threads at once, beside priority inheritance",
         "Semaphore/real_time/threads:2", "MutexPriorityInheritance/real_time/threads:2", "ratio",
         None),
        ("interruptsOff, interruptsRestore", "InterruptsOff", None, "shown", None),
        ("the same, nested", "InterruptsOffNested", None, "shown", None),
        ("timer dispatch, 1 armed", "TimerDispatch/1", None, "shown", None),
        ("timer dispatch, 10 armed", "TimerDispatch/10", None, "shown", None),
        ("timer dispatch, 50 armed", "TimerDispatch/50", None, "shown", None),
        ("timer dispatch, 50 due at once", "TimerDispatchAllDue/50", None, "shown", None),
        ("task create, start, delete beside create, cancel, join",
         "TaskCreateStartDelete/real_time", "ThreadCreateCancelJoin/real_time", "ratio", None),
    ]),
    ("Log", "bench_log", [
        ("a line, one producer, beside spdlog's asynchronous logger",
         "LogLine/producers:1/iterations:500/manual_time",
         "SpdlogAsyncLine/producers:1/iterations:500/manual_time", "ratio", 1.0),
        ("a line, four producers, beside the same",
         "LogLine/producers:4/iterations:500/manual_time",
         "SpdlogAsyncLine/producers:4/iterations:500/manual_time", "ratio", 1.0),
        ("logger()", "EventLogger", None, "ns", 100),
        ("logger() beside a bare clock read", "EventLogger", "BareClock", "ratio", None),
    ]),
    ("Configuration", "bench_config", [
        ("cached read, 300 variables, beside a mutex-guarded std::unordered_map", "CachedRead/300",
         "CachedReadGuardedMap/300", "ratio", 1.5),
        ("the same, 100 variables", "CachedRead/100", "CachedReadGuardedMap/100", "ratio", 1.5),
        ("the same, 1,000 variables", "CachedRead/1000", "CachedReadGuardedMap/1000", "ratio", None),
        ("the same, 10,000 variables", "CachedRead/10000", "CachedReadGuardedMap/10000", "ratio",
         None),
        ("cached read, 300 variables, beside SQLite in memory", "CachedRead/300",
         "CachedReadSqlite/300", "ratio", None),
        ("unchanged write beside the guarded map", "UnchangedWrite/300",
         "UnchangedWriteGuardedMap/300", "ratio", None),
        ("unchanged write beside SQLite in memory", "UnchangedWrite/300", "UnchangedWriteSqlite/300",
         "ratio", None),
        ("first read, from the store, beside SQLite on the same disk", "FirstRead/iterations:3000",
         "FirstReadSqlite/iterations:3000", "ratio", None),
        ("changed write, to the store, beside SQLite on the same disk", "ChangedWrite",
         "ChangedWriteSqlite/rollback", "ratio", None),
        ("the same beside SQLite with a write-ahead log", "ChangedWrite", "ChangedWriteSqlite/wal",
         "ratio", None),
    ]),
    ("Buffer pools: take and return beside the heap, zeroed, aligned, guarded", "bench_bufpool", [
        (f"{size:,} bytes, {threads} thread{'s' if threads > 1 else ''}",
         f"PoolAllocFree/{size}/real_time/threads:{threads}",
         f"HeapAllocFree/{size}/real_time/threads:{threads}", "times", 3)
        for size in (256, 1536, 4096, 16384) for threads in (1, 4)
    ] + [
        (f"{size:,} bytes, 1 thread, beside aligned_alloc, memset and free alone",
         f"PoolAllocFree/{size}/real_time/threads:1",
         f"BareHeapAllocFree/{size}/real_time/threads:1", "times", None)
        for size in (1536, 16384)
    ] + [("open a pool of 1,000 buffers of 1,536 bytes", "OpenPoolOf1000", None, "shown", None),
         ("allocations while buffers are taken and returned", "PoolAllocFree/1536/real_time/threads:4",
          None, "allocs", 0)]),
]

FRAMEWORK = [
    ("Framework", "bench_framework", [
        ("list: first to the end, beside Boost.Intrusive", "ListQueue", "IntrusiveQueue", "ratio", 1.05),
        ("list: one out of the middle to the front, beside the same", "ListExtractAndPush",
         "IntrusiveExtract", "ratio", 1.05),
        ("list: walk over 64, beside the same", "ListWalk", "IntrusiveWalk", "ratio", 1.05),
        ("list: first to the end, in the interrupts-off section", "ListQueueLocked", None, "shown", None),
        ("firing 1 callback beside boost::signals2", "CallbackFire/1", "SignalsFire/1", "times", 5),
        ("firing 5 callbacks beside the same", "CallbackFire/5", "SignalsFire/5", "times", 5),
        ("timer stop and start (a request to another task), 10 armed, beside libuv (one thread)",
         "TimerStartStop/10/real_time", "UvTimerStartStop/10", "ratio", None),
        ("the same, 100 armed", "TimerStartStop/100/real_time", "UvTimerStartStop/100", "ratio", None),
        ("the same, 600 armed", "TimerStartStop/600/real_time", "UvTimerStartStop/600", "ratio", None),
        ("processor time of an expiry, 10 periodic timers of 100 ms, beside libuv",
         "TimerExpiry/10/iterations:4/manual_time", "UvTimerExpiry/10/iterations:4/manual_time",
         "ratio", None),
        ("the same, 100 timers", "TimerExpiry/100/iterations:4/manual_time",
         "UvTimerExpiry/100/iterations:4/manual_time", "ratio", None),
        ("the same, 600 timers", "TimerExpiry/600/iterations:4/manual_time",
         "UvTimerExpiry/600/iterations:4/manual_time", "ratio", None),
        ("command line parsed and run in the sender's task", "CommandInTheSendersTask", None, "shown", None),
        ("command line parsed, dispatched to a task's loop and run", "CommandDispatched", None, "shown",
         None),
        ("deferred call to oneself, pending calls of others: 0", "DeferredBehindPending/0", None,
         "shown", None),
        ("the same, pending calls of others: 100", "DeferredBehindPending/100", None, "shown", None),
        ("the same, pending calls of others: 300", "DeferredBehindPending/300", None, "shown", None),
        ("ModFindByName, the last of 10 modules", "FindByName/10", None, "shown", None),
        ("the last of 100", "FindByName/100", None, "shown", None),
        ("the last of 1,000", "FindByName/1000", None, "shown", None),
        ("the last of 3,900", "FindByName/3900", None, "shown", None),
        ("allocations while firing callbacks", "CallbackFire/5", None, "allocs", 0),
        ("allocations while timers are stopped and started", "TimerStartStop/600/real_time", None,
         "allocs", 0),
        ("allocations while timers expire", "TimerExpiry/600/iterations:4/manual_time", None, "allocs", 0),
        ("allocations while commands run", "CommandDispatched", None, "allocs", 0),
    ]),
    # Two threads on one processor: between two, the machine's own wake-up of the other one takes ten
    # times as long as all the rest, and varies.
    ("Framework: work that crosses tasks, all threads on one processor",
     "taskset -c 0 bench_framework --benchmark_filter=RoundTrip", [
         ("deferred call there and back beside Asio's post", "DeferredRoundTrip/real_time",
          "AsioPostRoundTrip/real_time", "ratio", 1.0),
         ("the same beside GLib's invoke", "DeferredRoundTrip/real_time",
          "GlibInvokeRoundTrip/real_time", "ratio", 1.0),
         ("allocations on the way, both tasks", "DeferredRoundTrip/real_time", None, "allocs", 0),
     ]),
    ("Operating-system services: hand-over, all threads on one processor",
     "taskset -c 0 bench_os --benchmark_filter=RoundTrip", [
         ("event there and back beside a bare mutex and condition", "EventRoundTrip/real_time",
          "BareRoundTrip/real_time", "ratio", 1.15),
         ("the same beside a pair of eventfds", "EventRoundTrip/real_time",
          "EventfdRoundTrip/real_time", "ratio", None),
         ("the same with a time-out armed, beside the bare pair",
          "EventRoundTripWithTimeOut/real_time", "BareRoundTrip/real_time", "ratio", None),
     ]),
]

UPDATE_ROWS = [
    ("use of the line's time, paced at 115200 baud", "line_use", "{:.1%}", "at least 98 %",
     lambda v: v >= 0.98),
    ("start of the process to its first byte", "first_byte_ms", "{:.1f} ms", "under 10 ms",
     lambda v: v < 10),
    ("peak resident memory while updating", "peak_kb", "{:.0f} kB", "under 4096 kB",
     lambda v: v < 4096),
]

LINE_RATE = 115200 / 11  # bytes per second

UNITS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


def medians(bindir, command):
    """Benchmark name -> its median record, with times in nanoseconds. Repetitions of ours and of the
    peers take turns, so that a machine whose speed drifts slows both."""
    words = [str(bindir / word) if word.startswith("bench_") else word for word in command.split()]
    out = subprocess.run(
        words + ["--benchmark_format=json", "--benchmark_repetitions=7",
                 "--benchmark_report_aggregates_only=true", "--benchmark_min_time=0.05",
                 "--benchmark_enable_random_interleaving=true"],
        check=True, capture_output=True, text=True).stdout
    result = {}
    for record in json.loads(out[out.index("{"):])["benchmarks"]:
        if record.get("aggregate_name") == "median":
            record["ns"] = record["real_time"] * UNITS[record["time_unit"]]
            result[re.sub(r"/repeats:\d+", "", record["run_name"])] = record
    return result


def time_text(ns):
    for limit, divisor, unit in ((1e3, 1, "ns"), (1e6, 1e3, "µs"), (1e9, 1e6, "ms")):
        if ns < limit:
            return f"{ns / divisor:.3g} {unit}"
    return f"{ns / 1e9:.3g} s"


def row(found, what, ours, peer, kind, goal):
    if ours not in found or (peer and peer not in found):
        return f"| {what} | not measured | | | | |"
    own, other = found[ours], found.get(peer)
    if kind == "share":
        value = 100 * LINE_RATE / own["bytes_per_second"]
        cells = (f"{1e9 / own['bytes_per_second']:.2f} ns a byte", "", f"{value:.4f} %")
        met, wanted = value < goal, f"under {goal} %"
    elif kind == "times":
        value = other["ns"] / own["ns"]
        cells = (time_text(own["ns"]), time_text(other["ns"]), f"{value:.2f} times")
        met, wanted = value >= (goal or 0), f"at least {goal} times"
    elif kind == "ratio":
        value = own["ns"] / other["ns"]
        cells = (time_text(own["ns"]), time_text(other["ns"]), f"{value:.2f}")
        met, wanted = goal is None or value <= goal, f"at most {goal}"
    elif kind == "allocs":
        cells = (f"{own['allocs']:.0f}", "", "")
        met, wanted = own["allocs"] <= goal, "none"
    else:
        cells = (time_text(own["ns"]), "", "")
        met, wanted = goal is None or own["ns"] <= goal, f"at most {goal} ns"
    if goal is None:
        return f"| {what} | {cells[0]} | {cells[1]} | {cells[2]} | | |"
    return f"| {what} | {cells[0]} | {cells[1]} | {cells[2]} | {wanted} | {'met' if met else 'missed'} |"


def update_table(bindir):
    out = subprocess.run([sys.executable, ROOT / "scripts/update_bench.py", bindir], check=True,
                         capture_output=True, text=True).stdout
    figures = json.loads(out)
    lines = ["## A whole update", "",
             f"Everything updated: {figures['wire_bytes']} bytes on the wire both ways, "
             f"{figures['line_s']:.1f} s of pure line time at 11 bit times a byte, "
             f"{figures['wall_s']:.1f} s in all, 12 s of which are designed pauses.", "",
             "| figure | measured | goal | |", "|---|---|---|---|"]
    for what, key, form, goal, met in UPDATE_ROWS:
        value = figures[key]
        lines.append(f"| {what} | {form.format(value)} | {goal} | {'met' if met(value) else 'missed'} |")
    return lines + [""]


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return f"{model.group(1) if model else platform.machine()}, {platform.system()} {platform.machine()}"


def main():
    bindir = pathlib.Path(sys.argv[1]).resolve()
    lines = ["# Benchmarks", "",
             "Made by `./run bench -- --write`. Every figure is the median of seven repetitions; a peer's",
             "figure comes from the same process. Ratios are what to compare: the machine that made this",
             "page is shared and its speed drifts.", "", f"Machine: {machine()}.", ""]
    lines += update_table(bindir)
    for title, command, rows in TABLES + FRAMEWORK:
        found = medians(bindir, command)
        lines += [f"## {title}", "", "| what | ours | peer | ratio | goal | |",
                  "|---|---|---|---|---|---|"]
        lines += [row(found, *r) for r in rows] + [""]
    notes = ROOT / "scripts/benchmark-notes.md"
    if notes.exists():
        lines += notes.read_text().splitlines()
    page = "\n".join(lines).rstrip() + "\n"
    print(page)
    if "--write" in sys.argv:
        (ROOT / "docs/BENCHMARKS.md").write_text(page)


main()
