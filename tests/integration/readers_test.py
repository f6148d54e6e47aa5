"""Beside mail readers: after they have marked, moved and removed messages, the command agrees with the files."""

import mailbox
import os
import pty
import random
import re
import select
import subprocess
import termios
import time
import unittest

import neighbours
from testing.toolkit import SAMPLES, SpoolCase, content, environment, mail, messages, record, tsmail

ADDRESS = "ann@site.test"
FOLDERS = ["Inbox", "Work", "Trash"]


def flags_in(path):
    """The letters that the file's name carries, in its own order."""
    return re.search(r"(?::2,(\w*))?$", path).group(1) or ""


def size_in(path):
    """The size that the file's name carries."""
    return int(re.search(r",#F#S#(\d+)#E", path).group(1))


def count(folder):
    """What the folder's files say, by plain means."""
    paths = messages(ADDRESS, folder)
    return sum(map(os.path.getsize, paths)), len(paths)


class ReaderCase(SpoolCase):
    def setUp(self):
        super().setUp()
        neighbours.make_home()
        for folder, texts in (("Inbox", SAMPLES), ("Work", SAMPLES[:3]), ("Trash", SAMPLES[:1])):
            for sample in texts:
                self.run_tool("deliver", "--create", ADDRESS, "--folder", folder, sample)

    def run_tool(self, *words):
        return self.succeed(*words, **neighbours.as_vmail())

    def read(self, *words, **options):
        """Runs a program as the owner of the mail, with the mailbox as its home."""
        env = environment(HOME="/tmp/reader", MAILDIR=mail(ADDRESS), TERM="xterm")
        os.makedirs("/tmp/reader", exist_ok=True)
        os.chown("/tmp/reader", neighbours.VMAIL, neighbours.VMAIL)
        return subprocess.run(words, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              timeout=60, **neighbours.as_vmail(), **options)

    def inbox(self):
        return f"{mail(ADDRESS)}/Inbox"

    def assert_shown_as_it_is(self):
        """Counts, sizes and flags of all verbs, before and after a recount."""
        self.assert_folders_shown()
        self.run_tool("recount", ADDRESS)
        self.assert_folders_shown()
        self.run_tool("tag", ADDRESS)
        self.run_tool("doctor", ADDRESS)
        for folder in FOLDERS:
            self.assertEqual(record(f"{mail(ADDRESS)}/{folder}/.ts_folder_size"), count(folder))
        total = tuple(map(sum, zip(*map(count, FOLDERS))))
        self.assertEqual(record(f"{mail(ADDRESS)}/.maildirsize"), total)

    def assert_folders_shown(self):
        shown = {row["folder"]: row for row in self.run_tool("folders", ADDRESS, "--json").objects}
        for folder in FOLDERS:
            self.assertEqual((shown[folder]["bytes"], shown[folder]["messages"]), count(folder))
            rows = self.run_tool("messages", ADDRESS, folder, "--json").objects
            found = sorted((row["name"], row["bytes"], row["flags"]) for row in rows)
            self.assertEqual(found, sorted((os.path.basename(path), os.path.getsize(path),
                                            flags_in(path)) for path in messages(ADDRESS, folder)))


class MuttTest(ReaderCase):
    def drive(self, keys):
        """Runs mutt on a terminal. The keys end it."""
        done = None
        arguments = ["mutt", "-n", "-F", "/dev/null", "-f", self.inbox(),
                     "-e", "set folder=/tmp/reader mbox_type=Maildir move=no delete=yes confirmappend=no quit=yes "
                           "beep=no mark_old=no sort=subject", "-e", f'push "{keys}"']
        master, slave = pty.openpty()
        termios.tcsetwinsize(slave, (24, 80))  # newer curses refuse a terminal without a size
        env = environment(HOME="/tmp/reader", TERM="xterm")
        os.makedirs("/tmp/reader", exist_ok=True)
        os.chown("/tmp/reader", neighbours.VMAIL, neighbours.VMAIL)
        mutt = subprocess.Popen(arguments, env=env, stdin=slave, stdout=slave, stderr=slave,
                                start_new_session=True, **neighbours.as_vmail())
        os.close(slave)
        screen, end = b"", time.monotonic() + 60
        while mutt.poll() is None and time.monotonic() < end:
            if select.select([master], [], [], 0.1)[0]:
                try:
                    screen += os.read(master, 65536)
                except OSError:
                    break
        done = mutt.poll() is not None or mutt.wait(10) is not None
        os.close(master)
        self.assertTrue(done and mutt.returncode == 0, screen[-3000:])
        return screen

    def test_marks_moves_and_removals(self):
        before = {sub: messages(ADDRESS, sub) for sub in FOLDERS}
        texts = sorted(content(path) for path in before["Inbox"])
        self.drive("<first-entry><set-flag>!<next-entry><set-flag>r<next-entry><delete-message>"
                   "<next-entry><save-message><kill-line>" + mail(ADDRESS) + "/Work<enter>"
                   "<sync-mailbox><quit>")
        after = messages(ADDRESS)
        self.assertEqual(len(after), len(before["Inbox"]) - 2)
        self.assertEqual(len(messages(ADDRESS, "Work")), len(before["Work"]) + 1)
        letters = sorted(filter(None, (flags_in(path).replace("S", "") for path in after)))
        self.assertEqual(letters, ["F", "R"])
        self.assertLessEqual(set(map(content, after)), set(texts))
        self.assert_shown_as_it_is()


