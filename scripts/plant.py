#!/usr/bin/env python3
"""Plants faults one by one in a copy of the project and says which test notices each.

    scripts/plant.py [--only TEXT] [--limit SECONDS] [FILE...]
    scripts/plant.py --check                                     only whether each can be planted: at once

A FILE (tests/plant/*.txt unless given) has one fault a line: `file | old text | new text | what it is`, with a line break
written \\n, a backslash \\\\ and a bar between blanks \\|. The old text stands exactly once in the file. Lines that begin
with # are comments.

The copy lies in build-plant/ and is built once; the checkout is never changed. For each fault the tests of the folder of
the same name run first, then all, where the machine allows it on a network of their own. A run of tests that takes longer than
the limit has noticed the fault, and a test that takes longer than its own has failed; one that fails once and then passes has
noticed nothing.
"""

import argparse
import os
import re
import signal
import subprocess
import sys
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
COPY = ROOT / "build-plant" / "project"
BUILD = ROOT / "build-plant" / "build"
JOBS = f"-j{os.cpu_count()}"
TEST_JOBS = f"-j{2 * os.cpu_count()}"  # tests wait more than they compute
TEST_LIMIT = "60"  # seconds, of a test without a limit of its own: four times the longest
ALONE = ["unshare", "-n", "sh", "-c", 'ip link set lo up && exec "$@"', "sh"]
FAILED = re.compile(r"^\s+\d+ - (\S+)(?:  # .*)? \((.*)\)$", re.MULTILINE)


@dataclass
class Fault:
    file: str
    old: str
    new: str
    note: str


class Unusable(Exception):
    """A record that plants no fault."""


def read_faults(path):
    unescaped = {"n": "\n", "\\": "\\", "|": "|"}
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        parts = [re.sub(r"\\([n\\|])", lambda m: unescaped[m[1]], part) for part in line.split(" | ")]
        if len(parts) != 4:
            sys.exit(f"{path}:{number}: {len(parts)} parts, not 4")
        yield Fault(*parts)


def copy_project():
    """The tracked files as they are in the checkout; what has not changed keeps its time, so that the build goes on."""
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True, text=True).stdout
    names = {name for name in listed.split("\0") if name and (ROOT / name).is_file()}
    for path in COPY.rglob("*"):
        if path.is_file() and str(path.relative_to(COPY)) not in names:
            path.unlink()
    for name in names:
        source, target = ROOT / name, COPY / name
        if target.is_file() and target.read_bytes() == source.read_bytes():
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(source.read_bytes())
        target.chmod(source.stat().st_mode)


def run(command, limit=None):
    """(exit status, output); the status is None when the time is up, and the command is ended with all that it began."""
    with open(BUILD.parent / "output", "w+", errors="replace") as output:
        process = subprocess.Popen(command, stdout=output, stderr=output, start_new_session=True)
        try:
            status = process.wait(limit)
        except subprocess.TimeoutExpired:
            status = None
        finally:
            if process.poll() is None:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()
        output.seek(0)
        return status, output.read()


def build(target):
    status, output = run(["cmake", "--build", str(BUILD), JOBS, "--target", target])
    if status != 0:
        raise Unusable("does not compile: " + next((line for line in output.splitlines() if "error" in line), "?"))


def failed_test(folder, limit):
    """The test that fails, and fails again; None when all pass."""
    ctest = [*ALONE, "ctest", "--test-dir", str(BUILD / folder), TEST_JOBS, "--timeout", TEST_LIMIT]
    status, output = run(ctest + ["--stop-on-failure"], limit)
    while status != 0:
        if status is None:
            return "no end"
        failed = FAILED.findall(output)
        if not failed or "not_run" in output:
            return f"?{output[-200:]}"
        name = failed[0][0]
        if run(ctest + ["-R", f"^{re.escape(name)}(  #|$)"], limit)[0] != 0:
            return name
        print(f"    {name} failed once", flush=True)
        status, output = run(ctest + ["--stop-on-failure", "-E", f"^{re.escape(name)}(  #|$)"], limit)
    return None


def text_without(fault, folder):
    """The file's text as long as it is sound."""
    path = folder / fault.file
    if not path.is_file():
        raise Unusable("no such file")
    sound = path.read_text()
    if (times := sound.count(fault.old)) != 1:
        raise Unusable(f"the old text stands {times} times")
    return sound


def check(faults):
    unusable = 0
    for fault in faults:
        try:
            text_without(fault, ROOT)
        except Unusable as why:
            unusable += 1
            print(f"UNUSABLE {fault.file}: {fault.note}: {why}")
    return 1 if unusable else 0


def noticed_by(fault, limit):
    """The test that notices a fault; None when none does."""
    path = COPY / fault.file
    sound = text_without(fault, COPY)
    folder = "tests/" + fault.file.split("/")[0]
    try:
        path.write_text(sound.replace(fault.old, fault.new))
        if (COPY / folder / "CMakeLists.txt").is_file():
            build(f"{folder}/all")
            if test := failed_test(folder, limit):
                return test
        build("all")
        return failed_test(".", limit)
    finally:
        path.write_text(sound)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--only", metavar="TEXT", default="", help="faults whose file or description has this")
    parser.add_argument("--limit", metavar="SECONDS", type=float, default=600, help="of each run of tests (600)")
    parser.add_argument("--check", action="store_true", help="plant nothing: does each old text stand once?")
    parser.add_argument("files", metavar="FILE", type=Path, nargs="*")
    options = parser.parse_args()
    files = options.files or sorted((ROOT / "tests" / "plant").glob("*.txt"))
    faults = [fault for path in files for fault in read_faults(path) if options.only in f"{fault.file} {fault.note}"]
    if options.check:
        return check(faults)

    COPY.mkdir(parents=True, exist_ok=True)
    if run([*ALONE, "true"])[0] != 0:
        ALONE.clear()
    copy_project()
    status, output = run(["cmake", "-S", str(COPY), "-B", str(BUILD), "-G", "Ninja", "-DDM_TESTS=ON"])
    if status != 0:
        sys.exit(output)
    build("all")
    if test := failed_test(".", options.limit):
        sys.exit(f"{test} fails without a fault")

    noticed, unusable = 0, 0
    for fault in faults:
        try:
            test = noticed_by(fault, options.limit)
            noticed += test is not None
            print(f"{'noticed' if test else 'MISSED '}  {fault.file}: {fault.note}: {test or '-'}", flush=True)
        except Unusable as why:
            unusable += 1
            print(f"UNUSABLE {fault.file}: {fault.note}: {why}", flush=True)
    planted = len(faults) - unusable
    print(f"noticed {noticed} of {planted} ({100 * noticed / planted if planted else 0:.0f} %), {unusable} unusable")
    return 0 if noticed == len(faults) else 1


if __name__ == "__main__":
    sys.exit(main())
