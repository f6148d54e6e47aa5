"""export: the way out and back, what other readers see in it, what a format cannot carry, and a second run."""

import glob
import mailbox
import os
import re
import shutil
import threading
import unittest

from testing.toolkit import (SANITIZED, TSMAIL, SpoolCase, content, mail, messages, snapshot, tsmail, write)
from testing.tracing import from_the_first_in_the_spool, killed, numbered, traced_parent, traced_worker

ANN, BERT = "ann@site.test", "bert@site.test"
OUT = "/tmp/exported"
OWNER = 20001
FROM = b"From x@y.test Thu Jan  1 00:01:40 2015\n"
NAMES = ["Entwürfe", "a&b", "a&-b", "日本語", "😀", "a.b", "Work.mbox", "Work.folders", "Work.folders/deep.mbox", "&", "A b"]


class ExportCase(SpoolCase):
    def setUp(self):
        super().setUp()
        shutil.rmtree(OUT, ignore_errors=True)
        owner = ["--owner", f"{OWNER}:{OWNER}"] if os.geteuid() == 0 else []
        for address in (ANN, BERT):
            self.succeed("create", address, *owner)

    def put(self, folder, name, text, place="cur"):
        for level in range(1, folder.count("/") + 2):
            for part in ("cur", "new", "tmp"):
                os.makedirs(f"{mail(ANN)}/{'/'.join(folder.split('/')[:level])}/{part}", exist_ok=True)
        path = f"{mail(ANN)}/{folder}/{place}/{name}"
        write(path, text)
        os.utime(path, (1, 1111111111))
        return path

    def own(self):
        if os.geteuid() == 0:
            for top, _, files in os.walk(f"{mail(ANN)}/.."):
                for name in [".", *files]:
                    os.chown(f"{top}/{name}", OWNER, OWNER)

    def fill(self, names=NAMES, line_end=b"\n"):
        for number, flags in enumerate(["", "S", "FRS", "DT"]):
            self.put("Inbox", f"{1400000000 + number}.1_2_3.x,#F#S#1#E:2,{flags}", b"Subject: %d\n\nx%s" % (number, line_end))
        self.put("Inbox", "1700000000.1_2_3.x#Q#3AEMDK00000000,#F#S#5#E", b"new\n" + line_end, "new")
        self.put("Inbox", "1700000009.1_2_3.x", b"Subject: f\n\n" + FROM + b">" + FROM + b">x\n\n", "new")
        self.put("Inbox/Below", "1.x", b"below\n")
        self.put("Work/2024/May", "2.x:2,S", b"may\n")
        for number, name in enumerate(names):
            self.put(name, f"{1500000000 + number}.1_2_3.x", b"text %d\n" % number)
        self.own()

    def held(self, address):
        """Text, receipt date and flags of the messages of each folder."""
        held = {}
        for row in self.succeed("--json", "folders", address).objects:
            folder = row["folder"]
            rows = self.succeed("--json", "messages", address, folder).objects
            held[folder] = sorted((content(f"{row['path']}/{m['place']}/{m['name']}"), m["received"], m["flags"])
                                  for m in rows)
        return held


