"""tsmail.mailbox.Maildir: names, totals, moves, flags, folders, and the command beside it."""

import errno
import fcntl
import mailbox as standard
import os
import re
import resource
import signal
import socket
import subprocess
import sys
import threading
import time
import unittest

from package import BUILD, MAIL, PLACE, SOURCE, lines, make_mailbox, tsmail
from tsmail import _locks
from tsmail.mailbox import Maildir

TSMAIL = f"{BUILD}/tools/tsmail"
MESSAGE = b"Subject: milk\n\nDo not forget the milk.\n"
NAME = re.compile(r"\d+\.\d+_\d+_\d+\.sandbox#Q#\w+,#F#S#(\d+)#E(:2,[A-Za-z]*)?")


def files(folder="Inbox"):
    return [f"{sub}/{name}" for sub in ("cur", "new") for name in os.listdir(f"{MAIL}/{folder}/{sub}")]


class Case(unittest.TestCase):
    def setUp(self):
        self.box = make_mailbox("ann@site.test", "Work", "Work/2024")
        self.inbox = Maildir(self.box)

    def tearDown(self):
        tsmail.folders.delete_path("/var/spool/home")

    def assert_counted(self, *folders):
        """Folders and mailbox are counted as a recount finds them, and nothing is left in tmp."""
        total = [0, 0]
        for name in folders or ("Inbox", "Work", "Work/2024"):
            sizes = [os.stat(f"{MAIL}/{name}/{file}").st_size for file in files(name)]
            for file in files(name):
                in_name = tsmail.MessageName.parse(file).size
                self.assertIn(in_name, (None, os.stat(f"{MAIL}/{name}/{file}").st_size), file)
            try:
                kept = self.box.folder(name).size()
            except FileNotFoundError:
                kept = (0, 0)
            self.assertEqual(kept, (sum(sizes), len(sizes)), name)
            self.assertEqual(os.listdir(f"{MAIL}/{name}/tmp"), [])
            total = [total[0] + sum(sizes), total[1] + len(sizes)]
        self.assertEqual(self.box.size(), tuple(total))


