#!/usr/bin/env python3
"""What descriptor_words.py does with sources that protoc-c did not write as expected.

A user would lose the words, or a whole message, without a sign: the build must stop and name the line.
usage: descriptor_words_test.py SCHEMA_DIR RAW_DIR
"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

SCHEMA, RAW = map(pathlib.Path, sys.argv[1:])
FIELD = r'  \{\n    "slotid",\n(?:.*\n)+?  \},\n'


class DescriptorWords(unittest.TestCase):
    def run_on(self, file, old, new):
        """The step over p_mng, p_intf and p_dev with one change in one file; the changed file as it was written."""
        with tempfile.TemporaryDirectory() as folder:
            raw, out = pathlib.Path(folder, "raw"), pathlib.Path(folder, "out")
            raw.mkdir()
            (out / "tq_dm_cache").mkdir(parents=True)
            for source in RAW.glob("*.pb-c.[ch]"):
                text = source.read_text()
                if source.name == file:
                    text, changed = re.subn(old, new, text, count=1)
                    self.assertEqual(changed, 1, "the change found nothing to change")
                (raw / source.name).write_text(text)
            command = [sys.executable, SCHEMA / "descriptor_words.py", SCHEMA, raw, out, "p_dev", "p_intf", "p_mng"]
            done = subprocess.run(command, capture_output=True, text=True)
            written = (out / file).read_text() if done.returncode == 0 else ""
            return done, written

    def test_stops_at_what_it_does_not_recognise(self):
        for file, old, new in (
            ("p_dev.pb-c.c", r"    0,NULL,NULL    /\* reserved1", "    0,NULL    /* reserved1"),  # a field
            ("p_dev.pb-c.c", r"  NULL,NULL,NULL    /\* reserved\[123\]", "  NULL,NULL    /* reserved[123]"),  # a message
            ("p_intf.pb-c.c", r"  NULL,NULL,NULL,NULL   /\*", "  NULL,NULL   /*"),  # an enumeration
            ("p_intf.pb-c.c", r"\n(static const ProtobufCIntRange)", r"\nint stray;\n\1"),  # something new
            ("p_mng.pb-c.h", r"__pack_to_buffer\n", "__pack_into\n"),  # a helper function of another name
            ("p_dev.pb-c.c", FIELD, ""),  # a field fewer than declared
        ):
            with self.subTest(file=file, old=old):
                done, _ = self.run_on(file, old, new)
                self.assertNotEqual(done.returncode, 0)
                self.assertRegex(done.stderr, re.escape(file) + r":\d+: ")

    def test_packs_a_repeated_scalar_that_the_generator_left_unpacked(self):
        packed = "0 | PROTOBUF_C_FIELD_FLAG_PACKED"
        count = (RAW / "p_dev.pb-c.c").read_text().count(packed)
        done, written = self.run_on("p_dev.pb-c.c", re.escape(packed), "0")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(written.count(packed), count)


unittest.main(argv=sys.argv[:1])
