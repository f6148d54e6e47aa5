"""recount: it corrects the totals, whatever they were and whatever else works on the mailbox."""

import fcntl
import os
import re
import shutil
import subprocess
import time
import unittest

from testing import toolkit
from testing.toolkit import (BUILD, SANITIZED, TSMAIL, Lock, SpoolCase, as_nobody, content,
                             environment, folder_record, held_by_folders, is_marked, mail,
                             mailbox_record, messages, numbered, own_by_nobody, preloading,
                             processes_of, snapshot, traced, tsmail, wait_until, write)

ANN, BERT = "ann@site.test", "bert@site.test"
TOTAL = mail(ANN) + "/.maildirsize"
MARK = TOTAL + ".dirty"


class RecountCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work/2024")
        self.deliver(100)
        self.deliver(20, "Work/2024")
        self.deliver(3, "Work/2024")

    def deliver(self, size, folder="Inbox", address=ANN):
        done = self.succeed("deliver", address, "--folder", folder, stdin=b"x" * size)
        return done.lines[0]

    def size_file(self, folder):
        return f"{mail(ANN)}/{folder}/.ts_folder_size"

    def assert_true(self, marked=False):
        """All records match the folders' contents."""
        self.assertEqual(mailbox_record(ANN), held_by_folders(ANN))
        for directory, names, _ in os.walk(mail(ANN)):
            if "cur" in names:
                folder = os.path.relpath(directory, mail(ANN))
                sizes = [os.path.getsize(path) for path in messages(ANN, folder)]
                self.assertEqual(folder_record(ANN, folder), (sum(sizes), len(sizes)), folder)
        self.assertEqual(is_marked(ANN), marked)

    def is_waiting_for(self, process, path):
        """Whether the process or its worker has opened the file or directory."""
        try:
            fds = [os.readlink(f"/proc/{number}/fd/{fd}") for number in processes_of(process)
                   for fd in os.listdir(f"/proc/{number}/fd")]
        except OSError:
            return False
        return path in fds


