#!/usr/bin/env python3
"""How large the stripped cache library is, beside a library of its messages alone from the same build.

usage: library_size.py BUILD [--strip STRIP] [--limit]    --limit: fails above 420 KB or 1.35 times the messages alone
"""

import argparse
import pathlib
import subprocess
import sys
import tempfile

KB_LIMIT, RATIO_LIMIT = 420, 1.35

parser = argparse.ArgumentParser()
parser.add_argument("build", type=pathlib.Path)
parser.add_argument("--strip", default="strip")
parser.add_argument("--limit", action="store_true")
arguments = parser.parse_args()


def stripped_kb(library):
    with tempfile.NamedTemporaryFile() as out:
        subprocess.run([arguments.strip, "-o", out.name, arguments.build / library], check=True)
        return pathlib.Path(out.name).stat().st_size / 1024


whole = stripped_kb("products/libtq_dm_cache_essence.so")
messages = stripped_kb("tests/products/libschema_alone.so")
print(f"{arguments.build}: cache library {whole:.0f} KB, its messages alone {messages:.0f} KB, ratio {whole / messages:.2f}")
if arguments.limit and (whole > KB_LIMIT or whole / messages > RATIO_LIMIT):
    sys.exit(f"more than {KB_LIMIT} KB, or than {RATIO_LIMIT} times the messages alone")
