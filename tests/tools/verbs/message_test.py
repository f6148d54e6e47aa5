"""message move, flag and rm with several messages: where they are, what is counted, what a kill leaves."""

import os
import threading
import time
import unittest

from testing.toolkit import (SANITIZED, TSMAIL, Kept, Lock, SpoolCase, as_nobody, content, folder_record, is_marked,
                             mail, mailbox_record, messages, own_by_nobody, snapshot, tsmail, write)
from testing.tracing import all_killed, killed, numbered, traced_parent, traced_worker

ANN = "ann@site.test"


class MessageCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work", "--folder", "Work/2024", "--folder", "Old")

    def deliver(self, *sizes, folder="Inbox"):
        """The names of new messages."""
        return [os.path.basename(self.succeed("deliver", ANN, "--folder", folder, stdin=b"x" * size).lines[0])
                for size in sizes]

    def put(self, name, text=b"by a reader", folder="Inbox"):
        write(f"{mail(ANN)}/{folder}/cur/{name}", text)

    def names(self, folder, where=("new", "cur")):
        return sorted(os.path.basename(path) for path in messages(ANN, folder, where))

    def assert_records(self, **expected):
        """Records of folders as (bytes, messages)."""
        for folder, record in expected.items():
            self.assertEqual(folder_record(ANN, folder), record, folder)


