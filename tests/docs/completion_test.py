"""Shell completion, asked as the shells ask it."""

import os
import pathlib
import pty
import select
import shlex
import subprocess
import time
import unittest

BUILD = pathlib.Path(os.environ["TSMAIL_BUILD"])
SCRIPTS = BUILD / "completion"


def make_mailboxes(*addresses):
    for address in addresses:
        local, domain = address.split("@")
        os.makedirs(f"/var/spool/home/{domain}/{local}~{domain}/mail", exist_ok=True)


# (what is typed, what is offered), where both shells must agree.
ROWS = [
    ("tsmail fold", ["folders"]),
    ("tsmail list rem", ["remove"]),
    ("tsmail --json quota sh", ["show"]),
    ("tsmail paths --type us", ["user", "user-untyped"]),
    ("tsmail list add ann@site.test whitelist x --sc", ["--scope"]),
    ("tsmail list show ann@site.test whitelist --scope sy", ["system"]),
    ("tsmail quota set ann@site.test w", ["warning"]),
    ("tsmail pref get ann@site.test lang npa", ["npage"]),
    ("tsmail deliver ann@site.test --no-n", ["--no-new-folder"]),
    ("tsmail deliver ann@site.test /etc/passw", ["/etc/passwd"]),
]


class BashTest(unittest.TestCase):
    def offered(self, line):
        # Completion options are there only while readline asks.
        script = (f"compopt() {{ :; }}; . {shlex.quote(str(SCRIPTS / 'tsmail.bash'))}\n"
                  f"COMP_LINE={shlex.quote(line)}; COMP_POINT=${{#COMP_LINE}}; COMPREPLY=()\n"
                  "_tsmail; printf '%s\\n' \"${COMPREPLY[@]}\"\n")
        done = subprocess.run(["bash", "--norc", "-c", script], check=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def test_what_is_offered(self):
        for line, expected in ROWS:
            with self.subTest(line):
                self.assertEqual([word for word in self.offered(line) if "passwd-" not in word], expected)

    def test_every_verb_is_offered(self):
        usage = subprocess.run([BUILD / "tools/tsmail", "--help"], check=True, stdout=subprocess.PIPE,
                               text=True).stdout
        verbs = [line.split()[0] for line in usage.split("Subcommands:\n")[1].splitlines() if line.startswith("  ")]
        self.assertEqual(self.offered("tsmail "), verbs)
        self.assertGreater(len(verbs), 10)

    def test_addresses_of_mailboxes_behind_the_last_word_break(self):
        make_mailboxes("ann@site.test", "bert@site.test", "anton@other.test")
        self.assertEqual(sorted(self.offered("tsmail folders a")), ["ann@site.test", "anton@other.test"])
        self.assertEqual(self.offered("tsmail folders ann@si"), ["site.test"])
        self.assertEqual(self.offered("tsmail folders ann@site.test "), [])


class ZshTest(unittest.TestCase):
    """A real zsh on a terminal of its own."""

    def setUp(self):
        pid, self.terminal = pty.fork()
        if pid == 0:
            os.environ.update(TERM="dumb", PATH=f"{BUILD}/tools:{os.environ['PATH']}", LC_ALL="C.UTF-8")
            os.execvp("zsh", ["zsh", "-f", "-i"])
        self.addCleanup(os.waitpid, pid, 0)
        self.addCleanup(os.close, self.terminal)
        self.type(f"PS1='> '; unsetopt zle_bracketed_paste; setopt no_beep list_ambiguous; fpath=({SCRIPTS} $fpath)\n")
        self.type("autoload -U compinit && compinit -u -D && echo rea''dy\n")
        self.read_until("ready")
        self.type("show-line() { print -r -- \"<$BUFFER>\" >/tmp/line }; zle -N show-line; "
                  "bindkey '^O' show-line; echo bou''nd\n")
        self.read_until("bound")

    def type(self, text):
        os.write(self.terminal, text.encode())

    def read_until(self, wanted, seconds=20):
        seen, end = "", time.monotonic() + seconds
        while wanted not in seen and time.monotonic() < end:
            if select.select([self.terminal], [], [], 0.2)[0]:
                seen += os.read(self.terminal, 65536).decode("utf-8", "replace")
        self.assertIn(wanted, seen)
        return seen

    def completed(self, line):
        """The line as completion leaves it; a widget of zsh puts it into a file."""
        if os.path.exists("/tmp/line"):
            os.unlink("/tmp/line")
        self.type("\x15" + line + "\t\x0f")
        end = time.monotonic() + 20
        while not (os.path.exists("/tmp/line") and os.path.getsize("/tmp/line")) and time.monotonic() < end:
            time.sleep(0.02)
        with open("/tmp/line", encoding="utf-8") as file:
            return file.read().rstrip("\n")

    def test_unambiguous_words_are_completed(self):
        make_mailboxes("ann@site.test")
        rows = [(line, words[0]) for line, words in ROWS if len(words) == 1 and "passw" not in line]
        for line, word in [*rows, ("tsmail folders an", "ann@site.test")]:
            with self.subTest(line):
                self.assertEqual(self.completed(line), f"<{line.rsplit(' ', 1)[0]} {word} >")


if __name__ == "__main__":
    unittest.main()
