"""Preferences: a mapping, and only what comes back as it is."""

import os
import random
import unittest

from package import lines, make_mailbox
from tsmail import Preferences
from tsmail.preferences import PREFERENCES, PreferenceType, user_timezone

USER = "ann@site.test"
FILE = "/var/spool/home/site.test/ann~site.test/pref/ann~site.test.pref"


class PreferencesTest(unittest.TestCase):
    def setUp(self):
        make_mailbox()
        if os.path.exists(FILE):
            os.unlink(FILE)

    def test_a_mapping(self):
        preferences = Preferences()
        self.assertEqual(len(preferences), 35)
        self.assertEqual(list(preferences)[:3], ["default_sort", "npage", "dspam"])
        self.assertEqual((preferences["npage"], preferences["lang"]), (25, "en"))
        self.assertIs(preferences["dspam"], True)
        self.assertIn("lang", preferences)
        self.assertNotIn("nothing", preferences)
        self.assertEqual(dict(preferences)["ar_subject"], "[Auto Reply]")
        for use in (lambda: preferences["nothing"], lambda: preferences.__setitem__("nothing", 1)):
            with self.assertRaises(KeyError):
                use()

    def test_store_and_read(self):
        preferences = Preferences({"uname": "Ann", "theme": -5})
        preferences["autoforward"] = True
        preferences["web_idle_timeout"] = 65535
        preferences["signature"] = 1
        preferences.store(USER)
        self.assertIn("uname=Ann", lines(FILE))
        again = Preferences.of(USER)
        self.assertEqual(dict(again), dict(preferences))
        with open(FILE, "w", encoding="utf-8") as file:
            file.write("theme=7\n")
        preferences.read(USER)
        self.assertEqual((preferences["theme"], preferences["uname"]), (7, "Ann"))
        self.assertEqual(Preferences.of(USER)["uname"], "")

    def test_a_file_that_is_not_there(self):
        with self.assertRaises(FileNotFoundError) as caught:
            Preferences.of(USER)
        self.assertEqual(caught.exception.filename, USER)
        self.assertEqual(dict(Preferences.of(USER, missing_ok=True)), dict(Preferences()))
        preferences = Preferences({"theme": 3})
        with self.assertRaises(FileNotFoundError):
            preferences.read(USER)
        self.assertEqual(preferences["theme"], 3)

    def test_a_file_that_cannot_be_written(self):
        os.mkdir(FILE)
        with self.assertRaises(IsADirectoryError):
            Preferences().store(USER)
        os.rmdir(FILE)

    def test_ranges(self):
        preferences = Preferences()
        ends = {PreferenceType.INT: (-2**31, 2**31 - 1), PreferenceType.BOOL: (0, 1),
                PreferenceType.UINT16: (0, 65535)}
        for key, row in PREFERENCES.items():
            if row.type == PreferenceType.STRING:
                self.assertIsNone(row.range)
                continue
            least, most = ends[row.type] if key != "npage" else (-2**31, 100)
            self.assertEqual((row.range[0], row.range[-1]), (least, most))
            for good in (least, most):
                preferences[key] = good
                self.assertEqual(preferences[key], good)
            for bad in (least - 1, most + 1, 2**70):
                with self.subTest(key=key, bad=bad), self.assertRaises(ValueError):
                    preferences[key] = bad
            self.assertEqual(preferences[key], most)
            with self.assertRaises(TypeError):
                preferences[key] = "1"

    def test_texts(self):
        preferences = Preferences()
        preferences["uname"] = "x" * 255
        preferences["default_id"] = " in front"
        preferences["remail"] = "ä\udcff"
        preferences["alternate_id"] = "y" * (510 - len("alternate_id=\n"))
        preferences.store(USER)
        again = Preferences.of(USER)
        self.assertEqual(dict(again), dict(preferences))
        self.assertEqual(again["remail"].encode("utf-8", "surrogateescape"), b"\xc3\xa4\xff")
        for key, bad in (("uname", "x" * 256), ("uname", "end "), ("uname", "end\r"),
                         ("uname", "a\nb"), ("uname", "a\0b"), ("uname", "\n"),
                         ("alternate_id", "y" * (511 - len("alternate_id=\n"))),
                         ("alternate_id", "y" * 1276)):
            with self.subTest(key=key, bad=bad), self.assertRaises(ValueError):
                preferences[key] = bad
        self.assertEqual(dict(again), dict(preferences))
        with self.assertRaises(TypeError):
            preferences["uname"] = 5

    def test_what_is_accepted_comes_back(self):
        """Any text: refused, or read as it was stored."""
        chance = random.Random(19)
        taken = refused = 0
        for _ in range(3000):
            text = "".join(chance.choices("ab =\n\r\t\v\x7fäé\udc80", k=chance.choice([0, 1, 2, 9, 254, 255])))
            key = chance.choice(["uname", "alternate_id", "lang"])
            preferences = Preferences()
            try:
                preferences[key] = text
            except ValueError:
                refused += 1
                continue
            taken += 1
            preferences.store(USER)
            self.assertEqual(Preferences.of(USER)[key], text)
        self.assertGreater(min(taken, refused), 300)

    def test_all_or_none(self):
        preferences = Preferences()
        with self.assertRaises(ValueError):
            preferences.update({"theme": 9, "npage": 101})
        self.assertEqual(preferences["theme"], 0)
        copy = preferences.copy()
        copy["theme"] = 9
        self.assertEqual((preferences["theme"], copy["theme"]), (0, 9))
        copy.reset("theme")
        self.assertEqual(copy["theme"], 0)

    def test_lines(self):
        preferences = Preferences()
        preferences.apply(b"theme=4\nnpage=500\njunk\n")
        preferences.apply_line("uname = Bob\n")
        self.assertEqual((preferences["theme"], preferences["npage"], preferences["uname"]),
                         (4, 100, " Bob"))
        self.assertEqual(preferences.line("theme"), "theme=4\n")
        preferences.apply(b"")
        self.assertEqual(preferences["theme"], 4)

    def test_time_zones(self):
        self.assertEqual(user_timezone(USER), 12)
        Preferences({"timezone": 3}).store(USER)
        self.assertEqual(user_timezone(USER), 3)
        with open("/tmp/tsmail.toml", "w", encoding="utf-8") as file:
            file.write("timezone = 42\n")
        os.environ["TSMAIL_CONFIG"] = "/tmp/tsmail.toml"
        self.assertEqual(Preferences(system_timezone=True)["timezone"], 42)
        self.assertEqual(Preferences()["timezone"], 0)


if __name__ == "__main__":
    unittest.main()
