"""--all and --domain of the verbs that otherwise work on one mailbox: whose each result is, what is passed over, that
one bad mailbox does not stop the others, and what is refused."""

import os
import subprocess
import unittest

from testing.toolkit import (TSMAIL, SpoolCase, as_nobody, content, environment, held_by_folders, mail,
                             mailbox_record, own_by_nobody, snapshot, tsmail, write)

ANN, BERT, CARL = "ann@site.test", "bert@site.test", "carl@other.test"
ALL = [CARL, ANN, BERT]  # in the order of their directories

# The verbs: the words behind "--all", and whether the command needs something to be there that Carl has not got.
READERS = (
    (["folders"], []), (["size"], ["Work"]), (["messages"], ["Work"]), (["pref", "show"], []),
    (["pref", "get"], ["npage"]), (["quota", "show"], []), (["list", "names"], []), (["list", "show"], ["whitelist"]),
    (["list", "find"], ["whitelist", "x@y"]), (["list", "match"], ["whitelist", "x@y"]),
)
CHANGERS = (
    (["tag"], ["Work"]), (["pref", "set"], ["npage=30"]), (["pref", "reset"], ["npage"]),
    (["quota", "set"], ["exceeded", "7"]), (["quota", "clear"], ["warning"]), (["quota", "reset"], []),
    (["list", "add"], ["whitelist", "n@y"]), (["list", "remove"], ["whitelist", "x@y"]), (["rm"], ["Work"]),
)


class EachCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("-q", "create", CARL)
        self.succeed("-q", "create", ANN, BERT, "--folder", "Work")
        for address in (ANN, BERT):
            write(mail(address) + "/Work/cur/1000000000.1_1.host:2,S", b"abc")
            self.succeed("-q", "list", "add", address, "whitelist", "x@y")
            self.succeed("-q", "pref", "set", address, "npage=50")
        self.succeed("-q", "quota", "set", ANN, "warning", "3")

    def addresses(self, *words):
        """The mailboxes of a verb's results, each once."""
        return list(dict.fromkeys(row["address"] for row in tsmail("--json", *words).objects))


