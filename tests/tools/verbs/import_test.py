"""import: what comes from a Maildir or an mbox, what is left out, what a second run brings."""

import mailbox
import os
import threading
import time
import unittest

from testing.toolkit import (TSMAIL, Kept, SpoolCase, content, folder_record, is_marked, left_in_tmp, mail,
                             mailbox_record, messages, run, snapshot, tsmail, write)
from testing.tracing import STEP, all_killed, from_the_first_in_the_spool, killed, numbered, traced_parent, traced_worker

ANN = "ann@site.test"
SOURCE = "/tmp/source"
OWNER = 20001
# Folder names in UTF-8 and as Maildir++ writes them.
NAMES = {"Entwürfe": "Entw&APw-rfe", "a&b": "a&-b", "日本語": "&ZeVnLIqe-", "😀": "&2D3eAA-", "&": "&-"}


def make_maildir(path):
    for part in ("cur", "new", "tmp"):
        os.makedirs(f"{path}/{part}", exist_ok=True)


def put(path, text, date):
    write(path, text)
    os.utime(path, (1, date))


def text_of(number):
    return b"Subject: %d\n\n" % number + b"line\n" * number


class ImportCase(SpoolCase):
    def setUp(self):
        super().setUp()
        run(["rm", "-rf", SOURCE])
        make_maildir(SOURCE)
        owner = ["--owner", f"{OWNER}:{OWNER}"] if os.geteuid() == 0 else []
        self.succeed("create", ANN, *owner)

    def folders(self):
        return {row["folder"]: row["messages"] for row in self.succeed("--json", "folders", ANN).objects
                if row["messages"]}

    def found(self, folder="Inbox"):
        """Text, receipt date and flags of the folder's messages."""
        rows = self.succeed("--json", "messages", ANN, folder).objects
        return sorted((content(f"{mail(ANN)}/{folder}/{row['place']}/{row['name']}"), row["received"], row["flags"])
                      for row in rows)

    def assert_right(self):
        """All sizes agree, nothing is marked, all belongs to the owner."""
        self.assertTrue(all(row["agrees"] for row in self.succeed("--json", "size", ANN).objects))
        self.assertFalse(is_marked(ANN))
        self.assertEqual(left_in_tmp(ANN), [])
        if os.geteuid() == 0:
            for top, _, files in os.walk(mail(ANN)):
                for name in [".", *files]:
                    self.assertEqual(os.lstat(f"{top}/{name}").st_uid, OWNER)


