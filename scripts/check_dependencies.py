#!/usr/bin/env python3
"""Checks every #include against the table "Who may use what" of docs/architecture.md.

A row names a folder, the folders whose headers it may include, and the libraries beside the C, C++ and POSIX headers. A
folder without a row may not hold sources.
"""

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
TABLE = ROOT / "docs" / "architecture.md"
INCLUDE = re.compile(r'^\s*#\s*include\s*(?:"([^"]+)"|<([^>]+)>)', re.MULTILINE)
SYSTEM = ("sys/", "linux/", "arpa/", "net/", "netinet/", "bits/")


def read_table():
    """{folder: (folders it may use, library header prefixes)}"""
    section = TABLE.read_text().split("## Who may use what", 1)[-1].split("\n## ", 1)[0]
    rows = {}
    for line in section.splitlines():
        cells = [re.findall(r"`([^`]+)`", cell) for cell in line.strip().strip("|").split("|")]
        if line.startswith("|") and len(cells) == 4 and cells[0]:
            rows[cells[0][0]] = (set(cells[2]), tuple(cells[3]))
    return rows


def folder_of(path, rows):
    return next((name for name in sorted(rows, key=len, reverse=True) if path.startswith(name + "/")), None)


def included_folder(source, header, rows):
    """The folder that a quoted header belongs to, None for one that is not in the tree."""
    if header.startswith("tq_dm_cache/"):
        return "include/tq_dm_cache"  # the generated headers are public too
    for base in (ROOT, ROOT / "include", (ROOT / source).parent):
        if (base / header).is_file():
            return folder_of((base / header).resolve().relative_to(ROOT).as_posix(), rows)
    return None


def faults_of(source, rows, libraries):
    own = folder_of(source, rows)
    if own is None:
        yield f"{source}: its folder has no row in docs/architecture.md"
        return
    folders, own_libraries = rows[own]
    text = (ROOT / source).read_text()
    for match in INCLUDE.finditer(text):
        quoted, angled = match.groups()
        at = f"{source}:{text.count(chr(10), 0, match.start(1 if quoted else 2)) + 1}"
        if quoted:
            used = included_folder(source, quoted, rows)
            if used is not None and used != own and used not in folders:
                yield f'{at}: {own} may not use {used} ("{quoted}")'
        elif angled.startswith(own_libraries or ("\0",)):
            continue
        elif angled.startswith(libraries) or (("/" in angled or angled.endswith(".hpp")) and not angled.startswith(SYSTEM)):
            yield f"{at}: {own} may not use the library of <{angled}>"


def main():
    rows = read_table()
    if not rows:
        sys.exit("check_dependencies: no table in docs/architecture.md")
    unknown = {name for folders, _ in rows.values() for name in folders} - set(rows)
    faults = [f"docs/architecture.md: no row for {name}" for name in sorted(unknown)]
    libraries = tuple(prefix for _, prefixes in rows.values() for prefix in prefixes)
    listed = ["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.c", "*.cpp", "*.h", "*.hpp"]
    sources = sorted(subprocess.run(listed, cwd=ROOT, check=True, text=True, capture_output=True).stdout.split())
    sources = [source for source in sources if (ROOT / source).is_file()]
    for source in sources:
        faults += faults_of(source, rows, libraries)
    print("\n".join(faults) if faults else f"includes: {len(sources)} files, {len(rows)} folders, as docs/architecture.md says")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