class RecountTest(RecountCase):
    WRONG = ["", "7 7\n", "100 1\n" * 900, "99999999999999999999 1\n", "-5 -1\n", "garbage\n" * 3,
             "\0\xff", "x" * 20000, "100 1\n20 1\n3 1\n4 1", "123 3", "0S, 0C\n123 2\n",
             "9223372036854775807 1\n" * 2]

    def test_any_contents_are_put_right(self):
        for folder, path in (("", TOTAL), ("Inbox", self.size_file("Inbox"))):
            for text in self.WRONG:
                for marked in (False, True):
                    with self.subTest(folder=folder, text=text[:30], marked=marked):
                        write(path, text)
                        if marked:
                            write(MARK, "")
                        self.succeed("recount", ANN)
                        self.assert_true()
                        self.assertEqual(content(TOTAL), b"0S, 0C\n123 3\n")
                        self.assertEqual(content(self.size_file("Inbox")), b"100 1\n")
                        self.assertEqual(content(self.size_file("Work/2024")), b"23 2\n")

    def test_missing_records_are_made_where_there_is_mail(self):
        for path in (TOTAL, self.size_file("Inbox"), self.size_file("Work/2024")):
            os.unlink(path)
        self.succeed("recount", ANN)
        self.assert_true()
        self.assertFalse(os.path.exists(self.size_file("Sent")))

    def test_what_is_told(self):
        write(self.size_file("Inbox"), "7 7\n")
        write(TOTAL, "200 3\n")
        write(MARK, "")
        daemon = self.listen()
        [row] = self.succeed("--json", "recount", ANN).objects
        self.assertEqual(row, {
            "address": ANN, "path": mail(ANN), "done": True, "messages": 3, "bytes": 123, "messages_before": 3,
            "bytes_before": 200, "damaged_before": False, "dirty_before": True, "dirty": False,
            "corrected": [{"folder": "Inbox", "messages": 1, "bytes": 100, "messages_before": 7,
                           "bytes_before": 7, "damaged_before": False}]})
        self.assertEqual(self.told(daemon), [f"S-77,F({mail(ANN)})"])
        write(self.size_file("Inbox"), "99999999999999999999 1\n")
        write(TOTAL, "0 0\n")
        write(MARK, "")
        self.assertEqual(self.succeed("recount", ANN).lines,
                         [f"{ANN} Inbox: 1 message (100 B), kept was damaged",
                          f"{ANN}: 3 messages (123 B), kept was 0 messages (0 B); it was marked"])
        self.assertEqual(self.told(daemon), [f"S123,F({mail(ANN)})"])
        self.assertEqual(self.succeed("recount", ANN).lines, [f"{ANN}: 3 messages (123 B)"])
        self.assertEqual(self.told(daemon), [])

    def test_what_is_right_is_not_written(self):
        self.succeed("recount", ANN)
        before = snapshot("/var/spool")
        times = {path: os.stat(path).st_mtime_ns for path in before}
        self.succeed("recount", ANN)
        self.assertEqual(snapshot("/var/spool"), before)
        self.assertEqual({path: os.stat(path).st_mtime_ns for path in before}, times)

    def test_what_counts(self):
        inbox = mail(ANN) + "/Inbox"
        write(inbox + "/cur/a:2,S", b"x" * 7)         # no size field: the file counts
        write(inbox + "/cur/b,#F#S#1000#E:2,S", b"")  # the name counts
        write(inbox + "/new/.hidden", b"x")
        write(inbox + "/tmp/waiting", b"x")
        os.mkdir(inbox + "/cur/directory")
        os.symlink("/etc/passwd", inbox + "/cur/link")
        os.symlink("Inbox", mail(ANN) + "/Also-Inbox")  # once
        shutil.copytree(inbox, mail(ANN) + "/.deleted..Old.1")
        shutil.copytree(inbox, mail(ANN) + "/.deleted..Old.1/below")
        [row] = self.succeed("--json", "recount", ANN).objects
        self.assertEqual((row["bytes"], row["messages"]), (1130, 5))
        self.assertEqual(folder_record(ANN), (1107, 3))
        self.assertEqual(mailbox_record(ANN), (1130, 5))

    def test_sums_end_at_the_largest_number(self):
        for name in ("a", "b"):
            write(f"{mail(ANN)}/Inbox/new/{name},#F#S#9223372036854775807#E", b"")
        self.succeed("recount", ANN)
        self.assertEqual(mailbox_record(ANN), (2**63 - 1, 5))
        self.assertEqual(folder_record(ANN), (2**63 - 1, 3))

    def test_all_mailboxes(self):
        self.succeed("create", BERT)
        self.deliver(5, address=BERT)
        self.succeed("create", "carl@other.test")
        write(mail(BERT) + "/Inbox/.ts_folder_size", "1 1\n")
        write(mail(BERT) + "/.maildirsize", "1 1\n")
        done = self.succeed("recount", "--all")
        self.assertEqual(done.lines, [f"{BERT} Inbox: 1 message (5 B), kept was 1 message (1 B)",
                                      f"{BERT}: 1 message (5 B), kept was 1 message (1 B)",
                                      "3 mailboxes recounted"])
        rows = self.succeed("--json", "recount", "--all").objects
        self.assertEqual([(row["address"], row["bytes"]) for row in rows],
                         [("carl@other.test", 0), (ANN, 123), (BERT, 5)])
        self.fail_with(64, "recount")
        self.fail_with(64, "recount", ANN, "--all")
        self.fail_with(67, "recount", "dora@site.test")

    def test_several_at_a_time(self):
        """The output is the same for any number of workers; each mailbox is counted by itself."""
        users = [f"u{n}@site.test" for n in range(30)]
        for n, user in enumerate(users):
            self.succeed("create", user)
            write(f"{mail(user)}/Inbox/new/a", b"x" * n)

        def spoil():
            for user in users:
                write(f"{mail(user)}/Inbox/.ts_folder_size", "7 7\n")
                write(f"{mail(user)}/.maildirsize", "7 7\n")
        shown = []
        for jobs in ("1", "2", "7", "64"):
            spoil()
            with self.subTest(jobs=jobs):
                shown.append(self.succeed("recount", "--all", "--jobs", jobs).lines)
                self.assertEqual(shown[-1], shown[0])
                for n, user in enumerate(users):
                    self.assertEqual(mailbox_record(user), (n, 1))
                    self.assertEqual(folder_record(user), (n, 1))
        self.assertEqual(len(shown[0]), 2 * len(users) + 1)
        for jobs in ("0", "65", "-1", "x", ""):
            self.assertIn("--jobs", self.fail_with(64, "recount", "--all", f"--jobs={jobs}").err)

    def test_one_that_is_locked_keeps_none_of_the_others(self):
        for user in (BERT, "carl@site.test", "dora@site.test"):
            self.succeed("create", user)
            write(mail(user) + "/.maildirsize", "7 7\n")
        with Lock(mail(ANN) + "/Inbox", fcntl.LOCK_SH):
            process = self.begin("recount", "--all", "--jobs", "2")
            wait_until(lambda: mailbox_record("dora@site.test") == (0, 0))
            self.assertEqual(mailbox_record(BERT), (0, 0))
            self.assertIsNone(process.poll())
        self.end(process)
        self.assert_true()

    def test_what_cannot_be_counted_does_not_keep_the_others(self):
        self.succeed("create", BERT)
        write(mail(BERT) + "/.maildirsize", "7 7\n")
        write(TOTAL, "7 7\n")
        write(self.size_file("Drafts"), "7 7\n")
        write(MARK, "")
        own_by_nobody("/var/spool")
        for path in ("/var/spool", "/var/spool/home", "/var/spool/home/site.test"):
            os.chmod(path, 0o755)
        os.chmod(mail(ANN) + "/Inbox/cur", 0)
        done = tsmail("recount", "--all", **as_nobody())
        self.assertEqual(done.code, 73, done)
        self.assertRegex(done.err, "tsmail: ann@site.test: Inbox: Permission denied")
        self.assertEqual(mailbox_record(BERT), (0, 0))
        # A mailbox that was not counted keeps its record and its mark.
        self.assertEqual((mailbox_record(ANN), is_marked(ANN)), ((7, 7), True))
        os.chmod(mail(ANN) + "/Inbox/cur", 0o700)
        done = tsmail("recount", "--all", **as_nobody())
        self.assertEqual(done.code, 0, done)
        self.assert_true()

    def test_a_mailbox_with_more_folders_than_open_files(self):
        self.succeed("create", ANN, *[f"--folder=F{n}" for n in range(60)])
        write(TOTAL, "7 7\n")
        limit = "ulimit -Sn 30 && ulimit -Hn 200 && exec \"$0\" recount " + ANN
        done = toolkit.run(["bash", "-c", limit, TSMAIL])
        self.assertEqual(done.code, 0, done)
        self.assert_true()
        if not SANITIZED:
            write(TOTAL, "7 7\n")
            done = toolkit.run(["bash", "-c", limit.replace("200", "40"), TSMAIL])
            self.assertEqual(done.code, 75, done)
            self.assertIn("Too many open files", done.err)
            self.assertEqual(mailbox_record(ANN), (7, 7))

    def test_a_mailbox_that_takes_all_open_files_takes_them_from_nobody(self):
        """One recount waits for its last folder, with all others locked; that does not affect the next one."""
        for user in (ANN, BERT):
            self.succeed("create", user, *[f"--folder=F{n}" for n in range(60)])
            write(f"{mail(user)}/.maildirsize", "7 7\n")
        self.succeed("create", "carl@site.test")
        write(mail("carl@site.test") + "/.maildirsize", "7 7\n")
        limit = 'ulimit -n 100 && exec "$0" recount --all --jobs 2'
        with Lock(mail(ANN) + "/Work", fcntl.LOCK_SH):
            with Lock(mail(BERT) + "/Bulk", fcntl.LOCK_SH):
                process = subprocess.Popen(["bash", "-c", limit, TSMAIL], env=environment(),
                                           stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                wait_until(lambda: self.is_waiting_for(process, mail(ANN) + "/Work"))
            wait_until(lambda: mailbox_record("carl@site.test") == (0, 0))
            self.assertEqual(mailbox_record(BERT), (0, 0))
        out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, err), (0, b""), out)
        self.assertEqual([mailbox_record(user) for user in (ANN, BERT)], [(123, 3), (0, 0)])
        self.assertIn(BERT.encode(), out)


