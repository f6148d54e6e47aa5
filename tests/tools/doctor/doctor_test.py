"""doctor: it reports faults and changes nothing; a repair removes the fault and loses no mail."""

import fcntl
import os
import re
import shutil
import time
import unittest

from testing import toolkit
from testing.toolkit import (NOBODY, Lock, SpoolCase, as_nobody, content, folder_record, held_by_folders,
                             is_marked, mail, mailbox_record, messages, mode, numbered, own_by_nobody, snapshot,
                             traced, tsmail, wait_until, write)

ANN, BERT = "ann@site.test", "bert@site.test"
TOP = mail(ANN)
HOME = os.path.dirname(TOP)
PREF = HOME + "/pref"
LONG_AGO = time.time() - 37 * 3600
DELIVERED = re.compile(r"#Q#.*,#F")  # a name that the tool gave


def put(place, data=b"x", age=0.0):
    path = f"{TOP}/{place}"
    write(path, data)
    os.utime(path, (time.time() - age, time.time() - age))
    return path


def left_in_tmp(name, data, hours=37.0):
    return put("Inbox/tmp/" + name, data, hours * 3600)


def entries(folder, of):
    return {sub: sorted(of(entry) for entry in os.scandir(f"{TOP}/{folder}/{sub}")
                        if not DELIVERED.search(entry.name)) for sub in ("new", "cur")}


def names_in(folder):
    """The names of the messages that were not delivered by the tool."""
    return entries(folder, lambda entry: entry.name)


def inodes_in(folder):
    return entries(folder, lambda entry: entry.inode())


class DoctorCase(SpoolCase):
    def setUp(self):
        super().setUp()
        self.succeed("create", ANN, "--folder", "Work/2024")
        self.succeed("create", BERT)
        self.succeed("deliver", ANN, stdin=b"x" * 100)
        self.succeed("deliver", "ann+Work@site.test", stdin=b"y" * 20)

    def doctor(self, code, *words, **options):
        done = tsmail("--json", "doctor", ANN, *words, **options)
        self.assertEqual(done.code, code, done)
        return done.objects

    def checks(self, code, *words):
        return [row["check"] for row in self.doctor(code, *words)]

    def bodies(self):
        """The contents of every file below the mailbox's new, cur and tmp."""
        return sorted(data for path, (_, data) in snapshot(TOP).items()
                      if path.split("/")[-2] in ("new", "cur", "tmp") and data is not None)


