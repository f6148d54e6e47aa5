"""list show, add, remove, find, match, replace, import, export"""

import os
import pty
import random
import re
import subprocess
import time
import unittest

from testing import toolkit
from testing.toolkit import (TSMAIL, SpoolCase, as_nobody, content, environment, mail, own_by_nobody,
                             snapshot, tsmail)

ANN = "ann@site.test"
PREF = mail(ANN) + "/../pref"
FILE = PREF + "/ann~site.test.favorlist"


class ListCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def write(self, data, path=FILE):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(data)

    def verb(self, name, *words, **options):
        return self.succeed("list", name, ANN, "favorlist", *words, **options)


class ListTest(ListCase):
    def test_add_and_show(self):
        done = self.verb("add", "Bob@x.test", "*@y.test", "BOB@X.TEST")
        self.assertEqual(done.lines, ["added Bob@x.test", "added *@y.test", "was there: BOB@X.TEST"])
        self.assertEqual(content(FILE), b"Bob@x.test\n*@y.test\n")
        self.assertEqual(self.verb("show").lines, ["    1  Bob@x.test", "    2  *@y.test"])
        self.assertEqual(self.verb("show", "--json").objects,
                         [{"line": 1, "entry": "Bob@x.test"}, {"line": 2, "entry": "*@y.test"}])
        self.assertEqual(self.verb("add", "--json", "a", "Bob@x.test").objects,
                         [{"entry": "a", "added": True}, {"entry": "Bob@x.test", "added": False}])

    def test_show_numbers_the_lines_of_the_file(self):
        self.write(b"b\r\n\n" + b"x" * 300 + b"\nA\nlast")
        rows = self.verb("show", "--json").objects
        self.assertEqual([(row["line"], row["entry"]) for row in rows],
                         [(1, "b"), (2, ""), (3, "x" * 255), (4, "x" * 45), (5, "A"), (6, "last")])
        self.assertEqual([row["entry"] for row in self.verb("show", "--sorted", "--json").objects],
                         ["A", "b", "last", "x" * 45, "x" * 255])

    def test_remove(self):
        self.write(b"a\nB\nb\nc\n")
        self.assertEqual(self.verb("remove", "b", "nobody").lines,
                         ["removed b", "was not there: nobody"])
        self.assertEqual(content(FILE), b"a\nc\n")
        self.assertEqual(self.verb("remove", "--json", "a").objects, [{"entry": "a", "removed": True}])

    def test_find_and_match_answer_by_exit_code(self):
        self.write(b"a@x.test\n*@y.test\n")
        rows = [("find", ["A@X.test"], 0), ("find", ["any@y.test"], 1), ("find", ["a@x.test", "b"], 1),
                ("match", ["any@Y.test"], 0), ("match", ["a@x.test", "b@y.test"], 0),
                ("match", ["any@z.test"], 1)]
        for verb, words, code in rows:
            with self.subTest(verb=verb, words=words):
                done = tsmail("list", verb, ANN, "favorlist", *words)
                self.assertEqual(done.code, code, done)
                self.assertEqual(len(done.lines), len(words))
        done = tsmail("--json", "list", "match", ANN, "favorlist", "b@y.test", "b@z.test")
        self.assertEqual(done.objects, [{"entry": "b@y.test", "matched": True},
                                        {"entry": "b@z.test", "matched": False}])
        self.assertEqual(tsmail("list", "find", ANN, "none", "a").code, 1)

    def test_replace(self):
        self.write(b"a\nb\nc\n")
        self.verb("replace", "2", "new@x.test")
        self.assertEqual(content(FILE), b"a\nnew@x.test\nc\n")
        for line in ("0", "-1", "x", "", "4294967296", "1 "):
            self.fail_with(64, "list", "replace", ANN, "favorlist", "--", line, "x", saying="whole number")
        self.fail_with(65, "list", "replace", ANN, "favorlist", "4", "x", saying="3 lines, no line 4")
        self.assertEqual(content(FILE), b"a\nnew@x.test\nc\n")

    def test_entries_that_are_refused(self):
        self.write(b"a\n")
        before = snapshot("/var/spool")
        for entry in ("", "x" * 255, "a\nb", "a\r", "\x1b[31m", "\x7f"):
            with self.subTest(entry):
                self.fail_with(65, "list", "add", ANN, "favorlist", "good", entry, saying="refused")
                self.fail_with(65, "list", "replace", ANN, "favorlist", "1", entry, saying="refused")
                self.assertEqual(snapshot("/var/spool"), before)
        self.verb("add", "x" * 254)
        self.assertEqual(content(FILE), b"a\n" + b"x" * 254 + b"\n")

    def test_a_list_that_nothing_reads(self):
        before = sorted(os.listdir(PREF))
        self.fail_with(65, "list", "add", ANN, "whitelst", "x@y.test", saying='no list "whitelst"; did you mean "whitelist"')
        self.fail_with(65, "list", "import", ANN, "xyzzy", saying="the store's are whitelist, .*--any-name")
        self.fail_with(65, "list", "add", "-", "whitelst", "x", "--scope", "home", saying="no list")
        self.assertEqual(sorted(os.listdir(PREF)), before)
        self.succeed("list", "add", ANN, "whitelst", "x@y.test", "--any-name")
        self.succeed("list", "add", ANN, "whitelst", "z@y.test")  # it exists
        self.assertEqual(content(PREF + "/ann~site.test.whitelst"), b"x@y.test\nz@y.test\n")

    def test_names(self):
        self.assertEqual(self.succeed("list", "names", ANN).lines, ["list  entries"])
        self.succeed("pref", "set", ANN, "npage=30")
        self.succeed("list", "add", ANN, "whitelist", "a@b.test", "c@d.test")
        self.succeed("list", "add", ANN, "my.own", "a@b.test", "--any-name")
        for name in ("bob~site.test.whitelist", "ann~site.test.", "ann~site.test..lock", "other"):
            with open(f"{PREF}/{name}", "wb"):
                pass
        os.symlink("ann~site.test.whitelist", f"{PREF}/ann~site.test.link")
        os.mkdir(f"{PREF}/ann~site.test.directory")
        self.assertEqual(self.succeed("--json", "list", "names", ANN).objects,
                         [{"list": "my.own", "entries": 1}, {"list": "whitelist", "entries": 2}])
        self.assertEqual(self.succeed("list", "names", ANN).lines,
                         ["list       entries", "my.own           1", "whitelist        2"])
        self.fail_with(67, "list", "names", "bob@site.test", saying="no such mailbox")
        os.makedirs("/var/spool/etc/mail")
        self.succeed("list", "add", "-", "blacklist", "s@x.test", "--scope", "system")
        self.assertEqual(self.succeed("--json", "list", "names", "-", "--scope", "system").objects,
                         [{"list": "blacklist", "entries": 1}])

    def test_names_that_are_refused(self):
        for name in ("", "a/b", "../x", ".hidden", ".", "..", "a\nb", "x" * 101):
            for verb in (["show"], ["add"], ["import"], ["find"]):
                with self.subTest(name=name, verb=verb):
                    words = ["x"] if verb[0] in ("add", "find") else []
                    self.fail_with(65, "list", verb[0], ANN, name, *words, stdin=b"x\n",
                                   saying="list name")
        self.fail_with(65, "list", "add", ANN, "pref", "npage=1", saying="preferences")
        for home in ("../x", "a/b", "..", ".", "", "a\nb"):
            self.fail_with(65, "list", "add", home, "favorlist", "x", "--scope", "home", saying="home")
        self.fail_with(65, "list", "add", "../x@site.test", "favorlist", "x", saying="'/'")
        self.fail_with(64, "list", "add", ANN, "favorlist", "x", "--scope", "none",
                       saying=r"no scope \"none\"; allowed: user, home, system")
        self.assertFalse(os.path.exists("/var/spool/etc"))

    def test_a_name_with_a_dot(self):
        self.succeed("list", "add", ANN, "my.friends", "x", "--any-name")
        self.assertEqual(content(PREF + "/ann~site.test.my.friends"), b"x\n")

    def test_the_other_scopes(self):
        os.makedirs("/var/spool/home/Group")
        self.succeed("list", "add", "Group", "favorlist", "g", "--scope", "home")
        self.assertEqual(content("/var/spool/home/Group/group.favorlist"), b"g\n")
        self.fail_with(73, "list", "add", "-", "favorlist", "s", "--scope", "system",
                       saying="/var/spool/etc/mail/favorlist: there is no such directory")
        os.makedirs("/var/spool/etc/mail")
        self.succeed("list", "add", "-", "favorlist", "s", "--scope", "system")
        self.assertEqual(content("/var/spool/etc/mail/favorlist"), b"s\n")
        self.assertEqual(self.succeed("list", "export", "-", "favorlist", "--scope", "2").out, "s\n")

    def test_a_list_keeps_its_mode(self):
        path = os.path.dirname(mail(ANN)) + "/pref/ann~site.test.favorlist"
        for mode in (0o600, 0o644, 0o640):
            with open(path, "wb") as file:
                file.write(b"a@b\nc@d\ne@f")  # the last line is unterminated
            os.chmod(path, mode)
            for words in (("add", "x@y"), ("remove", "a@b"), ("replace", "1", "z@z")):
                self.succeed("list", words[0], ANN, "favorlist", *words[1:])
                self.assertEqual(os.stat(path).st_mode & 0o7777, mode, words)

    def test_lists_and_mailboxes_that_do_not_exist(self):
        for verb, *words in (["show"], ["show", "--sorted"], ["export"], ["remove", "x"],
                             ["replace", "1", "x"]):
            self.fail_with(66, "list", verb, ANN, "none", *words, saying="there is no list")
        for verb, *words in (["show"], ["add", "x"], ["find", "x"]):
            self.fail_with(67, "list", verb, "bob@site.test", "favorlist", *words, saying="no such mailbox")

    def test_a_last_line_without_end_is_not_joined(self):
        self.write(b"a\nlast")
        self.verb("add", "new")
        self.assertEqual(content(FILE), b"a\nlast\nnew\n")
        self.write(b"a\nlast")
        self.assertEqual(self.verb("add", "LAST").lines, ["was there: LAST"])
        self.assertEqual(content(FILE), b"a\nlast")

    def test_a_full_list(self):
        self.write(b"".join(b"%d\n" % i for i in range(2047)))
        self.verb("add", "one more")
        self.fail_with(73, "list", "add", ANN, "favorlist", "too many", saying="2048 lines")
        self.assertEqual(self.verb("add", "one more").lines, ["was there: one more"])

    def test_permissions(self):
        self.write(b"a\n")
        own_by_nobody(PREF)
        own_by_nobody(mail(ANN))
        own_by_nobody(mail(ANN) + "/..")
        os.chmod(PREF, 0o500)
        for verb, *words in (["add", "x"], ["remove", "a"], ["replace", "1", "b"]):
            self.fail_with(73, "list", verb, ANN, "favorlist", *words, saying="Permission denied",
                           **as_nobody())
        os.chmod(PREF, 0o700)
        os.chmod(FILE, 0)
        for verb in ("show", "export"):
            self.fail_with(66, "list", verb, ANN, "favorlist", saying="Permission denied",
                           **as_nobody())
        os.chmod(FILE, 0o600)
        self.assertEqual(content(FILE), b"a\n")

    def test_a_write_that_fails_is_not_called_success(self):
        self.write(b"a\n" * 20)
        self.fail_with(75, "list", "add", ANN, "favorlist", "new", saying="could not be written",
                       preexec_fn=toolkit.limited(FSIZE=40))
        self.assertEqual(content(FILE), b"a\n" * 20)


