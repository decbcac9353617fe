#!/usr/bin/env python3
"""Gives the descriptors that protoc-c generates their extra words, and writes the tables that schema.cpp searches.

usage: descriptor_words.py [--tables-only] PROTO_DIR RAW_DIR OUT_DIR PACKAGE...

Reads RAW_DIR/PACKAGE.pb-c.{c,h} as protoc-c wrote them; writes OUT_DIR/PACKAGE.pb-c.c, OUT_DIR/tq_dm_cache/PACKAGE.pb-c.h
and OUT_DIR/schema_tables.c. The words go where the stock records have room that the run-time never reads: the lengths of
the package's and the message's name into the reserved slots of a message, the key mark into the reserved flags of a
field. The arrays behind a descriptor become visible to other files, and the five helper functions of each message go.

Every line of a source is recognised, or the step fails and names the line: a generator that writes something else must
not pass unnoticed. The numbers of messages, fields, enumerations and values are checked against the .proto.
With --tables-only sources and headers stay as they are.
"""

import collections
import pathlib
import re
import sys

WORDS = """
/* Two 32-bit words behind message_init: the lengths of the package's name and of the message's. */
#if __SIZEOF_POINTER__ == 4
#define DM_WORDS(package, message) (void *) (package), (void *) (message), NULL
#elif __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define DM_WORDS(package, message) (void *) ((uintptr_t) (package) | (uintptr_t) (message) << 32), NULL, NULL
#else
#define DM_WORDS(package, message) (void *) ((uintptr_t) (package) << 32 | (uintptr_t) (message)), NULL, NULL
#endif
"""

HELPERS = "get_packed_size|pack|pack_to_buffer|unpack|free_unpacked"
PROTOTYPE = re.compile(rf"(?:size_t|void|\w+ \*\n) +(\w+)__(?:{HELPERS})\n +\([^)]*\);\n")

PLAIN = re.compile(r"\n|#.*\n|/\*.*\*/\n")
FUNCTION = re.compile(rf"(?:size_t|void|\w+ \*\n) +\w+__(?P<kind>init|{HELPERS})\n +\([^)]*\)\n\{{[^}}]*\}}\n")
FIELDS = re.compile(r"static (const ProtobufCFieldDescriptor \w+\[\d+\] =\n\{\n)")
FIELD = re.compile(
    r"""(?P<head>  \{
    "(?P<name>\w+)",
    \d+,
    PROTOBUF_C_LABEL_(?P<label>NONE|REPEATED),
    PROTOBUF_C_TYPE_(?P<type>\w+),
    (?:0|offsetof\(\w+, \w+\)),(?: */\* quantifier_offset \*/)?
    offsetof\(\w+, \w+\),
    (?:NULL|&\w+__descriptor),
    (?:NULL|&protobuf_c_empty_string),
)    0(?: \| PROTOBUF_C_FIELD_FLAG_PACKED)?,             /\* flags \*/
    0,NULL,NULL    /\* reserved1,reserved2, etc \*/
  \},
"""
)
ARRAY = re.compile(
    r"static (const (?:unsigned \w+__field_indices_by_name|ProtobufCIntRange \w+__(?:number|value)_ranges"
    r"|ProtobufCEnumValue \w+__enum_values_by_number|ProtobufCEnumValueIndex \w+__enum_values_by_name)"
    r"\[[^\]]*\] =\n?\s*\{\n(?:(?:  )?[{\d].*\n)+\};\n)"
)
MESSAGE = re.compile(
    r"""(?P<head>const ProtobufCMessageDescriptor \w+__descriptor =
\{
  PROTOBUF_C__MESSAGE_DESCRIPTOR_MAGIC,
  "(?P<full>[\w.]+)",
  "\w+",
  "\w+",
  "(?P<package>\w+)",
  sizeof\(\w+\),
  \d+,
  \w+__field_descriptors,
  \w+__field_indices_by_name,
  \d+,  \w+__number_ranges,
  \(ProtobufCMessageInit\) \w+__init,
)  NULL,NULL,NULL    /\* reserved\[123\] \*/
\};
"""
)
ENUM = re.compile(
    r"""const ProtobufCEnumDescriptor \w+__descriptor =
\{
  PROTOBUF_C__ENUM_DESCRIPTOR_MAGIC,
  (?:"[\w.]+",
  ){4}(?P<values>\d+),
  \w+__enum_values_by_number,
  \d+,
  \w+__enum_values_by_name,
  \d+,
  \w+__value_ranges,
  NULL,NULL,NULL,NULL   /\* reserved\[1234\] \*/
\};
"""
)
SYMBOL = re.compile(r'^const ProtobufC(Message|Enum)Descriptor (\w+) =\n\{\n  \w+,\n  "([\w.]+)",', re.M)