class AppendingTest(RecountCase):
    """A descriptor that was opened to append can only append, as on network file systems."""

    def test_records_are_written_anew_from_their_beginning(self):
        library = f"{BUILD}/tests/mailsize/sticky_append.so"
        self.assertTrue(os.path.exists(library))
        preloaded = environment(ASAN_OPTIONS="verify_asan_link_order=0", **preloading(library))
        for text in ("7 7\n", "100 1\n" * 900):
            for path in (TOTAL, self.size_file("Inbox")):
                write(path, text)
            self.succeed("recount", ANN, env=preloaded)
            self.assertEqual(content(TOTAL), b"0S, 0C\n123 3\n")
            self.assertEqual(content(self.size_file("Inbox")), b"100 1\n")


class MeanwhileTest(RecountCase):
    """Other processes act while a recount waits for a folder or works."""

    def test_every_folder_is_waited_for(self):
        for folder in ("Drafts", "Inbox", "Work", "Work/2024"):
            write(TOTAL, "7 7\n")
            with Lock(f"{mail(ANN)}/{folder}", fcntl.LOCK_SH):
                process = self.begin("recount", ANN)
                wait_until(lambda: self.is_waiting_for(process, f"{mail(ANN)}/{folder}"))
                time.sleep(0.1)
                self.assertIsNone(process.poll())
                self.assertEqual(mailbox_record(ANN), (7, 7))
            self.end(process)
            self.assert_true()

    def while_it_waits(self, folder, act):
        write(TOTAL, "7 7\n")
        with Lock(f"{mail(ANN)}/{folder}", fcntl.LOCK_SH):
            process = self.begin("recount", ANN)
            wait_until(lambda: self.is_waiting_for(process, f"{mail(ANN)}/{folder}"))
            act()
        self.end(process)

    def test_a_folder_that_is_made_and_gets_mail(self):
        self.while_it_waits("Work", lambda: self.deliver(1000, "Aaa"))
        self.assert_true()
        self.while_it_waits("Work", lambda: self.deliver(1000, "Zzz/below"))
        self.assert_true()
        self.assertEqual(mailbox_record(ANN), (2123, 5))

    def test_a_folder_that_goes(self):
        self.while_it_waits("Work", lambda: os.rename(
            mail(ANN) + "/Work", mail(ANN) + "/../.deleted.x.Work.1"))
        self.assert_true()
        self.assertEqual(mailbox_record(ANN), (100, 1))

    def test_a_folder_in_whose_place_another_comes(self):
        def swap():
            os.rename(mail(ANN) + "/Work", mail(ANN) + "/../.deleted.x.Work.1")
            self.succeed("create", ANN, "--folder", "Work")
            self.deliver(5, "Work")
        self.while_it_waits("Work", swap)
        self.assert_true()
        self.assertEqual(mailbox_record(ANN), (105, 2))

    def while_it_counts(self, act):
        """Acts while the recount waits for a folder's record, with all folders locked."""
        with Lock(self.size_file("Inbox")):
            process = self.begin("recount", ANN)
            wait_until(lambda: self.is_waiting_for(process, self.size_file("Inbox")))
            act()
        return self.end(process)

    def test_what_others_append_stays(self):
        write(TOTAL, "7 7\n")
        appended = []

        def append(path):
            appended.append(subprocess.Popen(
                ["flock", path, "-c", f"echo '1000 1' >>{path}"], env=environment()))
        self.while_it_counts(lambda: append(TOTAL))
        self.assertEqual(appended[0].wait(timeout=30), 0)
        self.assertEqual(mailbox_record(ANN), (1123, 4))

    def test_nobody_waits_for_a_record_while_it_waits_for_another(self):
        """What it has counted is written then, and the mailbox is marked until the rest is."""
        for path in (self.size_file("Inbox"), self.size_file("Work/2024")):
            write(path, "7 7\n")
        with Lock(self.size_file("Work/2024")):
            process = self.begin("recount", ANN)
            wait_until(lambda: self.is_waiting_for(process, self.size_file("Work/2024")))
            wait_until(lambda: is_marked(ANN))
            wait_until(lambda: folder_record(ANN) == (100, 1))
            with Lock(self.size_file("Inbox")):
                pass
        self.end(process)
        self.assert_true()

    def test_records_that_are_one_file(self):
        """A folder that was copied with links."""
        for link in (os.link, os.symlink):
            with self.subTest(link=link):
                write(self.size_file("Inbox"), "7 7\n")
                os.unlink(self.size_file("Work/2024"))
                link(self.size_file("Inbox"), self.size_file("Work/2024"))
                self.succeed("recount", ANN)
                self.assertEqual(mailbox_record(ANN), (123, 3))
                self.assertEqual(folder_record(ANN, "Work/2024"), (23, 2))
                self.assertFalse(is_marked(ANN))

    def test_more_wrong_records_than_are_held(self):
        folders = [f"F{n}" for n in range(70)]
        self.succeed("create", ANN, *[f"--folder={name}" for name in folders])
        for name in folders:
            write(self.size_file(name), "7 7\n")
        self.succeed("recount", ANN)
        self.assertEqual({folder_record(ANN, name) for name in folders}, {(0, 0)})
        self.assertEqual((mailbox_record(ANN), is_marked(ANN)), ((123, 3), False))

    def test_a_mark_that_is_set_stays(self):
        for before in (None, time.time() - 1000, time.time()):
            with self.subTest(before=before):
                write(TOTAL, "7 7\n")
                if before:
                    write(MARK, "")
                    os.utime(MARK, (before, before))
                _, err = self.while_it_counts(lambda: write(MARK, ""))
                self.assertIn("marked again", err)
                self.assertTrue(is_marked(ANN))
                os.unlink(MARK)
                self.assertEqual(mailbox_record(ANN), (123, 3))

    def test_a_young_mark_is_made_older(self):
        # So a mark that is set in the same tick of the clock has another time.
        seen = []
        write(MARK, "")
        self.while_it_counts(lambda: seen.append(os.stat(MARK).st_mtime))
        self.assertLess(seen[0], time.time() - 0.9)
        self.assertFalse(is_marked(ANN))

    def test_a_mark_from_before_goes(self):
        for before in (time.time() - 1000, time.time(), time.time() + 1000):
            write(MARK, "")
            os.utime(MARK, (before, before))
            self.while_it_counts(lambda: None)
            self.assertFalse(is_marked(ANN))


