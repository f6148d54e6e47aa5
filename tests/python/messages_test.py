"""Names of messages and queue identifiers."""

import datetime
import os
import re
import time
import unittest

from package import tsmail
from tsmail import MessageName, queue_id

UTC = datetime.timezone.utc
EXAMPLE = "1763275200.4242_123456_98765.mx1#Q#6B9Ha0q3004242,#F#S#2048#E:2,FS"


class MessagesTest(unittest.TestCase):
    def test_parse(self):
        name = MessageName.parse(EXAMPLE)
        self.assertEqual(name.created, datetime.datetime(2025, 11, 16, 6, 40, tzinfo=UTC))
        self.assertEqual(name.received, datetime.datetime(2026, 12, 9, 17, 36, tzinfo=UTC))
        self.assertEqual((name.size, name.flags, str(name)), (2048, "FS", EXAMPLE))
        self.assertEqual(name.key, EXAMPLE.removesuffix(":2,FS"))
        self.assertEqual(MessageName.parse("/a/cur/" + EXAMPLE), name)
        self.assertEqual(MessageName.parse(os.fsencode(EXAMPLE)), name)

    def test_any_name_is_one(self):
        for text in ("", "x", "x.y:2,", b"\xff"):
            name = MessageName.parse(text)
            self.assertEqual((name.created, name.received, name.size, name.flags),
                             (None, None, None, ""))
        self.assertEqual(os.fsencode(MessageName.parse(b"\xff").name), b"\xff")
        beyond = MessageName.parse("99999999999999.x")  # a year that datetime does not know
        self.assertIsNone(beyond.created)

    def test_a_key_has_one_size(self):
        self.assertEqual(MessageName.parse("a,#F#S#1#E,#F#S#22#E:2,S").key, "a,#F#S#1#E")
        self.assertEqual(MessageName.parse("a,#F#S#1#E,#F#S#22#E:2,S").size, 22)

    def test_generate(self):
        before = int(time.time())
        name = MessageName.generate(123, "smtp-6B9Ha0q3004242")
        self.assertTrue(before <= name.created.timestamp() <= time.time())
        self.assertEqual(name.created.utcoffset(), datetime.timedelta(0))
        self.assertEqual((name.size, name.flags), (123, ""))
        self.assertRegex(name.name, rf"^\d+\.{os.getpid()}_\d+_\d+\.sandbox"
                                    r"#Q#6B9Ha0q3004242,#F#S#123#E$")
        own = MessageName.generate(1)
        self.assertLessEqual(abs(own.received.timestamp() - time.time()), 2)
        with self.assertRaises(TypeError):
            MessageName.generate(-1)

    def test_names_differ(self):
        self.assertEqual(len({MessageName.generate(1).name for _ in range(5000)}), 5000)

    def test_processes_draw_other_numbers(self):
        """The generators are seeded: two interpreters do not begin alike."""
        import subprocess
        import sys
        code = "import tsmail; print(tsmail.MessageName.generate(1).name)"
        env = {**os.environ, "PYTHONPATH": os.path.dirname(os.path.dirname(tsmail.__file__))}
        counters = {re.search(r"_(\d+)\.", subprocess.run(
            [sys.executable, "-B", "-c", code], env=env, check=True, stdout=subprocess.PIPE,
            text=True).stdout).group(1) for _ in range(3)}
        self.assertGreater(len(counters), 1)

    def test_queue_identifiers(self):
        when = datetime.datetime(2026, 12, 9, 18, 36, tzinfo=datetime.timezone(datetime.timedelta(hours=1)))
        identifier = queue_id(when)
        self.assertRegex(identifier, rf"^6B9Ha0\w\w0*{os.getpid()}$")
        self.assertEqual(MessageName.generate(1, identifier).received, when)
        self.assertEqual(len(queue_id()), len(identifier))
        with self.assertRaises(ValueError):
            queue_id(datetime.datetime(2026, 1, 1))


if __name__ == "__main__":
    unittest.main()