class RoundTripTest(ExportCase):
    def test_both_formats(self):
        self.fill()
        for options in ([], ["--format", "mbox"]):
            with self.subTest(options=options):
                before = snapshot("/var/spool")
                done = self.succeed("export", ANN, OUT, *options)
                self.assertEqual(done.err, "")
                self.assertIn("Inbox: exported 6 messages (", done.out)
                self.assertEqual(snapshot("/var/spool"), before)
                self.succeed("import", BERT, OUT)
                self.assertEqual(self.held(BERT), self.held(ANN))
                self.assertEqual(self.succeed("doctor", BERT).code, 0)
                self.assertFalse(os.path.exists(f"{OUT}/.tsmail-export"))
                if os.geteuid() == 0:
                    self.assertEqual({os.lstat(path).st_uid for path in glob.glob(f"{OUT}/**", recursive=True)}, {0})
                self.setUp()
                self.fill()

    def test_one_folder_with_those_below_it(self):
        self.fill()
        for number, options in enumerate(([], ["--format", "mbox"])):
            self.succeed("export", ANN, OUT, "--folder", "Work/2024", *options)
            self.succeed("import", f"c{number}@site.test" if self.succeed("create", f"c{number}@site.test") else "", OUT)
            held = {folder: rows for folder, rows in self.held(f"c{number}@site.test").items() if rows}
            self.assertEqual(held, {"Work/2024/May": self.held(ANN)["Work/2024/May"]})
            shutil.rmtree(OUT)
        self.fail_with(66, "export", ANN, OUT, "--folder", "None", saying="no folder")

    def test_dry_run(self):
        self.fill()
        out = self.succeed("export", ANN, OUT, "--dry-run").out
        self.assertIn("Inbox: would export 6 messages", out)
        self.assertFalse(os.path.exists(OUT))


class ReadersTest(ExportCase):
    """Python's mailbox module sees the same."""

    def mbox(self, file):
        box = mailbox.mbox(f"{OUT}/{file}", create=False)
        self.addCleanup(box.close)
        return box

    def texts(self, box):
        return sorted(box.get_bytes(key) for key in box.keys())

    def test_maildir(self):
        self.fill()
        self.succeed("export", ANN, OUT)
        box, held = mailbox.Maildir(OUT, create=False), self.held(ANN)
        self.assertEqual(self.texts(box), [row[0] for row in held["Inbox"]])
        self.assertEqual(sorted((m.get_flags(), int(m.get_date())) for m in box),
                         sorted((row[2], row[1]) for row in held["Inbox"]))
        self.assertEqual(len(glob.glob(f"{OUT}/new/*")), 2)
        names = {"Work.2024.May": "Work/2024/May", "Inbox.Below": "Inbox/Below", "Entw&APw-rfe": "Entwürfe", "a&-b": "a&b",
                 "&ZeVnLIqe-": "日本語", "&2D3eAA-": "😀", "a&AC4-b": "a.b", "A b": "A b"}
        self.assertLessEqual(set(names), set(box.list_folders()))
        for name, folder in names.items():
            self.assertEqual(self.texts(box.get_folder(name)), [row[0] for row in held[folder]])

    def test_mbox(self):
        self.fill()
        self.succeed("export", ANN, OUT, "--format", "mbox")
        held = self.held(ANN)
        for file, folder in (("Inbox.mbox", "Inbox"), ("Work.folders/2024.folders/May.mbox", "Work/2024/May"),
                             ("Entwürfe.mbox", "Entwürfe"), ("Work.mbox.mbox", "Work.mbox")):
            box = self.mbox(file)
            unquoted = sorted(re.sub(rb"(?m)^(Status|X-Status): [A-Z]+\n", b"",
                                     re.sub(rb"(?m)^>(>*From )", rb"\1", text)) for text in self.texts(box))
            self.assertEqual(unquoted, [row[0] for row in held[folder]])
        flags = sorted("".join(sorted(m.get_flags())) for m in self.mbox("Inbox.mbox"))
        self.assertEqual(flags, sorted(["", "", "O", "OR", "AFOR", "DOT"]))
        dates = [m.get_from() for m in self.mbox("Inbox.mbox")]
        self.assertEqual(dates[0], "MAILER-DAEMON Tue May 13 16:53:20 2014")