class FindingsTest(DoctorCase):
    def found(self, check, path, what, repaired=True, rest=()):
        """Expects one finding, which a repair removes or not; after that only `rest` is found."""
        before = snapshot("/var/spool")
        mail_before = self.bodies()
        [row] = [row for row in self.doctor(1) if row["check"] not in rest]
        self.assertEqual((row["address"], row["check"], row["path"]), (ANN, check, path), row)
        self.assertRegex(row["what"], what)
        self.assertGreater(len(row["why"]), 20)
        self.assertEqual((row["repair"] != "", row["repaired"]), (repaired, False), row)
        self.assertEqual(snapshot("/var/spool"), before)
        lines = self.fail_text()
        self.assertTrue(any(path in line for line in lines), lines)
        rows = self.doctor(0 if repaired else 1, "--repair")
        self.assertIn((check, path, repaired),
                      [(row["check"], row["path"], row["repaired"]) for row in rows])
        self.assertEqual(self.bodies(), mail_before)
        rows = self.doctor(0 if repaired else 1)
        self.assertEqual([row["check"] for row in rows], [] if repaired else [check])

    def fail_text(self):
        done = tsmail("doctor", ANN)
        self.assertEqual(done.code, 1, done)
        return done.lines

    def test_nothing(self):
        self.assertEqual(self.doctor(0), [])
        self.assertEqual(self.succeed("doctor", ANN).lines, ["0 findings in 1 mailbox, 0 repaired"])

    def test_a_size_file_that_is_wrong(self):
        path = TOP + "/Inbox/.ts_folder_size"
        for text, what in (("7 7\n", "says 7 bytes in 7 messages; there are 100 bytes in 1 message$"),
                           ("99999999999999999999 1\n", "is damaged")):
            write(path, text)
            self.found("sizes", path, what)
            self.assertEqual(content(path), b"100 1\n")
        write(TOP + "/.maildirsize", "")
        self.found("sizes", TOP + "/.maildirsize", "says 0 bytes in 0 messages; there are 120 bytes")

    def test_a_mark(self):
        path = put(".maildirsize.dirty", b"", 7300)
        self.found("mark", path, "waiting for a recount for 121 minutes")

    def test_a_cache(self):
        for text in ("mtime=5,size=7", f"mtime={int(time.time()) + 1000}\nsize=7\n"):
            self.found("cache", put("Inbox/.ts_cache", text), "says 7 bytes; there are 100")
        put("Inbox/.ts_cache", "mtime=5,size=100")
        self.assertEqual(self.doctor(0), [])

    def test_a_folder_without_its_parts(self):
        os.rmdir(TOP + "/Sent/tmp")
        self.found("folder-parts", TOP + "/Sent", "^no tmp$")
        shutil.rmtree(TOP + "/Work/new")
        os.makedirs(TOP + "/Work/new")
        os.rmdir(TOP + "/Work/cur")
        os.rmdir(TOP + "/Work/tmp")
        self.found("folder-parts", TOP + "/Work", "^no cur, tmp$", rest=("sizes",))

    def test_folders_that_nobody_finds(self):
        for part in ("cur", "new", "tmp"):
            os.makedirs(f"{TOP}/Plain/Below/{part}")
        write(TOP + "/Plain/Below/new/1.a,#F#S#1#E", "x")
        self.found("folder-parts", TOP + "/Plain", "^no cur, new, tmp$")
        self.assertEqual(folder_record(ANN, "Plain/Below"), (1, 1))
        os.makedirs(TOP + "/plain")  # a user's own
        self.assertEqual(self.doctor(0), [])
        os.symlink("/etc", TOP + "/link")
        self.assertEqual(self.checks(1), ["links"])

    def test_complete_messages_in_tmp_go_back(self):
        rows = (("a,#F#S#5#E", b"12345", "new"), ("b,#F#S#5#E:2,S", b"12345", "cur"),
                ("c:2,FS", b"123", "cur"))
        for name, data, place in rows:
            self.found("leftovers", left_in_tmp(name, data), "complete message, 37 hours old",
                       rest=("untagged",))
            base = name.split(",")[0].split(":")[0]
            [path] = [path for path in messages(ANN) if os.path.basename(path).startswith(base)]
            self.assertEqual((path.split("/")[-2], content(path)), (place, data))
        self.assertEqual(mailbox_record(ANN), (133, 5))

    def test_what_may_be_a_part_of_a_message_stays(self):
        for name, data in (("a,#F#S#5#E", b"1234"), ("a,#F#S#5#E:2,S", b"1234"), ("a", b"12345"),
                           ("a,#F#S#0#E", b""), ("a,#F#S#0#E", b"123")):
            path = left_in_tmp(name, data)
            self.found("leftovers", path, "that may be a part of a message", repaired=False)
            os.unlink(path)
        left_in_tmp("a,#F#S#5#E", b"12345", 35.9)
        left_in_tmp(".hidden,#F#S#5#E", b"12345")
        self.assertEqual(self.doctor(0), [])

    def test_a_name_that_is_taken(self):
        left_in_tmp("a,#F#S#5#E", b"12345")
        put("Inbox/new/a,#F#S#5#E", b"other")
        self.succeed("recount", ANN)
        done = tsmail("--json", "doctor", ANN, "--repair")
        self.assertEqual(done.code, 1, done)
        self.assertIn("File exists", done.err)
        self.assertFalse(done.objects[0]["repaired"])
        self.assertEqual(content(TOP + "/Inbox/new/a,#F#S#5#E"), b"other")
        self.assertEqual(content(TOP + "/Inbox/tmp/a,#F#S#5#E"), b"12345")

    def test_messages_without_a_size_in_the_name(self):
        put("Inbox/new/a", b"123")
        put("Inbox/cur/b:2,S", b"123")
        self.succeed("recount", ANN)
        self.found("untagged", TOP + "/Inbox", "^2 messages without a size")
        self.assertTrue(all("#S#" in path for path in messages(ANN)))

    def test_names_in_a_directory_that_a_repair_opened(self):
        put("Inbox/cur/a", b"123")
        self.succeed("recount", ANN)
        own_by_nobody(os.path.dirname(TOP))
        os.chmod(TOP + "/Inbox/cur", 0o600)
        done = tsmail("--json", "doctor", ANN, "--repair", **as_nobody())
        self.assertEqual([(row["check"], row["repaired"]) for row in done.objects],
                         [("folder-permissions", True), ("untagged", True)], done)
        self.assertIn("/Inbox/cur: Permission denied", done.err)
        self.assertEqual(done.err.count("denied"), 1)
        self.assertEqual(self.doctor(0), [])

    def test_a_size_field_without_a_size(self):
        """Tagging skips it, so doctor does not promise that tagging repairs it."""
        for name in ("a,#F#E", "b,#F#S#-5#E:2,S"):
            path = put("Inbox/cur/" + name, b"123")
            self.succeed("recount", ANN)
            self.found("untagged", path, "holds no size$", repaired=False)
            untagged = put("Inbox/new/c", b"123")
            self.succeed("recount", ANN)
            rows = self.doctor(1, "--repair")
            self.assertEqual([(row["path"], row["repaired"]) for row in rows],
                             [(path, False), (TOP + "/Inbox", True)])
            self.assertFalse(os.path.exists(untagged))
            shutil.rmtree(TOP + "/Inbox/new")
            os.mkdir(TOP + "/Inbox/new")
            os.unlink(path)

    def test_sizes_in_names_that_are_wrong(self):
        put("Inbox/new/a,#F#S#4#E", b"12345")
        put("Inbox/new/b,#F#S#5#E", b"12345")
        put("Inbox/cur/c,S=6,W=7,#F#S#6#E,U3:2,FS", b"12345")
        put("Inbox/cur/d,#F#S#5#E:2,FS", b"12345")
        inodes = inodes_in("Inbox")
        self.succeed("recount", ANN)
        self.found("size-fields", TOP + "/Inbox", "^2 messages with a wrong size in the name$")
        self.assertEqual(names_in("Inbox"), {
            "new": ["a,#F#S#5#E", "b,#F#S#5#E"],
            "cur": ["c,S=6,W=7,#F#S#5#E,U3:2,FS", "d,#F#S#5#E:2,FS"]})
        self.assertEqual(inodes_in("Inbox"), inodes)  # a program that has one open can go on
        self.assertEqual(folder_record(ANN), (120, 5))
        self.assertEqual(mailbox_record(ANN), (140, 6))
        before = snapshot("/var/spool")
        self.succeed("recount", ANN)
        self.assertEqual(snapshot("/var/spool"), before)

    def test_sizes_in_names_of_what_is_no_message(self):
        put("Inbox/tmp/a,#F#S#4#E", b"12345")
        put("Inbox/cur/.b,#F#S#4#E", b"12345")
        os.mkdir(TOP + "/Inbox/cur/c,#F#S#4#E")
        self.assertEqual(self.doctor(0), [])
        os.symlink("/etc/passwd", TOP + "/Inbox/new/d,#F#S#4#E")
        self.assertEqual(self.checks(1), ["links"])

    def test_sizes_in_names_of_several_folders(self):
        for folder in ("Inbox", "Work", "Work/2024"):
            put(folder + "/new/a,#F#S#1#E", b"12345")
        put("Work/new/b,#F#S#9#E", b"12345")
        self.succeed("recount", ANN)
        found = [("size-fields", TOP + "/Inbox"), ("size-fields", TOP + "/Work"),
                 ("size-fields", TOP + "/Work/2024")]
        self.assertEqual([(row["check"], row["path"]) for row in self.doctor(1)], found)
        rows = self.doctor(0, "--repair")
        self.assertEqual([(row["check"], row["path"]) for row in rows], found)
        self.assertEqual([row["what"].split()[0] for row in rows], ["1", "2", "1"])
        self.assertEqual(self.doctor(0), [])
        self.assertEqual(mailbox_record(ANN), held_by_folders(ANN))

    def test_sizes_in_names_of_other_forms(self):
        rows = (("a,#F#S##E", "a,#F#S#5#E"), ("a,#F#S#1#S#2#E:2,S", "a,#F#S#1#S#5#E:2,S"),
                ("a,#F#Q#1#S#0007#E", "a,#F#Q#1#S#5#E"),
                ("a,#F#S#99999999999999999999#E", "a,#F#S#5#E"),
                ("x" * 246 + ",#F#S#4#E", "x" * 246 + ",#F#S#5#E"))
        for name, right in rows:
            put("Inbox/cur/" + name, b"12345")
            self.succeed("recount", ANN)
            self.found("size-fields", TOP + "/Inbox", "^1 message with a wrong size")
            self.assertEqual(names_in("Inbox")["cur"], [right])
            os.unlink(f"{TOP}/Inbox/cur/{right}")
        self.succeed("recount", ANN)
        put("Inbox/cur/a,#F#S#0005#E", b"12345")
        self.succeed("recount", ANN)
        self.assertEqual(self.doctor(0), [])

    def test_sizes_in_names_that_take_a_person(self):
        rows = (("a,#F#S7#E", 7), ("a,#F#S# 7#E", 7), ("a,#F#S#7.5#E", 7), ("a,#F#S#7#S#E", 0),
                ("a,#F#S#1#S7#E", 7), ("a#S#1#E,#F#S7#E", 7), ("a,#F#E#S#7", 7),
                ("x" * 246 + ",#F#S#7#E", 7))
        for name, size in rows:
            path = put("Inbox/cur/" + name, b"1234567890")
            self.succeed("recount", ANN)
            self.found("size-fields", path, f"^the name says {size} bytes, the file has 10 bytes$",
                       repaired=False)
            os.unlink(path)

    def test_a_right_name_that_is_taken(self):
        put("Inbox/cur/a,#F#S#5#E:2,", b"other")
        put("Inbox/cur/a,#F#S#4#E:2,", b"12345")
        put("Inbox/cur/b,#F#S#4#E:2,", b"12345")
        self.succeed("recount", ANN)
        before = self.bodies()
        done = tsmail("--json", "doctor", ANN, "--repair")
        self.assertEqual(done.code, 1, done)
        self.assertRegex(done.err, "cur/a,#F#S#4#E:2,: File exists")
        self.assertEqual([(row["check"], row["repaired"]) for row in done.objects],
                         [("size-fields", False)])
        self.assertEqual(names_in("Inbox")["cur"],
                         ["a,#F#S#4#E:2,", "a,#F#S#5#E:2,", "b,#F#S#5#E:2,"])
        self.assertEqual(content(TOP + "/Inbox/cur/a,#F#S#5#E:2,"), b"other")
        self.assertEqual(self.bodies(), before)
        self.assertEqual(folder_record(ANN), (114, 4))  # by the sizes in the names
        [row] = self.doctor(1)
        self.assertRegex(row["what"], "^1 message ")

    @unittest.skipIf(os.geteuid() != 0, "only root can be somebody else")
    def test_permissions(self):
        own_by_nobody(os.path.dirname(TOP))
        for path, bits, right, check in (
                (TOP, 0o755, 0o700, "root-permissions"), (PREF, 0o770, 0o700, "root-permissions"),
                (TOP + "/Inbox/new", 0o555, 0o755, "folder-permissions"),
                (TOP + "/Work", 0o500, 0o700, "folder-permissions")):
            os.chmod(path, bits)
            self.found(check, path, f"the mode is {bits:04o}")
            self.assertEqual(mode(path), right)

    def test_preferences(self):
        path = f"{PREF}/ann~site.test.pref"
        self.succeed("pref", "set", ANN, "npage=50", "uname=Ann")
        good = content(path)
        write(path, b"npage=10\nnpage = 11\n" + good)
        self.found("preferences", path, 'the key "npage" is there 3 times')
        self.assertEqual(content(path), good)
        write(path, good + b"colour=blue\n# a remark\n\n")
        self.found("preferences", path, 'the key "colour" is unknown', repaired=False)
        write(path, good + b"npage=50\ncolour=blue\n")
        before = content(path)
        self.assertEqual(sorted(row["repair"] for row in self.doctor(1, "--repair")), ["", ""])
        self.assertEqual(content(path), before)

    def test_lists(self):
        path = f"{PREF}/.ann~site.test.whitelist.tmp"
        write(path, "half")
        self.assertEqual(self.doctor(0), [])
        os.utime(path, (LONG_AGO, LONG_AGO))
        write(f"{PREF}/.bert~site.test.whitelist.tmp", "another's")
        os.utime(f"{PREF}/.bert~site.test.whitelist.tmp", (LONG_AGO, LONG_AGO))
        self.found("list-leftovers", path, "not finished")
        path = f"{PREF}/ann~site.test.blacklist"
        write(path, "a@b\n" + "x" * 254 + "\n")
        self.assertEqual(self.doctor(0), [])
        write(path, "a@b\n" + "x" * 255 + "\n")
        self.found("list-lines", path, "line 2 is longer", repaired=False)

    def test_partners(self):
        for name in ("primaryaddr", "secondaryaddr"):
            path = f"{PREF}/ann~site.test.{name}"
            write(path, "bert@site.test\ngone@site.test\n")
            self.found("partners", path, "no mailbox gone@site.test")
            self.assertEqual(content(path), b"bert@site.test\n")
            write(path, "../x@site.test\r\nBert@Site.Test\n")
            self.found("partners", path, "no mailbox ../x@site.test")

    def test_flags(self):
        for name in ("quota_warning_flag", "quota_exceeded_flag"):
            path = f"{os.path.dirname(TOP)}/{name}"
            for good in ("", "5", "-3"):
                write(path, good)
                self.assertEqual(self.doctor(0), [])
            for bad in ("full", "5x", "1\n2\n", "99999999999"):
                write(path, bad)
                self.found("flags", path, "holds no number")
                self.assertEqual(content(path), b"")
            os.unlink(path)
            os.mkdir(path)
            self.found("flags", path, "is not a file", repaired=False)
            os.rmdir(path)


    def test_a_stamp_of_the_future(self):
        path = os.path.dirname(mail(ANN)) + "/.alert_notification"
        write(path, b"")
        for ahead, found in ((-86400, False), (0, False), (3500, False), (3700, True), (10**9, True)):
            with self.subTest(ahead=ahead):
                when = int(time.time()) + ahead
                os.utime(path, (when, when))
                if not found:
                    self.assertEqual(self.doctor(0), [])
                    continue
                self.found("notice-stamp", path, "in the future")
                self.assertLess(abs(os.stat(path).st_mtime - time.time()), 60)