class MoveTest(MessageCase):
    def test_several_and_the_records_follow(self):
        names = self.deliver(10, 200, 3000)
        daemon = self.listen()
        out = self.succeed("message", "move", ANN, "Inbox", *names[:2], "--to", "Work").lines
        inbox, work = f"{mail(ANN)}/Inbox", f"{mail(ANN)}/Work"
        self.assertEqual(out, [f"moved {inbox}/new/{name} to {work}/new/{name}" for name in names[:2]])
        self.assertEqual((self.names("Inbox"), self.names("Work", ["new"])), (names[2:], sorted(names[:2])))
        self.assert_records(Inbox=(3000, 1), Work=(210, 2))
        self.assertEqual(mailbox_record(ANN), (3210, 3))
        self.assertEqual(self.told(daemon), [f"S-210,F({inbox})", f"S210,F({work})"])

    def test_flags_dates_and_places_stay(self):
        self.put("1700000000.1_2_3.x,#F#S#11#E:2,FS")
        path = f"{mail(ANN)}/Inbox/cur/1700000000.1_2_3.x,#F#S#11#E:2,FS"
        os.utime(path, (1, 1700000000))
        [row] = self.succeed("--json", "message", "move", ANN, "Inbox", os.path.basename(path), "--to", "Old").objects
        self.assertEqual(row, {"name": os.path.basename(path), "from": path,
                               "path": path.replace("/Inbox/", "/Old/"), "bytes": 11, "done": True})
        self.assertEqual(os.stat(row["path"]).st_mtime, 1700000000)

    def test_names_on_standard_input(self):
        names = self.deliver(*range(1, 8))
        self.succeed("message", "move", ANN, "Inbox", "-", "--to", "Work", stdin="\n".join(names[:4]).encode())
        self.succeed("message", "move", ANN, "Inbox", names[4], "-", "--to", "Work", stdin=(names[5] + "\n\n").encode())
        self.assertEqual((self.names("Inbox"), self.names("Work")), (names[6:], sorted(names[:6])))
        self.assert_records(Inbox=(7, 1), Work=(21, 6))
        self.fail_with(64, "message", "move", ANN, "Inbox", "-", "-", "--to", "Work", saying="once")
        self.fail_with(65, "message", "move", ANN, "Inbox", "-", "--to", "Work", stdin=b"../x", saying="refused")

    def test_more_than_one_group(self):
        for number in range(1100):
            self.put(f"{1700000000 + number}.1_2_3.x,#F#S#11#E:2,S")
        self.succeed("recount", ANN)
        names = self.names("Inbox")
        self.succeed("-q", "message", "move", ANN, "Inbox", "-", "--to", "Work", stdin="\n".join(names).encode())
        self.assertEqual(self.names("Work"), names)
        self.assert_records(Inbox=(0, 0), Work=(12100, 1100))
        self.assertEqual(mailbox_record(ANN), (12100, 1100))

    def test_one_that_cannot_be_moved_does_not_prevent_the_others(self):
        names = self.deliver(5, 6)
        write(f"{mail(ANN)}/Work/new/{names[0]}", b"another")
        done = self.fail_with(75, "message", "move", ANN, "Inbox", names[0], "none", names[1], "--to", "Work",
                              saying="File exists.*no message \"none\"")
        self.assertEqual(len(done.lines), 1)
        self.assertEqual(self.names("Inbox"), names[:1])
        self.assertEqual(content(f"{mail(ANN)}/Work/new/{names[0]}"), b"another")
        self.assert_records(Inbox=(5, 1), Work=(6, 1))

    def test_what_is_refused(self):
        [name] = self.deliver(5)
        os.symlink(name, f"{mail(ANN)}/Inbox/new/link")
        os.mkdir(f"{mail(ANN)}/Inbox/new/directory")
        before = snapshot("/var/spool")
        rows = [(66, name, "None", 'no folder "None"'), (64, name, "Inbox", "that the messages are in"),
                (65, "../x", "Work", "refused"), (66, "link", "Work", "no message"),
                (66, "directory", "Work", "no message"), (65, name, "../Work", "refused")]
        for code, given, to, saying in rows:
            self.fail_with(code, "message", "move", ANN, "Inbox", given, "--to", to, saying=saying)
        self.fail_with(66, "message", "move", ANN, "None", name, "--to", "Work", saying='no folder "None"')
        self.fail_with(64, "message", "move", ANN, "Inbox", name, saying="--to")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_dry_run(self):
        [name] = self.deliver(5)
        before = snapshot("/var/spool")
        out = self.succeed("message", "move", ANN, "Inbox", name, "--to", "Work", "--dry-run").out
        self.assertRegex(out, "^would move ")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_a_record_that_cannot_be_written_marks_the_mailbox(self):
        [name] = self.deliver(5)
        os.mkdir(f"{mail(ANN)}/Work/.ts_folder_size")
        done = self.succeed("message", "move", ANN, "Inbox", name, "--to", "Work")
        self.assertIn("needs a recount", done.err)
        self.assertTrue(is_marked(ANN))

    def test_folders_within_each_other_and_their_locks(self):
        """Two folders with a common parent, while others wait for its exclusive lock."""
        names = self.deliver(*[7] * 30, folder="Work/2024")
        stop = threading.Event()

        def disturb():
            while not stop.is_set():
                self.assertEqual(tsmail("-q", "recount", ANN).code, 0)

        other = threading.Thread(target=disturb)
        other.start()
        try:
            for number, name in enumerate(names):
                for source, target in (("Work/2024", "Work"), ("Work", "Old"), ("Old", "Work/2024")):
                    self.succeed("-q", "message", "move", ANN, source, name, "--to", target)
                    if number % 3 == 0 and target == "Old":
                        break
        finally:
            stop.set()
            other.join()
        self.assertFalse(is_marked(ANN))
        for folder in ("Work/2024", "Work", "Old"):
            found = len(self.names(folder))
            self.assertEqual(folder_record(ANN, folder), (7 * found, found))
        self.assertEqual(mailbox_record(ANN), (210, 30))

    def test_it_waits_for_both_folders(self):
        for folder in ("Inbox", "Work", "Work/2024"):
            [name] = self.deliver(5)
            with Lock(f"{mail(ANN)}/{folder}"):
                process = self.begin("message", "move", ANN, "Inbox", name, "--to", "Work/2024")
                time.sleep(0.3)
                self.assertIsNone(process.poll(), folder)
                self.assertIn(name, self.names("Inbox"))
            self.end(process)


