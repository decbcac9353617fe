#!/usr/bin/env python3
"""The names that a library of this project exports, made from the public headers and the .proto files.

usage: exported_symbols.py {cache,platform} [--check LIBRARY] [--nm NM]

Prints them, sorted: what a header declares with DM_API, and for the cache library what protoc-c makes of each message
and enumeration. With --check it prints instead what LIBRARY lacks (-) and what it exports beyond them (+), and fails if
there is any. Weak C++ names are left out of that: they are templates of the standard library that an unoptimised build
has not inlined.
"""

import argparse
import pathlib
import re
import subprocess
import sys

sys.dont_write_bytecode = True  # nothing is left beside the scripts
import queries

ROOT = pathlib.Path(__file__).resolve().parent.parent
HEADERS = {"cache": ("dm_*.h", "ndm.h", "ndm/*.h"), "platform": ("tq_platform*.h",)}
GENERATED = {
    "message": ("descriptor", "init", "field_descriptors", "field_indices_by_name", "number_ranges"),
    "enum": ("descriptor", "enum_values_by_number", "enum_values_by_name", "value_ranges"),
}
LINKER = {"_init", "_fini", "_edata", "_end", "__bss_start"}


def declared(header):
    """The names that a header declares with DM_API."""
    for _, declaration in queries.declarations(header):
        datum = re.fullmatch(r"extern\s+[\w\s*]*?(\w+)\s*(?:\[[^\]]*\]\s*)*", declaration)
        function = re.match(r"[\w\s*]*?(\w+)\s*\((?!\*)", declaration)
        if not (datum or function):
            sys.exit(f"{header}: not understood: {declaration}")
        yield (datum or function)[1]


def generated(proto):
    """The names that protoc-c makes of a .proto whose own names are in lower case."""
    for kind, name in re.findall(r"^(message|enum) (\w+) \{", proto.read_text(), re.M):
        for suffix in GENERATED[kind]:
            yield f"{proto.stem}__{name}__{suffix}"


def expected(library):
    include = ROOT / "include" / "tq_dm_cache"
    names = {name for glob in HEADERS[library] for header in include.glob(glob) for name in declared(header)}
    if library == "cache":
        names |= {name for proto in (ROOT / "schema").glob("*.proto") for name in generated(proto)}
    return names


def exported(library, nm):
    output = subprocess.run([nm, "-D", "--defined-only", library], check=True, capture_output=True, text=True).stdout
    for line in output.splitlines():
        *_, kind, name = line.split()
        name = name.split("@")[0]
        if name not in LINKER and not (kind in "WVu" and name.startswith("_Z")):
            yield name


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("library", choices=HEADERS)
    parser.add_argument("--check")
    parser.add_argument("--nm", default="nm")
    arguments = parser.parse_args()
    wanted = expected(arguments.library)
    if not arguments.check:
        print("\n".join(sorted(wanted)))
        return 0
    found = set(exported(arguments.check, arguments.nm))
    for name in sorted(wanted ^ found):
        print("-" if name in wanted else "+", name)
    return 1 if wanted != found else 0


sys.exit(main())
