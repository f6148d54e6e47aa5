"""Shell completion in real shells: bash and zsh on terminals of their own, fish by itself."""

import os
import pathlib
import pty
import select
import subprocess
import time
import unittest

BUILD = pathlib.Path(os.environ["TSMAIL_BUILD"])
SCRIPTS = BUILD / "completion"
TSMAIL = BUILD / "tools/tsmail"
PATH = f"{BUILD}/tools:{os.environ['PATH']}"
ANN = "ann@site.test"

# (what is typed, what the shell makes of it), in every shell. The shell adds a blank.
ROWS = [
    ("tsmail fold", "tsmail folders"),
    ("tsmail list rem", "tsmail list remove"),
    ("tsmail --json quota sh", "tsmail --json quota show"),
    ("tsmail help list rem", "tsmail help list remove"),
    ("tsmail paths --type user-", "tsmail paths --type user-untyped"),
    (f"tsmail list add {ANN} whitelist x --sc", f"tsmail list add {ANN} whitelist x --scope"),
    (f"tsmail list show {ANN} whitelist --scope sy", f"tsmail list show {ANN} whitelist --scope system"),
    (f"tsmail quota set {ANN} w", f"tsmail quota set {ANN} warning"),
    (f"tsmail pref get {ANN} lang npa", f"tsmail pref get {ANN} lang npage"),
    (f"tsmail deliver {ANN} --no-n", f"tsmail deliver {ANN} --no-new-folder"),
    ("tsmail folders an", f"tsmail folders {ANN}"),
    ("tsmail folders ann@", f"tsmail folders {ANN}"),
    ("tsmail folders ann@si", f"tsmail folders {ANN}"),
    ("tsmail usage --domain si", "tsmail usage --domain site.test"),
    (f"tsmail messages {ANN} Wo", f"tsmail messages {ANN} Work"),
    (f"tsmail deliver {ANN} --folder Dra", f"tsmail deliver {ANN} --folder Drafts"),
    (f"tsmail list show {ANN} wh", f"tsmail list show {ANN} whitelist"),
    (f"tsmail list show {ANN} my", f"tsmail list show {ANN} mylist"),
    ("tsmail list show --scope system - al", "tsmail list show --scope system - allowed"),
    (f"tsmail message rm {ANN} Inbox 17", f"tsmail message rm {ANN} Inbox 1763275200.x"),
    (f"tsmail message move {ANN} Inbox 17", f"tsmail message move {ANN} Inbox 1763275200.x"),
    (f"tsmail message move {ANN} Inbox x --to Wo", f"tsmail message move {ANN} Inbox x --to Work"),
    # Words with a blank, with and without quotes.
    (f"tsmail messages {ANN} Old\\ m", f"tsmail messages {ANN} Old\\ mail"),
    (f"tsmail messages {ANN} Old", f"tsmail messages {ANN} Old\\ mail"),
    (f"tsmail messages {ANN} 'Old m", f"tsmail messages {ANN} 'Old mail'"),
    (f"tsmail messages {ANN} \"Old m", f"tsmail messages {ANN} \"Old mail\""),
    (f"tsmail import {ANN} /tmp/some\\ m", f"tsmail import {ANN} /tmp/some\\ mail.eml"),
    (f"tsmail deliver {ANN} /tmp/some\\ m", f"tsmail deliver {ANN} /tmp/some\\ mail.eml"),
]
# Lines without a completion.
NOTHING = [f"tsmail folders {ANN} x", f"tsmail messages {ANN} Nowhe", "tsmail check-name ", f"tsmail messages {ANN} .del",
           "tsmail messages $(touch /tmp/run)@site.test W", "tsmail messages `touch /tmp/run` W"]


def prepare():
    """A spool with everything that can be completed."""
    for words in (["create", ANN, "--folder", "Old mail", "--folder", "Work"], ["create", "bert@other.test"],
                  ["list", "add", ANN, "whitelist", "x@site.test"], ["list", "add", ANN, "mylist", "x@site.test", "--any-name"]):
        subprocess.run([TSMAIL, "-q", *words], check=True)
    home = "/var/spool/home/site.test/ann~site.test"
    os.makedirs(f"{home}/mail/.deleted.x.Inbox.1/cur", exist_ok=True)
    os.makedirs("/var/spool/etc/mail", exist_ok=True)
    for path in (f"{home}/mail/Inbox/cur/1763275200.x", "/var/spool/etc/mail/allowed", "/tmp/some mail.eml"):
        pathlib.Path(path).touch()


class Terminal:
    """A shell on a terminal of its own."""

    def __init__(self, case, words):
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.environ.update(TERM="dumb", PATH=PATH, LC_ALL="C.UTF-8", INPUTRC="/dev/null")
            os.chdir("/tmp")
            os.execvp(words[0], words)
        case.addCleanup(os.waitpid, pid, 0)
        case.addCleanup(os.close, self.terminal)
        self.case = case

    def type(self, text):
        os.write(self.terminal, text.encode())

    def read_until(self, wanted, seconds=30):
        seen, end = "", time.monotonic() + seconds
        while wanted not in seen and time.monotonic() < end:
            if select.select([self.terminal], [], [], 0.2)[0]:
                seen += os.read(self.terminal, 65536).decode("utf-8", "replace")
        self.case.assertIn(wanted, seen)

    def completed(self, line):
        """The line after completion; ^O makes the shell write it into a file."""
        if os.path.exists("/tmp/line"):
            os.unlink("/tmp/line")
        self.type("\x15" + line + "\t\x0f")
        end = time.monotonic() + 30
        while not (os.path.exists("/tmp/line") and os.path.getsize("/tmp/line")) and time.monotonic() < end:
            if select.select([self.terminal], [], [], 0.02)[0]:
                os.read(self.terminal, 65536)
        with open("/tmp/line", encoding="utf-8") as file:
            return file.read().rstrip("\n")


