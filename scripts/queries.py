#!/usr/bin/env python3
"""What the public headers declare, and what is made of it: the list of queries that `dmq call` knows, and docs/queries.md.

usage: queries.py cpp FILE          writes the list as C++
       queries.py docs [PROGRAM]    writes docs/queries.md, and with PROGRAM query/read_rows.inc before it
       queries.py check [PROGRAM]   fails when `docs` would write something else

A query is a function of include/tq_dm_cache/ndm/*.h. The comment above one or more prototypes begins with the question
that they answer; the block at a header's top holds for all of its queries. PROGRAM is query_reads of the tests: it asks every
query over the topologies in examples/ and prints which rows each has read.
"""

import dataclasses
import itertools
import json
import re
import subprocess
import sys
import textwrap
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
HEADERS = ROOT / "include" / "tq_dm_cache" / "ndm"
DOCUMENT = ROOT / "docs" / "queries.md"
READS = ROOT / "query" / "read_rows.inc"
STORE_READS = {"record": "as a record", "object": "as an object", "scan": "by a scan"}
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
    def writes(self):
        """Does it change the store?"""
        return bool(re.search(r"writ\w+ .* into the store", self.comment))

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
        flags = [str(flag).lower() for flag in (query.yes_or_no, query.zero_is_no, query.writes, query.pure)]
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


def traced(program):
    """What query/read_rows.inc is to be: the rows that the queries read."""
    topologies = sorted(path.relative_to(ROOT) for path in (ROOT / "examples").glob("*.json"))
    return subprocess.run([program, *topologies], cwd=ROOT, check=True, text=True, stdout=subprocess.PIPE).stdout


def reads_of_queries():
    """{query: what it reads, as a sentence}"""
    text = READS.read_text()
    kinds = dict(re.findall(r"^//   (\d+) (\S+)$", text, re.MULTILINE))
    return {query: " ".join([*sentences_of(reads.split(", ") if reads else [], kinds), *ends_text(ends)])
            for query, reads, ends in re.findall(r'^\{name\("(\w+)"\), rows\([^)]*\)\},(?:  // )?(.*?)(?:; no: (.*))?$', text, re.MULTILINE)}


def ends_text(ends):
    """Why a query does not answer, as a sentence. Several rows that may lack an object are one reason."""
    if ends == "always":
        return ["It never has an answer."]
    found = [end.split() for end in ends.split(", ")] if ends else []
    rows = {what: sorted((int(row) for kind, *rest in found if kind == what for row in rest)) for what in ("row", "content")}
    whens = ["an argument is refused"] if ["argument"] in found else []
    whens += [f"row {' or '.join(map(str, rows['row']))} has no such object"] if rows["row"] else []
    whens += [f"the content of row {' or '.join(map(str, rows['content']))} says so"] if rows["content"] else []
    return [f"No, or no answer, when {', or '.join(whens)}."] if whens else []


def sentences_of(reads, kinds):
    if not reads:
        return ["Reads no row."]
    cached, stored = {}, []
    for read in reads:
        row, how, *tree = read.split()
        if how in STORE_READS:
            stored.append(f"row {row} {STORE_READS[how]}")
        else:
            text = {"key": "by key", "walk": "object by object", "index": "for the index", "tree": "by"}[how]
            cached.setdefault(row, []).append(text + "".join(f" `{name}`" for name in tree))
    told = [f"row {row} `{kinds[row]}` " + " and ".join(hows) for row, hows in cached.items()]
    return ["Reads " + ", ".join(told) + "."] + (["From the store: " + ", ".join(stored) + "."] if stored else [])


def reads_text(alike, reads):
    """One sentence for all of them, or one each."""
    known = [(query.name, reads[query.name]) for query in alike if query.name in reads]
    if len({sentence for _, sentence in known}) <= 1:
        return textwrap.fill(known[0][1], 120) if known else ""
    return "\n".join(textwrap.fill(f"- `{name}`: r{sentence[1:]}", 120, subsequent_indent="  ") for name, sentence in known)


def document():
    files = files_of_queries()
    reads = reads_of_queries()
    groups = [(header, *block_of(header)) for header in sorted(HEADERS.glob("*.h"))]
    yield "# Queries\n\nEvery question that a client can ask, by the header that declares it; `ndm.h` includes them all. Made of the\n"
    yield "headers by `make docs`. `dmq call FUNCTION ARGS` asks any of them from a command line, `dmq explain FUNCTION ARGS` tells how\n"
    yield "it comes to its answer. Which rows each reads, and when it has no answer, has been found by asking it over the topologies\n"
    yield "of `examples/`: a row that was never empty there is not named as one that lacks an object. A form with\n"
    yield "`rt` or `_rt` reads from the store what is not cached. `dm_cache_follow_for()` enables just these rows. *For the index*: a\n"
    yield "port is found by its numbers only while its static port is cached.\n\n"
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
            if told := reads_text(alike, reads):
                yield "\n" + told + "\n"
            yield "\nIn " + " and ".join(f"`{file}`" for file in answered_in) + ".\n"


def main():
    asked = sys.argv[1:]
    if asked[:1] == ["cpp"] and len(asked) == 2:
        Path(asked[1]).write_text("".join(cpp()))
    elif asked[:1] == ["docs"] and len(asked) <= 2:
        for program in asked[1:]:
            READS.write_text(traced(program))
        DOCUMENT.write_text("".join(document()))
    elif asked[:1] == ["check"] and len(asked) <= 2:
        for program in asked[1:]:
            if READS.read_text() != traced(program):
                sys.exit("query/read_rows.inc is not what the queries read; run make docs")
        if not DOCUMENT.is_file() or DOCUMENT.read_text() != "".join(document()):
            sys.exit("docs/queries.md is not what the headers say; run make docs")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
