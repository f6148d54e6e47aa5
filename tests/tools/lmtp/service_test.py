"""tsmail lmtp as a service: real processes, sockets and users."""

import contextlib
import grp
import os
import pwd
import re
import signal
import smtplib
import socket
import stat
import subprocess
import threading
import time
import unittest

from tools.lmtp.service import ANN, BOB, OWNERS, SOCKET, Client, Service, open_files, state_of
from testing.toolkit import (TSMAIL, Lock, SpoolCase, as_nobody, content, environment, folder_record, is_marked,
                             left_in_tmp, limited, mail, mailbox_record, messages, own_by_nobody, run, wait_until)

ROOT = os.geteuid() == 0


class LmtpCase(SpoolCase):
    """As root: mailboxes of different owners. Otherwise all belong to the user who runs the test."""

    def setUp(self):
        super().setUp()
        for address, owner in OWNERS.items():
            self.succeed("create", address, "--folder", "Work", *(["--owner", f"{owner}:{owner}"] if ROOT else []))

    def assert_true_records(self, address):
        paths = messages(address)
        self.assertEqual(folder_record(address), (sum(map(os.path.getsize, paths)), len(paths)))


class DeliveryTest(LmtpCase):
    def test_a_message(self):
        with Service() as service, Client() as client:
            self.assertEqual(client.begin(ANN), ["250 2.1.5 OK"])
            [reply] = client.text(b"Subject: x\r\n\r\n..dot\r\nline\nbare\rcr\0\r\n")
            self.assertRegex(reply, r"^250 2\.0\.0 Saved as \S+$")
            [path] = messages(ANN)
            self.assertEqual(content(path), b"Return-Path: <s@remote.test>\nSubject: x\n\n.dot\nline\nbare\rcr\0\n\n")
            self.assertIn(f"#Q#{reply.split()[-1]},", path)
            self.assertTrue(path.endswith(f",#F#S#{os.path.getsize(path)}#E"))
            self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o600)
            self.assertEqual(client.say("QUIT"), "221 2.0.0 Bye")
            self.assertTrue(client.closed())
            self.assertEqual(service.end(), 0)
        self.assert_true_records(ANN)

    def test_several_recipients(self):
        with Service() as service, Client() as client:
            replies = client.begin(ANN, "none@site.test", "ann+Work@site.test", BOB, "a/b@site.test", "x@y@z")
            self.assertEqual([reply[:9] for reply in replies],
                             ["250 2.1.5", "550 5.1.1", "250 2.1.5", "250 2.1.5", "553 5.1.3", "553 5.1.3"])
            replies = client.text(b"x" * 100000, 3)
            self.assertEqual([reply[:9] for reply in replies], ["250 2.0.0"] * 3)
            bodies = [content(path) for path in messages(ANN) + messages(ANN, "Work") + messages(BOB)]
            self.assertEqual([len(body) for body in bodies], [len(bodies[0])] * 3)
            self.assertTrue(bodies[0].endswith(b"\n" + b"x" * 100000 + b"\n"))
            service.end()
        self.assertEqual(mailbox_record(ANN), (2 * len(bodies[0]), 2))
        self.assertEqual(mailbox_record(BOB), (len(bodies[0]), 1))

    def test_queue_identifiers(self):
        with Service(), Client() as client:
            for ident, expected in (("4XYZ+2Bz", "4XYZ+z"), ("a/b", None), ("[UNAVAILABLE]", None)):
                client.say(f"XFORWARD IDENT={ident}")
                [reply] = client.deliver(ANN)
                saved = reply.split()[-1]
                self.assertEqual(saved == expected, expected is not None)
                self.assertTrue(any(f"#Q#{saved}," in path for path in messages(ANN)), saved)

    def test_big_messages(self):
        for size in (131000, 131072, 131100, 3000000):
            with self.subTest(size=size), Service(), Client() as client:
                known = set(messages(ANN))
                text = (b"0123456789abcde\r\n" * (size // 17))[:size - 2]
                self.assertTrue(client.deliver(ANN, text=text)[0].startswith("250"))
                [path] = set(messages(ANN)) - known
                self.assertEqual(content(path).split(b"\n", 1)[1], text.replace(b"\r\n", b"\n") + b"\n")

    def test_chunks(self):
        with Service(), Client() as client:
            client.begin(ANN, BOB)
            client.send(b"BDAT 7\r\na\r\n.\r\n\rBDAT 4 LAST\r\n\nb\r\n")
            self.assertEqual([client.reply()[:3] for _ in range(3)], ["250"] * 3)
            for address in (ANN, BOB):
                self.assertEqual(content(messages(address)[0]).split(b"\n", 1)[1], b"a\n.\n\nb\n")

    def test_everything_at_once_and_byte_by_byte(self):
        talk = (b"LHLO c\r\nMAIL FROM:<s@x>\r\nRCPT TO:<ann@site.test>\r\nRCPT TO:<no@site.test>\r\n"
                b"DATA\r\n..\r\n.\r\nNOOP\r\nQUIT\r\n")
        with Service():
            for piece in (len(talk), 1):
                with Client(greet=False) as client:
                    client.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDBUF, 4096)
                    for at in range(0, len(talk), piece):
                        client.send(talk[at:at + piece])
                    codes = [line[:4] for line in client.file.read().decode().splitlines()]
                self.assertEqual(codes, ["220 ", *["250-"] * 7, "250 ", "250 ", "250 ", "550 ", "354 ", "250 ",
                                         "250 ", "221 "])
        self.assertEqual([content(path) for path in messages(ANN)], [b"Return-Path: <s@x>\n.\n"] * 2)

    def test_pythons_client(self):
        with Service("--listen", "inet:2424"):
            for where in ((SOCKET, 0), ("127.0.0.1", 2424)):
                with smtplib.LMTP(*where) as lmtp:
                    for _ in range(20):
                        self.assertEqual(lmtp.sendmail("s@x.test", [ANN], b"Subject: x\r\n\r\n.x\r\n"), {})
                    self.assertTrue(lmtp.has_extn("pipelining") and lmtp.has_extn("chunking"))
        self.assertEqual(len(messages(ANN)), 40)

    def test_many_at_once(self):
        def send(n):
            with Client() as client:
                for _ in range(25):
                    replies.extend(client.deliver((ANN, BOB)[n % 2], text=b"%d" % n * 3000))
        replies = []
        with Service() as service:
            threads = [threading.Thread(target=send, args=(n,)) for n in range(12)]
            for thread in threads:
                thread.start()
            for thread in threads:
                thread.join()
            self.assertEqual([reply[:3] for reply in replies], ["250"] * 300)
            self.assertLessEqual(len(service.workers()), 16)
            service.end()
        for address in (ANN, BOB):
            self.assertEqual(len(messages(address)), 150)
            self.assert_true_records(address)
            self.assertEqual(left_in_tmp(address), [])

    def test_the_quota_daemon_is_told(self):
        daemon = self.listen()
        os.chmod("/tmp/quotad.socket", 0o777)
        with Service() as service, Client() as client:
            client.deliver(ANN)
            size = os.path.getsize(messages(ANN)[0])
            service.end()
        self.assertEqual(self.told(daemon), [f"S{size},F({mail(ANN)}/Inbox)"])


class AnswerTest(LmtpCase):
    def test_a_tag(self):
        for option, folder in (([], "Inbox"), (["--new-folders"], "Made")):
            with Service(*option), Client() as client:
                client.deliver("ann+Made@site.test")
            self.assertEqual(len(messages(ANN, folder)), 1)

    def test_a_mailbox_over_its_quota(self):
        self.succeed("quota", "set", ANN, "exceeded")
        for option, answer in (("--refuse-exceeded", "552 5.2.2"), ("--defer-exceeded", "452 4.2.2")):
            with Service(option), Client() as client:
                replies = client.begin(ANN, BOB, "no@site.test")
                self.assertEqual([reply[:9] for reply in replies], [answer, "250 2.1.5", "550 5.1.1"])
                self.assertEqual(client.text(b"x")[0][:9], "250 2.0.0")
        with Service("--refuse-exceeded"), Client() as client:
            client.begin(BOB)
            self.succeed("quota", "set", BOB, "exceeded")  # after the recipient was accepted
            self.assertEqual(client.text(b"x")[0][:9], "552 5.2.2")
        self.assertEqual(messages(ANN), [])
        self.assertEqual(len(messages(BOB)), 2)

    def test_the_most_bytes(self):
        with Service("--max-size", "1000"), Client() as client:
            self.assertEqual(client.say("MAIL FROM:<> SIZE=1001")[:9], "552 5.3.4")
            for text, answer in ((b"x" * 998, "250 2.0.0"), (b"x" * 999, "552 5.3.4"), (b"x" * 500000, "552 5.3.4")):
                self.assertEqual([reply[:9] for reply in client.deliver(ANN, BOB, text=text)], [answer] * 2)
        self.assertEqual(len(messages(ANN)), 1)

    def test_a_mailbox_that_goes(self):
        with Service(), Client() as client:
            client.begin(ANN, BOB)
            os.rename(os.path.dirname(mail(ANN)), "/var/spool/gone")
            self.assertEqual([reply[:3] for reply in client.text(b"x", 2)], ["550", "250"])

    @unittest.skipUnless(ROOT, "root's part")
    def test_no_permission_is_a_temporary_failure(self):
        os.chmod(f"{mail(ANN)}/Inbox", 0)
        with Service(), Client() as client:
            [reply] = client.deliver(ANN)
            self.assertEqual(reply[:9], "451 4.3.0")
            self.assertIn("which belongs to user 20001", reply)

    @unittest.skipUnless(ROOT, "root mounts file systems")
    def test_a_full_disk(self):
        small = mail(ANN)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k,uid=20001,gid=20001", "tmpfs", small], check=True)
        try:
            with Service(), Client() as client:
                for name in ("Inbox", "Inbox/cur", "Inbox/new", "Inbox/tmp"):
                    os.mkdir(f"{small}/{name}")
                    os.chown(f"{small}/{name}", 20001, 20001)
                replies = client.deliver(ANN, BOB, text=b"x" * 400000)
                self.assertEqual([reply[:9] for reply in replies], ["452 4.3.1", "250 2.0.0"])
                self.assertEqual((messages(ANN), left_in_tmp(ANN)), ([], []))
                self.assertEqual(client.deliver(ANN)[0][:3], "250")
        finally:
            subprocess.run(["umount", small], check=True)

    @unittest.skipUnless(ROOT, "root's part")
    def test_roots_own_mailbox_gets_nothing_from_the_network(self):
        self.succeed("create", "op@root.test", "--owner", "root")
        with Service(), Client() as client:
            self.assertEqual(client.begin("op@root.test")[0][:9], "451 4.3.0")
        self.assertEqual(messages("op@root.test"), [])


class PrivilegesTest(LmtpCase):
    @staticmethod
    def status(pid):
        with open(f"/proc/{pid}/status", encoding="ascii") as file:
            return dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)

    @unittest.skipUnless(ROOT, "root gives up its rights")
    def test_nothing_is_left_of_root(self):
        with Service() as service, Client() as client:
            client.deliver(ANN, BOB)
            self.assertEqual(len(service.workers()), 2)
            users = {int(self.status(pid)["Uid"].split()[0]) for pid in service.workers()}
            self.assertEqual(users, set(OWNERS.values()))
            for pid in service.children():
                status = self.status(pid)
                for name in ("Uid", "Gid"):
                    ids = status[name].split()
                    self.assertEqual(ids, [ids[0]] * 4)
                    self.assertNotEqual(ids[0], "0")
                self.assertEqual(status["Groups"].strip(), "")
                self.assertEqual(int(status["CapEff"], 16) | int(status["CapPrm"], 16), 0)
                self.assertEqual(status["NoNewPrivs"], "1")
            self.assertEqual(int(self.status(service.network())["Uid"].split()[0]), pwd.getpwnam("nobody").pw_uid)
        with Service("--user", "games") as service, Client():
            self.assertEqual(int(self.status(service.network())["Uid"].split()[0]), pwd.getpwnam("games").pw_uid)
        self.fail_with(64, "lmtp", "--user", "root", saying="must not be root")

    @unittest.skipUnless(ROOT, "gives the store to another user")
    def test_as_the_mail_user(self):
        own_by_nobody("/var/spool/home")
        with Service(**as_nobody()) as service, Client() as client:
            self.assertEqual([reply[:3] for reply in client.deliver(ANN, BOB)], ["250"] * 2)
            self.assertLessEqual(len(service.workers()), 2)
            self.assertEqual(service.end(), 0)
        self.assertEqual(len(messages(ANN)), 1)

    def test_a_worker_is_kept(self):
        with Service() as service, Client() as client:
            client.deliver(ANN)
            before = service.workers()
            for _ in range(20):
                client.deliver(ANN)
            # Another one is started if a message comes while those that run still count the last ones.
            self.assertLessEqual(set(before), set(service.workers()))
            self.assertLessEqual(len(service.workers()), 4)

    @unittest.skipUnless(ROOT, "many owners")
    def test_more_owners_than_workers(self):
        addresses = [f"u{n}@site.test" for n in range(12)]
        for n, address in enumerate(addresses):
            self.succeed("create", address, "--owner", f"{21000 + n}:{21000 + n}")
        with Service("--workers", "2") as service, Client() as client:
            for _ in range(3):
                self.assertEqual([reply[:3] for reply in client.deliver(*addresses)], ["250"] * 12)
                wait_until(lambda: len(service.workers()) <= 2)  # those that gave way take a moment to end
        self.assertEqual([len(messages(address)) for address in addresses], [3] * 12)

    def test_a_worker_that_is_killed(self):
        with Service() as service, Client() as client:
            client.deliver(ANN)
            [worker] = service.workers()
            os.kill(worker, signal.SIGKILL)  # a dying one may still read a task
            wait_until(lambda: worker not in service.workers())
            self.assertEqual(client.deliver(ANN)[0][:3], "250")

    def test_a_worker_that_is_killed_while_it_delivers(self):
        with Service() as service, Client() as client:
            client.deliver(ANN)
            wait_until(lambda: not service.writes_below(mail(ANN)))
            with Lock(f"{mail(ANN)}/Inbox"):
                client.begin(ANN)
                client.send(b"DATA\r\nx\r\n.\r\n")
                client.reply()
                wait_until(lambda: service.writes_below(mail(ANN)))
                killed = set(service.workers())
                for worker in killed:
                    os.kill(worker, signal.SIGKILL)
                self.assertEqual(client.reply()[:9], "451 4.3.0")
            wait_until(lambda: not killed & set(service.workers()))
            wait_until(lambda: is_marked(ANN))
            self.assertEqual(client.deliver(ANN)[0][:3], "250")
        self.assertEqual(len(messages(ANN)), 2)

    def deliver_and_rest(self, service, client):
        """One message, which is counted, too."""
        client.deliver(ANN)
        wait_until(lambda: folder_record(ANN)[1] == 1 and service.is_idle())

    def test_a_worker_that_is_killed_with_a_task_unread(self):
        with Service("--workers", "1") as service, Client() as client:
            self.deliver_and_rest(service, client)
            [worker] = service.workers()
            os.kill(worker, signal.SIGSTOP)
            wait_until(lambda: state_of(worker) == "T")
            client.begin(ANN)
            client.say("DATA")
            client.send(b"x\r\n.\r\n")
            wait_until(lambda: client.unheard() == 0 and state_of(service.network()) == "S")  # the worker has the task
            os.kill(worker, signal.SIGKILL)
            self.assertEqual(client.reply()[:3], "250")
            service.end()
        self.assertEqual(len(messages(ANN)), 2)
        self.assert_true_records(ANN)

    def test_a_worker_that_is_gone_before_it_gets_a_task(self):
        with Service("--workers", "1") as service, Client() as client:
            self.deliver_and_rest(service, client)
            client.begin(ANN)
            client.say("DATA")
            os.kill(service.network(), signal.SIGSTOP)
            wait_until(lambda: state_of(service.network()) == "T")
            client.send(b"x\r\n.\r\n")  # this is heard before the end of the worker
            for worker in service.workers():
                os.kill(worker, signal.SIGKILL)
            wait_until(lambda: not service.workers())
            os.kill(service.network(), signal.SIGCONT)
            self.assertEqual(client.reply()[:3], "250")
            service.end()
        self.assertEqual(len(messages(ANN)), 2)
        self.assert_true_records(ANN)

    def test_no_room_for_a_workers_socket(self):
        """The service puts the message off, and goes on."""
        few = 40
        with Service("--workers", "1", preexec_fn=limited(NOFILE=few)) as service, Client() as client:
            self.assertEqual(client.begin(ANN), ["250 2.1.5 OK"])
            client.say("DATA")
            client.send(b"x\r\n")
            with contextlib.ExitStack() as stack:
                for _ in range(few):
                    stack.enter_context(Client(greet=False))
                wait_until(lambda: len(os.listdir(f"/proc/{service.network()}/fd")) == few)
                client.send(b".\r\n")
                self.assertEqual(client.reply()[:9], "451 4.3.0")
            wait_until(lambda: client.deliver(ANN)[0][:3] == "250")
        self.assertEqual(len(messages(ANN)), 1)

    def test_a_worker_that_is_heard_too_early(self):
        with Service("--workers", "1") as service, Client() as client:
            client.deliver(ANN)
            with traced([service.network()], "-e", "trace=recvfrom", "-e", "inject=recvfrom:error=EAGAIN:when=1"):
                self.assertEqual(client.deliver(ANN)[0][:3], "250")
            self.assertIn("EAGAIN (Resource temporarily unavailable) (INJECTED)", content("/tmp/trace").decode())
            self.assertEqual(len(service.workers()), 1)