class FaultTest(RecountCase):
    """Killed or failing at every system call: no total is lost, and no wrong total is trusted."""

    OLD = {"Inbox": (7, 7), "Work/2024": (50000, 10000), "": (70, 7)}
    NEW = {"Inbox": (100, 1), "Work/2024": (23, 2), "": (123, 3)}

    SPOILT = "/tmp/spoilt"

    def setUp(self):
        super().setUp()
        for folder in ("Drafts", "Sent", "Bulk", "Trash", "SecureMail"):
            shutil.rmtree(f"{mail(ANN)}/{folder}")
        write(self.size_file("Inbox"), "7 7\n")
        write(self.size_file("Work/2024"), "50000 10000" + " " * 4000 + "\n")
        write(TOTAL, "0S, 0C\n" + "10 1\n" * 7)
        shutil.copytree(mail(ANN), self.SPOILT)
        self.addCleanup(shutil.rmtree, self.SPOILT)

    def spoil(self):
        shutil.rmtree(mail(ANN))
        shutil.copytree(self.SPOILT, mail(ANN))

    def calls(self):
        self.spoil()
        done, calls = traced([], [TSMAIL, "recount", ANN])
        self.assertEqual(done.code, 0, done)
        rows = numbered(calls)
        first = next(i for i, (_, _, line) in enumerate(rows) if toolkit.HOME in line)
        left_out = {"exit_group", "getpid", "geteuid", "getegid"}
        if SANITIZED:
            left_out |= {"mmap", "munmap", "madvise"}
        return list(dict.fromkeys((name, n) for name, n, _ in rows[first:] if name not in left_out))

    def check(self, done):
        now = {"Inbox": folder_record(ANN), "Work/2024": folder_record(ANN, "Work/2024"),
               "": mailbox_record(ANN)}
        for name, total in now.items():
            self.assertIn(total, (self.OLD[name], self.NEW[name]), (name, done))
        if now == self.NEW:
            return
        # The mailbox's total is still wrong; if anything was written, the mailbox is marked.
        if now != self.OLD:
            self.assertTrue(is_marked(ANN), (now, done))
        self.assertNotEqual(done.code, 0, done)

    def test_killed(self):
        killed = 0
        for name, n in self.calls():
            with self.subTest(call=name, n=n):
                self.spoil()
                done, _ = traced(["-e", f"inject={name}:signal=KILL:when={n}"],
                                 [TSMAIL, "recount", ANN])
                killed += done.code in (-9, 75)  # the command itself, or its worker
                self.check(done)
        self.assertGreater(killed, 50)
        self.succeed("recount", ANN)
        self.assert_true()

    def test_failing(self):
        failed = 0
        for name, n in self.calls():
            for error in ["ENOSPC"] if SANITIZED else ["ENOSPC", "EIO", "EINTR"]:
                with self.subTest(call=name, n=n, error=error):
                    self.spoil()
                    done, _ = traced(["-e", f"inject={name}:error={error}:when={n}"],
                                     [TSMAIL, "recount", ANN])
                    failed += done.code != 0
                    self.check(done)
        self.assertGreater(failed, 5)

    STEPS = {"mark": r"maildirsize\.dirty\".*O_EXCL", "write": r"pwrite64\(",
             "unmark": r"unlink\(\".*maildirsize\.dirty", "no signals": r"rt_sigprocmask\(SIG_BLOCK, \[HUP",
             "signals": r"rt_sigprocmask\(SIG_SETMASK"}

    def steps(self):
        """The steps of a recount that concern what it leaves if it is stopped."""
        _, calls = traced([], [TSMAIL, "recount", ANN])
        return [name for line in calls for name, form in self.STEPS.items() if re.search(form, line)]

    def test_no_signal_comes_between_the_records(self):
        self.spoil()
        self.assertEqual(self.steps(), ["no signals", "write", "write", "write", "signals"])

    def test_the_mark_stands_while_a_long_file_is_written(self):
        """The kernel does not write it at once."""
        self.spoil()
        write(TOTAL, "0S, 0C\n" + "10 1\n" * 900)
        self.assertEqual(self.steps(), ["no signals", "write", "write", "mark", "write", "signals", "unmark"])