class LostTest(ExportCase):
    def test_what_mbox_cannot_carry_is_said(self):
        rows = {"1.x:2,P": b"flag\n", "2.x": b"Status: RO\n\nown\n", "3.x": b"no end", "4.x": b"", "5.x": b"Status: open\n\nx\n"}
        for name, text in rows.items():
            self.put("Inbox", name, text)
        self.own()
        done = self.succeed("export", ANN, OUT, "--format", "mbox")
        warnings = sorted(re.findall(r"warning: \S*/(\S+): (.*)", done.err))
        self.assertEqual(warnings, [("1.x:2,P", "mbox does not carry the flag P"),
                                    ("2.x", "mbox does not carry its own lines Status or X-Status"),
                                    ("3.x", "its last line has no end, and has one in the mbox")])
        self.succeed("import", BERT, OUT)
        self.assertEqual(sorted(row[0] for row in self.held(BERT)["Inbox"]),
                         sorted([b"flag\n", b"\nown\n", b"no end\n", b"", b"Status: open\n\nx\n"]))
        self.assertEqual(self.succeed("export", ANN, OUT + "2").err, "")
        shutil.rmtree(OUT + "2")

    def test_names_that_a_format_cannot_carry(self):
        for name in (b"bad\xff", b"x" * 250):
            for part in (b"cur", b"new", b"tmp"):
                os.makedirs(os.path.join(os.fsencode(mail(ANN)), name, part))
        self.own()
        done = self.fail_with(65, "export", ANN, OUT, saying=r'folder "bad\\xff": left out')
        self.assertEqual(done.err.count("left out"), 1)
        shutil.rmtree(OUT)
        self.fail_with(65, "export", ANN, OUT, "--format", "mbox", saying='folder "xxx')
        self.assertTrue(os.path.exists(os.fsencode(OUT) + b"/bad\xff.mbox"))
        shutil.rmtree(OUT)

    def test_a_file_of_holes(self):
        path = self.put("Inbox", "1.x", b"x\n")
        os.truncate(path, 1 << 40)
        self.own()
        self.fail_with(65, "export", ANN, OUT, saying="/1.x: left out .a file of holes")
        self.assertEqual(os.listdir(f"{OUT}/cur"), [])

    def test_what_is_not_a_message(self):
        self.put("Inbox", "1.x", b"x\n")
        self.own()
        os.mkfifo(f"{mail(ANN)}/Inbox/cur/fifo")
        os.mkdir(f"{mail(ANN)}/Inbox/cur/directory")
        os.symlink("/etc/passwd", f"{mail(ANN)}/Inbox/cur/link")
        done = tsmail("export", ANN, OUT)
        self.assertIn(done.code, (73, 74), done)
        self.assertIn("/cur/link: Too many levels of symbolic links", done.err)
        self.assertEqual(os.listdir(f"{OUT}/cur"), ["1.x"])


class PlaceTest(ExportCase):
    def test_a_place_that_is_not_empty_is_refused(self):
        self.fill(NAMES[:1])
        self.succeed("export", ANN, OUT)
        before = snapshot(OUT)
        self.fail_with(73, "export", ANN, OUT, saying=f"{OUT}: the directory is not empty")
        self.assertEqual(snapshot(OUT), before)
        for words in ([BERT], [ANN, "--format", "mbox"], [ANN, "--folder", "Inbox"]):
            shutil.rmtree(OUT)
            os.mkdir(OUT)
            write(f"{OUT}/.tsmail-export", f"unfinished export\nmailbox: {ANN}\nformat: maildir\nfolder: \n")
            self.fail_with(73, "export", words[0], OUT, *words[1:], saying="not empty")
        self.succeed("export", ANN, OUT)
        self.assertEqual(len(os.listdir(f"{OUT}/cur")), 4)

    def test_it_may_exist_and_be_named_in_any_way(self):
        self.fill([])
        os.mkdir(OUT)
        self.succeed("export", ANN, OUT + "///")
        shutil.rmtree(OUT)
        self.succeed("export", ANN, "exported", cwd="/tmp")
        self.assertEqual(len(os.listdir(f"{OUT}/cur")), 4)
        self.fail_with(66, "export", ANN, "/tmp/none/exported", saying="No such file")
        self.fail_with(67, "export", "carl@site.test", "/tmp/none", saying="no such mailbox")

    def test_two_at_a_time(self):
        self.fill([])
        with subprocess_stopped("export", ANN, OUT):
            self.fail_with(75, "export", ANN, OUT, saying="another export works on it")
        self.succeed("export", ANN, OUT)

    @unittest.skipIf(os.geteuid() != 0, "needs a small file system")
    def test_a_full_disk(self):
        self.put("Inbox", "1.x", os.urandom(3 << 20))
        self.own()
        os.mkdir(OUT)
        if os.system(f"mount -t tmpfs -o size=1m tmpfs {OUT}") != 0:
            self.skipTest("no mount here")
        try:
            self.fail_with(75, "export", ANN, OUT, saying="No space left on device")
            os.system(f"mount -o remount,size=10m {OUT}")
            self.succeed("export", ANN, OUT)
            self.assertEqual(len(os.listdir(f"{OUT}/cur")), 1)
        finally:
            os.system(f"umount {OUT}")