class HomeTest(DoctorCase):
    """Links, other users' files, files of another address, homes without one."""

    def rows(self, *words, code=1):
        return [(row["check"], row["path"], row["what"], row["repair"], row["repaired"])
                for row in self.doctor(code, *words)]

    def test_links_are_shown_and_stay(self):
        os.symlink("/etc/passwd", PREF + "/notes")
        os.symlink("/nowhere", mail(ANN) + "/Inbox/cur/x")
        expected = [("links", path, "a symbolic link", "", False)
                    for path in (PREF + "/notes", mail(ANN) + "/Inbox/cur/x")]
        self.assertCountEqual(self.rows(), expected)
        self.assertCountEqual(self.rows("--repair"), expected)
        self.assertTrue(os.path.islink(PREF + "/notes"))

    def test_names_behind_a_link(self):
        os.rename(mail(ANN), "/var/spool/elsewhere")
        os.symlink("/var/spool/elsewhere", mail(ANN))
        put("Inbox/cur/a", b"123")
        put("Inbox/cur/b,#F#S#4#E", b"12345")
        self.succeed("recount", ANN)
        self.assertCountEqual([row[0] for row in self.rows()], ["links", "untagged", "size-fields"])

    @unittest.skipIf(os.geteuid() != 0, "needs root")
    def test_files_of_other_users_are_given_back(self):
        own_by_nobody(HOME)
        path = messages(ANN)[0]
        os.chown(path, 0, 0)
        os.chmod(path, 0o4755)
        row = ("owners", path, "belongs to user 0", "gives it to the mailbox's owner")
        self.assertEqual(self.rows(), [(*row, False)])
        self.assertEqual(os.stat(path).st_uid, 0)
        self.assertEqual(self.rows("--repair", code=0), [(*row, True)])
        self.assertEqual((os.stat(path).st_uid, os.stat(path).st_gid), (NOBODY, NOBODY))
        self.assertEqual(mode(path) & 0o6000, 0)
        self.assertEqual(self.rows(code=0), [])

    @unittest.skipIf(os.geteuid() != 0, "needs root")
    def test_what_could_also_lie_elsewhere_is_not_given(self):
        own_by_nobody(HOME)
        os.mkdir("/var/spool/elsewhere")
        write("/var/spool/elsewhere/secret", "x")
        os.link("/var/spool/elsewhere/secret", mail(ANN) + "/Inbox/hard")
        os.mkdir(mail(ANN) + "/theirs")
        os.mkfifo(mail(ANN) + "/fifo")
        for words in ([], ["--repair"]):
            rows = [row for row in self.rows(*words) if row[0] == "owners"]
            self.assertCountEqual(rows, [("owners", f"{mail(ANN)}/{name}", "belongs to user 0", "", False)
                                         for name in ("Inbox/hard", "theirs", "fifo")])
            self.assertEqual(os.stat("/var/spool/elsewhere/secret").st_uid, 0)

    @unittest.skipIf(os.geteuid() != 0, "needs root")
    def test_who_is_not_root_gives_nothing(self):
        own_by_nobody("/var/spool/home")
        os.chown(messages(ANN)[0], 0, 0)
        done = tsmail("--json", "doctor", ANN, "--repair", **as_nobody())
        self.assertEqual([(row["check"], row["repair"]) for row in done.objects], [("owners", "")], done)

    def test_files_of_another_address_get_the_right_name(self):
        for name in ("old~was.test.pref", "old~was.test.whitelist", "old~was.test.blacklist", "other", "a.b"):
            write(f"{PREF}/{name}", name)
        write(PREF + "/ann~site.test.blacklist", "kept")
        what, top = "is the file of another mailbox", PREF
        rows = [("addresses", f"{top}/old~was.test.{name}", what, f"renames it to ann~site.test.{name}")
                for name in ("pref", "whitelist")]
        taken = ("addresses", f"{top}/old~was.test.blacklist", what + ", beside ann~site.test.blacklist", "", False)
        self.assertCountEqual(self.rows(), [*((*row, False) for row in rows), taken])
        self.assertCountEqual([row for row in self.rows("--repair") if row[0] == "addresses"],
                              [*((*row, True) for row in rows), taken])
        self.assertEqual({name: content(f"{top}/{name}") for name in os.listdir(top) if "list" in name or "." in name},
                         {"ann~site.test.pref": b"old~was.test.pref", "ann~site.test.whitelist":
                          b"old~was.test.whitelist", "ann~site.test.blacklist": b"kept",
                          "old~was.test.blacklist": b"old~was.test.blacklist", "a.b": b"a.b"})

    def test_a_twin_of_a_system_folder_is_merged(self):
        for folder, text in (("sENT", b"one"), ("sENT/Deep", b"three"), ("Sent", b"seven77")):
            self.succeed("deliver", ANN, "--create", "--folder", folder, stdin=text)
        bodies, sums = self.bodies(), mailbox_record(ANN)
        row = ("twins", TOP + "/sENT", "looks like the folder Sent",
               "moves its messages to Sent and schedules it for deletion")
        self.assertEqual(self.rows(), [(*row, False)])
        self.assertEqual(self.rows("--repair", code=0), [(*row, True)])
        self.assertEqual(self.rows(code=0), [])
        self.assertFalse(os.path.exists(TOP + "/sENT"))
        self.assertEqual((self.bodies(), mailbox_record(ANN)), (bodies, sums))
        self.assertEqual([folder_record(ANN, name) for name in ("Sent", "Sent/Deep")], [(10, 2), (5, 1)])
        self.assertFalse(is_marked(ANN))

    def test_a_twin_whose_message_cannot_move_stays(self):
        self.succeed("deliver", ANN, "--create", "--folder", "trash", stdin=b"one")
        name = os.path.basename(messages(ANN, "trash")[0])
        put("Trash/new/" + name, b"two")
        self.assertIn(("twins", False), [(row["check"], row["repaired"]) for row in self.doctor(1, "--repair")])
        self.assertEqual(content(f"{TOP}/trash/new/{name}"), b"one")
        self.assertEqual(content(f"{TOP}/Trash/new/{name}"), b"two")

    def test_homes_that_no_address_leads_to(self):
        domain = os.path.dirname(HOME)
        for name in ("no-tilde", "Ann~site.test", "ann~other.test"):
            os.makedirs(f"{domain}/{name}/mail/Inbox/cur")
        os.makedirs(domain + "/no-mail")
        expected = [(None, "homes", f"{domain}/{name}")
                    for name in ("Ann~site.test", "ann~other.test", "no-tilde")]
        for words in (["--all"], ["--domain", "site.test"], ["--all", "--repair"]):
            done = tsmail("--json", "doctor", *words)
            self.assertEqual(done.code, 1, done)
            self.assertEqual([(row["address"], row["check"], row["path"]) for row in done.objects], expected)


