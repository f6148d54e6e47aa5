"""The command line: help, hints, exit codes, colour, standard streams."""

import os
import pty
import re
import signal
import subprocess
import unittest

from testing.toolkit import BUILD, SOURCE, TSMAIL, SpoolCase, environment, mail, run, tsmail, write

VERBS = ["paths", "create", "folders", "deliver", "pref", "list", "quota", "config"]


class GrammarTest(SpoolCase):
    def test_help_names_every_verb(self):
        help_text = self.succeed("--help").out
        for verb in VERBS:
            self.assertRegex(help_text, rf"(?m)^  {verb} ")
            self.assertIn("Usage: tsmail " + verb, self.succeed(verb, "--help").out)

    def test_version(self):
        self.assertRegex(self.succeed("--version").out, r"^tsmail \d+\.\d+\.\d+\n$")

    def test_usage_errors(self):
        rows = [
            ([], "a verb is missing: paths, create"),
            (["config"], "a verb is missing: check"),
            (["foldrs", "a@site.test"], 'there is no verb "foldrs"; did you mean "folders"\\?'),
            (["dleiver"], 'did you mean "deliver"'),
            (["xyzzyxyzzy"], "the verbs are paths, "),
            (["config", "chekc"], 'did you mean "check"'),
            (["--jsno", "paths", "a@site.test"], 'jsno; did you mean "--json"\\?'),
            (["paths", "a@site.test", "--tpye=user"], 'did you mean "--type"\\?'),
            (["paths", "a@site.test", "--xyzzyxyzzy"], "xyzzyxyzzy\n"),
            (["paths"], "ADDRESS"),
            (["paths", "a@site.test", "b@site.test"], "b@site.test"),
            (["paths", "a@site.test", "--type"], "type"),
            (["paths", "a@site.test", "--type", "usr"], 'no mailbox type "usr"; allowed: none, user'),
            (["paths", "a@site.test", "--kind", "3"], 'no file kind "3"; allowed: whitelist, blacklist'),
            (["paths", "a@site.test", "--kind", "-1"], "file kind|kind"),
            (["evil\x1b[31m"], r'no verb "evil\\x1b\[31m"'),
            (["paths", "a@site.test", "b\x1b[31m"], r"b\\x1b\[31m"),
        ]
        for words, saying in rows:
            with self.subTest(words=words):
                done = self.fail_with(64, *words, saying=saying)
                self.assertIn("tsmail", done.err)
                self.assertNotIn("\x1b", done.err)
                self.assertEqual(done.out, "")

    def test_options_of_all_verbs_stand_anywhere(self):
        first = self.succeed("--json", "paths", "a@site.test").out
        last = self.succeed("paths", "a@site.test", "--json").out
        self.assertEqual(first, last)
        self.assertTrue(first.startswith("{"))

    def test_quiet_says_nothing(self):
        self.assertEqual(self.succeed("-q", "paths", "a@site.test").out, "")

    def test_words_in_brackets_are_one_word(self):
        self.succeed("create", "a@site.test", "--folder", "[b,c]", "--folder", "[d]")
        self.assertEqual({"[b,c]", "[d]"} - set(os.listdir("/var/spool/home/site.test/a~site.test/mail")),
                         set())

    def test_verb_names_are_plain_words_behind_a_verb(self):
        self.succeed("create", "a@site.test", "--folder", "paths", "--folder", "create")

    def test_no_arguments_at_all(self):
        done = run(["bash", "-c", 'exec -a "" "$0"', TSMAIL])
        self.assertEqual(done.code, 64, done)


def on_terminal(case, *words, **changes):
    """The output of a command whose standard output is a terminal."""
    master, terminal = pty.openpty()
    with subprocess.Popen([TSMAIL, *words], stdout=terminal, env=environment(**changes)) as process:
        os.close(terminal)
        shown = b""
        try:
            while piece := os.read(master, 65536):
                shown += piece
        except OSError:
            pass  # the terminal's end
        os.close(master)
        case.assertEqual(process.wait(), 0)
    return shown


