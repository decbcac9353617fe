"""What a reader would lose: commands in README.md and docs/ print what stands there. Usage: readme_test.py BUILD-FOLDER ROOT

In a ```console block each line `$ COMMAND` is run at the project's root; what it prints must be the lines below it, where
`...` leaves lines out. Times of day, how long a wait has lasted and the milliseconds at the end of a row of `sync` are
whatever they are.
"""

import re
import subprocess
import sys
from pathlib import Path

build, root = Path(sys.argv[1]).resolve(), Path(sys.argv[2])


def steady(text):
    text = re.sub(r"^\d\d:\d\d:\d\d\.\d{3} ", "HH:MM:SS.mmm ", text, flags=re.MULTILINE)
    text = re.sub(r" for \d+\.\d s\b", " for S.s s", text)
    text = re.sub(r" +MS$", " MS", text, flags=re.MULTILINE)
    return re.sub(r"^( *\d+  p_dev\..*  yes .*?) +\d+$", r"\1 MS", text, flags=re.MULTILINE)


def holds(expected, printed):
    parts = [re.escape(part) for part in re.split(r"^\.\.\.\n", steady(expected), flags=re.MULTILINE)]
    return re.fullmatch(r"(?:.*\n)*?".join(parts), steady(printed)) is not None


failed = run = 0
documents = [root / "README.md", *sorted((root / "docs").glob("*.md"))]
blocks = [(doc.name, text) for doc in documents for text in re.findall(r"```console\n(.*?)```", doc.read_text(), re.DOTALL)]
for name, block in blocks:
    for command, expected in re.findall(r"^\$ (.*)\n((?:(?!\$ ).*\n)*)", block, re.MULTILINE):
        here = re.sub(r"\bbuild/", f"{build}/", command)
        done = subprocess.run(here, shell=True, cwd=root, text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, timeout=60)
        run += 1
        if not holds(expected, done.stdout):
            failed += 1
            print(f"{name}: $ {command}\nprints (exit code {done.returncode})\n{done.stdout}\nnot\n{expected}")
sys.exit(1 if failed or run == 0 else 0)
