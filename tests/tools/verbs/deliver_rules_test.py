"""deliver: which folder a stranger's tag reaches, mailboxes over their quota, what a failure says, and how long a
sender may take."""

import os
import signal
import subprocess
import time
import unittest

from testing.toolkit import (SYSTEM_FOLDERS, TSMAIL, Lock, SpoolCase, as_nobody, content, environment, mail,
                             mailbox_record, messages, own_by_nobody, write)

ANN = "ann@site.test"
MESSAGE = b"Subject: x\n\nbody\n"
FROM = b"From bob@site.test Thu Jan  1 00:00:00 1970\n"


class RulesCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN)

    def assert_in(self, folder, *words):
        [path] = self.succeed("deliver", *words, stdin=b"x").lines
        self.assertEqual(os.path.dirname(path), f"{mail(ANN)}/{folder}/new")

    def folders(self):
        return sorted(name for name in os.listdir(mail(ANN)) if not name.startswith("."))


class TagTest(RulesCase):
    def test_a_stranger_makes_no_folder(self):
        self.assert_in("Inbox", "ann+anything@site.test")
        self.assertEqual(self.folders(), sorted(SYSTEM_FOLDERS))

    def test_a_folder_that_exists_is_used(self):
        self.succeed("create", ANN, "--folder", "Work")
        self.assert_in("Work", "ann+Work@site.test")
        self.assert_in("Inbox", "ann+work@site.test")  # another name

    def test_the_operator_may_allow_new_folders(self):
        self.assert_in("anything", "--new-folders", "ann+anything@site.test")

    def test_the_option_names_the_operators_folder(self):
        self.assert_in("Work", "ann+anything@site.test", "--folder", "Work")
        self.assert_in("Inbox", "ann+anything@site.test", "--folder", "Other", "--no-new-folder")
        self.fail_with(64, "deliver", ANN, "--new-folders", "--no-new-folder", saying="not both")

    def test_letter_case_of_system_folders(self):
        for tag, folder in (("inbox", "Inbox"), ("INBOX", "Inbox"), ("trash", "Trash"), ("SECUREmail", "SecureMail"),
                            ("Inbox", "Inbox"), ("inboxx", "Inbox"), ("drafts", "Drafts")):
            for options in ([], ["--new-folders"]):
                with self.subTest(tag=tag, options=options):
                    expected = tag if options and tag == "inboxx" else folder
                    self.assert_in(expected, *options, f"ann+{tag}@site.test")
        self.assertEqual(self.folders(), sorted([*SYSTEM_FOLDERS, "inboxx"]))

    def test_a_twin_that_exists_does_not_get_the_mail(self):
        for part in ("cur", "new", "tmp"):
            os.makedirs(f"{mail(ANN)}/TRASH/{part}")
        self.assert_in("Trash", "ann+TRASH@site.test")


class ExceededTest(RulesCase):
    def test_without_an_option_the_flag_is_ignored(self):
        self.succeed("quota", "set", ANN, "exceeded")
        self.assert_in("Inbox", ANN)

    def test_refused_or_put_off(self):
        for option, code, status in (("--refuse-exceeded", 69, "5.2.2"), ("--defer-exceeded", 75, "4.2.2")):
            with self.subTest(option):
                self.assert_in("Inbox", ANN, option)
                self.succeed("quota", "set", ANN, "warning")
                self.assert_in("Inbox", ANN, option)
                self.succeed("quota", "set", ANN, "exceeded")
                found = messages(ANN)
                done = subprocess.run([TSMAIL, "deliver", "ann+Work@site.test", option], input=MESSAGE,
                                      capture_output=True, check=False)
                self.assertEqual(done.returncode, code)
                self.assertEqual(done.stderr.decode(), f"{status} {ANN}: the mailbox is full\n")
                self.assertEqual((messages(ANN), done.stdout), (found, b""))
                self.succeed("quota", "clear", ANN, "exceeded")
        self.fail_with(64, "deliver", ANN, "--refuse-exceeded", "--defer-exceeded", saying="not both")

    def test_each_file_is_named(self):
        self.succeed("quota", "set", ANN, "exceeded")
        for name in ("/tmp/a", "/tmp/b"):
            write(name, MESSAGE)
        done = subprocess.run([TSMAIL, "deliver", ANN, "--refuse-exceeded", "/tmp/a", "/tmp/b"],
                              capture_output=True, check=False)
        self.assertEqual(done.stderr.decode().splitlines(),
                         [f"5.2.2 {name}: {ANN}: the mailbox is full" for name in ("/tmp/a", "/tmp/b")])