class MaildirTest(Case):
    def test_add(self):
        key = self.inbox.add(MESSAGE)
        self.assertEqual(files(), [f"new/{key}"])
        self.assertEqual(NAME.fullmatch(key).group(1), str(len(MESSAGE)))
        self.assertEqual(self.inbox.get_bytes(key), MESSAGE)
        self.assertEqual(lines(f"{MAIL}/.maildirsize"), [f"{len(MESSAGE)} 1"])
        self.assert_counted()

    def test_add_with_flags(self):
        message = standard.MaildirMessage(MESSAGE)
        message.set_subdir("cur")
        message.set_flags("FS")
        message.set_date(1000000000)
        key = self.inbox.add(message)
        self.assertEqual(files(), [f"cur/{key}:2,FS"])
        self.assertEqual(int(os.stat(f"{MAIL}/Inbox/{files()[0]}").st_mtime), 1000000000)
        self.assertEqual(self.inbox[key].get_flags(), "FS")
        self.assert_counted()

    def test_an_empty_message_counts(self):
        key = self.inbox.add(b"")
        self.assertEqual(self.box.size(), (0, 1))
        self.inbox.remove(key)
        self.assert_counted()
        self.assertEqual(self.box.size(), (0, 0))

    def test_add_that_fails(self):
        with self.assertRaises(TypeError):
            self.inbox.add(object())
        with self.assertRaises(ValueError):
            self.inbox.add("Subject: ä\n\n")
        self.assertEqual(files(), [])
        self.assert_counted()

    def test_a_disk_that_is_full(self):
        """Nothing is left behind and nothing counted."""
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        limits = resource.getrlimit(resource.RLIMIT_FSIZE)
        resource.setrlimit(resource.RLIMIT_FSIZE, (10, limits[1]))
        try:
            with self.assertRaises(OSError) as caught:
                self.inbox.add(MESSAGE)
        finally:
            resource.setrlimit(resource.RLIMIT_FSIZE, limits)
        self.assertEqual(caught.exception.errno, errno.EFBIG)
        self.assertEqual(files(), [])
        self.assert_counted()

    def test_a_record_that_cannot_be_written(self):
        """The message stands, and the mailbox waits for a recount."""
        os.mkdir(f"{MAIL}/Inbox/.ts_folder_size")
        self.inbox.add(MESSAGE)
        self.assertEqual(len(files()), 1)
        with self.assertRaises(tsmail.UnknownTotalsError):
            self.box.size()

    def test_remove_and_discard(self):
        keys = [self.inbox.add(MESSAGE + b"x" * n) for n in range(4)]
        self.inbox.remove(keys[0])
        self.inbox.discard(keys[1])
        self.inbox.discard(keys[1])
        del self.inbox[keys[2]]
        for key in (keys[0], "nothing"):
            with self.assertRaises(KeyError):
                self.inbox.remove(key)
        self.assertEqual(list(self.inbox.keys()), [keys[3]])
        self.assert_counted()
        self.inbox.clear()
        self.assert_counted()

    def test_what_another_removed_is_not_counted_again(self):
        key = self.inbox.add(MESSAGE)
        self.inbox.keys()
        self.box.folder().unlink_message(f"new/{key}")
        self.box.append_size(-len(MESSAGE), -1)
        self.inbox.discard(key)
        with self.assertRaises(KeyError):
            self.inbox.remove(key)
        self.assert_counted()

    def test_messages_without_a_size_in_their_names(self):
        with open(f"{MAIL}/Inbox/cur/1.foreign:2,S", "wb") as file:
            file.write(MESSAGE)
        self.box.folder().write_size(len(MESSAGE), 1)
        self.box.append_size(len(MESSAGE), 1)
        self.inbox["1.foreign"] = MESSAGE * 2
        self.assertEqual(files(), [f"cur/1.foreign,#F#S#{2 * len(MESSAGE)}#E:2,S"])
        self.assert_counted()
        key, = self.inbox.keys()
        self.inbox.remove(key)
        self.assert_counted()

    def test_replacing(self):
        key = self.inbox.add(MESSAGE)
        self.inbox[key] = MESSAGE.upper()  # as long
        self.assertEqual(files(), [f"new/{key}"])
        for text in (MESSAGE * 3, MESSAGE * 5, MESSAGE):
            self.inbox[key] = text
            self.assertEqual(list(self.inbox.keys()), [key])
            self.assertEqual(self.inbox.get_bytes(key), text)
            self.assert_counted()
            self.assertEqual(Maildir(self.box).get_bytes(key), text)
        self.assertEqual(files(), [f"new/{key}"])
        message = self.inbox[key]
        message.add_flag("R")
        message.set_subdir("cur")
        message.set_payload("longer than it was before, by far\n")
        self.inbox[key] = message
        self.assertTrue(files()[0].startswith(f"cur/{key},#F#S#") and files()[0].endswith(":2,R"))
        self.assert_counted()
        with self.assertRaises(KeyError):
            self.inbox["nothing"] = MESSAGE
        self.assert_counted()

    def test_flags(self):
        key = self.inbox.add(MESSAGE)
        self.assertEqual(self.inbox.get_flags(key), "")
        self.inbox.set_flags(key, "SF")
        self.assertEqual(files(), [f"cur/{key}:2,FS"])
        self.inbox.add_flag(key, "RS")
        self.assertEqual(self.inbox.get_flags(key), "FRS")
        self.inbox.remove_flag(key, "FR")
        self.assertEqual(files(), [f"cur/{key}:2,S"])
        for bad in ("/", "S:", "ä"):
            with self.assertRaises(ValueError):
                self.inbox.set_flags(key, bad)
        for call in (self.inbox.set_flags, self.inbox.add_flag):
            with self.assertRaises(KeyError):
                call("nothing", "S")
        self.assert_counted()

    def test_moves(self):
        work, year = Maildir(self.box, "Work"), Maildir(self.box, "Work/2024")
        key = self.inbox.add(MESSAGE)
        self.inbox.set_flags(key, "S")
        for source, target in ((self.inbox, work), (work, year), (year, work), (work, self.inbox)):
            source.move(key, target)
            self.assertEqual((list(source.keys()), list(target.keys())), ([], [key]))
            self.assertEqual(target.get_flags(key), "S")
            self.assert_counted()
        self.inbox.move(key, self.inbox)
        self.assert_counted()
        other = Maildir(make_mailbox("bob@site.test"))
        self.inbox.move(key, other)
        self.assertEqual(other.mailbox.size(), (len(MESSAGE), 1))
        self.assert_counted()
        with self.assertRaises(KeyError):
            self.inbox.move(key, work)
        self.assert_counted()

    def test_folders(self):
        inner = self.inbox.add_folder("Sub")
        key = inner.add(MESSAGE)
        self.assertEqual(self.inbox.list_folders(), ["Sub"])
        self.assertEqual(self.inbox.get_folder("Sub")[key].get_payload(), "Do not forget the milk.\n")
        self.assertEqual([each.name for each in self.box.folders()],
                         ["Inbox", "Inbox/Sub", "Work", "Work/2024"])
        for bad in ("a/b", ".x", "cur", ""):
            with self.assertRaises(ValueError):
                self.inbox.add_folder(bad)
        with self.assertRaises(standard.NotEmptyError):
            self.inbox.remove_folder("Sub")
        inner.remove(key)
        self.inbox.remove_folder("Sub")
        self.assertEqual(self.inbox.list_folders(), [])
        for call in (self.inbox.get_folder, self.inbox.remove_folder):
            with self.assertRaises(standard.NoSuchMailboxError):
                call("Sub")
        Maildir(self.box, "Work").add_folder("2023")
        self.assertEqual(sorted(Maildir(self.box, "Work").list_folders()), ["2023", "2024"])
        self.assert_counted()
        with self.assertRaises(standard.NoSuchMailboxError):
            Maildir(self.box, "None", create=False)

    def test_the_quota_daemon_is_told(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as daemon:
            daemon.bind("/tmp/quotad.socket")
            try:
                key = self.inbox.add(MESSAGE)
                self.inbox[key] = MESSAGE + b"xx"
                self.inbox[key] = MESSAGE[::-1].strip() + b"\n"
                self.inbox.set_flags(key, "S")
                self.inbox.remove(key)
                told = [daemon.recv(600) for _ in range(4)]
                daemon.setblocking(False)
                self.assertRaises(BlockingIOError, daemon.recv, 600)
            finally:
                os.unlink("/tmp/quotad.socket")
        sizes = (len(MESSAGE), 2, -2, -len(MESSAGE))
        self.assertEqual(told, [f"S{size},F({MAIL}/Inbox)".encode() for size in sizes])

    def test_names_that_are_no_text(self):
        with open(f"{MAIL}/Inbox/cur/".encode() + b"\xff:2,S", "wb") as file:
            file.write(MESSAGE)
        key, = self.inbox.keys()
        self.assertEqual(os.fsencode(key), b"\xff")
        self.assertEqual(self.inbox.get_bytes(key), MESSAGE)

    def test_entries_of_every_kind(self):
        """Those that the standard library finds, whatever they are. It found hidden ones until Python 3.13."""
        os.mkdir(f"{MAIL}/Inbox/cur/directory")
        os.symlink("directory", f"{MAIL}/Inbox/cur/to-directory")
        os.symlink("nowhere", f"{MAIL}/Inbox/cur/to-nowhere")
        os.mkfifo(f"{MAIL}/Inbox/new/fifo")
        with open(f"{MAIL}/Inbox/new/.hidden", "wb") as file:
            file.write(MESSAGE)
        ours, theirs = Maildir(self.box), standard.Maildir(f"{MAIL}/Inbox")
        ours._refresh()
        theirs._refresh()
        hidden = {} if sys.version_info >= (3, 13) else {".hidden": "new/.hidden"}
        self.assertEqual(theirs._toc, {**ours._toc, **hidden})
        self.assertEqual(ours._toc, {"to-nowhere": "cur/to-nowhere", "fifo": "new/fifo"})

    def test_a_hidden_file_is_not_a_message(self):
        """The command does not count it, so it cannot be taken out of the totals."""
        self.inbox.add(MESSAGE)
        with open(f"{MAIL}/Inbox/new/.hidden", "wb") as file:
            file.write(MESSAGE)
        with self.assertRaises(KeyError):
            self.inbox.remove(".hidden")
        self.assertEqual(len(self.inbox), 1)
        done = subprocess.run([TSMAIL, "recount", "ann@site.test", "--json"], check=True,
                              stdout=subprocess.PIPE, text=True)
        self.assertIn('"corrected":[]', done.stdout)

    def test_a_folder_that_went_away(self):
        self.inbox.add(MESSAGE)
        self.box.folder().delete()
        with self.assertRaises(FileNotFoundError):
            Maildir.__len__(self.inbox)


class BesideTheCommandTest(Case):
    """The tsmail command and other processes work on the same folders."""

    def test_a_recount_has_nothing_to_mend(self):
        work = Maildir(self.box, "Work")
        keys = [self.inbox.add(MESSAGE + b"x" * n) for n in range(6)]
        self.inbox[keys[0]] = b"short\n"
        self.inbox.move(keys[1], work)
        self.inbox.remove(keys[2])
        done = subprocess.run([TSMAIL, "recount", "ann@site.test", "--json"], check=True,
                              stdout=subprocess.PIPE, text=True)
        self.assertIn('"corrected":[]', done.stdout)

    def test_it_finds_what_the_command_delivers(self):
        subprocess.run([TSMAIL, "deliver", "ann@site.test"], input=MESSAGE, check=True,
                       stdout=subprocess.DEVNULL)
        key, = self.inbox.keys()
        self.assertEqual(self.inbox.get_bytes(key), MESSAGE)
        self.inbox.remove(key)
        self.assert_counted()

    def test_many_at_once(self):
        """Processes and threads add, move and remove, and somebody recounts all the time."""
        code = ("import sys, tsmail; from tsmail.mailbox import Maildir\n"
                "box = tsmail.Mailbox('ann@site.test')\n"
                "a, b = Maildir(box), Maildir(box, 'Work')\n"
                "for n in range(40):\n"
                "    key = a.add(b'x' * (n + 1))\n"
                "    if n % 2: a.move(key, b)\n"
                "    if n % 3 == 0: (b if n % 2 else a).remove(key)\n"
                "    elif n % 5 == 0: (b if n % 2 else a)[key] = b'y' * 99\n")
        env = {**os.environ, "PYTHONPATH": PLACE}
        processes = [subprocess.Popen([sys.executable, "-B", "-c", code], env=env) for _ in range(3)]
        ended = threading.Event()
        recounts = []

        def recount():
            while not ended.is_set():
                recounts.append(subprocess.run([TSMAIL, "recount", "ann@site.test"], check=False,
                                               stdout=subprocess.DEVNULL).returncode)

        def work():
            box = Maildir(self.box)
            for n in range(40):
                box.remove(box.add(b"z" * n))
        threads = [threading.Thread(target=target) for target in (recount, work, work)]
        for thread in threads:
            thread.start()
        codes = [process.wait() for process in processes]
        for thread in threads[1:]:
            thread.join()
        ended.set()
        threads[0].join()
        self.assertEqual((codes, set(recounts)), ([0, 0, 0], {0}))
        self.assertGreater(len(recounts), 1)
        self.assertGreater(len(files()) + len(files("Work")), 60)
        self.assert_counted()

    def test_a_recount_is_waited_for(self):
        """While another has the folder to itself, nothing is added."""
        fd = os.open(f"{MAIL}/Inbox", os.O_RDONLY)
        self.addCleanup(os.close, fd)
        fcntl.flock(fd, fcntl.LOCK_EX)
        thread = threading.Thread(target=self.inbox.add, args=(MESSAGE,))
        thread.start()
        thread.join(0.3)
        self.assertTrue(thread.is_alive())
        self.assertEqual(files(), [])
        fcntl.flock(fd, fcntl.LOCK_UN)
        thread.join(10)
        self.assertEqual(len(files()), 1)
        self.assert_counted()


class NetworkTest(Case):
    """On a file system that several machines may have, files are locked. network_like.so makes of the
    sandbox's file system such a one, on which a lock on a directory keeps nobody out."""

    PRELOADED = f"{BUILD}/tests/tools/network_like.so"
    FILES = [".ts_folder_gate", ".ts_folder_lock"]

    def lock_files(self, folder):
        return sorted(set(os.listdir(f"{MAIL}/{folder}")) & set(self.FILES))

    def lock(self, folder, name, kind):
        """A lock as another machine has it."""
        fd = os.open(f"{MAIL}/{folder}/{name}", os.O_RDWR | os.O_CREAT, 0o600)
        fcntl.flock(fd, kind)
        return fd

    def begin_far(self, action):
        self.assertTrue(os.path.exists(self.PRELOADED))
        code = ("import tsmail; from tsmail.mailbox import Maildir\n"
                "box = tsmail.Mailbox('ann@site.test')\n" + action)
        process = subprocess.Popen([sys.executable, "-B", "-c", code],
                                   env={**os.environ, "PYTHONPATH": PLACE, "LD_PRELOAD": "network_like.so",
                                        "LD_LIBRARY_PATH": f"{BUILD}/tests/tools"})
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def wait_until_closed(self, gate):
        """Until another process has the gate to itself. It makes the file first."""
        end = time.monotonic() + 30
        while not os.path.exists(gate) or self.is_open(gate):
            self.assertLess(time.monotonic(), end, "nobody closed the gate")
            time.sleep(0.01)

    @staticmethod
    def is_open(gate):
        fd = os.open(gate, os.O_RDWR)
        try:
            fcntl.flock(fd, fcntl.LOCK_SH | fcntl.LOCK_NB)
            return True
        except BlockingIOError:
            return False
        finally:
            os.close(fd)

    def assert_waits(self, process):
        with self.assertRaises(subprocess.TimeoutExpired):
            process.wait(0.7)

    def test_the_file_systems_are_those_of_the_command(self):
        with open(f"{SOURCE}/tools/work/folder_lock.cpp", encoding="utf-8") as file:
            table, = re.findall(r"kNetworked\[\] = \{(.*?)\};", file.read(), re.S)
        numbers = {int(number, 16) for number in re.findall(r"0x[0-9a-f]+", table)}
        self.assertGreater(len(numbers), 5)
        self.assertEqual(_locks.NETWORKED, numbers)

    def test_a_local_disk_gets_no_files(self):
        self.inbox.add(MESSAGE)
        self.assertEqual(self.lock_files("Inbox"), [])

    def test_adding_waits_for_the_file(self):
        held = self.lock("Work/2024", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("Maildir(box, 'Work/2024').add('x')")
        self.assert_waits(process)
        self.assertEqual(files("Work/2024"), [])
        os.close(held)
        self.assertEqual(process.wait(30), 0)
        self.assertEqual(len(files("Work/2024")), 1)
        self.assertEqual((self.lock_files("Work"), self.lock_files("Work/2024")), (self.FILES, self.FILES))
        self.assert_counted()

    def test_adding_waits_for_the_file_of_a_folder_above(self):
        held = self.lock("Work", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("Maildir(box, 'Work/2024').add('x')")
        self.assert_waits(process)
        os.close(held)
        self.assertEqual(process.wait(30), 0)

    def test_adding_waits_at_the_gate(self):
        held = self.lock("Inbox", ".ts_folder_gate", fcntl.LOCK_EX)
        process = self.begin_far("Maildir(box).add('x')")
        self.assert_waits(process)
        os.close(held)
        self.assertEqual(process.wait(30), 0)

    def test_removing_a_folder_waits_and_closes_the_gate(self):
        held = self.lock("Work/2024", ".ts_folder_lock", fcntl.LOCK_SH)
        process = self.begin_far("Maildir(box, 'Work').remove_folder('2024')")
        self.wait_until_closed(f"{MAIL}/Work/2024/.ts_folder_gate")
        self.assert_waits(process)
        os.close(held)
        self.assertEqual(process.wait(30), 0)
        self.assertFalse(os.path.exists(f"{MAIL}/Work/2024"))

    def test_a_removed_lock_file_is_not_the_lock(self):
        """Who waited for a file that is gone takes the one in its place."""
        held = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_EX)
        process = self.begin_far("Maildir(box).add('x')")
        self.assert_waits(process)
        os.unlink(f"{MAIL}/Inbox/.ts_folder_lock")
        other = self.lock("Inbox", ".ts_folder_lock", fcntl.LOCK_EX)
        os.close(held)
        self.assert_waits(process)
        os.close(other)
        self.assertEqual(process.wait(30), 0)
        self.assertEqual(len(files()), 1)


if __name__ == "__main__":
    unittest.main()
