#!/usr/bin/env python3
"""Checks what the documents quote: links lead to files, a quoted file is quoted as it is, and a test that is named, as
`Suite.Name`, is there.

A fenced block whose line before it is `<!-- the file PATH -->` holds that file; after `<!-- from PATH -->` its lines stand
together in that file, a line `...` leaving some out.
"""

import re
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
LINK = re.compile(r"\[[^\]]*\]\(([^)#:\s]+)(?:#[^)]*)?\)")
TEST = re.compile(r"`([A-Z]\w+)\.([A-Z]\w+)`")
DEFINED = re.compile(r"^TEST(?:_[FP])?\((\w+), (\w+)\)", re.MULTILINE)
QUOTE = re.compile(r"<!-- (the file|from) (\S+) -->\n```\w*\n(.*?)```", re.DOTALL)


def quoted_as_it_is(kind, quote, text):
    if kind == "the file":
        return quote == text
    at = 0
    for part in re.split(r"^\.\.\.\n", quote, flags=re.MULTILINE):
        found = ("\n" + text).find("\n" + part, at)
        if found < 0:
            return False
        at = found + len(part)
    return True


def tests():
    return {test for file in (ROOT / "tests").rglob("*.cpp") for test in DEFINED.findall(file.read_text())}


def faults_of(document, known_tests):
    text = document.read_text()
    name = document.relative_to(ROOT)
    for link in LINK.findall(text):
        if not (document.parent / link).exists():
            yield f"{name}: the link to {link} leads nowhere"
    for suite, test in TEST.findall(text):
        if (suite, test) not in known_tests:
            yield f"{name}: there is no test {suite}.{test}"
    for kind, path, quote in QUOTE.findall(text):
        source = ROOT / path
        if not source.is_file():
            yield f"{name}: quotes {path}, which is not there"
        elif not quoted_as_it_is(kind, quote, source.read_text()):
            yield f"{name}: what it quotes from {path} is not what stands there"


def main():
    listed = ["git", "ls-files", "--cached", "--others", "--exclude-standard", "*.md"]
    documents = subprocess.run(listed, cwd=ROOT, check=True, text=True, capture_output=True).stdout.split()
    known_tests = tests()
    faults = [fault for name in documents if (ROOT / name).is_file() for fault in faults_of(ROOT / name, known_tests)]
    print("\n".join(faults) if faults else f"documents: {len(documents)} files")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