class ReadingTest(EachCase):
    def test_json_says_whose_it_is_and_is_else_as_for_one(self):
        for verb, rest in READERS:
            one = {address: tsmail("--json", *verb, address, *rest).objects for address in ALL}
            expected = [{**row, "address": address} for address in ALL for row in one[address]]
            for many in (["--all"], ["--all", "--jobs", "2"] if verb[0] in ("folders", "size") else ["--all"]):
                with self.subTest(verb=verb, many=many):
                    done = tsmail("--json", *verb, *many, *rest)
                    self.assertEqual((done.objects, done.err), (expected, ""))
                    self.assertTrue(expected)
            domain = tsmail("--json", *verb, "--domain", "other.test", *rest).objects
            self.assertEqual(domain, [row for row in expected if row["address"] == CARL], verb)

    def test_one_mailbox_is_shown_as_before(self):
        [row] = self.succeed("--json", "pref", "get", ANN, "npage").objects
        self.assertEqual(row, {"npage": 50})
        self.assertEqual(self.succeed("pref", "get", ANN, "npage").out, "50\n")
        self.assertEqual(self.succeed("list", "find", ANN, "whitelist", "x@y").out, "yes: x@y\n")
        self.assertEqual(self.succeed("tag", ANN, "Work").out, "Work: 1 message tagged\n")
        self.assertNotIn(ANN, self.succeed("folders", ANN).out)

    def test_lines_and_tables_for_people(self):
        self.assertEqual(self.succeed("pref", "get", "--all", "npage").lines, [f"{CARL}: 25", f"{ANN}: 50", f"{BERT}: 50"])
        self.assertEqual(self.succeed("list", "show", "--all", "whitelist").lines, [f"{a}:     1  x@y" for a in (ANN, BERT)])
        self.assertEqual(self.succeed("list", "show", "--all", "whitelist", "--sorted").lines,
                         [f"{ANN}: x@y", f"{BERT}: x@y"])
        rows = [line.split() for line in self.succeed("folders", "--all").lines]
        self.assertEqual(rows[0], ["mailbox", "folder", "messages", "new", "size"])
        self.assertIn([BERT, "Work", "1", "0", "3", "B"], rows)
        self.assertEqual(rows[-1], ["total", "2", "0", "6", "B"])
        rows = [line.split()[:2] for line in self.succeed("size", "--domain", "site.test", "Work").lines]
        self.assertEqual(rows, [["mailbox", "folder"], [ANN, "Work"], [BERT, "Work"]])
        self.assertEqual([line.split()[0] for line in self.succeed("messages", "--all", "Work").lines], ["mailbox", ANN, BERT])
        self.assertEqual([line.split()[:4] for line in self.succeed("quota", "show", "--all").lines[1:]],
                         [[CARL, "not", "set", "not"], [ANN, "set,", "value", "3"], [BERT, "not", "set", "not"]])
        self.assertEqual([line.split() for line in self.succeed("list", "names", "--all").lines[1:]],
                         [[ANN, "whitelist", "1"], [BERT, "whitelist", "1"]])
        self.assertEqual([line.split()[:3] for line in self.succeed("pref", "show", "--all").lines if " npage " in line],
                         [[CARL, "npage", "25"], [ANN, "npage", "50"], [BERT, "npage", "50"]])

    def test_marked_mailboxes_are_counted(self):
        self.assertNotIn("marked", self.succeed("size", "--all").out)
        self.succeed("quota", "reset", ANN)
        self.assertEqual(self.succeed("size", "--all").lines[-1], "1 mailbox is marked for a recount.")
        self.succeed("quota", "reset", "--all")
        self.assertEqual(self.succeed("size", "--all").lines[-1], "3 mailboxes are marked for a recount.")

    def test_the_answer_is_no_unless_all_say_yes(self):
        for verb in ("find", "match"):
            done = tsmail("list", verb, "--all", "whitelist", "x@y")
            self.assertEqual((done.code, done.lines), (1, [f"{CARL}: no: x@y", f"{ANN}: yes: x@y", f"{BERT}: yes: x@y"]))
            self.succeed("list", verb, "--domain", "site.test", "whitelist", "x@y")

    def test_a_reader_that_went_away(self):
        # More than a pipe holds.
        write(f"{os.path.dirname(mail(ANN))}/pref/ann~site.test.whitelist", b"somebody@site.test\n" * 20000)
        # Usually the worker is ended by its parent's end. Otherwise it finds out when it writes.
        late = ["strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=prctl:error=EINVAL:when=2"]
        for prefix in ([], late):
            for options in ([], ["--json"]):
                words = [*prefix, TSMAIL, *options, "list", "show", "--all", "whitelist"]
                with subprocess.Popen(words, env=environment(ASAN_OPTIONS="detect_leaks=0"), stdout=subprocess.PIPE,
                                      stderr=subprocess.PIPE) as process:
                    process.stdout.read(1)
                    process.stdout.close()
                    self.assertEqual((process.stderr.read(), process.wait(30)), (b"", -13), words)