class FlagTest(MessageCase):
    def test_added_and_taken_away(self):
        self.put("1.x:2,RS")
        self.put("2.x")
        self.put("3.x:2,")
        rows = [(["+F", "-S"], ["1.x:2,FR", "2.x:2,F", "3.x:2,F"]), (["-F", "+T"], ["1.x:2,RT", "2.x:2,T", "3.x:2,T"]),
                (["-TR"], ["1.x", "2.x", "3.x"]), (["+FS", "+D"], ["1.x:2,DFS", "2.x:2,DFS", "3.x:2,DFS"])]
        for words, expected in rows:
            done = self.succeed("--json", "message", "flag", ANN, "Inbox", *self.names("Inbox"), *words)
            self.assertEqual([row["name"] for row in done.objects], expected)
            self.assertEqual(self.names("Inbox"), expected)
            self.assertTrue(all(row["changed"] and row["done"] for row in done.objects))
            self.assertEqual([row["path"] for row in done.objects], messages(ANN))

    def test_a_new_message_goes_to_cur_if_its_flags_change(self):
        [name] = self.deliver(5)
        out = self.succeed("message", "flag", ANN, "Inbox", name, "-S").out
        self.assertEqual(out, f"unchanged {mail(ANN)}/Inbox/new/{name}: no flags\n")
        out = self.succeed("message", "flag", ANN, "Inbox", name, "+S").out
        self.assertEqual(out, f"flagged {mail(ANN)}/Inbox/cur/{name}:2,S: S\n")
        self.assertEqual(content(f"{mail(ANN)}/Inbox/cur/{name}:2,S"), b"xxxxx")
        self.assert_counted(ANN)

    def test_flags_stand_before_names_or_behind_and_names_come_from_standard_input(self):
        names = self.deliver(1, 2)
        self.succeed("message", "flag", ANN, "Inbox", "+F", "-", stdin="\n".join(names).encode())
        self.assertEqual(self.names("Inbox", ["cur"]), [f"{name}:2,F" for name in names])

    def test_dry_run(self):
        [name] = self.deliver(5)
        before = snapshot("/var/spool")
        self.assertRegex(self.succeed("message", "flag", ANN, "Inbox", name, "+S", "--dry-run").out, "^would flag ")
        self.assertEqual(snapshot("/var/spool"), before)

    def test_what_is_refused(self):
        [name] = self.deliver(5)
        self.put(name + ":2,S", b"in the way")
        before = snapshot("/var/spool")
        rows = [(64, [name], "give flags"), (64, [name, "+F", "-F"], "added and taken away"), (64, ["+F", "-S"], "NAME"),
                (66, ["none", "+F"], "no message"), (65, ["a/b", "+F"], "refused"), (75, [name, "+S"], "File exists"),
                (64, [name, "-X"], "X"), (66, [name + "x", "+S"], "no message")]
        for code, words, saying in rows:
            with self.subTest(words):
                self.fail_with(code, "message", "flag", ANN, "Inbox", *words, saying=saying)
        self.fail_with(66, "message", "flag", ANN, "None", name, "+F", saying="no folder")
        self.assertEqual(snapshot("/var/spool"), before)