class InputTest(RulesCase):
    def test_a_dash_is_standard_input(self):
        write("/tmp/file", b"file\n")
        done = self.succeed("deliver", ANN, "/tmp/file", "-", "/tmp/file", stdin=b"standard input\n")
        self.assertEqual([content(path) for path in done.lines], [b"file\n", b"standard input\n", b"file\n"])
        self.fail_with(64, "deliver", ANN, "-", "-", saying="once")

    def test_an_mbox_of_several_messages_is_refused(self):
        for text in (FROM + MESSAGE + b"\n" + FROM + MESSAGE, FROM + FROM,
                     FROM + b"x" * 300000 + b"\n" + FROM.replace(b" 1970", b" +0100 1970")):
            write("/tmp/mbox", text)
            self.fail_with(65, "deliver", ANN, "/tmp/mbox", saying="/tmp/mbox: .*tsmail import")
            self.assertEqual(messages(ANN), [])

    def test_a_single_message_with_such_a_line_is_stored_as_it_is(self):
        for text in (FROM + MESSAGE, FROM, FROM + b"\nFrom here on\n\nFrom: x\n>" + FROM, MESSAGE + FROM + FROM,
                     b"x" + FROM * 2, FROM + b"x" * 262143 + FROM, b"", b"Fro", b"From "):
            write("/tmp/message", text)
            [path] = self.succeed("deliver", ANN, "/tmp/message").lines
            self.assertEqual(content(path), text)

    def test_standard_input_is_a_single_message(self):
        """A transfer agent passes what a stranger wrote, and a refusal would lose it."""
        text = (FROM + MESSAGE + b"\n") * 2
        for words in ([ANN], [ANN, "-"]):
            [path] = self.succeed("deliver", *words, stdin=text).lines
            self.assertEqual(content(path), text)


class FailureTest(RulesCase):
    def test_every_failure_names_its_file(self):
        write("/tmp/good", MESSAGE)
        write("/tmp/mbox", FROM + FROM)
        done = self.fail_with(66, "deliver", ANN, "/tmp/none", "/tmp/good", "/tmp/mbox")
        self.assertRegex(done.err, r"\Atsmail: /tmp/none: No such file or directory\ntsmail: /tmp/mbox: it holds several")

    def test_every_failure_names_its_file_in_json_too(self):
        write("/tmp/good", MESSAGE)
        write("/tmp/mbox", FROM + FROM)
        done = self.fail_with(66, "--json", "deliver", ANN, "/tmp/none", "/tmp/good", "/tmp/mbox")
        self.assertEqual([row["file"] for row in done.objects], ["/tmp/none", "/tmp/good", "/tmp/mbox"])
        self.assertEqual([row.get("code") for row in done.objects], [66, None, 65])
        self.assertEqual(done.objects[0]["error"], "/tmp/none: No such file or directory")
        self.assertEqual(content(done.objects[1]["path"]), MESSAGE)

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_who_is_not_permitted_where(self):
        own_by_nobody("/var/spool/home/site.test")
        write("/tmp/message", MESSAGE)
        os.chmod("/tmp/message", 0o644)
        inbox = f"{mail(ANN)}/Inbox"
        rows = [(f"{inbox}/new", 0o500, f"{inbox}"), (inbox, 0o000, inbox), (mail(ANN), 0o600, mail(ANN))]
        for path, mode, named in rows:
            os.chmod(path, mode)
            with self.subTest(path):
                done = self.fail_with(75, "deliver", ANN, "/tmp/message", **as_nobody())
                self.assertRegex(done.err, rf"^tsmail: /tmp/message: {mail(ANN)}.*: Permission denied "
                                 rf"\(user 65534 works in {named}, which belongs to user 65534 and group 65534 and has "
                                 r"the mode 0[0-7]{3}\)\n$")
            os.chmod(path, 0o700)
        os.chown("/var/spool/home/site.test", 0, 0)
        os.chmod("/var/spool/home/site.test", 0o700)
        done = self.fail_with(75, "deliver", ANN, **as_nobody())
        self.assertRegex(done.err, r"user 65534 works in /var/spool/home/site.test, which belongs to user 0 and group 0 "
                         "and has the mode 0700")

    def test_other_failures_name_the_directory(self):
        os.rmdir(f"{mail(ANN)}/Inbox/new")
        write(f"{mail(ANN)}/Inbox/new", b"")
        self.fail_with(73, "deliver", ANN, stdin=b"x", saying=f"{mail(ANN)}/Inbox.*: Not a directory\n$")


class SilenceTest(RulesCase):
    def test_the_sender_may_take_longer_than_the_limit(self):
        for pauses in ((4, 0), (0, 4), (2.5, 2.5)):
            with self.subTest(pauses):
                process = subprocess.Popen([TSMAIL, "deliver", ANN, "--timeout", "2"], stdin=subprocess.PIPE,
                                           stdout=subprocess.PIPE, env=environment(), bufsize=0)
                for piece, pause in zip((b"Subject: x\n", b"\nbody\n"), pauses):
                    time.sleep(pause)
                    process.stdin.write(piece)
                path = process.communicate()[0].decode().strip()
                self.assertEqual(process.returncode, 0)
                self.assertEqual(content(path), MESSAGE)

    def test_a_worker_that_waits_for_something_else_is_ended(self):
        with Lock(f"{mail(ANN)}/Inbox"):
            begun = time.monotonic()
            self.fail_with(75, "deliver", ANN, "--timeout", "2", stdin=b"x", saying="longer than 2 seconds")
            self.assertLess(time.monotonic() - begun, 10)
        self.assertEqual((messages(ANN), mailbox_record(ANN)), ([], (0, 0)))

    def test_a_signal_ends_the_waiting(self):
        process = self.begin("deliver", ANN, stdin=subprocess.PIPE)
        time.sleep(1.2)
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(10), 75)
        self.assertEqual(messages(ANN), [])


if __name__ == "__main__":
    unittest.main()
