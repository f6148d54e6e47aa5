"""paths, and which addresses are refused everywhere."""

import os
import unittest

from testing.toolkit import SpoolCase

USER = "/var/spool/home/site.test/ann.lee~site.test"


class PathsTest(SpoolCase):
    def test_all_of_a_user(self):
        [shown] = self.succeed("--json", "paths", "Ann.Lee+Work@Site.Test").objects
        kinds = shown.pop("kinds")
        self.assertEqual(shown, {
            "address": "ann.lee+Work@site.test", "type": "user", "type_number": 1,
            "tilde_name": "ann.lee~site.test", "tag": "Work", "home": USER, "mail": USER + "/mail",
            "pref": USER + "/pref", "trash": "/var/spool/home/sys_arch/.Trash",
            "drop": USER + "/mail/Work"})
        list_file = USER + "/pref/ann.lee~site.test."
        self.assertEqual(kinds, {
            "whitelist": list_file + "whitelist", "blacklist": list_file + "blacklist",
            "blocklist": list_file + "blocklist", "mailpath": USER + "/mail",
            "prefpath": USER + "/pref", "maildrop": USER + "/mail/Work",
            "quota-warning-flag": USER + "/quota_warning_flag",
            "quota-exceeded-flag": USER + "/quota_exceeded_flag", "bulk": USER + "/mail/Bulk",
            "homepath": USER, "home-parent": "/var/spool/home/site.test",
            "primary-addr": list_file + "primaryaddr",
            "secondary-addr": list_file + "secondaryaddr", "pref-file": list_file + "pref",
            "inbox-archive": USER + "/mail/Inbox_archive", "inbox": USER + "/mail/Inbox",
            "inbox-index": USER + "/index/Inbox", "bulk-archive": USER + "/mail/Bulk_archive",
            "bulk-folder": USER + "/mail/Bulk", "bulk-index": USER + "/index/Bulk",
            "quota-exceeded-flag-2": USER + "/quota_exceeded_flag",
            "emailtag": list_file + "emailtag", "calendartag": list_file + "calendartag",
            "trash": USER + "/mail/Trash", "calendar": USER + "/pref/calendar.ics",
            "alert-notification": USER + "/.alert_notification",
            "webdav": "/var/spool/home/sys_dav/webdav/site.test/ann.lee~site.test",
            "local-homepath": USER, "favorlist": list_file + "favorlist"})

    def test_table_says_the_same(self):
        [shown] = self.succeed("--json", "paths", "ann@site.test").objects
        table = self.succeed("paths", "ann@site.test").out
        for name, path in shown["kinds"].items():
            self.assertRegex(table, rf"(?m)^{name} +{path}$")
        for place in ("home", "mail", "pref", "trash", "drop"):
            self.assertRegex(table, rf"(?m)^{place} +{shown[place]}$")

    def test_homes_of_the_types(self):
        rows = [
            ("none", "0", ""), ("user", "1", "/var/spool/home/b.test/a~b.test"),
            ("dead-letter", "2", "/var/spool/dead"),
            ("system-archive", "3", "/var/spool/home/sys_arch/a~b.test"),
            ("quarantine", "4", "/var/spool/home/sys_quar/a~b.test"),
            ("secure-store", "5", "/var/spool/ibe_tmp/store/a~b.test"),
            ("user-untyped", "6", "/var/spool/home/b.test/a~b.test"),
            ("external", "7", "/var/spool/home/external/b/b.test/a~b.test"),
            ("given-path", "8", "a@b.test"), ("direct", "9", None),
            ("deferred", "10", "/var/spool/deferd/a@b.test"), ("given-path-2", "11", "a@b.test"),
            ("local", "12", "/var/spool/home.local/b.test/a~b.test"),
        ]
        for name, number, home in rows:
            with self.subTest(name):
                [shown] = self.succeed("--json", "paths", "a@b.test", "--type", name).objects
                self.assertEqual((shown["home"], shown["type"]), (home, name))
                [same] = self.succeed("--json", "paths", "a@b.test", "--type", number).objects
                self.assertEqual(same, shown)

    def test_one_kind(self):
        path = USER + "/mail/Inbox\n"
        for kind in ("inbox", "Inbox", "MUF_INBOX", "muf-inbox", "18"):
            self.assertEqual(self.succeed("paths", "ann.lee@site.test", "--kind", kind).out, path)
        [shown] = self.succeed("--json", "paths", "ann.lee@site.test", "--kind", "18").objects
        self.assertEqual(shown, {"kind": "inbox", "kind_number": 18, "path": path.strip()})
        direct = self.succeed("paths", "x", "--type", "direct", "--kind", "inbox")
        self.assertEqual(direct.out, "-\n")

    def test_nothing_is_touched(self):
        self.succeed("paths", "ann@site.test")
        self.assertEqual(os.listdir("/var/spool"), [])


