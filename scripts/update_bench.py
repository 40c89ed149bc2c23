#!/usr/bin/env python3
"""A whole update on a line paced at 115200 baud, the time from start to first byte, and the peak
resident memory. Usage: update_bench.py BINDIR; prints one JSON object."""
import json
import os
import pathlib
import pty
import select
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import tty

BAUD = 115200
BITS_PER_BYTE = 11  # start, 8 data, even parity, stop
# Designed pauses of a run that updates everything: after the device-type request, after the
# flash-mode request, after the camera update, and after the microcontroller's.
PAUSES = 4 * 3.0
IMAGES = {"kestrelmicro.bin": 6144, "overlookcam.bin": 250000, "overlooksys.bin": 150000}


def make_images(folder):
    for name, size in IMAGES.items():
        (folder / name).write_bytes(b"\x21" + os.urandom(size - 1))
    (folder / "overlookcamver").write_text("0102\n")
    (folder / "overlooksysver").write_text("0304\n")


def peak_resident_kb(pid):
    try:
        for line in pathlib.Path(f"/proc/{pid}/status").read_text().splitlines():
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    except OSError:
        pass
    return 0


def run_update(bindir, work):
    """Returns (wall seconds, bytes on the wire both ways, peak resident kB)."""
    images = work / "images"
    images.mkdir()
    make_images(images)
    log = work / "events.jsonl"
    simulator = subprocess.Popen(
        [bindir / "kestrelsim", "--dir", work / "dev", "--state", work / "unit", "--images", images,
         "--micro-version", "0x20", "--camera-version", "0101", "--system-version", "0303",
         "--baud", str(BAUD), "--log", log], stdout=subprocess.PIPE, text=True)
    simulator.stdout.readline()
    environment = dict(os.environ, HARBOR_DEV_DIR=str(work / "dev"))
    start = time.monotonic()
    updater = subprocess.Popen([bindir / "kestrelflash", "all"], cwd=images, env=environment,
                               stdout=subprocess.DEVNULL)
    peak = 0
    while updater.poll() is None:
        peak = max(peak, peak_resident_kb(updater.pid))
        time.sleep(0.02)
    wall = time.monotonic() - start
    simulator.terminate()
    simulator.communicate()
    if updater.returncode != 0 or simulator.returncode != 0:
        sys.exit(f"update failed: {updater.returncode}, simulator {simulator.returncode}")
    wire = sum(len(event["bytes"]) // 2 for event in map(json.loads, log.open())
               if event.get("bytes"))
    return wall, wire, peak


def first_byte_ms(bindir, work):
    """Milliseconds from starting the process to its first byte on a line."""
    master, slave = pty.openpty()
    tty.setraw(slave)
    folder = work / "first"
    folder.mkdir(exist_ok=True)
    node = folder / "fpgaserial1"
    if node.is_symlink():
        node.unlink()
    node.symlink_to(os.ttyname(slave))
    environment = dict(os.environ, HARBOR_DEV_DIR=str(folder))
    start = time.monotonic()
    updater = subprocess.Popen([bindir / "kestrelflash", "micro", "q"], cwd=folder,
                               env=environment, stdout=subprocess.DEVNULL)
    select.select([master], [], [], 10)
    elapsed = (time.monotonic() - start) * 1000
    updater.wait()
    os.close(master)
    os.close(slave)
    return elapsed


def main():
    bindir = pathlib.Path(sys.argv[1]).resolve()
    work = pathlib.Path(tempfile.mkdtemp())
    try:
        first = statistics.median(first_byte_ms(bindir, work) for _ in range(11))
        wall, wire, peak = run_update(bindir, work)
        line_time = wire * BITS_PER_BYTE / BAUD
        print(json.dumps({"first_byte_ms": first, "wall_s": wall, "wire_bytes": wire,
                          "line_s": line_time, "line_use": line_time / (wall - PAUSES),
                          "peak_kb": peak}))
    finally:
        shutil.rmtree(work)


main()