class TogetherTest(RecountCase):
    AGENTS, EACH = 4, 40

    def agents(self, script, number=AGENTS):
        return [subprocess.Popen(["bash", "-c", script, TSMAIL, toolkit.SAMPLES[n]],
                                 stdout=subprocess.PIPE, env=environment(
                                     ASAN_OPTIONS="detect_leaks=0"))
                for n in range(number)]

    def finish(self, agents):
        outputs = [agent.communicate(timeout=240)[0].decode() for agent in agents]
        self.assertEqual([agent.returncode for agent in agents], [0] * len(agents))
        return [line for out in outputs for line in out.splitlines()]

    def test_recounts_beside_deliveries_and_removals(self):
        # Into the inbox, into folders that come and stay, and out again.
        script = f"""for i in $(seq {self.EACH}); do
            path=$("$0" deliver {ANN} "$1") || exit 1
            "$0" deliver ann+Tag$i@site.test "$1" >/dev/null || exit 1
            [ $((i % 3)) != 0 ] || "$0" -q message rm {ANN} Inbox "${{path##*/}}" || exit 1
        done"""
        write(TOTAL, "7 7\n")
        write(self.size_file("Work"), "7 7\n")
        agents = self.agents(script)
        recounts = 0
        while any(agent.poll() is None for agent in agents):
            self.assertEqual(self.succeed("recount", ANN).err, "")
            recounts += 1
        self.finish(agents)
        self.assertGreater(recounts, 5)
        self.assert_true()
        self.assertEqual(mailbox_record(ANN)[1], 3 + self.AGENTS * (2 * self.EACH - self.EACH // 3))

    def test_tagging_beside_them(self):
        script = f"""for i in $(seq {self.EACH}); do
            "$0" -q deliver {ANN} "$1" || exit 1
            cp "$1" {mail(ANN)}/Inbox/tmp/by-hand.$$.$i
            mv {mail(ANN)}/Inbox/tmp/by-hand.$$.$i {mail(ANN)}/Inbox/cur/by-hand.$$.$i:2,S
        done"""
        agents = self.agents(script)
        while any(agent.poll() is None for agent in agents):
            self.succeed("tag", ANN)
            self.succeed("recount", ANN)
        self.finish(agents)
        self.succeed("tag", ANN)
        self.succeed("recount", ANN)
        self.assert_true()
        self.assertEqual(len(messages(ANN)), 1 + 2 * self.AGENTS * self.EACH)
        self.assertTrue(all("#E" in path for path in messages(ANN)))

    def test_deliveries_one_upon_the_other_do_not_keep_a_recount_out(self):
        # Each delivery holds the folder's lock nearly all the time, so that one of them always holds it.
        script = f"""end=$((SECONDS + 15)); while [ $SECONDS -lt $end ]; do
            strace -f -qq -o /dev/null -e trace=fsync -e inject=fsync:delay_exit=300000:when=2 \
                "$0" -q deliver {ANN} "$1" || exit 1
            [ ! -e /tmp/enough ] || break
        done"""
        agents = self.agents(script, 8)
        time.sleep(1)
        begun = time.monotonic()
        self.succeed("recount", ANN)
        taken = time.monotonic() - begun
        write("/tmp/enough", "")
        self.finish(agents)
        os.unlink("/tmp/enough")
        self.assertLess(taken, 5)
        self.assert_true()

    def test_two_recounts_and_removals_of_all(self):
        self.succeed("create", BERT)
        script = """for i in $(seq 30); do "$0" -q recount --all || exit 1; done"""
        agents = self.agents(script)
        for turn in range(30):
            self.deliver(9, f"Work/{turn % 3}/below")
            self.succeed("rm", ANN, f"Work/{turn % 3}")
        self.finish(agents)
        self.assert_true()


if __name__ == "__main__":
    unittest.main()