class HelpTest(SpoolCase):
    MANUAL = {"MANPATH": os.path.join(BUILD, "docs/man"), "MANPAGER": "cat"}

    def test_the_page_is_shown_on_a_terminal(self):
        rows = [([], b"TSMAIL(1)"), (["deliver"], b"TSMAIL-DELIVER(1)"), (["list"], b"TSMAIL-LIST(1)"),
                (["list", "add"], b"TSMAIL-LIST-ADD(1)")]
        for words, heading in rows:
            with self.subTest(words):
                shown = on_terminal(self, "help", *words, **self.MANUAL)
                self.assertIn(heading, re.sub(rb"\x1b\[\d*m", b"", shown), "whatever the style")

    def test_without_a_page_or_man_it_is_the_help(self):
        for changes in ({"MANPATH": "/tmp/none"}, {"PATH": "/tmp/none"}):
            self.assertIn(b"Usage: tsmail list add ", on_terminal(self, "help", "list", "add", **changes))

    def test_without_a_terminal_it_is_the_help(self):
        for words in ([], ["deliver"], ["list"], ["list", "add"]):
            with self.subTest(words):
                done = self.succeed("help", *words, env=environment(**self.MANUAL))
                self.assertEqual(done.out, self.succeed(*words, "--help").out)

    def test_for_programs_it_is_the_grammar(self):
        self.assertEqual(self.succeed("--json", "help", "list").out, self.succeed("list", "--help", "--json").out)
        self.assertEqual(on_terminal(self, "--json", "help", "list", **self.MANUAL).rstrip(),
                         self.succeed("list", "--help", "--json").out.encode().rstrip())

    def test_a_verb_that_is_not_there(self):
        self.fail_with(64, "help", "dleiver", saying='did you mean "deliver"')
        self.fail_with(64, "help", "list", "xyzzyxyzzy", saying="the verbs are names, show, ")
        self.fail_with(64, "help", "deliver", "more", saying='there is no verb "more"')


class StreamsTest(SpoolCase):
    def test_results_that_cannot_be_written(self):
        with open("/dev/full", "wb") as full:
            done = tsmail("paths", "a@site.test", stdout=full.fileno())
        self.assertEqual(done.code, 74, done)
        self.assertIn("standard output: No space left", done.err)

    def test_a_reader_that_went_away(self):
        reader, writer = os.pipe()
        os.close(reader)
        done = tsmail("paths", "a@site.test", stdout=writer)
        self.assertEqual((done.code, done.err), (-signal.SIGPIPE, ""))
        os.close(writer)

    def test_every_verb_ends_silently_without_its_reader(self):
        address = "a@site.test"
        self.succeed("-q", "create", address)
        for number in range(400):
            write(f"{mail(address)}/Inbox/new/{number}" + "x" * 200, "x")
        self.succeed("-q", "list", "add", address, "whitelist", *(f"{n}{'x' * 200}@site.test" for n in range(400)))
        endless = ("messages", address, "Inbox"), ("list", "show", address, "whitelist"), ("list", "export", address, "whitelist")
        short = (("folders", address), ("size", address), ("usage",), ("usage", "--by-domain"), ("metrics",), ("paths", address),
                 ("list", "names", address), ("pref", "show", address), ("quota", "show", address), ("recount", "--all"))
        for words in (*endless, *short, *(("--json", *words) for words in endless)):
            with self.subTest(words):
                reader, writer = os.pipe()
                os.close(reader)
                done = run([TSMAIL, *words], stdout=writer)
                os.close(writer)
                self.assertEqual((done.code, done.err), (-signal.SIGPIPE, ""))

    def test_what_only_reads_does_not_go_on_without_its_reader(self):
        """A whole piece of output is refused long before the end. A repair goes on."""
        self.succeed("-q", "create", *(f"a{number}@site.test" for number in range(100)))
        for number in range(100):
            for folder in ("x" * 100, "y" * 100, "z" * 100):
                os.makedirs(f"{mail(f'a{number}@site.test')}/{folder}/cur")
        for words in (("doctor", "--all"), ("doctor", "--all", "--repair")):
            reader, writer = os.pipe()
            os.close(reader)
            done = run([TSMAIL, "--json", *words], stdout=writer)
            os.close(writer)
            self.assertEqual((done.code, done.err), (-signal.SIGPIPE, ""))
        self.assertEqual(self.succeed("--json", "doctor", "--all").objects, [])

    def test_a_reader_that_goes_early(self):
        """The work is done nevertheless."""
        self.succeed("create", "a@site.test")
        done = run(["bash", "-c", f'"{TSMAIL}" list add a@site.test whitelist x{{1..900}} | head -1; echo "${{PIPESTATUS[0]}}"'])
        self.assertEqual((done.lines[0], done.err), ("added x1", ""))
        self.assertIn(done.lines[1], ("0", str(128 + signal.SIGPIPE)))
        with open("/var/spool/home/site.test/a~site.test/pref/a~site.test.whitelist", "rb") as file:
            self.assertEqual(file.read().count(b"\n"), 900)

    def test_closed_streams_do_no_harm(self):
        self.succeed("create", "a@site.test")
        for closed in ("0<&-", "1>&-", "2>&-", "0<&- 1>&- 2>&-"):
            done = run(["bash", "-c", f'"$0" deliver a@site.test {closed}', TSMAIL], stdin=b"x")
            self.assertEqual(done.code, 66 if "0<" in closed else 0, (closed, done))
        done = run(["bash", "-c", '"$0" paths a@site.test 1>&-', TSMAIL])
        self.assertEqual(done.code, 74, done)

    def on_terminal(self, **changes):
        return on_terminal(self, "paths", "a@site.test", **changes)

    def test_colour_only_on_a_terminal_that_wants_it(self):
        rows = [({"TERM": "xterm"}, True), ({"TERM": "xterm", "NO_COLOR": "1"}, False),
                ({"TERM": "xterm", "NO_COLOR": ""}, True), ({"TERM": "dumb"}, False)]
        for changes, colour in rows:
            with self.subTest(changes):
                self.assertEqual(b"\x1b[" in self.on_terminal(**changes), colour)
        done = tsmail("paths", "a@site.test", env=environment(TERM="xterm"))
        self.assertNotIn("\x1b", done.out)