class HostileTest(LmtpCase):
    def test_a_locked_mailbox_costs_nobody_elses_time(self):
        with Service("--workers", "2", options=("--timeout", "5")) as service:
            clients = [Client() for _ in range(6)]
            with Lock(f"{mail(ANN)}/Inbox"):
                for client in clients:
                    client.begin(ANN)
                    client.send(b"DATA\r\nx\r\n.\r\n")
                    client.reply()
                time.sleep(2.5)  # the workers count as slow now
                begun = time.monotonic()
                with Client() as other:
                    self.assertEqual(other.deliver(BOB)[0][:3], "250")
                self.assertLess(time.monotonic() - begun, 2)  # the others wait for three seconds more
                self.assertEqual([client.reply()[:9] for client in clients], ["451 4.3.0"] * 6)
                self.assertLess(time.monotonic() - begun, 12)
            self.assertEqual((messages(ANN), left_in_tmp(ANN)), ([], []))
            self.assertEqual(clients[0].deliver(ANN)[0][:3], "250")
            for client in clients:
                client.close()
            self.assertEqual(service.end(), 0)

    @unittest.skipUnless(ROOT, "two owners")
    def test_workers_that_are_no_longer_slow_give_way(self):
        with Service("--workers", "1") as service, Client() as client, Client() as other:
            with Lock(f"{mail(ANN)}/Inbox"):
                client.begin(ANN)
                client.send(b"DATA\r\nx\r\n.\r\n")
                self.assertEqual(other.deliver(BOB)[0][:3], "250")  # only when the first one counts as slow
                self.assertEqual(len(service.workers()), 2)
            self.assertEqual([client.reply()[:3] for _ in range(2)], ["354", "250"])
            wait_until(lambda: len(service.workers()) == 1)

    def test_a_size_file_that_is_locked(self):
        with Service(), Client() as client:
            client.deliver(ANN)
            wait_until(lambda: mailbox_record(ANN)[1] == 1)
            with Lock(f"{mail(ANN)}/.maildirsize"):
                begun = time.monotonic()
                self.assertEqual(client.deliver(ANN)[0][:3], "250")
                self.assertLess(time.monotonic() - begun, 5)
                wait_until(lambda: is_marked(ANN))
        self.assertEqual(len(messages(ANN)), 2)

    def test_more_connections_than_allowed(self):
        with Service("--connections", "2"):
            first, second = Client(), Client()
            third = Client(greet=False)
            third.socket.settimeout(0.3)
            self.assertRaises(TimeoutError, third.socket.recv, 1)
            first.close()
            third.socket.settimeout(10)
            self.assertEqual(third.socket.recv(3), b"220")
            second.close()
            third.close()

    def test_silence(self):
        with Service("--idle", "1s"), Client() as client, Client() as writer:
            self.assertEqual(client.reply()[:9], "421 4.3.2")
            self.assertTrue(client.closed())
            self.assertEqual(writer.reply()[:3], "421")

    def test_a_peer_that_does_not_read(self):
        with Service("--idle", "1s") as service:
            with Client() as client:
                with self.assertRaises((BrokenPipeError, ConnectionResetError, TimeoutError)):
                    client.socket.settimeout(5)
                    while True:
                        client.send(b"NOOP\r\n" * 1000)
            with Client() as client:
                self.assertEqual(client.deliver(ANN)[0][:3], "250")
            self.assertEqual(service.end(), 0)

    def test_a_line_without_end(self):
        # A sanitizer keeps freed memory for a while.
        env = environment(ASAN_OPTIONS="quarantine_size_mb=0:thread_local_quarantine_size_kb=0")
        with Service(env=env) as service, Client() as client:
            before = self.memory(service)
            for _ in range(100):
                client.send(b"x" * 100000)
            self.assertEqual(client.say("")[:9], "500 5.5.2")
            self.assertLess(self.memory(service) - before, 1000)
            self.assertEqual(client.deliver(ANN)[0][:3], "250")

    def test_the_memory_of_messages_is_bounded(self):
        with Service() as service:
            clients = [Client() for _ in range(16)]
            for client in clients:
                client.begin(ANN)
                client.say("DATA")
                client.send(b"x" * 1000000)
            wait_until(lambda: sum(self.held(service)) >= 16 * 960000)  # the last bytes wait for more
            in_memory = sum(self.held(service, "/memfd:"))
            self.assertLessEqual(in_memory, 6 << 20)
            self.assertGreater(in_memory, 5 << 20)
            for client in clients:
                client.send(b"\r\n.\r\n")
                self.assertEqual(client.reply()[:3], "250")
                client.close()
            wait_until(lambda: self.held(service) == [])
        self.assertEqual([os.path.getsize(path) for path in messages(ANN)], [1000030] * 16)

    @staticmethod
    def held(service, beginning=""):
        """The sizes of the files without a name that the network process holds."""
        paths = open_files(service.network())
        return [size for path, size in paths if path.startswith(beginning) and path.endswith(" (deleted)")]

    @staticmethod
    def memory(service):
        """KiB of the network process."""
        with open(f"/proc/{service.network()}/status", encoding="ascii") as file:
            return int(re.search(r"VmRSS:\s+(\d+)", file.read()).group(1))

    def test_a_peer_that_leaves_in_the_middle(self):
        with Service() as service:
            for talk in (b"", b"MAIL FROM:<>\r\n", b"MAIL FROM:<>\r\nRCPT TO:<ann@site.test>\r\nDATA\r\nx\r\n"):
                with Client() as client:
                    client.send(talk)
            with Client() as client:
                self.assertEqual(client.deliver(BOB)[0][:3], "250")
            self.assertEqual(service.end(), 0)
        self.assertEqual(messages(ANN), [])


