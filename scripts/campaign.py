"""What the fault campaigns share: a simulated unit with images of its own, runs that leave nothing
behind, and the tables that the campaigns keep in docs/FAULTS.md."""
import dataclasses
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
import uuid

IMAGES = ("kestrelmicro.bin", "overlookcam.bin", "overlooksys.bin")
LOCKED = 119  # the launcher's status where another run has the unit
MARK = "HARBOR_CAMPAIGN"  # in the environment of everything that a run starts
FAULTS_PAGE = pathlib.Path(__file__).resolve().parent.parent / "docs" / "FAULTS.md"


def fail(text):
    """Ends the campaign: it has no result."""
    sys.exit(f"{pathlib.Path(sys.argv[0]).name}: {text}")


def positive(text):
    """An argument that is a whole number above 0."""
    number = int(text)
    if number <= 0:
        raise ValueError
    return number


@dataclasses.dataclass
class Result:
    """How one program ended. status is None when it was still running at the limit."""
    status: int | None
    output: str
    seconds: float
    left: list[str]

    @property
    def crashed(self):
        return self.status is not None and self.status < 0


class Unit:
    """A folder of images, a simulated unit with older firmware, and a place for temporary files."""

    def __init__(self, binaries, seed=0, sizes=(700, 65000, 300)):
        self.binaries = pathlib.Path(binaries)
        self.root = pathlib.Path(tempfile.mkdtemp(prefix="campaign-"))
        self.images, self.state, self.dev, self.temporary = (
            self.root / name for name in ("images", "state", "dev", "tmp"))
        for folder in (self.images, self.state, self.temporary):
            folder.mkdir()
        self.mark = uuid.uuid4().hex
        self.simulator = None
        rng = random.Random(seed)
        for name, size in zip(IMAGES, sizes):
            # Every eighth byte needs stuffing.
            body = bytearray(rng.choice((0xFE, 0xFF)) if rng.random() < 0.125 else rng.randrange(256)
                             for _ in range(size))
            body[0] = 0x21
            (self.images / name).write_bytes(body)
        (self.images / "overlookcamver").write_text("0102\n")
        (self.images / "overlooksysver").write_text("0304\n")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()
        self.kill_left()
        shutil.rmtree(self.root, ignore_errors=True)

    def environment(self, more=None):
        return {**os.environ, "HARBOR_DEV_DIR": str(self.dev), "HARBOR_DELAY_PERCENT": "0",
                "TMPDIR": str(self.temporary), "XDG_RUNTIME_DIR": str(self.temporary), MARK: self.mark,
                **(more or {})}

    def simulator_command(self, *more):
        return [str(self.binaries / "kestrelsim"), "--dir", str(self.dev), "--state", str(self.state),
                "--images", str(self.images), *more]

    def start(self, *more, environment=None):
        """Starts the simulator and waits for its nodes."""
        versions = () if (self.state / "versions.json").exists() else (
            "--micro-version", "0x20", "--camera-version", "0101", "--system-version", "0303")
        log = open(self.root / "simulator.out", "wb")
        self.simulator = subprocess.Popen(self.simulator_command(*versions, *more), stdout=log,
                                          stderr=subprocess.STDOUT,
                                          env=self.environment(environment))
        log.close()
        limit = time.monotonic() + 30
        while "ready in" not in self.simulator_output():
            if self.simulator.poll() is not None or time.monotonic() > limit:
                return False
            time.sleep(0.002)
        return True

    def simulator_output(self):
        return (self.root / "simulator.out").read_text(errors="replace")

    def stop(self):
        """Ends the simulator; its exit status, None when none ran."""
        if self.simulator is None:
            return None
        if self.simulator.poll() is None:
            self.simulator.terminate()
        try:
            return self.simulator.wait(20)
        except subprocess.TimeoutExpired:
            self.simulator.kill()
            self.simulator.wait()
            return None
        finally:
            self.simulator = None

    def correct(self):
        """True when the unit holds exactly what the files offer."""
        return all((self.state / name).exists() and
                   (self.state / name).read_bytes() == (self.images / name).read_bytes()
                   for name in IMAGES)

    def processes(self):
        """What still runs of this unit's runs, simulator apart: pid and name."""
        found = []
        needle = f"{MARK}={self.mark}".encode()
        for entry in os.scandir("/proc"):
            if not entry.name.isdigit():
                continue
            try:
                if needle not in pathlib.Path(entry.path, "environ").read_bytes():
                    continue
                name = pathlib.Path(entry.path, "comm").read_text().strip()
                state = pathlib.Path(entry.path, "stat").read_text().rsplit(")", 1)[1].split()[0]
            except OSError:
                continue
            if state != "Z" and (self.simulator is None or int(entry.name) != self.simulator.pid):
                found.append((int(entry.name), name))
        return found

    def all_ended(self, limit):
        """Waits until nothing of this unit's runs is left, for at most so many seconds."""
        end = time.monotonic() + limit
        while self.processes():
            if time.monotonic() > end:
                return False
            time.sleep(0.005)
        return True

    def kill_left(self, name=None):
        """Kills all that runs of this unit's runs; with a name, once, what bears it."""
        while found := [pid for pid, it in self.processes() if name in (None, it)]:
            for pid in found:
                try:
                    os.kill(pid, signal.SIGKILL)
                except OSError:
                    pass
            if name:
                return

    def run(self, command, environment=None, limit=60, stdin=None, grace=5.0):
        """Runs a program in the images' folder to its end; notes what it leaves behind."""
        began = time.monotonic()
        with open(self.root / "program.out", "wb") as out:
            process = subprocess.Popen(command, cwd=self.images, stdout=out,
                                       stderr=subprocess.STDOUT, stdin=stdin or subprocess.DEVNULL,
                                       env=self.environment(environment))
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                status = None
        seconds = time.monotonic() - began
        left = self.left_behind(grace if status is not None else 0)
        self.kill_left()
        process.wait()
        output = (self.root / "program.out").read_text(errors="replace")
        return Result(status, output, seconds, left)

    def run_patiently(self, command, limit, tries=5):
        """The launcher, again where something outside the unit kept it from its end: another unit's lock
        (terminals' numbers are reused at once), or an answer that a busy machine passed on too late."""
        end = time.monotonic() + limit
        while True:
            result = self.run(command, limit=limit)
            missed = re.search("no answer|not acknowledged", result.output)
            tries -= bool(missed)
            if tries == 0 or time.monotonic() > end or \
                    (result.status != LOCKED and not missed):
                return result
            time.sleep(0.3)

    def left_behind(self, grace):
        """Processes and temporary files that are still there after a while of grace in seconds."""
        limit = time.monotonic() + grace
        while True:
            left = [f"process {name}" for _, name in self.processes()]
            # os.walk passes over what goes meanwhile.
            left += [f"file {pathlib.Path(folder, name).relative_to(self.temporary)}"
                     for folder, folders, files in os.walk(self.temporary)
                     for name in folders + files if not name.endswith(".lock")]
            if not left or time.monotonic() >= limit:
                return left
            time.sleep(0.01)


def commit():
    """The commit that is tested, with a mark where the tree differs from it."""
    def git(*words):
        return subprocess.run(("git", *words), capture_output=True, text=True,
                              cwd=FAULTS_PAGE.parent).stdout.strip()
    return git("rev-parse", "--short", "HEAD") + ("+" if git("status", "--porcelain", "..", ":!FAULTS.md") else "")


def keep(section, lines):
    """Replaces the section between its two marks in docs/FAULTS.md."""
    begin, end = f"<!-- {section} -->", f"<!-- end of {section} -->"
    text = FAULTS_PAGE.read_text()
    if begin not in text or end not in text:
        fail(f"docs/FAULTS.md has no section {section}")
    head, rest = text.split(begin, 1)
    FAULTS_PAGE.write_text(head + begin + "\n" + "\n".join(lines) + "\n" + end + rest.split(end, 1)[1])