class AddressTest(SpoolCase):
    REFUSED = [
        ("../x@site.test", "'/'"), ("a/b@site.test", "'/'"), ("ann@site/test", "'/'"),
        ("ann@../x", "'/'"), ("/etc/passwd", "'/'"), ("ann+../../x@site.test", "'/'"),
        ("ann+a/b@site.test", "'/'"), ("ann@.", "not names"), ("ann@..", "not names"),
        ("ann+.@site.test", "not names"), ("ann+..@site.test", "not names"), (".", "no domain"),
        ("..", "no domain"), ("", "before the domain"), ("@site.test", "before the domain"),
        ("+tag@site.test", "before the domain"), ("~site.test", "before the domain"),
        ("ann", "no domain"), ("ann@", "no domain"), ("site.test", "no domain"),
        ("a@x,b@x", "comma"), ("a,b@site.test", "comma"), ("ann lee@site.test", "blank"), ("ann@site.test ", "blank"),
        ("<ann@site.test>", "bracket"), ("ann(x)@site.test", "bracket"), ("ann@[127.0.0.1]", "bracket"),
        ("a@b@site.test", "more than one"), ("@@", "more than one"), (".deleted.x@site.test", "removed mailboxes"),
        ("ann\n@site.test", "control"), ("ann@site.test\r", "control"),
        ("ann\x1b[31m@site.test", "control"), ("ann\x7f@site.test", "control"),
        ("a" * 300 + "@site.test", "too long"), ("ann@" + "d" * 300, "too long"),
        ("a" * 220 + "@site.test", "too long"),
    ]
    TAKEN = ["a" * 213 + "@site.test", "Ann@SITE.TEST", "ann~site.test", "a~b@site.test",
             "ann@site.test+x", "ünï@bücher.example", "...@site.test", "-@site.test", "a&b'c=d{e}@site.test"]

    def test_refused_before_anything_is_touched(self):
        for address, reason in self.REFUSED:
            for verb in (["paths"], ["create"], ["deliver"], ["deliver", "--create"], ["folders"]):
                with self.subTest(address=address, verb=verb):
                    done = self.fail_with(65, *verb, "--", address, saying=reason)
                    self.assertNotRegex(done.err, r"[\x00-\x09\x0b-\x1f\x7f]")
                    self.assertEqual(os.listdir("/var/spool"), [])

    def test_taken(self):
        for address in self.TAKEN:
            with self.subTest(address):
                self.succeed("paths", "--", address)
                self.succeed("create", "--", address)

    def test_tags_are_for_deliveries(self):
        for address in ("ann+tag@site.test", "ann+@site.test", "ann+a+b~site.test"):
            for verb in (["create"], ["folders"], ["recount"], ["sweep"], ["pref", "show"], ["mailbox", "remove"],
                         ["mailbox", "restore"], ["expire", "--folder", "Trash", "--older", "1d"]):
                with self.subTest(address=address, verb=verb):
                    self.fail_with(65, *verb, "--", address, saying="give ann@site.test")
            self.succeed("paths", "--", address)
        self.assertEqual(os.listdir("/var/spool"), [])

    def test_bytes_that_are_no_text(self):
        done = self.succeed("paths", b"\xff\xfe@site.test", "--kind", "homepath")
        self.assertEqual(done.out, "/var/spool/home/site.test/\\xff\\xfe~site.test\n")
        [shown] = self.succeed("--json", "paths", b"\xff@site.test", "--kind", "11").objects
        self.assertEqual(shown["path"], "/var/spool/home/site.test/\ufffd~site.test")

    def test_types_with_other_texts(self):
        self.fail_with(65, "paths", "a/b", "--type", "deferred", saying="'/'")
        self.fail_with(65, "paths", "..", "--type", "deferred", saying="not names")
        self.fail_with(65, "paths", "", "--type", "given-path", saying="empty")
        self.fail_with(65, "paths", "/x\n", "--type", "given-path", saying="control")
        self.succeed("paths", "/x/y", "--type", "given-path")
        self.succeed("paths", "archive", "--type", "system-archive")


if __name__ == "__main__":
    unittest.main()