class ImportTest(ListCase):
    def test_lines_of_all_kinds(self):
        self.write(b"there\n")
        data = (b"a@x.test\r\n\nTHERE\n" + b"x" * 255 + b"\nb\x1b\n\r\n" + b"y" * 100000 + b"\nc\0d\n" +
                b"z" * 254 + b"\nlast")
        done = tsmail("list", "import", ANN, "favorlist", stdin=data)
        self.assertEqual(done.code, 65, done)
        self.assertEqual(done.lines, ["3 added, 1 were there, 4 refused"])
        self.assertEqual(re.findall(r"standard input:(\d+): entry is refused: (.*)", done.err),
                         [("4", "it is longer than 254 bytes"), ("5", "it holds a control character"),
                          ("7", "it is too long"), ("8", "it holds a control character")])
        self.assertEqual(content(FILE), b"there\na@x.test\n" + b"z" * 254 + b"\nlast\n")

    def test_a_file(self):
        self.write(b"one\ntwo\n", "/tmp/names")
        done = self.verb("import", "--json", "/tmp/names")
        self.assertEqual(done.objects, [{"added": 2, "present": 0, "refused": 0}])
        self.fail_with(66, "list", "import", ANN, "favorlist", "/tmp/none", saying="No such file")
        self.fail_with(66, "list", "import", ANN, "favorlist", "/tmp", saying="Is a directory")

    def test_lines_across_the_pieces_read(self):
        seed = 11
        random.seed(seed)
        names = [f"{i}" + "n" * random.randint(0, 120) for i in range(2000)]
        self.verb("import", stdin="\r\n".join(names).encode())
        self.assertEqual(content(FILE).decode().split("\n"), names + [""], f"seed {seed}")
        self.assertEqual(self.verb("export").out, "\n".join(names) + "\n")

    def test_it_stops_at_the_limit_and_says_where(self):
        data = b"".join(b"%d\n" % i for i in range(3000))
        done = self.fail_with(73, "list", "import", ANN, "favorlist", stdin=data,
                              saying=r"standard input:2049: .*2048 lines.*\(2048 were added\)")
        self.assertEqual(done.out, "")
        self.assertEqual(content(FILE).count(b"\n"), 2048)

    def test_export_gives_back_what_import_takes(self):
        self.write(b"b\r\n\nA\nlast")
        out = self.verb("export").out
        self.assertEqual(out, "b\nA\nlast\n")
        self.succeed("list", "import", ANN, "copy", "--any-name", stdin=out.encode())
        self.assertEqual(content(PREF + "/ann~site.test.copy"), out.encode())

    def test_export_is_exact_but_on_a_terminal(self):
        self.write(b"evil\x1b[31m\xff\n")
        with subprocess.Popen([TSMAIL, "list", "export", ANN, "favorlist"], stdout=subprocess.PIPE,
                              env=environment()) as process:
            self.assertEqual(process.stdout.read(), b"evil\x1b[31m\xff\n")
        master, terminal = pty.openpty()
        with subprocess.Popen([TSMAIL, "list", "export", ANN, "favorlist"], stdout=terminal,
                              env=environment()) as process:
            process.wait()
            shown = os.read(master, 1000)
        os.close(terminal)
        os.close(master)
        self.assertEqual(shown, b"evil\\x1b[31m\\xff\r\n")

    def test_the_input_may_take_longer_than_the_limit(self):
        for pauses in ((2.5, 0), (0, 2.5), (0.7, 0.7, 0.7, 0.7)):
            with self.subTest(pauses):
                self.setUp()
                process = self.begin("--timeout", "1", "list", "import", ANN, "favorlist", stdin=subprocess.PIPE)
                for number, pause in enumerate(pauses):
                    time.sleep(pause)
                    process.stdin.write(b"%d-%d@site.test\n" % (len(pauses), number))
                    process.stdin.flush()
                self.assertEqual(self.end(process)[0], f"{len(pauses)} added, 0 were there, 0 refused\n")

    def slow_import(self, *options, stderr):
        """An import whose input takes a second and a half."""
        with subprocess.Popen([TSMAIL, *options, "list", "import", ANN, "favorlist"],
                              stdin=subprocess.PIPE, stdout=subprocess.DEVNULL, stderr=stderr,
                              env=environment(TERM="xterm")) as process:
            for i in range(15):
                process.stdin.write(b"%d\n" % i)
                process.stdin.flush()
                time.sleep(0.1)
            process.stdin.close()
            return process.wait()

    def test_progress_on_a_terminal_only(self):
        for options, expected in ((["--quiet"], False), ([], True)):
            master, terminal = pty.openpty()
            self.assertEqual(self.slow_import(*options, stderr=terminal), 0)
            os.write(terminal, b"end")
            shown = b""
            while not shown.endswith(b"end"):
                shown += os.read(master, 10000)
            os.close(terminal)
            os.close(master)
            self.assertEqual(b"importing standard input" in shown, expected, shown)
            self.assertTrue(shown.endswith(b"\r\x1b[Kend" if expected else b"end"), shown)
        with open("/tmp/err", "wb+") as file:
            self.assertEqual(self.slow_import(stderr=file), 0)
            file.seek(0)
            self.assertEqual(file.read(), b"")


if __name__ == "__main__":
    unittest.main()
