#!/usr/bin/env python3
"""Replays the console transcripts of a document and compares what comes out with what they show.

usage: replay.py HARBORSH DOCUMENT

A transcript is a fenced block marked `console` whose commands follow the prompt; a first line that
begins with `$` gives the shell's arguments. All run in one temporary folder, shown as `.`, in which
later ones find what earlier ones left. Addresses, times
and process numbers differ from run to run, so every number of two or more hexadecimal digits
counts as equal to any other, and so does the space around it; in rows that begin with an address
every number does.
"""

import difflib
import re
import shlex
import subprocess
import sys
import tempfile

PROMPT = "harborsh> "


def masked(line):
    if re.match(r"[0-9a-f]{8} ", line):  # a table row that begins with an address: timers
        line = re.sub(r"\b[0-9a-f]*[0-9][0-9a-f]*\b", "00", line)
    line = re.sub(r"\b(0x)?(?=[0-9a-f]*[0-9])[0-9a-f]{2,}\b", "#", line)
    return re.sub(r" *# *", " # ", line).rstrip()


def main():
    harborsh, document = sys.argv[1:]
    with open(document, encoding="utf-8") as file:
        blocks = re.findall(r"^```console\n(.*?)^```$", file.read(), re.M | re.S)
    if not blocks:
        sys.exit(f"{document}: no transcript")
    with tempfile.TemporaryDirectory() as folder:
        for number, block in enumerate(blocks, 1):
            replay(harborsh, document, number, block.splitlines(), folder)
    print(f"{len(blocks)} transcripts agree")


def replay(harborsh, document, number, shown, folder):
    arguments = ["-e"]
    if shown[0].startswith("$"):
        arguments = shlex.split(shown.pop(0))[2:]
    commands = [line[len(PROMPT):] for line in shown if line.startswith(PROMPT)]
    run = subprocess.run([harborsh] + arguments, input="\n".join(commands) + "\n", text=True,
                         cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    printed = [masked(line.replace(folder, ".")) for line in run.stdout.splitlines()]
    wanted = [masked(line) for line in shown]
    if printed != wanted:
        sys.exit("\n".join(difflib.unified_diff(wanted, printed, f"{document}, {number}", "harborsh",
                                               lineterm="")))


if __name__ == "__main__":
    main()