def fail(path, text, at, why):
    sys.exit(f"{path}:{text.count(chr(10), 0, at) + 1}: {why}: {text[at:].splitlines()[0] if text[at:] else ''}")


def declared(path):
    """How many messages, fields, enumerations and values a .proto declares."""
    count, inside = collections.Counter(), None
    for line in path.read_text().splitlines():
        line = line.split("//")[0].rstrip()
        if opened := re.fullmatch(r"(message|enum) \w+ \{", line):
            inside = opened[1]
            count[inside] += 1
        elif re.fullmatch(r"  .* = \d+;", line):
            count["field" if inside == "message" else "value"] += 1
    return count


def key_mark(field):
    if field["name"].startswith("t_"):
        return 1
    return 2 if field["name"] == "index" and field["type"] == "MESSAGE" else 0


def rewrite_field(field):
    packed = field["label"] == "REPEATED" and field["type"] not in ("STRING", "BYTES", "MESSAGE")
    flags = "0 | PROTOBUF_C_FIELD_FLAG_PACKED" if packed else "0"
    return f"{field['head']}    {flags},\n    {key_mark(field)},NULL,NULL    /* key mark, reserved */\n  }},\n"


def rewrite_message(message):
    package, name = message["package"], message["full"].removeprefix(message["package"] + ".")
    return f"{message['head']}  DM_WORDS({len(package)}, {len(name)})\n}};\n"


def rewrite_source(path, text):
    """The text with its words, and what was counted on the way."""
    out, count, at = [], collections.Counter(), 0
    while at < len(text):
        if part := PLAIN.match(text, at):
            out.append(part[0])
        elif part := FUNCTION.match(text, at):
            out.append(part[0] if part["kind"] == "init" else "")
        elif part := FIELDS.match(text, at):
            out.append(part[1])
            while field := FIELD.match(text, part.end()):
                part = field
                out.append(rewrite_field(field))
                count["field"] += 1
            if not text.startswith("};\n", part.end()):
                fail(path, text, part.end(), "not a field as protoc-c writes it")
            out.append("};\n")
            at = part.end() + len("};\n")
            continue
        elif part := ARRAY.match(text, at):
            out.append(part[1])
        elif part := MESSAGE.match(text, at):
            out.append(rewrite_message(part))
            count["message"] += 1
        elif part := ENUM.match(text, at):
            out.append(part[0])
            count["enum"] += 1
            count["value"] += int(part["values"])
        else:
            fail(path, text, at, "not recognised")
        at = part.end()
    head, include, rest = "".join(out).partition(f'#include "{path.stem}.h"\n')
    return head + include + WORDS + rest, count


def rewrite_header(path, text, messages):
    text, dropped = PROTOTYPE.subn("", text)
    wanted = messages * (HELPERS.count("|") + 1)
    if dropped != wanted:
        sys.exit(f"{path}:1: {dropped} helper functions instead of {wanted}")
    return text


def tables(symbols, packages):
    """C text: every message and every enumeration, sorted by full name."""
    lines = ["/* Every message and enumeration, sorted by full name. */", '#include "schema/tables.h"', ""]
    lines += [f'#include "{package}.pb-c.h"' for package in packages]
    for kind, name in (("Message", "messages"), ("Enum", "enums")):
        rows = sorted((full, symbol) for k, symbol, full in symbols if k == kind)
        lines += ["", f"const ProtobufC{kind}Descriptor *const dm_schema_table_{name}[] = {{"]
        lines += [f"    &{symbol}," for _, symbol in rows]
        lines += ["};", f"const uint32_t dm_schema_table_{name}_count = {len(rows)};"]
    return "\n".join(lines) + "\n"


def main(arguments):
    tables_only = arguments[:1] == ["--tables-only"]
    proto_dir, raw, out, *packages = arguments[tables_only:]
    proto_dir, raw, out = pathlib.Path(proto_dir), pathlib.Path(raw), pathlib.Path(out)
    symbols = []
    for package in packages:
        source, header = raw / f"{package}.pb-c.c", raw / f"{package}.pb-c.h"
        text, header_text = source.read_text(), header.read_text()
        wanted, found = declared(proto_dir / f"{package}.proto"), SYMBOL.findall(text)
        symbols += found
        if tables_only:
            count = collections.Counter("message" if kind == "Message" else "enum" for kind, *_ in found)
            wanted = {kind: wanted[kind] for kind in ("message", "enum")}
        else:
            text, count = rewrite_source(source, text)
            header_text = rewrite_header(header, header_text, count["message"])
        if dict(count) != dict(wanted):
            sys.exit(f"{source}:1: found {dict(count)}, but {package}.proto declares {dict(wanted)}")
        (out / source.name).write_text(text)
        (out / "tq_dm_cache" / header.name).write_text(header_text)
    (out / "schema_tables.c").write_text(tables(symbols, packages))


main(sys.argv[1:])