class MaildirTest(ImportCase):
    def test_flags_dates_and_places(self):
        dates = [0, 1, 1234567890, 1577836799, 1577836800, 1700000000, 3400000000]
        for number, date in enumerate(dates):
            put(f"{SOURCE}/cur/{number}.x:2,{'FS' if number % 2 else ''}", text_of(number), date)
        put(f"{SOURCE}/new/new.x", b"", 1600000000)
        put(f"{SOURCE}/tmp/unfinished", b"x", 1)
        self.assertEqual(self.succeed("import", ANN, SOURCE).out, "Inbox: imported 8 messages (189 B)\n")
        expected = sorted([(text_of(n), date, "FS" if n % 2 else "") for n, date in enumerate(dates)] +
                          [(b"", 1600000000, "")])
        self.assertEqual(self.found(), expected)
        self.assertEqual(len(messages(ANN, where=["new"])), 1)
        for path in messages(ANN):
            date = int(os.path.basename(path).split(".")[0])
            self.assertEqual("#Q#" in path, date >= 1577836800, path)
            self.assertEqual((os.stat(path).st_mtime, os.stat(path).st_mode & 0o777), (date, 0o600))
        self.assert_right()

    def test_folders_of_all_kinds_of_names(self):
        for number, (name, encoded) in enumerate(NAMES.items()):
            make_maildir(f"{SOURCE}/.{encoded}")
            put(f"{SOURCE}/.{encoded}/cur/1", text_of(number), 1700000000)
            make_maildir(f"{SOURCE}/Nested/{name}")
            put(f"{SOURCE}/Nested/{name}/new/1", text_of(number), 1700000000)
        make_maildir(f"{SOURCE}/.Work.2024.May")
        put(f"{SOURCE}/.Work.2024.May/cur/1", b"may", 1700000000)
        make_maildir(f"{SOURCE}/Nested/&ZeVnLIqe-2")
        make_maildir(f"{SOURCE}/Empty/below")
        os.makedirs(f"{SOURCE}/.hidden/x")
        self.succeed("import", ANN, SOURCE)
        self.assertEqual(self.folders(), {**{name: 1 for name in NAMES}, **{f"Nested/{name}": 1 for name in NAMES},
                                          "Work/2024/May": 1})
        for folder in ("Nested/日本語2", "Empty/below"):
            self.assertTrue(os.path.isdir(f"{mail(ANN)}/{folder}/cur"), folder)
        self.assertFalse(os.path.exists(f"{mail(ANN)}/hidden"))
        self.assert_right()

    def test_names_of_system_folders(self):
        for name in (".INBOX", ".trash", "SENT", ".Drafts.a"):
            make_maildir(f"{SOURCE}/{name}")
            put(f"{SOURCE}/{name}/cur/1", name.encode(), 1700000000)
        self.succeed("import", ANN, SOURCE)
        self.assertEqual(self.folders(), {"Inbox": 1, "Trash": 1, "Sent": 1, "Drafts/a": 1})

    def test_into_a_folder(self):
        make_maildir(f"{SOURCE}/.Sub")
        make_maildir(f"{SOURCE}/inbox")
        for place in ("cur", ".Sub/cur", "inbox/new"):
            put(f"{SOURCE}/{place}/1", b"x", 1700000000)
        self.succeed("import", ANN, SOURCE, "--folder", "Old/2019")
        self.assertEqual(self.folders(), {"Old/2019": 1, "Old/2019/Sub": 1, "Old/2019/inbox": 1})
        self.fail_with(65, "import", ANN, SOURCE, "--folder", "../x", saying="refused")

    def test_what_python_wrote(self):
        box = mailbox.Maildir(SOURCE)
        for number in range(20):
            message = mailbox.MaildirMessage(text_of(number))
            message.set_subdir("new" if number % 3 else "cur")
            message.set_flags("RS" if number % 3 == 0 else "")
            message.set_date(1600000000 + number)
            box.add(message)
        box.add_folder("Sub").add(text_of(3))
        self.succeed("import", ANN, SOURCE)
        self.assertEqual(self.found(), sorted((text_of(n), 1600000000 + n, "" if n % 3 else "RS") for n in range(20)))

    def test_a_mailbox_of_another_store(self):
        make_maildir("/tmp/source/Inbox")
        put("/tmp/source/Inbox/new/1700000000.1_2_3.x#Q#3AEMDK00000000,#F#S#3#E", b"abc", 1700000000)
        self.succeed("import", ANN, SOURCE)
        self.assertEqual(self.found(), [(b"abc", 1700000000, "")])