class RunTest(DoctorCase):
    def test_what_people_see(self):
        write(mail(BERT) + "/Inbox/.ts_folder_size", "1 1\n")
        os.symlink("/x", TOP + "/link")
        write(TOP + "/.maildirsize", "1 1\n")
        done = tsmail("doctor", "--all")
        self.assertEqual(done.lines[:2], [
            f"{TOP}/link: a symbolic link (no repair, please look at it)",
            f"{TOP}/.maildirsize: says 1 byte in 1 message; there are 120 bytes in 2 messages "
            "(--repair recounts the mailbox)"])
        self.assertRegex(done.lines[3], "^links: 1 finding, 0 repaired; what lies behind")
        self.assertRegex(done.lines[4], "^sizes: 2 findings, 0 repaired; ")
        self.assertEqual(done.lines[5:], ["3 findings in 2 mailboxes, 0 repaired"])
        os.unlink(TOP + "/link")
        done = tsmail("doctor", ANN, "--repair")
        self.assertTrue(done.lines[0].endswith("(repaired: recounts the mailbox)"), done)
        self.assertEqual(done.lines[-1], "1 finding in 1 mailbox, 1 repaired")

    def test_all(self):
        write(mail(BERT) + "/Inbox/.ts_folder_size", "1 1\n")
        write(TOP + "/.maildirsize", "1 1\n")
        done = tsmail("--json", "doctor", "--all")
        self.assertEqual(done.code, 1, done)
        self.assertEqual([row["address"] for row in done.objects], [ANN, BERT])
        self.assertEqual(tsmail("doctor", "--all", "--repair").lines[-1],
                         "2 findings in 2 mailboxes, 2 repaired")
        self.assertEqual(self.succeed("doctor", "--all").lines,
                         ["0 findings in 2 mailboxes, 0 repaired"])
        self.fail_with(64, "doctor")
        self.fail_with(64, "doctor", ANN, "--all")
        self.fail_with(67, "doctor", "carl@site.test")

    def test_everything_at_once_is_mended_in_one_run(self):
        shutil.rmtree(TOP + "/Work/tmp")
        left_in_tmp("a:2,S", b"12345")
        put("Inbox/new/b", b"1")
        put("Inbox/cur/c,#F#S#9#E:2,S", b"123")
        put("Inbox/.ts_cache", "mtime=5,size=7")
        write(TOP + "/Inbox/.ts_folder_size", "-1 -1\n")
        write(TOP + "/.maildirsize.dirty", "")
        os.chmod(TOP, 0o755)
        before = self.bodies()
        rows = self.doctor(0, "--repair")
        self.assertGreaterEqual({row["check"] for row in rows},
                                {"root-permissions", "folder-parts", "leftovers", "untagged", "size-fields",
                                 "cache"})
        self.assertEqual(self.doctor(0), [])
        self.assertEqual(self.bodies(), before)
        self.assertEqual(mailbox_record(ANN), held_by_folders(ANN))
        self.assertFalse(is_marked(ANN))

    def test_a_check_that_cannot_be_made(self):
        write(mail(BERT) + "/.maildirsize", "1 1\n")
        own_by_nobody("/var/spool/home")
        os.chmod(TOP + "/Work/2024", 0)
        done = tsmail("--json", "doctor", "--all", **as_nobody())
        os.chmod(TOP + "/Work/2024", 0o700)
        self.assertEqual(done.code, 66, done)
        self.assertEqual(done.err, f"tsmail: {ANN}: {TOP}/Work/2024: Permission denied\n", "it says so once")
        self.assertEqual([(row["address"], row["check"]) for row in done.objects],
                         [(ANN, "folder-permissions"), (BERT, "sizes")])

    def test_a_message_goes_back_under_the_folders_lock(self):
        path = left_in_tmp("a,#F#S#5#E", b"12345")
        with Lock(TOP + "/Inbox"):
            process = self.begin("doctor", ANN, "--repair")
            time.sleep(0.4)
            self.assertIsNone(process.poll())
            self.assertTrue(os.path.exists(path))
        self.end(process)
        wait_until(lambda: not os.path.exists(path))
        self.assertEqual(mailbox_record(ANN), (125, 3))

    def test_a_name_is_corrected_under_the_folders_lock(self):
        gone = put("Inbox/cur/a,#F#S#4#E:2,", b"12345")
        put("Inbox/cur/b,#F#S#4#E:2,", b"12345")
        self.succeed("recount", ANN)
        with Lock(TOP + "/Inbox", fcntl.LOCK_SH):  # as a delivery has it
            process = self.begin("doctor", ANN, "--repair")
            time.sleep(0.4)
            self.assertIsNone(process.poll())
            os.unlink(gone)
            self.assertEqual(names_in("Inbox")["cur"], ["b,#F#S#4#E:2,"])
        self.end(process)
        self.assertEqual(names_in("Inbox")["cur"], ["b,#F#S#5#E:2,"])
        self.assertEqual(folder_record(ANN), (105, 2))

    def test_a_message_that_is_just_being_counted_is_no_finding(self):
        size_file = TOP + "/Inbox/.ts_folder_size"
        with Lock(TOP + "/Inbox", fcntl.LOCK_SH):  # as a delivery has it
            put("Inbox/new/b,#F#S#5#E", b"12345")
            process = self.begin("doctor", ANN)
            time.sleep(0.4)
            self.assertIsNone(process.poll())
            for path in (size_file, TOP + "/.maildirsize"):
                with open(path, "a", encoding="ascii") as file:
                    file.write("5 1\n")
        self.end(process)

    def test_beside_deliveries_nothing_is_found(self):
        agents = [toolkit.subprocess.Popen(
            ["bash", "-c", f'for i in $(seq 30); do "$0" -q deliver {ANN} "$1" || exit 1; done',
             toolkit.TSMAIL, sample]) for sample in toolkit.SAMPLES[:3]]
        while any(agent.poll() is None for agent in agents):
            self.assertEqual(tsmail("--json", "doctor", ANN, "--repair").code, 0)
        self.assertEqual([agent.wait() for agent in agents], [0] * 3)
        self.assertEqual(self.doctor(0), [])
        self.assertEqual(mailbox_record(ANN), held_by_folders(ANN))


