#!/usr/bin/env python3
"""What the cache library asks of the process that loads it.

A client on a small device loads it without the C++ run-time library: one call that pulls that in, and no process of
such a device starts any more.
usage: library_needs.py LIBRARY NAMES [--nm NM] [--readelf READELF]
"""

import argparse
import fnmatch
import pathlib
import re
import subprocess
import sys

LIBRARIES = {"libprotobuf-c.so.1", "libtq_platform.so.1", "libc.so.6"}


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


parser = argparse.ArgumentParser()
parser.add_argument("library")
parser.add_argument("names", type=pathlib.Path)
parser.add_argument("--nm", default="nm")
parser.add_argument("--readelf", default="readelf")
arguments = parser.parse_args()

needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", output(arguments.readelf, "-dW", arguments.library)))
loader = {name for name in needed if name.startswith("ld-linux")}
problems = [f"library {name}" for name in sorted((needed - loader) ^ LIBRARIES)]

patterns = [line.split("#")[0].strip() for line in arguments.names.read_text().splitlines()]
for line in output(arguments.nm, "-D", "--undefined-only", arguments.library).splitlines():
    name = line.split()[-1].split("@")[0]
    if not any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
        problems.append(f"name {name}")

print("\n".join(problems))
sys.exit(1 if problems else 0)