class MblazeTest(ReaderCase):
    def test_marks_moves_and_removals(self):
        shown = self.read("mlist", self.inbox()).stdout.decode().splitlines()
        self.assertEqual(sorted(shown), messages(ADDRESS))
        rng = random.Random(5)
        chosen = rng.sample(shown, 6)
        self.assertEqual(self.read("minc", self.inbox()).returncode, 0)
        self.assertEqual(messages(ADDRESS, where=["new"]), [])
        now = dict(zip((os.path.basename(p).partition(":")[0] for p in messages(ADDRESS)),
                       messages(ADDRESS)))
        chosen = [now[os.path.basename(path).partition(":")[0]] for path in chosen]
        self.assertEqual(self.read("mflag", "-S", "-F", *chosen[:3]).returncode, 0)
        self.assertEqual(sorted(filter(None, map(flags_in, messages(ADDRESS)))), ["FS"] * 3)
        self.assertEqual(self.read("mrefile", *chosen[3:], f"{mail(ADDRESS)}/Work").returncode, 0)
        self.assertEqual(len(messages(ADDRESS, "Work")), 6)
        listed = self.read("mlist", f"{mail(ADDRESS)}/Work").stdout.decode().splitlines()
        self.assertEqual(sorted(listed), messages(ADDRESS, "Work"))
        self.assert_shown_as_it_is()

    def test_its_own_delivery_is_counted(self):
        with open(SAMPLES[0], "rb") as sample:
            done = self.read("mdeliver", "-v", f"{mail(ADDRESS)}/Work", stdin=sample)
        self.assertEqual(done.returncode, 0, done.stdout)
        self.assertEqual(len(messages(ADDRESS, "Work")), 4)
        self.assert_shown_as_it_is()


class PythonTest(ReaderCase):
    def test_marks_moves_and_removals(self):
        """In a process of its own, like any other reader. It works on messages that Python writes back byte
        for byte. With another length the size in the name would be wrong."""
        script = f"""
import mailbox
inbox = mailbox.Maildir({self.inbox()!r}, create=False)
work = mailbox.Maildir({mail(ADDRESS) + '/Work'!r}, create=False)
keys = [key for key in sorted(inbox.keys()) if inbox.get_bytes(key) == bytes(inbox[key])]
for key in keys[:3]:
    message = inbox[key]
    message.set_subdir("cur")
    message.set_flags("RS")
    inbox[key] = message
inbox.discard(keys[3])
work.add(inbox[keys[4]])
inbox.discard(keys[4])
print(len(inbox), len(work))
"""
        before = len(messages(ADDRESS))
        done = self.read("python3", "-c", script)
        self.assertEqual(done.stdout.decode(), f"{before - 2} 4\n")
        self.assertEqual(len(messages(ADDRESS)), before - 2)
        self.assertEqual(sorted(filter(None, map(flags_in, messages(ADDRESS)))), ["RS"] * 3)
        self.assert_shown_as_it_is()

    def test_what_it_writes_in_another_length_is_found_and_mended(self):
        script = f"""
import mailbox
inbox = mailbox.Maildir({self.inbox()!r}, create=False)
for key in inbox.keys():
    inbox[key] = inbox[key]
"""
        names = messages(ADDRESS)
        done = self.read("python3", "-c", script)
        self.assertEqual((done.returncode, messages(ADDRESS)), (0, names), done.stdout)
        wrong = [name for name in names if size_in(name) != os.path.getsize(name)]
        self.assertTrue(0 < len(wrong) < len(names), wrong)
        done = tsmail("--json", "doctor", ADDRESS, **neighbours.as_vmail())
        self.assertEqual(done.code, 1, done)
        self.assertEqual([(row["check"], row["path"], int(row["what"].split()[0]))
                          for row in done.objects], [("size-fields", self.inbox(), len(wrong))])
        texts = sorted(map(content, names))
        self.run_tool("doctor", ADDRESS, "--repair")
        after = messages(ADDRESS)
        self.assertEqual(set(names) - set(after), set(wrong))
        self.assertEqual([size_in(name) for name in after], list(map(os.path.getsize, after)))
        self.assertEqual(sorted(map(content, after)), texts)
        self.assertEqual(record(f"{self.inbox()}/.ts_folder_size"), count("Inbox"))
        self.assert_shown_as_it_is()

    def test_every_message_is_read_whole(self):
        inbox = mailbox.Maildir(self.inbox(), create=False)
        found = sorted(inbox.get_bytes(key) for key in inbox.keys())
        self.assertEqual(found, sorted(map(content, messages(ADDRESS))))


if __name__ == "__main__":
    unittest.main()
