"""Another support library, which the loader alone puts in the place of the bundled one. The library that was
built with the bundled one works with it, unchanged."""

import os
import re
import subprocess
import unittest

from testing.toolkit import BUILD, HOME, SANITIZED, TSMAIL, SpoolCase, environment, mail, record, run

THEIRS = os.path.join(BUILD, "tests/support/recording")
CALLS = "/tmp/calls"
ANN = "ann@site.test"


class ReplacedTest(SpoolCase):
    def setUp(self):
        super().setUp()
        if os.path.exists(CALLS):
            os.unlink(CALLS)

    def theirs(self, *words, code=0, **options):
        """Runs the command with their library. Returns the result and the calls that were recorded."""
        env = environment(LD_LIBRARY_PATH=THEIRS, RECORD=CALLS)
        done = run([TSMAIL, *words], env=env, **options)
        self.assertEqual(done.code, code, done)
        with open(CALLS, "a+", encoding="utf-8") as file:
            file.seek(0)
            calls = file.read().splitlines()
            file.truncate(0)
        return done, calls

    def test_the_loader_takes_theirs_and_nothing_else_changes(self):
        def loaded(**changes):
            lines = subprocess.run(["ldd", TSMAIL], env=environment(**changes), check=True,
                                   stdout=subprocess.PIPE, text=True).stdout.splitlines()
            found = [re.match(r"\s*(\S+) => (/.*) \(0x", line) for line in lines]
            return {line[1]: os.path.realpath(line[2]) for line in found if line}
        usual, replaced = loaded(), loaded(LD_LIBRARY_PATH=THEIRS)
        differ = {name for name in usual if usual[name] != replaced[name]}
        self.assertEqual(differ, {"libtssupport.so.1", "libkqfquery.so.1"})
        for name in differ:
            self.assertEqual(os.path.dirname(replaced[name]), THEIRS)

    def test_paths_and_locks_go_through_theirs(self):
        _, calls = self.theirs("create", ANN)
        self.assertIn(f"create_path {mail(ANN)}/Inbox", calls)
        _, calls = self.theirs("deliver", ANN, stdin=b"Subject: x\n\nx\n")
        self.assertIn(f"open_and_lock_file {mail(ANN)}/Inbox/.ts_folder_size a+", calls)
        self.assertIn(f"open_and_lock_file {mail(ANN)}/.maildirsize a+", calls)
        self.assertEqual(sum(call.startswith("open_and") for call in calls), calls.count("close_and_unlock_file"))
        self.assertEqual(record(f"{mail(ANN)}/.maildirsize"), (14, 1))

    def test_preferences_and_lists_go_through_theirs(self):
        self.theirs("create", ANN)
        _, calls = self.theirs("pref", "set", ANN, "uname=Ann Lee")
        self.assertTrue(any(call.endswith("/pref/ann~site.test.pref w") for call in calls), calls)
        done, calls = self.theirs("pref", "get", ANN, "uname")
        self.assertEqual(done.out, "Ann Lee\n")
        self.assertIn("trim_right", calls)
        self.theirs("list", "add", ANN, "whitelist", "a@site.test", "b@site.test")
        _, calls = self.theirs("list", "remove", ANN, "whitelist", "a@site.test")
        home = f"{HOME}/site.test/ann~site.test/pref"
        self.assertIn(f"tsm_movefile {home}/.ann~site.test.whitelist.tmp {home}/ann~site.test.whitelist", calls)

    def test_their_configuration_counts(self):
        done, calls = self.theirs("--json", "quota", "archive")
        self.assertEqual(done.objects[0]["given_gib"], 3000)
        self.assertEqual([row["name"] for row in done.objects[0]["accounts"]], ["theirs", "ours"])
        self.assertIn("nCfg_query 670", calls)
        self.assertIn("kqf_query_table_head", calls)
        self.assertIn("kqf_query_get_next", calls)

    def test_their_postmaster_sends_notices(self):
        with open("/bin/sendmail", "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\ncat >/tmp/notice\n")
        os.chmod("/bin/sendmail", 0o755)
        self.theirs("create", ANN)
        self.theirs("quota", "notify", ANN, "--subject", "x")
        with open("/tmp/notice", encoding="utf-8") as file:
            self.assertTrue(file.read().startswith("From:theirs@site.test\n"))

    def test_their_exception_is_thrown(self):
        done, calls = self.theirs("--json", "paths", "/x", "--type", "direct")
        self.assertIsNone(done.objects[0]["home"])
        self.assertIn("Exception  TSDirectMailUserId::homepath() - Not Implimented", calls)

    def test_what_they_lack_is_missed_with_a_word(self):
        done, _ = self.theirs("config", "check", code=69)
        self.assertIn("cannot check configuration", done.err)

    def test_without_it_nothing_is_recorded(self):
        run([TSMAIL, "create", ANN], env=environment(RECORD=CALLS))
        self.assertFalse(os.path.exists(CALLS))


class LibraryTest(SpoolCase):
    """Functions that the command does not call, called by a program in C."""

    def test_time_zone_flag_and_removal(self):
        if SANITIZED:
            self.skipTest("a plain program cannot load a library with sanitizers")
        source = "/tmp/ask.c"
        with open(source, "w", encoding="utf-8") as file:
            file.write('#include <stdio.h>\n#include <tessaly/maillist.h>\n#include <tessaly/mailstore.h>\n'
                       '#include <tessaly/userpref.h>\n'
                       'int main(void) {\n    static user_pref p;\n    get_default_user_pref_with_tz(&p);\n'
                       '    printf("%d %d %d\\n", (int)p.timezone, is_mail_list_changed(NULL),\n'
                       '           tsl_delete_user_file(MUF_MAILPATH, "ann@site.test"));\n    return 0;\n}\n')
        source_top = os.environ["TSMAIL_SOURCE"]
        subprocess.run(["cc", f"-I{source_top}/include", source, "-o", "/tmp/ask", f"-L{BUILD}", f"-L{BUILD}/support",
                        "-ltsmail", "-ltssupport"], check=True)
        run([TSMAIL, "create", ANN])
        inbox = f"{mail(ANN)}/Inbox"
        for libraries, shown, there in ((f"{THEIRS}:{BUILD}", "4711 4711 0\n", True),
                                        (f"{BUILD}:{BUILD}/support", "0 0 0\n", False)):
            done = run(["/tmp/ask"], env=environment(LD_LIBRARY_PATH=libraries))
            self.assertEqual((done.out, os.path.exists(inbox)), (shown, there), done)


if __name__ == "__main__":
    unittest.main()
