#!/usr/bin/env python3
"""A shared library as the loader meets it, and what it asks of the process that loads it.

Hardened start-up: its own name, relocations done and write-protected before any code runs, none in the code itself, no
executable stack. With NAMES also its needs: a client on a small device loads the cache library without the C++ run-time
library, and one call that pulls that in means that no process of such a device starts any more.
usage: shared_object.py LIBRARY [NAMES] [--nm NM] [--readelf READELF]
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


def start_up(library, elf):
    stack = re.search(r"GNU_STACK.* ([RWE ]{3}) 0x", elf)
    holds = {
        "a SONAME of one number": re.search(r"\(SONAME\).*\[" + re.escape(library.name.split(".so")[0]) + r"\.so\.1\]", elf),
        "a write-protected part": re.search(r"^ *GNU_RELRO", elf, re.M),
        "relocations done at start": re.search(r"\(FLAGS\).*BIND_NOW|\(FLAGS_1\).*NOW|\(BIND_NOW\)", elf),
        "code without relocations": "TEXTREL" not in elf,
        "a stack that holds no code": stack and "E" not in stack[1],
    }
    return [f"not there: {what}" for what, there in holds.items() if not there]


def needs(library, elf, names, nm):
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", elf))
    loader = {name for name in needed if name.startswith("ld-linux")}
    problems = [f"library {name}" for name in sorted((needed - loader) ^ LIBRARIES)]
    patterns = [line.split("#")[0].strip() for line in names.read_text().splitlines()]
    for line in output(nm, "-D", "--undefined-only", library).splitlines():
        name = line.split()[-1].split("@")[0]
        if not any(fnmatch.fnmatchcase(name, pattern) for pattern in patterns):
            problems.append(f"name {name}")
    return problems


parser = argparse.ArgumentParser()
parser.add_argument("library", type=pathlib.Path)
parser.add_argument("names", type=pathlib.Path, nargs="?")
parser.add_argument("--nm", default="nm")
parser.add_argument("--readelf", default="readelf")
arguments = parser.parse_args()

elf = output(arguments.readelf, "-dlW", arguments.library)
problems = start_up(arguments.library, elf)
if arguments.names:
    problems += needs(arguments.library, elf, arguments.names, arguments.nm)
print("\n".join(problems))
sys.exit(1 if problems else 0)
