"""pref show, get, set, reset"""

import json
import os
import subprocess
import unittest

from testing import toolkit
from testing.toolkit import (TSMAIL, SpoolCase, as_nobody, content, environment, mail, mode, own_by_nobody,
                             snapshot, traced, tsmail)

ANN = "ann@site.test"
FILE = mail(ANN) + "/../pref/ann~site.test.pref"
# A literal copy of the library's description, to check that the tool follows it.
DEFAULTS = {
    "default_sort": 1, "npage": 25, "dspam": True, "autotrain": True, "whitelist": False,
    "spamreport": True, "uname": "", "remail": "", "signature": False, "timezone": 0,
    "autoreply": False, "ar_to_me_only": True, "ar_start_date": "", "ar_end_date": "",
    "ar_subject": "[Auto Reply]", "ar_action": 1, "ar_level": 1, "ar_interval": 7,
    "autoforward": False, "keepcopy": False, "web_idle_timeout": 1, "lang": "en", "date": False,
    "size": False, "theme": 0, "forward_option": 1, "message_preview": True,
    "calendar_time_format": 0, "calendar_default_view": 1, "alternate_id": "", "default_id": "",
    "message_check_interval": 5, "show_remote_content": True, "page_size": 25,
    "notification": False}


class PrefTest(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def shown(self, **options):
        [values] = self.succeed("--json", "pref", "show", ANN, **options).objects
        return values

    def test_defaults_in_the_order_of_the_file(self):
        self.assertEqual(list(self.shown().items()), list(DEFAULTS.items()))
        self.assertFalse(os.path.exists(FILE))
        table = self.succeed("pref", "show", ANN).lines
        self.assertEqual([line.split()[0] for line in table[1:]], list(DEFAULTS))

    def test_the_system_time_zone(self):
        with open("/tmp/tsmail.toml", "w", encoding="ascii") as file:
            file.write("timezone = 33\n")
        env = environment(TSMAIL_CONFIG="/tmp/tsmail.toml")
        self.assertEqual(self.shown(env=env)["timezone"], 33)
        self.succeed("pref", "set", ANN, "npage=3", env=env)
        self.assertIn(b"\ntimezone=33\n", content(FILE))
        self.assertEqual(self.shown()["timezone"], 33)

    def test_set_several_and_get(self):
        self.succeed("pref", "set", "ann@site.test", "npage=50", "uname=Ann = Lee", "lang=",
                     "autoreply=1", "dspam=0", "web_idle_timeout=65535", "theme=-2147483648")
        self.assertEqual(self.shown(), {
            **DEFAULTS, "npage": 50, "uname": "Ann = Lee", "lang": "", "autoreply": True,
            "dspam": False, "web_idle_timeout": 65535, "theme": -2147483648})
        self.assertEqual(self.succeed("pref", "get", ANN, "uname").out, "Ann = Lee\n")
        self.assertEqual(self.succeed("pref", "get", ANN, "npage", "dspam").lines,
                         ["npage=50", "dspam=0"])
        self.assertEqual(self.succeed("--json", "pref", "get", ANN, "npage", "dspam").objects,
                         [{"npage": 50, "dspam": False}])
        self.assertRegex(self.succeed("pref", "show", ANN).out, r"(?m)^npage +50 +25$")
        self.assertEqual(mode(FILE), 0o600)

    def test_every_default_can_be_set_and_comes_back(self):
        words = [f"{key}={int(value) if isinstance(value, bool) else value}"
                 for key, value in DEFAULTS.items()]
        self.succeed("pref", "set", ANN, *words)
        self.assertEqual(self.shown(), DEFAULTS)

    REFUSED = [
        ("npage=101", "-2147483648 to 100"), ("npage=2147483648", "to 100"), ("npage=", "whole"),
        ("npage=1 ", "whole"), ("npage= 1", "whole"), ("npage=+1", "whole"), ("npage=0x10", "whole"),
        ("npage=1.0", "whole"), ("theme=2147483648", "to 2147483647"),
        ("theme=-2147483649", "-2147483648"), ("web_idle_timeout=65536", "0 to 65535"),
        ("web_idle_timeout=-1", "0 to 65535"), ("dspam=2", "0 or 1"), ("dspam=yes", "0 or 1"),
        ("dspam=", "0 or 1"), ("uname=a\nb", "line breaks"), ("uname=a\n", "line breaks"),
        ("uname=a ", "white space at its end"), ("uname=a\t", "white space"), ("uname= ", "white"),
        ("uname=a\r", "white space"), ("uname=a\v", "white"), ("uname=" + "x" * 256, "255 bytes"),
        ("alternate_id=" + "x" * 497, "496 bytes"), ("alternate_id=" + "x" * 1275, "496 bytes"),
        ("nosuchkey=1", "there are default_sort, npage"), ("npagee=1", 'did you mean "npage"'),
        ("Npage=1", "did you mean"), ("=1", "no preference"), (" npage=1", "no preference"),
    ]
    TAKEN = [("npage", "100"), ("npage", "-5"), ("theme", "2147483647"), ("uname", "x" * 255),
             ("uname", "  leading"), ("uname", "a\rb"), ("uname", "npage=7"), ("uname", "ünï ✔"),
             ("alternate_id", "x" * 496), ("uname", "="), ("uname", "a\x1b[31m")]

    def test_what_would_not_come_back_is_refused_with_what_is_allowed(self):
        self.succeed("pref", "set", ANN, "lang=sv")
        before = snapshot("/var/spool")
        for word, allowed in self.REFUSED:
            with self.subTest(word):
                done = self.fail_with(65, "pref", "set", ANN, "lang=de", word, saying=allowed)
                self.assertNotRegex(done.err, r"[\x00-\x09\x0b-\x1f]")
                self.assertEqual(snapshot("/var/spool"), before)
        for key, value in self.TAKEN:
            with self.subTest(key=key, value=value):
                self.succeed("pref", "set", ANN, f"{key}={value}")
                self.assertEqual(str(self.shown()[key]), value)
        self.assertNotIn("\x1b", self.succeed("pref", "get", ANN, "uname").out)

    def test_usage(self):
        self.fail_with(64, "pref", "set", ANN, saying="KEY=VALUE is missing")
        self.fail_with(64, "pref", "set", ANN, "npage", saying='"npage" is not KEY=VALUE')
        self.fail_with(64, "pref", "get", ANN, saying="KEY")
        self.fail_with(65, "pref", "get", ANN, "nothing", saying="no preference")

    def test_json_both_ways(self):
        wanted = {**DEFAULTS, "npage": 7, "uname": "Ånn", "dspam": False, "theme": -3}
        self.succeed("--json", "pref", "set", ANN, stdin=json.dumps(wanted).encode())
        self.assertEqual(self.shown(), wanted)
        self.succeed("--json", "pref", "set", ANN, stdin=b' {"dspam": 1}\n')
        self.assertEqual(self.shown(), {**wanted, "dspam": True})
        self.succeed("--json", "pref", "set", ANN, stdin=b"{}")

    def test_json_that_is_refused(self):
        rows = [(b"", "not a JSON object"), (b"[1]", "not a JSON object"), (b"{", "not a JSON object"),
                (b'{"npage": 1.5}', "whole number"), (b'{"npage": "7"}', "whole number"),
                (b'{"npage": true}', "whole number"), (b'{"npage": null}', "whole number"),
                (b'{"npage": 1e3}', "whole number"), (b'{"npage": 99999999999999999999}', "whole"),
                (b'{"uname": 7}', "text"), (b'{"uname": "a\\nb"}', "line breaks"),
                (b'{"uname": "a\\u0000b"}', "NUL"), (b'{"dspam": 2}', "0 or 1"),
                (b'{"dspam": "1"}', "0 or 1"), (b'{"x": 1}', "no preference"),
                (b'{"npage": [1]}', "whole"), (b'{"uname": "\xff"}', "not a JSON object")]
        before = snapshot("/var/spool")
        for text, saying in rows:
            with self.subTest(text):
                self.fail_with(65, "--json", "pref", "set", ANN, stdin=text, saying=saying)
        self.fail_with(65, "--json", "pref", "set", ANN, stdin=b" " * (2 << 20), saying="too long")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_reset(self):
        self.succeed("pref", "set", ANN, "npage=50", "lang=sv", "theme=2")
        self.succeed("pref", "reset", ANN, "npage", "theme")
        self.assertEqual(self.shown(), {**DEFAULTS, "lang": "sv"})
        self.succeed("pref", "reset", ANN)
        self.assertEqual(self.shown(), DEFAULTS)

    def test_a_file_that_others_wrote(self):
        with open(FILE, "wb") as file:
            file.write(b"npage = 500\r\n# comment\nuname=  Ann\x1b  \r\nlang=x\nlang=y\n\xff\n")
        values = self.shown()
        self.assertEqual((values["npage"], values["uname"], values["lang"]), (100, "  Ann\x1b", "y"))
        self.assertIn("  Ann\\x1b", self.succeed("pref", "show", ANN).out)

    def test_a_value_that_the_writer_cannot_write_is_not_cut(self):
        text = b"alternate_id=" + b"x" * 600 + b"\ndefault_id=me\n"
        with open(FILE, "wb") as file:
            file.write(text)
        self.fail_with(65, "pref", "set", ANN, "npage=3", saying="alternate_id=x+ is refused")
        self.assertEqual(content(FILE), text)
        self.succeed("pref", "set", ANN, "npage=3", "alternate_id=x")
        self.assertEqual(self.shown()["default_id"], "me")

    def test_no_mailbox(self):
        for words in (["show"], ["get", "npage"], ["set", "npage=1"], ["reset"]):
            verb, *rest = words
            self.fail_with(67, "pref", verb, "bob@site.test", *rest, saying="no such mailbox")
        self.assertFalse(os.path.exists(mail("bob@site.test")))

    def test_an_unreadable_file_is_not_replaced_by_defaults(self):
        self.succeed("pref", "set", ANN, "npage=50")
        own_by_nobody(mail(ANN) + "/..")
        os.chmod(FILE, 0)
        for code, verb, *rest in ((66, "show"), (66, "get", "lang"), (73, "set", "lang=sv"), (73, "reset", "lang")):
            self.fail_with(code, "pref", verb, ANN, *rest, saying="Permission denied", **as_nobody())
        os.chmod(FILE, 0o600)
        self.assertEqual(self.shown()["npage"], 50)

    def test_a_file_that_appears_in_between(self):
        """Another process makes it after the look for it."""
        self.succeed("pref", "set", ANN, "npage=30")
        path = os.path.realpath(FILE)
        for times, code, out in (("1", 0, "30\n"), ("1..2", 0, "30\n"), ("1+", 75, "")):
            with self.subTest(times=times):
                done, _ = traced(["-P", path, "-e", f"inject=openat:error=ENOENT:when={times}"],
                                 [TSMAIL, "pref", "get", ANN, "npage"])
                self.assertEqual((done.code, done.out), (code, out), done)

    def test_changes_at_the_same_time_are_all_kept(self):
        keys = [key for key, value in DEFAULTS.items()
                if not isinstance(value, (bool, str)) and key != "npage"]
        setters = [subprocess.Popen([TSMAIL, "pref", "set", ANN, f"{key}=77"], env=environment())
                   for key in keys]
        self.assertEqual([setter.wait() for setter in setters], [0] * len(keys))
        self.assertEqual(self.shown(), {**DEFAULTS, **{key: 77 for key in keys}})

    def test_a_full_disk(self):
        self.succeed("pref", "set", ANN, "npage=50")
        done = tsmail("pref", "set", ANN, "npage=51", preexec_fn=toolkit.limited(FSIZE=100))
        self.assertEqual(done.code, 75, done)
        self.assertIn("File too large", done.err)


if __name__ == "__main__":
    unittest.main()