class RemoveTest(MessageCase):
    def test_several(self):
        names = self.deliver(10, 200, 3000, 4)
        daemon = self.listen()
        done = self.fail_with(66, "message", "rm", ANN, "Inbox", names[0], "none", "-", stdin=names[2].encode() + b"\n",
                              saying='no message "none"')
        self.assertEqual(len(done.lines), 2)
        self.assertEqual(self.names("Inbox"), sorted([names[1], names[3]]))
        self.assert_counted(ANN)
        self.assertEqual(self.told(daemon), [f"S-3010,F({mail(ANN)}/Inbox)"])

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_one_that_may_not_be_removed(self):
        names = self.deliver(3, 4)
        self.put("9.x", b"12345")
        self.succeed("recount", ANN)
        own_by_nobody("/var/spool/home/site.test")
        os.chmod(f"{mail(ANN)}/Inbox/new", 0o500)
        self.fail_with(73, "message", "rm", ANN, "Inbox", *names, "9.x", **as_nobody())
        os.chmod(f"{mail(ANN)}/Inbox/new", 0o700)
        self.assertEqual(self.names("Inbox"), sorted(names))
        self.assertTrue(is_marked(ANN))


class KilledCase(MessageCase):
    """Killed at each system call, a change leaves every message whole, and right records or a mark."""

    STEPS = 2 if SANITIZED else 1
    HARMLESS = ("exit_group", "getpid", "umask", "brk", "mmap", "munmap", "mprotect")

    def prepare(self):
        SpoolCase.setUp(self)
        self.succeed("create", ANN, "--folder", "Work")
        self.files = {name: b"x" * size for size, name in
                      zip((10, 20, 30), self.deliver(10, 20, 30))}

    def calls(self, trace, words):
        _, lines = trace([], [TSMAIL, *words])
        rows = [(name, n) for name, n, _ in numbered(lines)]
        return [row for row in rows if row[0] not in self.HARMLESS][::self.STEPS]

    def kill_everywhere(self, trace, words, kill=killed):
        self.prepare()
        kept = Kept()
        ended = 0
        for name, n in self.calls(trace, words()):
            kept.put_back()
            with self.subTest(call=name, n=n):
                done, _ = trace(kill(name, n), [TSMAIL, *words()])
                ended += done.code != 0
                self.check()
        self.assertGreater(ended, 20)

    def check(self):
        found = {}
        for folder in ("Inbox", "Work"):
            for path in messages(ANN, folder):
                self.assertNotIn(os.path.basename(path).split(":")[0], found, "once")
                found[os.path.basename(path).split(":")[0]] = content(path)
        self.assertEqual(found, self.expected(found))
        for folder in ("Inbox", "Work"):
            sizes = [os.path.getsize(path) for path in messages(ANN, folder)]
            right = folder_record(ANN, folder) == (sum(sizes), len(sizes))
            self.assertTrue(right or is_marked(ANN), (folder, sizes))
        total = sum(map(len, found.values()))
        self.assertTrue(mailbox_record(ANN) == (total, len(found)) or is_marked(ANN))

    def expected(self, _):
        return self.files


class KilledMoveTest(KilledCase):
    MOVE = ("message", "move", ANN, "Inbox")

    def test_the_worker(self):
        self.kill_everywhere(traced_worker, lambda: [*self.MOVE, *self.files, "--to", "Work"])

    def test_the_command(self):
        self.kill_everywhere(traced_parent, lambda: [*self.MOVE, *self.files, "--to", "Work"])

    def test_both(self):
        self.kill_everywhere(traced_worker, lambda: [*self.MOVE, *self.files, "--to", "Work"], all_killed)


class KilledFlagTest(KilledCase):
    def test_the_worker(self):
        self.kill_everywhere(traced_worker, lambda: ["message", "flag", ANN, "Inbox", *self.files, "+S"])


class KilledRemovalTest(KilledCase):
    def expected(self, found):
        return {name: text for name, text in self.files.items() if name in found}

    def test_the_worker(self):
        self.kill_everywhere(traced_worker, lambda: ["message", "rm", ANN, "Inbox", *self.files])

    def test_the_command(self):
        self.kill_everywhere(traced_parent, lambda: ["message", "rm", ANN, "Inbox", *self.files])

    def test_both(self):
        self.kill_everywhere(traced_worker, lambda: ["message", "rm", ANN, "Inbox", *self.files], all_killed)


if __name__ == "__main__":
    unittest.main()