class Shell:
    """The cases of bash and zsh."""

    def test_what_is_typed_is_completed(self):
        prepare()
        shell = self.shell()
        for line, expected in ROWS:
            with self.subTest(line):
                self.assertEqual(shell.completed(line), f"<{expected} >")

    def test_what_has_no_answer_stays(self):
        prepare()
        shell = self.shell()
        for line in NOTHING:
            with self.subTest(line):
                self.assertEqual(shell.completed(line), f"<{line}>")
        self.assertFalse(os.path.exists("/tmp/run"), "what is typed is not run")

    def test_keys_take_a_value(self):
        prepare()
        self.assertEqual(self.shell().completed(f"tsmail pref set {ANN} npa"), f"<tsmail pref set {ANN} npage=>")


class BashTest(Shell, unittest.TestCase):
    def shell(self):
        shell = Terminal(self, ["bash", "--norc", "--noprofile", "-i"])
        shell.type(f"PS1='> '; bind 'set enable-bracketed-paste off'; . /usr/share/bash-completion/bash_completion; "
                   f". '{SCRIPTS}/tsmail.bash'; bind -x '\"\\C-o\": printf \"<%s>\" \"$READLINE_LINE\" >/tmp/line'; "
                   "echo rea''dy\n")
        shell.read_until("ready")
        return shell

    def test_a_value_behind_an_equals_sign(self):
        prepare()
        shell = self.shell()
        self.assertEqual(shell.completed(f"tsmail list show {ANN} whitelist --scope=sy"),
                         f"<tsmail list show {ANN} whitelist --scope=system >")

    def test_every_verb_is_offered(self):
        usage = subprocess.run([TSMAIL, "--help"], check=True, stdout=subprocess.PIPE, text=True).stdout
        verbs = [line.split()[0] for line in usage.split("Subcommands:\n")[1].splitlines() if line.startswith("  ")]
        script = (f". /usr/share/bash-completion/bash_completion; . '{SCRIPTS}/tsmail.bash'; COMP_LINE='tsmail '; "
                  "COMP_POINT=7 COMP_CWORD=1 COMP_WORDS=(tsmail '') COMPREPLY=(); _tsmail; echo \"${COMPREPLY[@]}\"")
        done = subprocess.run(["bash", "--norc", "-c", script], check=True, stdout=subprocess.PIPE, text=True)
        self.assertEqual(done.stdout.split(), verbs)
        self.assertGreater(len(verbs), 10)


class ZshTest(Shell, unittest.TestCase):
    def shell(self):
        shell = Terminal(self, ["zsh", "-f", "-i"])
        shell.type(f"PS1='> '; unsetopt zle_bracketed_paste; setopt no_beep list_ambiguous; fpath=('{SCRIPTS}' $fpath)\n")
        shell.type("autoload -U compinit && compinit -u -D && echo rea''dy\n")
        shell.read_until("ready")
        shell.type("show-line() { print -r -- \"<$BUFFER>\" >/tmp/line }; zle -N show-line; "
                   "bindkey '^O' show-line; echo bou''nd\n")
        shell.read_until("bound")
        return shell


class FishTest(unittest.TestCase):
    def offered(self, line):
        """The words that fish offers in the place of the last word of a line."""
        script = f"source '{SCRIPTS}/tsmail.fish'; complete -C $argv[1]"
        done = subprocess.run(["fish", "--no-config", "-c", script, line], check=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, env={**os.environ, "PATH": PATH}, cwd="/tmp")
        self.assertEqual(done.stderr, "")
        return [row.split("\t")[0] for row in done.stdout.splitlines()]

    def test_what_is_typed_is_completed(self):
        prepare()
        for line, expected in ROWS:
            if line.startswith("tsmail messages") and "Old" in line:
                continue  # tested below: fish answers without the quotes
            with self.subTest(line):
                self.assertEqual(self.offered(line), [expected.split(" ", line.count(" "))[-1].replace("\\", "")]
                                 if "some" not in line else ["/tmp/some mail.eml"])
        for typed in ("Old", "Old\\ m", "'Old m", '"Old m'):
            with self.subTest(typed):
                self.assertEqual(self.offered(f"tsmail messages {ANN} {typed}"), ["Old mail"])

    def test_what_has_no_answer(self):
        prepare()
        for line in NOTHING:
            with self.subTest(line):
                self.assertEqual(self.offered(line), [])
        self.assertFalse(os.path.exists("/tmp/run"), "what is typed is not run")

    def test_keys_take_a_value(self):
        prepare()
        self.assertEqual(self.offered(f"tsmail pref set {ANN} npa"), ["npage="])


if __name__ == "__main__":
    unittest.main()