class subprocess_stopped:
    """An export that stands still with its directory marked."""

    def __init__(self, *words):
        self.words = words

    def __enter__(self):
        import fcntl
        os.mkdir(OUT)
        write(f"{OUT}/.tsmail-export", f"unfinished export\nmailbox: {ANN}\nformat: maildir\nfolder: \n")
        self.fd = os.open(f"{OUT}/.tsmail-export", os.O_RDONLY)
        fcntl.flock(self.fd, fcntl.LOCK_EX)

    def __exit__(self, *_):
        os.close(self.fd)


class KilledTest(ExportCase):
    """Killed and run again, an export is whole."""

    CALLS = ("openat", "sendmsg", "recvmsg", "close", "fstat", "newfstatat", "getdents64", "poll", "flock", "mkdirat", "clone")

    def kill_everywhere(self, trace, options):
        self.fill(NAMES[:2])
        words = [TSMAIL, "export", ANN, OUT, *options]
        _, calls = trace([], words)
        whole = self.exported()
        self.succeed("import", BERT, OUT)
        self.assertEqual(self.held(BERT), self.held(ANN))
        rows, ended = numbered(calls) if trace is traced_worker else from_the_first_in_the_spool(calls), 0
        for name, n, _ in rows:
            if name not in self.CALLS or n % (6 if SANITIZED else 2):
                continue
            with self.subTest(call=name, n=n):
                shutil.rmtree(OUT, ignore_errors=True)
                done, _ = trace(killed(name, n), words)
                ended += done.code != 0
                self.finish(words, done.code == 0, whole)
        self.assertGreater(ended, 5)

    @staticmethod
    def exported():
        """All that was written, with the dates of Maildir's messages."""
        dates = {path: os.stat(path).st_mtime for path in glob.glob(f"{OUT}/**/*", recursive=True, include_hidden=True)
                 if os.path.basename(os.path.dirname(path)) in ("cur", "new")}
        return snapshot(OUT), dates

    def finish(self, words, is_done, whole):
        finished = os.path.exists(OUT) and os.listdir(OUT) and not os.path.exists(f"{OUT}/.tsmail-export")
        self.assertTrue(finished or not is_done)
        if not finished:
            self.succeed(*words[1:])
        self.assertEqual(self.exported(), whole)

    def test_the_worker(self):
        self.kill_everywhere(traced_worker, [])

    def test_the_worker_with_mbox(self):
        self.kill_everywhere(traced_worker, ["--format", "mbox"])

    def test_the_command(self):
        self.kill_everywhere(traced_parent, [])

    def test_a_second_run_takes_what_readers_did_meanwhile(self):
        self.fill([])
        self.succeed("export", ANN, OUT)
        write(f"{OUT}/.tsmail-export", f"unfinished export\nmailbox: {ANN}\nformat: maildir\nfolder: \n")
        whole, cut = sorted(glob.glob(f"{OUT}/cur/*"))[:2]
        os.truncate(cut, 3)
        inode = os.stat(whole).st_ino
        self.succeed("message", "flag", ANN, "Inbox", os.path.basename(whole), "+F")
        self.succeed("export", ANN, OUT)
        self.assertEqual(sorted(map(os.path.basename, glob.glob(f"{OUT}/cur/*"))),
                         sorted(os.path.basename(path) for path in messages(ANN, where=["cur"])))
        self.assertIn(inode, {os.stat(path).st_ino for path in glob.glob(f"{OUT}/cur/*")})
        self.succeed("import", BERT, OUT)
        self.assertEqual(self.held(BERT), self.held(ANN))


