#!/usr/bin/env python3
"""What the public headers declare, and what is made of it: the list of queries that `dmq call` knows, and docs/queries.md.

usage: queries.py cpp FILE      writes the list as C++
       queries.py docs          writes docs/queries.md
       queries.py check         fails when docs/queries.md is not what `docs` would write

A query is a function of include/tq_dm_cache/ndm/*.h. The comment above one or more prototypes begins with the question
that they answer; the block at a header's top holds for all of its queries.
"""

import dataclasses
import itertools
import json
import re
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
HEADERS = ROOT / "include" / "tq_dm_cache" / "ndm"
DOCUMENT = ROOT / "docs" / "queries.md"
TOKEN = re.compile(r"/\*(.*?)\*/|//[^\n]*|^#[^\n]*|\bDM_API\s+([^;{]*)[;{]", re.DOTALL | re.MULTILINE)


def comment_lines(text):
    return [re.sub(r"^\s*\* ?", "", line).rstrip() for line in text.strip().splitlines()]


def declarations(header):
    """(comment above it, declaration) of everything that a header declares with DM_API, on one line each."""
    text = header.read_text()
    comment, end = "", 0
    for token in TOKEN.finditer(text):
        if text[end:token.start()].strip():
            comment = ""
        end = token.end()
        if token[2]:
            yield comment, re.sub(r"\bDM_OUT\((\w+)\) ", r"\1 **", " ".join(token[2].split()))
        elif token[1] is not None:
            comment = " ".join(" ".join(comment_lines(token[1])).split())


@dataclasses.dataclass
class Query:
    header: str
    comment: str
    prototype: str

    @property
    def name(self):
        return re.match(r"[^(]*?(\w+)\(", self.prototype)[1]

    @property
    def parameters(self):
        """Their names, separated by blanks."""
        listed = self.prototype.split("(", 1)[1].rstrip(")")
        return " ".join(re.search(r"(\w+)$", one)[1] for one in listed.split(",") if one != "void")

    @property
    def question(self):
        """The comment's first sentence. A point within brackets or a name ends none."""
        return re.match(r".*?[?.:](?= |$)", self.comment)[0]

    @property
    def rest(self):
        return self.comment[len(self.question):].strip()

    @property
    def enumeration(self):
        """The full name of the enumeration whose values the comment speaks of."""
        return next(iter(re.findall(r"\bp_\w+\.\w+_e\b", self.comment)), "")

    @property
    def yes_or_no(self):
        return bool(re.match(r"(Is|Does) ", self.question))

    @property
    def zero_is_no(self):
        """Is 0 the answer when nothing is known, instead of -1?"""
        return self.yes_or_no or bool(re.search(r"\b0 (\(\w+\) )?when it is not", self.comment))

    @property
    def pure(self):
        """Does it need no cache? Its comment says so, or its header's block for all that say nothing else."""
        says = "pure conversion" in block_of(HEADERS / self.header)[1] and not re.search(r"cache|The same\.", self.comment)
        return says or "pure conversion" in self.comment


def read_queries():
    found = [Query(header.name, *declared) for header in sorted(HEADERS.glob("*.h")) for declared in declarations(header)]
    for query in found:
        if not query.comment:
            sys.exit(f"{query.header}: {query.name} says no question")
    return found


def cpp():
    yield "// Made by scripts/queries.py of the headers in include/tq_dm_cache/ndm.\n"
    yield '#include "dmq/call.h"\n#include "tq_dm_cache/ndm.h"\n\nnamespace dmq {\n\nstatic const Query listed[] = {\n'
    for query in read_queries():
        texts = [query.name, query.header, query.prototype, query.question, query.enumeration, query.parameters]
        flags = [str(flag).lower() for flag in (query.yes_or_no, query.zero_is_no, query.pure)]
        yield f"    {{{', '.join([*map(json.dumps, texts), *flags])}, call_of({query.name})}},\n"
    yield "};\n\nconst std::span<const Query> queries = listed;\n\n}  // namespace dmq\n"


def block_of(header):
    """The block of defaults at a header's top: a title, and its paragraphs and lists as Markdown."""
    lines = comment_lines(re.search(r"/\*(.*?)\*/", header.read_text(), re.DOTALL)[1])
    title, _, first = lines[0].partition(": ")
    body = [first[:1].upper() + first[1:], *(line.removeprefix("  ") for line in lines[1:])]
    return title.rstrip("."), "\n".join(body).strip()


def files_of_queries():
    """{query: the file that answers it}"""
    sources = [path for folder in ("query", "port_index") for path in sorted((ROOT / folder).glob("*.cpp"))]
    return {name: path.relative_to(ROOT).as_posix() for path in sources
            for name in re.findall(r"^[\w:]+ \**(_?ndm_\w+|dm_\w+)\(", path.read_text(), re.MULTILINE)}


def document():
    files = files_of_queries()
    groups = [(header, *block_of(header)) for header in sorted(HEADERS.glob("*.h"))]
    yield "# Queries\n\nEvery question that a client can ask, by the header that declares it; `ndm.h` includes them all. Made of the\n"
    yield "headers by `make docs`. `dmq call FUNCTION ARGS` asks any of them from a command line.\n\n"
    for _, title, _ in groups:
        yield f"- [{title}](#{re.sub('[^a-z0-9 -]', '', title.lower()).replace(' ', '-')})\n"
    queries = read_queries()
    for header, title, block in groups:
        yield f"\n## {title}\n\n`ndm/{header.name}`\n\n{block}\n"
        ours = (query for query in queries if query.header == header.name)
        for comment, alike in itertools.groupby(ours, key=lambda query: query.comment):
            alike = list(alike)
            prototypes = "".join(f"{query.prototype};\n" for query in alike)
            yield f"\n### {alike[0].question}\n\n```c\n{prototypes}```\n"
            if alike[0].rest:
                yield "\n" + textwrap.fill(alike[0].rest, 120, break_on_hyphens=False) + "\n"
            answered_in = dict.fromkeys(files[query.name] for query in alike)
            yield "\nIn " + " and ".join(f"`{file}`" for file in answered_in) + ".\n"


def main():
    asked = sys.argv[1:]
    if asked[:1] == ["cpp"] and len(asked) == 2:
        Path(asked[1]).write_text("".join(cpp()))
    elif asked == ["docs"]:
        DOCUMENT.write_text("".join(document()))
    elif asked == ["check"]:
        if not DOCUMENT.is_file() or DOCUMENT.read_text() != "".join(document()):
            sys.exit("docs/queries.md is not what the headers say; run make docs")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