class ChangingTest(EachCase):
    def test_all_are_changed_and_no_others(self):
        self.succeed("pref", "set", "--domain", "site.test", "npage=30")
        self.assertEqual(self.succeed("pref", "get", "--all", "npage").lines, [f"{CARL}: 25", f"{ANN}: 30", f"{BERT}: 30"])
        self.succeed("pref", "reset", "--all", "npage")
        self.assertEqual(self.succeed("pref", "get", "--all", "npage").lines, [f"{address}: 25" for address in ALL])
        self.succeed("quota", "set", "--all", "exceeded", "7")
        self.succeed("quota", "clear", "--domain", "site.test", "exceeded")
        states = self.succeed("--json", "quota", "show", "--all").objects
        self.assertEqual([state["exceeded"] for state in states],
                         [{"set": True, "value": 7}] + [{"set": False, "value": 0}] * 2)
        self.assertEqual(self.succeed("list", "add", "--all", "whitelist", "x@y").lines,
                         [f"{CARL}: added x@y", f"{ANN}: was there: x@y", f"{BERT}: was there: x@y"])
        self.assertEqual(self.succeed("list", "remove", "--domain", "other.test", "whitelist", "x@y").lines,
                         [f"{CARL}: removed x@y"])
        self.assertEqual(self.succeed("tag", "--all", "Work").lines, [f"{a} Work: 1 message tagged" for a in (ANN, BERT)])

    def test_dry_run(self):
        shown = {"tag": [f"{a} Work: 1 message would be tagged" for a in (ANN, BERT)],
                 "pref set": [f"{a}: would set npage=30" for a in ALL],
                 "pref reset": [f"{a}: would set npage=25" for a in (ANN, BERT)],
                 "quota set": [f"{a}: would set the flag to 7" for a in ALL],
                 "quota clear": [f"{a}: would remove the flag" for a in ALL],
                 "quota reset": [f"{a}: would mark the mailbox for a recount" for a in ALL],
                 "list add": [f"{a}: would add n@y" for a in ALL],
                 "list remove": [f"{a}: would remove x@y" for a in (ANN, BERT)],
                 "rm": [f"would schedule {mail(a)}/Work: 1 message (3 B) and 0 other files" for a in (ANN, BERT)]}
        self.succeed("-q", "list", "find", "--domain", "site.test", "whitelist", "x@y")  # makes lock files
        tsmail("list", "find", CARL, "whitelist", "x@y")
        before = snapshot("/var/spool")
        for verb, rest in CHANGERS:
            with self.subTest(verb=verb):
                self.assertEqual(self.succeed(*verb, "--all", *rest, "--dry-run").lines, shown[" ".join(verb)])
                self.assertEqual(snapshot("/var/spool"), before)

    def test_folders_go_and_come_back(self):
        self.succeed("-q", "recount", "--all")
        amount = {"messages": 1, "bytes": 3}
        for verb, action, held in ((["rm"], "schedule", (0, 0)), (["restore"], "restore", (3, 1)),
                                   (["rm", "--now"], "remove", (0, 0))):
            with self.subTest(verb=verb):
                rows = self.succeed("--json", *verb, "--all", "Work").objects
                self.assertEqual([(row["address"], row["path"], row["action"]) for row in rows],
                                 [(a, mail(a) + "/Work", action) for a in (ANN, BERT)])
                for row, address in zip(rows, (ANN, BERT)):
                    self.assertEqual({key: row[key] for key in amount}, amount)
                    self.assertEqual((mailbox_record(address), held_by_folders(address)), (held, held))
                self.assertEqual(self.succeed(*verb, "--all", "Work").out, "")  # nobody has it now
        self.fail_with(65, "rm", "--all", "Inbox", saying="system folder")

    def test_a_bad_mailbox_is_left_out_and_the_others_are_not(self):
        own_by_nobody("/var/spool")
        os.rename(os.path.dirname(mail(ANN)) + "/pref", os.path.dirname(mail(ANN)) + "/was")
        write(os.path.dirname(mail(ANN)) + "/pref", b"")
        done = tsmail("pref", "set", "--all", "npage=30", **as_nobody())
        self.assertNotEqual(done.code, 0)
        self.assertRegex(done.err, f"^tsmail: {ANN}: [^\n]*\n$")
        self.assertEqual(done.out, "1 mailbox was left out\n")
        for address in (CARL, BERT):
            self.assertIn(b"npage=30", content(f"{os.path.dirname(mail(address))}/pref/{address.replace('@', '~')}.pref"))


class ChoiceTest(EachCase):
    def test_what_is_refused(self):
        before = snapshot("/var/spool")
        for verb, rest in READERS + CHANGERS:
            with self.subTest(verb=verb):
                say = "give an address, or --all, or --domain"
                self.fail_with(64, *verb, ANN, *rest, "--all", saying=say)
                self.fail_with(64, *verb, "--domain", "site.test", ANN, *rest, saying=say)
                self.fail_with(64, *verb, f"--domain=site.test", ANN, *rest, saying=say)
                self.fail_with(64, *verb, "--all", "--domain", "site.test", *rest, saying=say)
                self.fail_with(65, *verb, "--domain", "none.test", *rest, saying="no such domain")
                self.assertEqual(snapshot("/var/spool"), before)
        self.fail_with(64, "folders", saying="give an address")
        self.fail_with(64, "messages", "--all", saying="FOLDER is required")
        self.fail_with(65, "size", "--", "--all", saying="has no domain")

    def test_settings_may_hold_addresses(self):
        self.succeed("pref", "set", "--all", "lang=a@b")
        self.assertEqual(self.succeed("pref", "get", CARL, "lang").out, "a@b\n")

    def test_lists_of_other_scopes_have_no_mailboxes(self):
        for scope in ("home", "system"):
            self.fail_with(64, "list", "show", "--all", "whitelist", "--scope", scope, saying="users' own lists")
        self.fail_with(65, "list", "show", "--all", "pref", saying="not a list")

    def test_a_list_that_the_store_does_not_know(self):
        self.fail_with(65, "list", "add", "--all", "witelist", "x@y", saying="whitelist")
        self.succeed("list", "add", "--all", "others", "x@y", "--any-name")
        self.assertEqual(self.addresses("list", "show", "--all", "others"), ALL)


if __name__ == "__main__":
    unittest.main()