@unittest.skipUnless(os.geteuid() == 0, "needs root")
class TargetTest(ExportCase):
    """Root exports into a directory of a user."""

    USER = 20002
    HERE = "/tmp/users"

    def setUp(self):
        super().setUp()
        shutil.rmtree(self.HERE, ignore_errors=True)
        shutil.rmtree("/tmp/victim", ignore_errors=True)
        os.makedirs(self.HERE)
        os.makedirs("/tmp/victim/cur")
        write("/tmp/victim/file", b"precious")
        os.chown(self.HERE, self.USER, self.USER)
        self.fill(NAMES[:2])
        self.before = snapshot("/tmp/victim")

    def check(self):
        self.assertEqual(snapshot("/tmp/victim"), self.before)

    def users(self, path):
        os.lchown(path, self.USER, self.USER)

    def test_links_on_the_way(self):
        for path, given in ((f"{self.HERE}/link", f"{self.HERE}/link"), (f"{self.HERE}/link", f"{self.HERE}/link/out")):
            os.symlink("/tmp/victim", path)
            self.users(path)
            self.fail_with(66, "export", ANN, given, saying="symbolic link of user 20002 is not followed")
            os.unlink(path)
            self.check()

    def test_what_users_put_there(self):
        out = f"{self.HERE}/out"
        mark = f"unfinished export\nmailbox: {ANN}\nformat: maildir\nfolder: \n"
        for put in (lambda: os.symlink("/tmp/victim/file", f"{out}/.tsmail-export"),
                    lambda: os.mkfifo(f"{out}/.tsmail-export"),
                    lambda: (write(f"{out}/.tsmail-export", mark), self.users(f"{out}/.tsmail-export"))):
            os.mkdir(out)
            self.users(out)
            put()
            self.fail_with(73, "export", ANN, out, saying="not empty")
            shutil.rmtree(out)
        for put in (lambda: os.symlink("/tmp/victim/cur", f"{out}/cur"),
                    lambda: (os.mkdir(f"{out}/cur"), self.users(f"{out}/cur")),
                    lambda: write(f"{out}/cur", b"")):
            os.mkdir(out)
            self.users(out)
            write(f"{out}/.tsmail-export", mark)
            put()
            self.fail_with(73, "export", ANN, out, saying="another user|Not a directory|Too many levels")
            shutil.rmtree(out)
            self.check()

    def test_exchanges(self):
        stop, places = threading.Event(), [self.HERE]

        def exchange():
            while not stop.is_set():
                out = places[0]
                for name in ("cur", ".Work", "Inbox.mbox.part", "Work.folders"):
                    try:
                        os.rename(f"{out}/{name}", f"{out}/{name}.away")
                        os.symlink("/tmp/victim/cur" if "." not in name[1:] else "/tmp/victim/file", f"{out}/{name}")
                        self.users(f"{out}/{name}")
                        os.unlink(f"{out}/{name}")
                        os.rename(f"{out}/{name}.away", f"{out}/{name}")
                    except OSError:
                        pass

        other = threading.Thread(target=exchange)
        other.start()
        try:
            for number in range(20):
                out = f"{self.HERE}/{number}"
                os.mkdir(out)
                self.users(out)
                places[0] = out
                done = tsmail("export", ANN, out, *(["--format", "mbox"] if number % 2 else []))
                self.assertNotIn(done.code, (70, -6, -11), done)
                self.check()
        finally:
            stop.set()
            other.join()


if __name__ == "__main__":
    unittest.main()
