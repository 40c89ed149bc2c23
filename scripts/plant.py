#!/usr/bin/env python3
"""Plants plausible mistakes into what ships, one at a time, and tells which of them no suite notices.

Works in a copy of the tree under build/plant, never in the tree itself. Which suites reach a line is
measured once per suite and kept; the tests of those suites meet a mistake, quick ones first, until one
fails. The same seed plants the same mistakes in the same sources."""
import argparse
import collections
import concurrent.futures
import errno
import fcntl
import fnmatch
import hashlib
import json
import os
import pathlib
import random
import re
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
WORK = ROOT / "build/plant"
TREE, BUILD, MAP = WORK / "tree", WORK / "made", WORK / "map.json"
SHIPPED = ("Common/", "devlib/", "softupdate/")
GIB = 1 << 30
MARK = ("HARBOR_PLANT", str(os.getpid()))  # in the environment of every process that a test starts
SiteT = collections.namedtuple("SiteT", "file line kind old new")


def stop(why):
    print(f"plant: {why}", file=sys.stderr)
    sys.exit(2)


def instead(table):
    return lambda match, rng: rng.choice(table[match.group()].split(","))


def constant(match, rng):
    value = int(match.group(1).replace("'", ""), 0)
    new = rng.choice([value + 1, value * 2 + 1, value // 10 if value >= 100 else abs(value - 1)])
    return (f"{new:#x}" if match.group(1).startswith("0x") else str(new)) + match.group(2)


def another_result(match, rng):
    value = match.group(1)
    wrong = {"true": "false", "false": "true", "0": "1", "kNoError": "kBadParameter"}
    return f"return {wrong.get(value) or rng.choice(['{}', f'!({value})'])};"


# Kind of mistake -> where it can stand, and what stands there instead.
KINDS = {
    "comparison turned": (r"(?<= )(==|!=|<=|>=|<|>|&&|\|\|)(?= |$)", instead(
        {"==": "!=", "!=": "==", "<": ">=", "<=": ">", ">": "<=", ">=": "<", "&&": "||", "||": "&&"})),
    "bound by one": (r"(?<= )(<=|>=|<|>|[+-] 1|= 0(?=;.*;))(?=[ ;,)\]]|$)", instead(
        {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "+ 1": "+ 0,+ 2", "- 1": "- 0,- 2", "= 0": "= 1"})),
    "operator turned": (r"(?<= )(\+|-|\||&|<<|>>|\+=|-=|\|=|&=)(?= )|\+\+|--|(?<=[ (])!(?=[\w(])", instead(
        {"+": "-", "-": "+", "|": "&", "&": "|", "<<": ">>", ">>": "<<", "+=": "-=,=", "-=": "+=,=",
         "|=": "=,&=", "&=": "=,|=", "++": "--", "--": "++", "!": "!!"})),
    "constant changed": (r"(?<![\w.'])(0x[0-9a-fA-F]+|[0-9][0-9']*)([uUlL]*)(?![\w.'])", constant),
    "return changed": (r"\breturn ([^;{}]+);", another_result),
    "guard left out": (r"(?<=\bif \()(.+)(?=\) \{$)", lambda match, rng: f"false && ({match.group()})"),
    "statement left out": (r"\S.*$", lambda match, rng: ""),
    "arguments swapped": (r"(?<=\w\()([^(),]+), ([^(),]+)(?=[,)])", lambda match, rng: "{1}, {0}".format(
        *match.groups())),
}
NO_STATEMENT = re.compile(r"(return|case|using|typedef|struct|class|friend|extern|template)\b|.*[{}]")


def blanked(text):
    """The text with comments and the insides of strings made blank, every line as long as before."""
    pattern = r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\"|(?<!\w)'(?:\\.|[^'\\\n])*'"
    return re.sub(pattern, lambda match: re.sub(r"[^\n]", " " if match.group()[0] == "/" else "_",
                                                match.group()), text, flags=re.S)


def whole_statement(lines, at):
    before = next((line.strip() for line in reversed(lines[:at]) if line.strip()), "{")
    code = lines[at].strip()
    return (code.endswith(";") and code.count("(") == code.count(")") and not NO_STATEMENT.match(code)
            and before[-1] in ";{}:")


def sites_of(name, executable, rng):
    """Every place of a file for each kind of mistake: constants in any line, the rest where something runs."""
    raw = (ROOT / name).read_text().split("\n")
    plain = blanked("\n".join(raw)).split("\n")
    for at, code in enumerate(plain):
        if not code.strip() or code.lstrip().startswith("#") or "static_assert" in code:
            continue
        for kind, (pattern, replace) in KINDS.items():
            if kind != "constant changed" and at + 1 not in executable:
                continue
            if kind == "statement left out" and not whole_statement(plain, at):
                continue
            for match in re.finditer(pattern, code.rstrip()):
                start, end = match.span()
                if match.group() == raw[at][start:end] or kind == "statement left out":
                    new = raw[at][:start] + replace(match, rng) + raw[at][end:]
                    yield SiteT(name, at + 1, kind, raw[at], new)


def output_of(*command, **options):
    return subprocess.run(command, check=True, capture_output=True, text=True, **options).stdout


def copy_tree():
    """Makes the copy equal to the tree; what an earlier run left planted is overwritten too."""
    listed = output_of("git", "ls-files", "-co", "--exclude-standard", "-z", cwd=ROOT).split("\0")
    wanted = {name for name in listed if name and (ROOT / name).is_file()}
    for path in [p for p in TREE.rglob("*") if p.is_file()]:
        if str(path.relative_to(TREE)) not in wanted:
            path.unlink()
    for name in wanted:
        source, copy = ROOT / name, TREE / name
        if not copy.exists() or copy.read_bytes() != source.read_bytes():
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(source, copy)


def build():
    """What went wrong, or nothing."""
    made = subprocess.run(["cmake", "--build", BUILD], capture_output=True, text=True)
    if "No space left on device" in made.stdout + made.stderr:
        raise OSError(errno.ENOSPC, "")
    return "" if made.returncode == 0 else made.stdout + made.stderr


def all_tests():
    """Suite -> its tests, as CTest knows them; what is no suite of GoogleTest's is one by itself."""
    suites = collections.defaultdict(list)
    for test in json.loads(output_of("ctest", "--test-dir", BUILD, "--show-only=json-v1"))["tests"]:
        program = pathlib.Path(test["command"][0])
        folder = next(p["value"] for p in test["properties"] if p["name"] == "WORKING_DIRECTORY")
        suite = program.name if program.parent == BUILD / "tests" else test["name"]
        suites[suite].append((test["name"], test["command"], folder))
    return suites


def begin_test():
    """In the test's process: a mistake must not fill the disk; if it eats the memory, it goes first."""
    resource.setrlimit(resource.RLIMIT_FSIZE, (GIB // 4, resource.RLIM_INFINITY))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
    pathlib.Path("/proc/self/oom_score_adj").write_text("1000", encoding="ascii")


def end_leftovers():
    """Kills what tests started and left behind."""
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if "=".join(MARK).encode() in (folder / "environ").read_bytes().split(b"\0"):
                os.kill(int(folder.name), signal.SIGKILL)
        except OSError:
            pass


def run_test(test, limit, environment, enough):
    """How a test ended ("passed", "failed", "hung", or "stopped" when `enough` was set), and its seconds."""
    start, outcome = time.monotonic(), None
    child = subprocess.Popen(test[1], cwd=test[2], env=environment, stdin=subprocess.DEVNULL,
                             stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                             start_new_session=True, preexec_fn=begin_test)
    while outcome is None:
        try:
            outcome = "passed" if child.wait(timeout=0.2) == 0 else "failed"
        except subprocess.TimeoutExpired:
            if enough.is_set() or time.monotonic() - start > limit:
                os.killpg(child.pid, signal.SIGKILL)
                child.wait()
                outcome = "stopped" if enough.is_set() else "hung"
    return outcome, time.monotonic() - start


def run_tests(tests, limit_of, counting):
    """Test -> (outcome, seconds). `counting` leaves the lines' counts beside the build and runs all;
    without it the first failure ends the rest."""
    enough, results, scratch = threading.Event(), {}, tempfile.mkdtemp(prefix="plant")
    environment = dict(os.environ, TMPDIR=scratch, **dict([MARK]))
    if not counting:
        environment["GCOV_PREFIX"] = scratch + "/counts"

    def one(test):
        if not enough.is_set():
            results[test[0]] = run_test(test, limit_of(test[0]), environment, enough)
            if not counting and results[test[0]][0] in ("failed", "hung"):
                enough.set()
    try:
        with concurrent.futures.ThreadPoolExecutor(2 * os.cpu_count()) as pool:  # tests mostly wait
            list(pool.map(one, tests))
    finally:
        enough.set()
        end_leftovers()
        shutil.rmtree(scratch, ignore_errors=True)
    return results


def take_counts():
    """File -> {line: how often it ran since the last call}, of what ships."""
    counts, written = collections.defaultdict(collections.Counter), list(BUILD.rglob("*.gcda"))
    shipped = [path for path in written if str(path.relative_to(BUILD)).startswith(SHIPPED)]
    records = output_of("gcov", "--json-format", "--stdout", *shipped, cwd=BUILD) if shipped else ""
    for file in (file for record in records.splitlines() for file in json.loads(record)["files"]):
        if file["file"].startswith(SHIPPED):
            for line in file["lines"]:
                counts[file["file"]][line["line_number"]] += line["count"]
    for path in written:
        path.unlink()
    return counts


def digest(*paths):
    return hashlib.sha256(b"".join(pathlib.Path(path).read_bytes() for path in paths)).hexdigest()


def make_map(suites):
    """Suite -> {"key", "seconds": test -> its time, "failing": tests that fail by themselves,
    "lines": file -> [line, how often it runs]}. A suite whose programs are unchanged is not run again."""
    known, found = json.loads(MAP.read_text()) if MAP.exists() else {}, {}
    programs = digest(*sorted(p for p in (BUILD / "bin").iterdir() if p.is_file()))
    take_counts()
    for name, tests in sorted(suites.items()):
        key = programs + digest(tests[0][1][0])
        if known.get(name, {}).get("key") != key:
            print(f"which lines does {name} reach?", flush=True)
            results = run_tests(tests, lambda _: 300, counting=True)
            known[name] = {"key": key, "seconds": {test: seconds for test, (_, seconds) in results.items()},
                           "failing": [test for test, (outcome, _) in results.items() if outcome != "passed"],
                           "lines": {file: list(lines.items()) for file, lines in take_counts().items()}}
            MAP.write_text(json.dumps(known))
        found[name] = known[name]
    return found


class ReachT:
    """The map, turned round: which tests to run for a line."""
    def __init__(self, suites):
        self.suites, self.seconds, self.failing = suites, {}, set()
        self.executable, self.reaching = collections.defaultdict(set), collections.defaultdict(set)
        for suite, entry in make_map(suites).items():
            self.seconds.update(entry["seconds"])
            self.failing.update(entry["failing"])
            for file, lines in entry["lines"].items():
                for line, count in lines:
                    self.executable[file].add(line)
                    if count:
                        self.reaching[file].add(suite)
                        self.reaching[file, line].add(suite)

    def tests(self, site):
        """Quick ones first. A line that no suite is known to reach (it declares something, or its
        process ended without counts) is met by all that reach its file."""
        names = self.reaching.get((site.file, site.line)) or self.reaching[site.file]
        tests = [test for name in names for test in self.suites[name] if test[0] not in self.failing]
        return sorted(tests, key=lambda test: self.seconds[test[0]])


def draws(files, reach, rng):
    """Mistakes until none is left: first a kind, then a place of that kind."""
    by_kind = collections.defaultdict(list)
    for site in (site for name in files for site in sites_of(name, reach.executable[name], rng)):
        by_kind[site.kind].append(site)
    for places in by_kind.values():
        rng.shuffle(places)
    while kinds := [kind for kind in KINDS if by_kind[kind]]:
        yield by_kind[rng.choice(kinds)].pop()


def plant(site, reach):
    """"uncompiled", "failed NAME", "hung NAME" or "passed"."""
    path = TREE / site.file
    original = path.read_text()
    lines = original.split("\n")
    lines[site.line - 1] = site.new
    path.write_text("\n".join(lines))
    try:
        if build():
            return "uncompiled"
        results = run_tests(reach.tests(site), lambda name: 30 + 10 * reach.seconds[name], counting=False)
        return next((f"{outcome} {name}" for name, (outcome, _) in results.items()
                     if outcome in ("failed", "hung")), "passed")
    finally:
        path.write_text(original)


def shown(site):
    return f"{site.file}:{site.line}: {site.kind}\n    - {site.old.strip()}\n    + {site.new.strip()}"


def campaign(options, files, reach):
    if reach.failing:
        print("fail by themselves and are left out:", *sorted(reach.failing))
    counts, unnoticed, start = collections.Counter(), [], time.monotonic()
    for site in draws(files, reach, random.Random(options.seed)):
        if counts["planted"] == options.count:
            break
        outcome, _, by = plant(site, reach).partition(" ")
        counts[outcome] += 1
        if outcome != "uncompiled":
            counts["planted"] += 1
            print(f"[{counts['planted']}/{options.count}] {shown(site)}\n    "
                  f"{f'{outcome}: {by}' if by else 'NOT NOTICED'}", flush=True)
        if outcome == "passed":
            unnoticed.append(shown(site))
    if unnoticed:
        print("\nNoticed by no suite:", *unnoticed, sep="\n")
    print(f"\nplanted {counts['planted']}: noticed {counts['failed'] + counts['hung']} ({counts['hung']} by a "
          f"hang), not noticed {counts['passed']}. Drawn again because they did not compile: "
          f"{counts['uncompiled']}. Seed {options.seed}, {time.monotonic() - start:.0f} s.")


def number(text):
    if not text.isdecimal():
        raise argparse.ArgumentTypeError(f"'{text}' is not a number")
    return int(text)


def main():
    parser = argparse.ArgumentParser(prog="run plant", description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("count", metavar="N", nargs="?", type=number, default=20, help="how many (20)")
    parser.add_argument("--seed", type=number, default=1, help="where the draws begin (1)")
    parser.add_argument("--files", metavar="GLOB", action="append",
                        help="only in these, such as 'Common/framework/*'; may be repeated")
    options = parser.parse_args()
    files = [name for name in output_of("git", "ls-files", "*.cpp", "*.h", cwd=ROOT).split()
             if name.startswith(SHIPPED) and any(fnmatch.fnmatch(name, g) for g in options.files or ["*"])]
    if not files:
        stop(f"nothing that ships matches {' '.join(options.files)}")
    WORK.mkdir(parents=True, exist_ok=True)
    if shutil.disk_usage(WORK).free < GIB:
        raise OSError(errno.ENOSPC, "")
    lock = open(WORK / "lock", "w", encoding="ascii")  # held until the end
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        stop("another run is at work in this tree")
    copy_tree()
    # The one number makes programs that differ in nothing the same bytes.
    output_of("cmake", "-S", TREE, "-B", BUILD, "-G", "Ninja", "-DHARBOR_WERROR=OFF",
              "-DCMAKE_CXX_FLAGS=--coverage -fprofile-update=atomic -frandom-seed=1",
              "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1 -g1")
    if wrong := build():
        stop("the tree as it is does not build:\n" + wrong[-2000:])
    reach = ReachT(all_tests())
    campaign(options, [name for name in files if reach.executable[name]], reach)


try:
    main()
except OSError as failure:
    if failure.errno != errno.ENOSPC:
        raise
    stop(f"no space for the copy and its build ({WORK}, 1 GiB)")
except KeyboardInterrupt:
    sys.exit(130)
