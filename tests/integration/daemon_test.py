"""Beside a quota daemon in a process of its own. It learns the size of each mailbox from the notifications."""

import ctypes
import json
import os
import random
import signal
import subprocess
import sys
import unittest
from multiprocessing import Process

from testing.toolkit import (BUILD, SAMPLES, SOURCE, SpoolCase, mail, mailbox_record,
                             messages, record, tsmail)

ADDRESSES = ["ann@site.test", "bob@site.test", "eve@other.test"]
FOLDERS = ["Inbox", "Work", "Work/2024"]
ROUNDS = 60


class Daemon:
    def __enter__(self):
        self.process = subprocess.Popen([sys.executable, f"{SOURCE}/examples/quota_daemon.py"],
                                        stdout=subprocess.PIPE)
        assert self.process.stdout.readline() == b"listening\n"
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def totals(self):
        """Ends the daemon, which first reads what is waiting."""
        self.process.send_signal(signal.SIGTERM)
        return json.loads(self.process.communicate(timeout=30)[0])


def library():
    found = ctypes.CDLL(f"{BUILD}/libtsmail.so.1")
    for name in ("tsl_append_mail_folder_size",):
        getattr(found, name).argtypes = [ctypes.c_char_p, ctypes.c_longlong, ctypes.c_longlong]
    found.tsl_update_mail_folder_size.argtypes = [ctypes.c_char_p, ctypes.c_long]
    return found


def deliver(seed):
    rng = random.Random(seed)
    for _ in range(ROUNDS):
        address, folder = rng.choice(ADDRESSES), rng.choice(FOLDERS)
        assert tsmail("deliver", address, "--folder", folder, rng.choice(SAMPLES)).code == 0


def read(seed):
    """Moves new messages to cur, as a reader does."""
    rng = random.Random(seed)
    for _ in range(4 * ROUNDS):
        address, folder = rng.choice(ADDRESSES), rng.choice(FOLDERS)
        for path in messages(address, folder, ("new",))[:2]:
            os.rename(path, path.replace("/new/", "/cur/") + ":2,S")


def remove_and_refile(seed):
    """The only process that takes messages away: it removes some and moves others to another folder."""
    rng, tsl = random.Random(seed), library()
    for _ in range(ROUNDS // 2):
        address, (source, target) = rng.choice(ADDRESSES), rng.sample(FOLDERS, 2)
        for path in messages(address, source, ("cur",))[:1]:
            if rng.random() < 0.5:
                done = tsmail("message", "rm", address, source, os.path.basename(path))
                assert done.code == 0, done
                continue
            size = os.path.getsize(path)
            os.rename(path, f"{mail(address)}/{target}/cur/{os.path.basename(path)}")
            for folder, change in ((source, -1), (target, 1)):
                where = f"{mail(address)}/{folder}".encode()
                tsl.tsl_append_mail_folder_size(where + b"/.ts_folder_size", change * size, change)
                assert tsl.tsl_update_mail_folder_size(where, change * size) > 0


class StormTest(SpoolCase):
    def test_its_totals_are_those_of_a_recount(self):
        for address in ADDRESSES:
            self.succeed("create", address, *[f"--folder={name}" for name in FOLDERS])
        seed = random.randrange(1 << 30)
        with Daemon() as daemon, self.subTest(seed=seed):
            workers = [Process(target=work, args=(seed + n,))
                       for n, work in enumerate((deliver, deliver, read, remove_and_refile))]
            for worker in workers:
                worker.start()
            for worker in workers:
                worker.join()
                self.assertEqual(worker.exitcode, 0)
            removed = self.succeed("rm", ADDRESSES[0], "Work/2024", "--now")
            self.assertIn("Work/2024", removed.out)
            told = daemon.totals()
        kept = {address: mailbox_record(address) for address in ADDRESSES}
        for address in ADDRESSES:
            self.succeed("recount", address)
            found = mailbox_record(address)
            self.assertEqual(told.get(mail(address), 0), found[0], address)
            self.assertEqual(kept[address], found, address)
            paths = [path for folder in FOLDERS for path in messages(address, folder)]
            self.assertEqual(found, (sum(map(os.path.getsize, paths)), len(paths)))
            for folder in FOLDERS:
                if os.path.isdir(f"{mail(address)}/{folder}"):
                    paths = messages(address, folder)
                    self.assertEqual(record(f"{mail(address)}/{folder}/.ts_folder_size"),
                                     (sum(map(os.path.getsize, paths)), len(paths)))


if __name__ == "__main__":
    unittest.main()