class MboxTest(ImportCase):
    FROM = b"From x@y.test Thu Jan  1 00:01:40 2015\n"

    def imported(self, text, code=0):
        SpoolCase.setUp(self)
        self.succeed("create", ANN)
        put("/tmp/mbox", text, 1500000000)
        done = tsmail("import", ANN, "/tmp/mbox")
        self.assertEqual(done.code, code, done)
        return self.found()

    def test_messages_and_their_limits(self):
        date = 1420070500
        rows = [
            (b"", []),
            (self.FROM, [(b"", date, "")]),
            (self.FROM + b"\n", [(b"", date, "")]),
            (self.FROM + b"a\n\n", [(b"a\n", date, "")]),
            (self.FROM + b"a\n", [(b"a\n", date, "")]),
            (self.FROM + b"a", [(b"a", date, "")]),
            (self.FROM + b"a\n\n\n", [(b"a\n\n", date, "")]),
            (self.FROM + b"A: b\n\nc\n\n" + self.FROM + b"d\n\n", [(b"A: b\n\nc\n", date, ""), (b"d\n", date, "")]),
            (self.FROM + b"a\n" + self.FROM + b"b\n", [(b"a\n", date, ""), (b"b\n", date, "")]),
            (self.FROM + b"\n>From a\n>>From b\n> From c\nFrom d\n\n", [(b"\nFrom a\n>From b\n> From c\nFrom d\n", date, "")]),
            (self.FROM + b"a\r\n\r\n" + self.FROM, [(b"", date, ""), (b"a\r\n", date, "")]),
            (self.FROM + b"x" * 300000 + b"\n\n" + self.FROM + b"y", [(b"x" * 300000 + b"\n", date, ""), (b"y", date, "")]),
            (b"From \nA: b\n\nc\n\nFrom \nd", [(b"A: b\n\nc\n", 1500000000, ""), (b"d", 1500000000, "")]),
        ]
        for text, expected in rows:
            with self.subTest(text=text[:80]):
                self.assertEqual(self.imported(text), expected)

    def test_dates(self):
        rows = {b"Thu Jan  1 00:00:00 1970": 0, b"Tue Feb 29 23:59:60 2000": 951868800, b"Fri Nov 14 22:13 2014": 1416003180,
                b"Fri Nov 14 22:13:20 +0130 2014": 1415997800, b"Fri Nov 14 22:13:20 2014 -0100": 1416006800,
                b"Fri Nov 14 22:13:20 CET 2014": 1416003200, b"Sat Jan  1 00:00:00 2050": 2524608000}
        for date, expected in rows.items():
            with self.subTest(date):
                self.assertEqual(self.imported(b"From x " + date + b"\na\n"), [(b"a\n", expected, "")])

    def test_flags(self):
        rows = [(b"Status: RO\nX-Status: AF\n", "FRS", "cur"), (b"Status: O\n", "", "cur"), (b"", "", "new"),
                (b"status: r\n", None, "new"), (b"X-Status: TD\n", "DT", "cur"), (b"Status: \n", "", "new"),
                (b"Status: open\n", None, "new")]
        for header, flags, place in rows:
            with self.subTest(header):
                text = b"Subject: x\n" + header + b"To: y\n\nStatus: RO\n"
                [(found, _, letters)] = self.imported(self.FROM + text + b"\n")
                kept = header if flags is None else b""
                self.assertEqual(found, b"Subject: x\n" + kept + b"To: y\n\nStatus: RO\n")
                self.assertEqual(letters, flags or "")
                self.assertEqual(len(messages(ANN, where=[place])), 1)

    def test_what_python_wrote(self):
        box = mailbox.mbox("/tmp/python.mbox")
        expected = []
        for number, flags in enumerate(["", "R", "RO", "ROA", "ROF", "ROD", "AFT"]):
            message = mailbox.mboxMessage(b"Subject: %d\n\nFrom here\n" % number)
            message.set_flags(flags)
            message.set_from("ann@site.test", time.gmtime(1400000000 + number))
            box.add(message)
            letters = "".join(sorted({"R": "S", "A": "R", "F": "F", "D": "T", "T": "D"}.get(f, "") for f in flags))
            expected.append((b"Subject: %d\n\nFrom here\n" % number, 1400000000 + number, letters))
        box.close()
        self.succeed("import", ANN, "/tmp/python.mbox")
        self.assertEqual(self.found(), sorted(expected))
        os.unlink("/tmp/python.mbox")

    def test_what_is_not_an_mbox(self):
        self.assertEqual(self.imported(b"Subject: x\n\nx\n", 65), [])
        self.fail_with(66, "import", ANN, "/tmp/none", saying="/tmp/none: No such file")
        self.fail_with(66, "import", ANN, "/dev/null", saying="neither a directory nor a file")


class AgainTest(ImportCase):
    def fill(self):
        for number in range(6):
            put(f"{SOURCE}/cur/{number}.x:2,S", text_of(number), 1700000000 + number)
        put(f"{SOURCE}/cur/same.x", text_of(1), 1700000000)
        put(f"{SOURCE}/cur/same2.x", text_of(1), 1700000000)
        write("/tmp/mbox", b"From x Thu Jan  1 00:00:00 2015\nsame\n\n" * 3)

    def test_a_second_run_brings_nothing(self):
        self.fill()
        for expected in ("8 messages (181 B)", "0 messages (0 B), 8 were there"):
            self.assertEqual(self.succeed("import", ANN, SOURCE).out, f"Inbox: imported {expected}\n")
        for expected in ("3 messages (15 B)", "0 messages (0 B), 3 were there"):
            self.assertEqual(self.succeed("import", ANN, "/tmp/mbox", "--folder", "M").out, f"M: imported {expected}\n")
        self.assertEqual(self.folders(), {"Inbox": 8, "M": 3})
        self.assert_right()

    def test_whatever_readers_did_meanwhile(self):
        self.fill()
        self.succeed("import", ANN, SOURCE)
        names = [os.path.basename(path) for path in messages(ANN)]
        self.succeed("message", "flag", ANN, "Inbox", names[0], "+F", "-S")
        self.succeed("message", "move", ANN, "Inbox", names[1], "--to", "Trash")
        os.rename(f"{SOURCE}/cur/3.x:2,S", f"{SOURCE}/cur/3.x:2,FRS")
        self.assertIn("0 messages", self.succeed("import", ANN, SOURCE).out)
        put(f"{SOURCE}/cur/9.x", b"another", 1700000009)
        self.assertIn("1 message (7 B), 8 were there", self.succeed("import", ANN, SOURCE).out)

    def test_sources_with_equal_names_are_not_mixed_up(self):
        for text in (b"one", b"two"):
            put(f"{SOURCE}/cur/1", text, 1700000000)
            self.succeed("import", ANN, SOURCE)
        self.assertEqual([row[0] for row in self.found()], [b"one", b"two"])

    def test_dry_run(self):
        self.fill()
        make_maildir(f"{SOURCE}/.Work")
        before = snapshot("/var/spool")
        out = self.succeed("import", ANN, SOURCE, "/tmp/mbox", "--dry-run").lines
        self.assertEqual(out, ["Inbox: would import 8 messages (181 B)", "Work: would import 0 messages (0 B)",
                               "Inbox: would import 3 messages (15 B)"])
        self.assertEqual(snapshot("/var/spool"), before)

    def test_several_groups_and_the_quota_daemon(self):
        for number in range(1100):
            put(f"{SOURCE}/new/{number}.x", b"%d" % number, 1700000000)
        daemon = self.listen()
        self.succeed("import", ANN, SOURCE)
        size = sum(len(b"%d" % n) for n in range(1100))
        self.assertEqual(self.told(daemon), [f"S{size},F({mail(ANN)}/Inbox)"])
        self.assertEqual((folder_record(ANN), mailbox_record(ANN)), ((size, 1100), (size, 1100)))
        self.assert_right()

    def test_one_of_several_sources_fails(self):
        self.fill()
        done = self.fail_with(66, "import", ANN, "/tmp/none", SOURCE, saying="/tmp/none")
        self.assertEqual(self.folders(), {"Inbox": 8})
        self.assertIn("8 messages", done.out)
        self.fail_with(67, "import", "bob@site.test", SOURCE, saying="no such mailbox")