class EndTest(LmtpCase):
    def test_a_signal(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with Service() as service, Client() as client:
                service.process.send_signal(number)
                self.assertEqual(client.reply(), "421 4.3.2 The service ends")
                self.assertTrue(client.closed())
                self.assertEqual(service.process.wait(10), 0)
                self.assertFalse(os.path.exists(SOCKET))

    def test_a_delivery_that_is_under_way_is_finished(self):
        with Service() as service, Client() as client, Client() as other:
            client.begin(ANN)
            other.begin(ANN)
            self.assertEqual(other.say("DATA")[:3], "354")
            with Lock(f"{mail(ANN)}/Inbox"):
                client.send(b"DATA\r\nx\r\n.\r\n")
                client.reply()
                wait_until(lambda: service.writes_below(mail(ANN)))
                service.process.terminate()
                self.assertEqual(other.reply()[:3], "421")
            self.assertEqual(client.reply()[:3], "250")
            self.assertEqual(client.reply()[:3], "421")
            self.assertEqual(service.process.wait(10), 0)
        self.assertEqual(len(messages(ANN)), 1)

    def test_a_delivery_that_cannot_be_finished(self):
        with Service() as service, Client() as client, Lock(f"{mail(ANN)}/Inbox"):
            client.begin(ANN)
            client.send(b"DATA\r\nx\r\n.\r\n")
            client.reply()
            wait_until(lambda: service.writes_below(mail(ANN)))
            begun = time.monotonic()
            service.process.terminate()
            self.assertEqual(client.reply()[:9], "451 4.3.0")
            self.assertEqual(service.process.wait(15), 0)
            self.assertLess(time.monotonic() - begun, 10)
        self.assertEqual((messages(ANN), left_in_tmp(ANN)), ([], []))

    def test_the_end_of_one_process_ends_all(self):
        for victim in (lambda s: s.pid, Service.network):
            with Service() as service, Client() as client:
                client.deliver(ANN)
                pids = [service.pid, *service.children()]
                os.kill(victim(service), signal.SIGKILL)
                service.process.wait(10)
                wait_until(lambda: not any(self.runs(pid) for pid in pids), 10)
                service.process.communicate()

    @staticmethod
    def runs(pid):
        try:
            with open(f"/proc/{pid}/stat", encoding="ascii") as file:
                return file.read().rsplit(")", 1)[1].split()[0] != "Z"
        except FileNotFoundError:
            return False

    def test_nothing_that_was_acknowledged_is_lost(self):
        for _ in range(8):
            acknowledged = []
            with Service() as service:
                def send(n):
                    try:
                        with Client() as client:
                            for k in range(1000):
                                client.say(f"XFORWARD IDENT=N{n}x{k}")
                                if client.deliver(ANN, text=b"x" * 2000)[0].startswith("250"):
                                    acknowledged.append(f"N{n}x{k}")
                    except (OSError, AssertionError):
                        return
                threads = [threading.Thread(target=send, args=(n,)) for n in range(4)]
                for thread in threads:
                    thread.start()
                wait_until(lambda: len(acknowledged) > 20)
                service.kill()
                for thread in threads:
                    thread.join()
            found = [re.search(r"#Q#(N\w+),", path).group(1) for path in messages(ANN)]
            self.assertEqual(len(found), len(set(found)))
            self.assertLessEqual(set(acknowledged), set(found))
            self.assertLessEqual(len(found), len(acknowledged) + 4)
            for path in messages(ANN):
                self.assertTrue(path.endswith(f"#S#{os.path.getsize(path)}#E"))
                os.unlink(path)


@contextlib.contextmanager
def traced(processes, *options):
    """The processes are traced into /tmp/trace."""
    command = ["strace", "-f", "-o", "/tmp/trace", "-p", ",".join(map(str, processes)), *options]
    with subprocess.Popen(command, stderr=subprocess.PIPE) as tracer:
        try:
            for _ in processes:
                line = tracer.stderr.readline()
                if not line.rstrip().endswith(b"attached"):
                    raise AssertionError(line)
            yield
        finally:
            tracer.terminate()


class FlushTest(LmtpCase):
    """One worker, so that no other one delivers beside the one that is traced."""

    def test_an_entry_that_cannot_be_flushed_is_taken_back(self):
        with Service("--workers", "1") as service, Client() as client:
            client.deliver(ANN)
            known = messages(ANN)
            # The second flush is that of the directory.
            with traced(service.workers(), "-e", "trace=fsync", "-e", "inject=fsync:error=EIO:when=2"):
                self.assertEqual(client.deliver(ANN)[0][:9], "451 4.3.0")
            self.assertEqual(messages(ANN), known)
            self.assertEqual(client.deliver(ANN)[0][:3], "250")
            service.end()
        self.assert_true_records(ANN)

    def test_the_order_of_things(self):
        with Service("--workers", "1") as service, Client() as client:
            client.deliver(ANN)
            with traced([*service.workers(), service.network()],
                        "-e", "trace=fsync,linkat,renameat2,write,writev,sendmsg"):
                client.deliver(ANN)
                client.say("QUIT")
        calls = content("/tmp/trace").decode(errors="replace")
        wanted = r"fsync\(.*(linkat|renameat2)\(.*fsync\(.*250 2\.0\.0 Saved"
        self.assertRegex(calls, re.compile(wanted, re.S))


class SocketsTest(LmtpCase):
    def test_mode_and_owner(self):
        with Service():
            self.assertEqual(stat.S_IMODE(os.stat(SOCKET).st_mode), 0o600)
        options = ["--socket-mode", "0660", *(["--socket-owner", "games:mail"] if ROOT else [])]
        with Service(*options):
            status = os.stat(SOCKET)
            self.assertEqual(stat.S_IMODE(status.st_mode), 0o660)
            if ROOT:
                self.assertEqual((status.st_uid, status.st_gid),
                                 (pwd.getpwnam("games").pw_uid, grp.getgrnam("mail").gr_gid))

    def test_a_socket_that_is_left_over(self):
        with Service() as service:
            service.kill()
            self.assertTrue(os.path.exists(SOCKET))
            with Service(), Client() as client:
                self.assertEqual(client.say("NOOP")[:3], "250")
                self.fail_with(74, "lmtp", "--listen", f"unix:{SOCKET}", saying="in use")

    def test_a_file_in_its_place_stays(self):
        with open("/tmp/file", "w", encoding="ascii") as file:
            file.write("x")
        self.assertNotEqual(run([TSMAIL, "lmtp", "--listen", "unix:/tmp/file"]).code, 0)
        self.assertEqual(content("/tmp/file"), b"x")

    def test_addresses(self):
        for where in ("inet:0.0.0.0:2424", "inet:[::]:2424", "inet:10.0.0.1:2424"):
            self.fail_with(64, "lmtp", "--listen", where, saying="--remote")
        for where in ("tcp:1", "unix:", "inet:", "inet:x:1", "inet:99999", "inet:127.0.0.1:", "unix:" + "x" * 108):
            self.fail_with(64, "lmtp", "--listen", where, saying="is not unix:PATH")
        with Service("--listen", "inet:127.0.0.1:2424", "--listen", "inet:0.0.0.0:2425", "--remote"):
            for port in (2424, 2425):
                with Client(("127.0.0.1", port)) as client:
                    self.assertEqual(client.say("NOOP")[:3], "250")

    def test_other_arguments(self):
        for words in (["--socket-mode", "8"], ["--socket-mode", "01000"], ["--connections", "0"], ["--workers", "x"],
                      ["--idle", "5"], ["--max-size", "-1"], ["--refuse-exceeded", "--defer-exceeded"],
                      *([["--user", "nosuchuser"]] if ROOT else [])):
            self.fail_with(64, "lmtp", *words)

    def test_a_socket_that_is_handed_over(self):
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(SOCKET)
            listener.listen()
            command = f'exec 3<&{listener.fileno()}; LISTEN_PID=$$ LISTEN_FDS=1 exec "$0" lmtp'
            process = subprocess.Popen(["sh", "-c", command, TSMAIL], pass_fds=[listener.fileno()],
                                       env=environment())
            self.addCleanup(process.kill)
            with Client() as client:
                self.assertEqual(client.deliver(ANN)[0][:3], "250")
            process.terminate()
            self.assertEqual(process.wait(10), 0)
            self.assertTrue(os.path.exists(SOCKET))  # it is not the service's
        os.unlink(SOCKET)

    def test_standard_input_as_a_socket(self):
        ours, theirs = socket.socketpair()
        process = subprocess.Popen([TSMAIL, "lmtp"], stdin=theirs, stdout=subprocess.PIPE, env=environment())
        self.addCleanup(process.kill)
        theirs.close()
        ours.sendall(b"LHLO c\r\nMAIL FROM:<>\r\nRCPT TO:<ann@site.test>\r\nDATA\r\n.\r\nQUIT\r\n")
        with ours.makefile("rb") as file:
            self.assertTrue(file.read().endswith(b"221 2.0.0 Bye\r\n"))
        self.assertEqual((process.communicate()[0], process.returncode), (b"", 0))
        self.assertEqual(len(messages(ANN)), 1)

    def test_standard_input_and_output(self):
        done = run([TSMAIL, "lmtp"], stdin=b"LHLO c\r\nMAIL FROM:<>\r\nRCPT TO:<ann@site.test>\r\nDATA\r\n.\r\nNOOP\r\n")
        self.assertEqual((done.code, done.err), (0, ""))
        self.assertEqual([line[:3] for line in done.lines], ["220", *["250"] * 10, "354", "250", "250"])
        self.assertEqual(len(messages(ANN)), 1)


class LogTest(LmtpCase):
    """The log's sockets are real ones in a directory of the sandbox."""

    def log(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        log.bind(path)
        os.chmod(path, 0o666)
        log.settimeout(10)
        self.addCleanup(os.unlink, path)
        self.addCleanup(log.close)
        return log

    def test_the_journal(self):
        log = self.log("/run/systemd/journal/socket")
        with Service(), Client() as client:
            client.say("XFORWARD IDENT=Q1")
            client.begin("ann+Work@site.test", sender="s@remote.test")
            client.text(b"x")
            lines = log.recv(4096).decode().splitlines()
        fields = dict(line.split("=", 1) for line in lines)
        self.assertRegex(fields["MESSAGE"], r"^Q1: from=<s@remote.test>, to=<ann\+Work@site.test>, folder=Work, "
                                            r"size=\d+, delay=\d+\.\d\d\d, status=250 2\.0\.0$")
        self.assertEqual((fields["PRIORITY"], fields["SYSLOG_IDENTIFIER"], fields["SYSLOG_FACILITY"]),
                         ("6", "tsmail", "2"))
        self.assertEqual((fields["TSMAIL_QUEUE_ID"], fields["TSMAIL_RECIPIENT"], fields["TSMAIL_FOLDER"]),
                         ("Q1", "ann+Work@site.test", "Work"))

    def test_the_systems_log(self):
        log = self.log("/dev/log")
        with Service(), Client() as client:
            os.chmod(f"{mail(ANN)}/Inbox", 0)
            self.addCleanup(os.chmod, f"{mail(ANN)}/Inbox", 0o700)
            client.deliver(ANN)
            line = log.recv(4096).decode()
        if ROOT:
            self.assertRegex(line, r"^<21>\w{3} [ \d]\d \d\d:\d\d:\d\d tsmail\[\d+\]: \S+: from=<s@remote.test>, "
                                   r"to=<ann@site.test>, reason=.*, status=451 4\.3\.0$")

    def test_a_log_that_does_not_read(self):
        self.log("/run/systemd/journal/socket")
        with Service(), Client() as client:
            for _ in range(600):
                self.assertEqual(client.begin(ANN), ["250 2.1.5 OK"])
                client.say("RSET")
            for _ in range(40):
                self.assertEqual(client.deliver(ANN)[0][:3], "250")


if __name__ == "__main__":
    unittest.main()