class SizeFieldFaultsTest(DoctorCase):
    """Two messages with wrong sizes in their names, and system calls that fail or kill the process."""

    NAMES = ["a,#F#S#4#E:2,", "b,#F#S#6#E:2,"]
    RIGHT = ["a,#F#S#5#E:2,", "b,#F#S#5#E:2,"]
    LOOK = "newfstatat"

    def setUp(self):
        super().setUp()
        self.paths = [put("Inbox/cur/" + name, b"12345") for name in self.NAMES]
        self.succeed("recount", ANN)

    def traced(self, *options, repair=True):
        words = [toolkit.TSMAIL, "--json", "doctor", ANN, *["--repair"] * repair]
        return traced(options, words)[0]

    def names(self):
        return names_in("Inbox")["cur"]

    def test_a_rename_that_fails(self):
        done = self.traced("-e", "inject=renameat2:error=EIO:when=1")
        self.assertEqual(done.code, 1, done)
        self.assertIn("a,#F#S#4#E:2,: Input/output error", done.err)
        self.assertEqual([(row["check"], row["repaired"]) for row in done.objects],
                         [("size-fields", False)])
        self.assertEqual(self.names(), [self.NAMES[0], self.RIGHT[1]])
        self.assertEqual(folder_record(ANN), (109, 3))
        self.assertEqual([row["what"].split()[0] for row in self.doctor(0, "--repair")], ["1"])
        self.assertEqual(self.names(), self.RIGHT)

    def test_a_file_system_whose_renames_may_replace(self):
        done = self.traced("-e", "inject=renameat2:error=EINVAL")
        self.assertEqual(done.code, 1, done)
        self.assertEqual(self.names(), self.NAMES)

    def test_what_a_reader_renamed_meanwhile_is_met_again(self):
        done = self.traced("-e", "inject=renameat2:error=ENOENT:when=1")
        self.assertEqual(done.code, 0, done)
        self.assertEqual(self.names(), self.RIGHT)

    def fail_to_look(self, error):
        """The look at the first message fails."""
        directory, name = os.path.split(self.paths[0])
        _, calls = traced(["-P", directory], [toolkit.TSMAIL, "--json", "doctor", ANN])
        *_, last = [n for call, n, line in numbered(calls) if call == self.LOOK and name in line]
        return self.traced("-P", directory, "-e", f"inject={self.LOOK}:error={error}:when={last}", repair=False)

    def test_a_message_that_is_gone_when_it_is_looked_at_is_none(self):
        done = self.fail_to_look("ENOENT")
        self.assertEqual(done.code, 1, done)
        self.assertEqual([row["what"].split()[0] for row in done.objects], ["1"])

    def test_a_message_that_cannot_be_looked_at(self):
        done = self.fail_to_look("EIO")
        self.assertEqual(done.code, 74, done)
        self.assertRegex(done.err, "^tsmail: [^ ]*a,#F#S#4#E:2,: Input")
        self.assertEqual([row["what"].split()[0] for row in done.objects], ["1"])  # the other one

    def test_killed_at_each_rename(self):
        before = self.bodies()
        for number, left in ((1, self.NAMES), (2, [self.RIGHT[0], self.NAMES[1]])):
            self.setUp()
            done = self.traced("-e", f"inject=renameat2:signal=KILL:when={number}")
            self.assertEqual(done.code, 75, done)  # its worker was killed
            self.assertEqual(self.names(), left)
            self.assertEqual(self.bodies(), before)
            self.doctor(0, "--repair")
            self.assertEqual(self.names(), self.RIGHT)
            self.assertEqual(mailbox_record(ANN), held_by_folders(ANN))
            self.assertEqual(self.doctor(0), [])


if __name__ == "__main__":
    unittest.main()