class KilledTest(ImportCase):
    """Killed at each of its system calls and run again, an import has brought every message once."""

    CALLS = ("openat", "linkat", "write", "fsync", "flock", "unlink", "sync_file_range", "recvmsg", "close", "utimensat",
             "fstat", "newfstatat", "mkdir", "pread64", "getdents64", "read", "poll", "sendmsg", "socketpair", "clone")

    def fill(self):
        for number in range(3):
            put(f"{SOURCE}/cur/{number}.x:2,S", text_of(number), 1700000000 + number)
        make_maildir(f"{SOURCE}/.Work")
        put(f"{SOURCE}/.Work/new/1.x", text_of(7), 1700000000)

    def check(self):
        for folder in ("Inbox", "Work"):
            sizes = [os.path.getsize(path) for path in messages(ANN, folder)]
            self.assertTrue(is_marked(ANN) or folder_record(ANN, folder) == (sum(sizes), len(sizes)), folder)
        total = [os.path.getsize(path) for folder in ("Inbox", "Work") for path in messages(ANN, folder)]
        self.assertTrue(is_marked(ANN) or mailbox_record(ANN) == (sum(total), len(total)))
        self.assertEqual(left_in_tmp(ANN), [])
        self.succeed("import", ANN, SOURCE)
        self.assertEqual(sorted(map(content, messages(ANN))), [text_of(n) for n in range(3)])
        self.assertEqual(list(map(content, messages(ANN, "Work"))), [text_of(7)])

    def kill_everywhere(self, trace, kill=killed):
        self.fill()
        kept, words = Kept(), [TSMAIL, "import", ANN, SOURCE]
        _, calls = trace([], words)
        rows, ended = numbered(calls) if trace is traced_worker else from_the_first_in_the_spool(calls), 0
        for name, n, _ in [row for row in rows if row[0] in self.CALLS][::STEP]:
            with self.subTest(call=name, n=n):
                kept.put_back()
                done, _ = trace(kill(name, n), words)
                ended += done.code != 0
                self.check()
        self.assertGreater(ended, 5 // STEP)

    def test_the_worker(self):
        self.kill_everywhere(traced_worker)

    def test_the_command(self):
        self.kill_everywhere(traced_parent)

    def test_both(self):
        self.kill_everywhere(traced_worker, all_killed)


@unittest.skipUnless(os.geteuid() == 0, "needs root")
class SafetyTest(ImportCase):
    BERT = 20002

    def test_a_source_that_only_the_caller_may_read(self):
        put(f"{SOURCE}/cur/1", b"x", 1700000000)
        for path in (f"{SOURCE}/cur/1", f"{SOURCE}/cur", SOURCE):
            os.chmod(path, 0o700)
        self.succeed("import", ANN, SOURCE)
        self.assertEqual(self.folders(), {"Inbox": 1})
        self.assert_right()

    def test_links_on_the_way(self):
        put(f"{SOURCE}/cur/1", b"x", 1700000000)
        run(["rm", "-rf", "/tmp/link", "/tmp/users"])
        os.symlink(SOURCE, "/tmp/link")
        self.assertIn("1 message", self.succeed("import", ANN, "/tmp/link", "--dry-run").out)
        os.mkdir("/tmp/users")
        os.chown("/tmp/users", self.BERT, self.BERT)
        for target, given in ((SOURCE, "/tmp/users/link"), ("/tmp", "/tmp/users/link/source")):
            os.symlink(target, "/tmp/users/link")
            os.lchown("/tmp/users/link", self.BERT, self.BERT)
            self.fail_with(66, "import", ANN, given, saying="symbolic link of user 20002 is not followed")
            os.unlink("/tmp/users/link")
        os.unlink("/tmp/link")

    def test_links_in_a_source(self):
        write("/tmp/secret", b"secret")
        os.makedirs("/tmp/other/cur", exist_ok=True)
        write("/tmp/other/cur/1", b"secret")
        os.symlink("/tmp/secret", f"{SOURCE}/cur/1")
        os.symlink("/tmp/other", f"{SOURCE}/Other")
        os.symlink("/tmp/other", f"{SOURCE}/.Other")
        os.rmdir(f"{SOURCE}/new")
        os.symlink("/tmp/other/cur", f"{SOURCE}/new")
        done = self.fail_with(65, "import", ANN, SOURCE)
        self.assertEqual(len(set(done.err.splitlines())), 5, done)
        self.assertEqual(done.err.count("left out"), 5, done)
        self.assertEqual(self.folders(), {})

    def test_second_names(self):
        """As if the kernel did not protect hard links."""
        run(["chown", "-R", str(self.BERT), SOURCE])
        write("/tmp/secret", b"secret")
        os.link("/tmp/secret", f"{SOURCE}/cur/1")
        write("/tmp/own", b"own")
        os.chown("/tmp/own", self.BERT, self.BERT)
        os.link("/tmp/own", f"{SOURCE}/cur/2")
        self.fail_with(65, "import", ANN, SOURCE, saying="a second name of another user's file")
        self.assertEqual([row[0] for row in self.found()], [b"own"])
        os.unlink("/tmp/own")

    def test_what_is_not_a_message(self):
        os.mkfifo(f"{SOURCE}/cur/fifo")
        os.mkdir(f"{SOURCE}/cur/directory")
        write(f"{SOURCE}/cur/.hidden", b"x")
        put(f"{SOURCE}/cur/1", b"x", 1700000000)
        make_maildir(f"{SOURCE}/.a*b")
        put(f"{SOURCE}/.a*b/cur/1", b"x", 1700000000)
        for name in ("..x", ".cur", "&AC4ALg-"):
            make_maildir(f"{SOURCE}/{name}")
        done = self.fail_with(65, "import", ANN, SOURCE)
        self.assertEqual(done.err.count("not a regular file"), 2, done)
        self.assertIn('"a*b" is refused', done.err)
        self.assertEqual(self.folders(), {"Inbox": 1})
        self.assertFalse(os.path.exists(f"{mail(ANN)}/cur"))

    def test_exchanges(self):
        """Directories and files become links to what only root may read, and back."""
        run(["rm", "-rf", "/tmp/roots"])
        make_maildir("/tmp/roots")
        for number in range(20):
            write(f"/tmp/roots/cur/{number}", b"secret")
            write(f"{SOURCE}/cur/{number}", b"open")
        os.chmod("/tmp/roots", 0o700)
        stop = threading.Event()

        def exchange():
            while not stop.is_set():
                for path, target in ((f"{SOURCE}/cur", "/tmp/roots/cur"), (f"{SOURCE}/cur/7", "/tmp/roots/cur/7")):
                    try:
                        os.rename(path, path + ".away")
                        os.symlink(target, path)
                        os.unlink(path)
                        os.rename(path + ".away", path)
                    except OSError:
                        pass

        other = threading.Thread(target=exchange)
        other.start()
        try:
            for number in range(25):
                self.assertIn(tsmail("import", ANN, SOURCE, "--folder", f"F{number}").code, (0, 65))
        finally:
            stop.set()
            other.join()
        texts = {content(path) for number in range(25) for path in messages(ANN, f"F{number}")}
        self.assertLessEqual(texts, {b"open"})
        self.assert_right()


if __name__ == "__main__":
    unittest.main()