class SourcesTest(unittest.TestCase):
    """The folders of tools/ include each other in one direction only."""

    MAY_USE = {
        "": {"cli", "verbs"},
        "cli": {"cli", "verbs/verbs.h"},
        "work": {"cli", "work"},
        "doctor": {"cli", "work", "doctor"},
        "spool": {"cli", "work", "spool"},
        "lmtp": {"cli", "work", "spool", "lmtp"},
        "verbs": {"cli", "work", "doctor", "spool", "lmtp", "verbs"},
    }
    IDENTITY = re.compile(r"::(set(res|re|e)?[ug]id|setgroups|setfs[ug]id)\(|SYS_set(groups|res[ug]id)")

    def sources(self):
        top = os.path.join(SOURCE, "tools")
        for directory, _, files in os.walk(top):
            folder = os.path.relpath(directory, top).replace(".", "")
            for name in files:
                if name.endswith((".cpp", ".h")):
                    with open(os.path.join(directory, name), encoding="utf-8") as file:
                        yield folder, name, file.read()

    def test_folders_use_those_below_them(self):
        seen = 0
        for folder, name, text in self.sources():
            seen += 1
            for used in re.findall(r'^#include "tools/([^"]*)"', text, re.M):
                allowed = self.MAY_USE[folder]
                self.assertTrue(used in allowed or used.split("/")[0] in allowed, (folder, name, used))
        self.assertGreater(seen, 50)

    # What a subsystem of the library may use, besides itself and base. support may not even use the public headers of
    # the others, but that is seen when it is linked.
    LIBRARY = {"base": set(), "mailuser": set(), "maildir": set(), "maillist": set(), "userpref": set(),
               "support": set(), "mailsize": {"maildir", "mailuser"}, "quota": {"mailuser"}}

    def test_subsystems_of_the_library_use_those_below_them(self):
        for folder, allowed in self.LIBRARY.items():
            names = [name for name in os.listdir(os.path.join(SOURCE, folder)) if name.endswith((".cpp", ".h"))]
            self.assertGreater(len(names), 2, folder)
            for name in names:
                with open(os.path.join(SOURCE, folder, name), encoding="utf-8") as file:
                    used = set(re.findall(r'^#include "([^"/]*)/', file.read(), re.M))
                self.assertLessEqual(used, allowed | {folder, "base"}, f"{folder}/{name}")

    def test_only_the_part_with_roots_rights_changes_its_identity(self):
        found = {folder for folder, _, text in self.sources() if self.IDENTITY.search(text)}
        self.assertEqual(found, {"spool"})


if __name__ == "__main__":
    unittest.main()
