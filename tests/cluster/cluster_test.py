"""The store on a distributed file system, from two machines. Each is a client of the same three servers, with
its own cache, host name and view of the file system.

One cluster serves all the tests; each test has mailboxes of its own. How many messages go through them
depends on the machine: agents deliver for a fixed time."""

import glob
import json
import os
import re
import subprocess
import sys
import tempfile
import time
import unittest

SOURCE, BUILD = os.environ["TSMAIL_SOURCE"], os.environ["TSMAIL_BUILD"]
CLUSTER = os.path.join(SOURCE, "scripts", "cluster")
TSMAIL = os.path.join(BUILD, "tools", "tsmail")
SECONDS = int(os.environ.get("TSMAIL_CLUSTER_SECONDS", "12"))
LONGEST = 90  # the seconds that a delivery may take if something fails
TEMPFAIL = 75
SKIPPED = 77
TOP = ""


def cluster(verb, *words):
    subprocess.run([CLUSTER, verb, TOP, *words], check=True, timeout=180)


def setUpModule():
    global TOP
    TOP = tempfile.mkdtemp(prefix="cluster.", dir=BUILD)
    unittest.addModuleCleanup(subprocess.run, [CLUSTER, "down", TOP], check=False)
    cluster("up")
    os.mkdir(f"{TOP}/a/spool", 0o755)


def start(machine, script, *words, sendmail=None):
    """Runs a shell script on a machine. $T is the command, and the words are the arguments."""
    options = ["--sendmail", sendmail] if sendmail else []
    return subprocess.Popen(
        [f"{SOURCE}/scripts/sandbox", "--rw", BUILD, "--spool-dir", f"{TOP}/{machine}/spool",
         "--hostname", f"machine-{machine}", *options, "--", "bash", "-c", f"T={TSMAIL}; {script}",
         "bash", *map(str, words)],
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def end(process):
    out, err = process.communicate(timeout=300)
    return process.returncode, out, err


def run(machine, script, *words, **options):
    return end(start(machine, script, *words, **options))


def mail(machine, address):
    user, domain = address.split("@")
    return f"{TOP}/{machine}/spool/home/{domain}/{user}~{domain}/mail"


def body(name):
    """A message that can be recognised by its name."""
    return f"Subject: {name}\n\n" + f"{name}\n" * (1 + len(name) * 7 % 50)


# Delivers its own messages to the addresses in turn until the time is up. Prints the exit code, the name and
# the seconds for each.
AGENT = r"""
prefix=$1 until=$((SECONDS + $2)); shift 2; i=0
while [ $SECONDS -lt $until ]; do
    for address; do
        i=$((i + 1)); name=$prefix-$i; begun=$SECONDS
        { printf 'Subject: %s\n\n' $name; n=$((1 + ${#name} * 7 % 50))
          while [ $((n -= 1)) -ge 0 ]; do printf '%s\n' $name; done; } |
            $T deliver $address >/dev/null 2>/tmp/errors
        echo "$? $name $((SECONDS - begun)) $(head -1 /tmp/errors)"
    done
done"""

# Removes a message now and then, and prints its name.
REMOVER = r"""
address=$1 user=${1%@*} domain=${1#*@} until=$((SECONDS + $2))
cd /var/spool/home/$domain/$user~$domain/mail/Inbox/new || exit 1
while [ $SECONDS -lt $until ]; do
    file=$(ls | head -1)
    name=$(sed -n 's/^Subject: //p;q' "$file" 2>/dev/null)
    [ -n "$name" ] && $T message rm $address Inbox "$file" >/dev/null && echo "$name"
    sleep 1
done"""

LOOP = r"""until=$((SECONDS + $1)); shift
while [ $SECONDS -lt $until ]; do $T "$@" || exit; done"""


class Answers:
    """The results of the agents."""

    def __init__(self, agents):
        self.acknowledged, self.refused, self.codes, self.errors = set(), set(), set(), set()
        self.longest = 0
        for agent in agents:
            code, out, err = end(agent)
            if code != 0:
                raise AssertionError((code, err))
            for line in out.splitlines():
                answer, name, seconds, *error = line.split(" ", 3)
                (self.acknowledged if answer == "0" else self.refused).add(name)
                self.codes.add(int(answer))
                self.errors.update(error if answer != "0" else [])
                self.longest = max(self.longest, int(seconds))


class ClusterCase(unittest.TestCase):
    maxDiff = None

    def succeed(self, machine, script, *words, **options):
        code, out, err = run(machine, script, *words, **options)
        self.assertEqual(code, 0, (out, err))
        return out

    def create(self, *addresses):
        for address in addresses:
            self.succeed("a", "$T create $1", address)

    @staticmethod
    def found(machine, address):
        """The texts of all messages in a mailbox."""
        texts = []
        for path in glob.glob(f"{mail(machine, address)}/*/[cn][ue][rw]/*"):
            with open(path, encoding="utf-8") as file:
                texts.append(file.read())
        return texts

    def kept(self, machine, path):
        """The sums of a size record file."""
        with open(path, encoding="ascii") as file:
            pairs = re.findall(r"^(-?\d+) +(-?\d+)$", file.read(), re.M)
        return sum(int(size) for size, _ in pairs), sum(int(count) for _, count in pairs)

    def assert_whole(self, addresses, answers, removed=()):
        """Every acknowledged message is stored once, as it was sent. A refused message is stored once or not at all."""
        for machine in "ab":
            texts = [text for address in addresses for text in self.found(machine, address)]
            names = [text.split("\n", 1)[0].removeprefix("Subject: ") for text in texts]
            self.assertEqual(len(names), len(set(names)), "a message came twice")
            self.assertEqual([text for text, name in zip(texts, names) if text != body(name)], [])
            self.assertEqual(answers.acknowledged - set(names) - set(removed), set())
            self.assertEqual(set(names) - answers.acknowledged - answers.refused, set())

    def assert_counted(self, *addresses):
        for address in addresses:
            texts = [text.encode() for text in self.found("b", address)]
            total = sum(map(len, texts)), len(texts)
            top = mail("b", address)
            self.assertEqual(self.kept("b", f"{top}/.maildirsize"), total)
            self.assertEqual(self.kept("b", f"{top}/Inbox/.ts_folder_size"), total)
            self.assertFalse(os.path.exists(f"{top}/.maildirsize.dirty"))

    def assert_healthy(self, *addresses):
        for address in addresses:
            self.assertRegex(self.succeed("a", "$T doctor $1", address), "^0 findings")


class TogetherTest(ClusterCase):
    def test_deliveries_beside_recounts_tagging_and_removals(self):
        ann, others = "ann@site.test", [f"user{n}@site.test" for n in range(3)]
        self.create(ann, *others)
        agents = [start("a", AGENT, "a1", SECONDS, ann), start("b", AGENT, "b1", SECONDS, ann),
                  start("a", AGENT, "a2", SECONDS, *others), start("b", AGENT, "b2", SECONDS, *others)]
        beside = [start("b", LOOP, SECONDS, "recount", ann),
                  start("a", LOOP, SECONDS, "tag", ann, "Inbox")]
        remover = start("b", REMOVER, ann, SECONDS)
        answers = Answers(agents)
        for process in beside:
            code, _, err = end(process)
            self.assertEqual(code, 0, err)
        removed = end(remover)[1].split()
        print(f"{len(answers.acknowledged)} messages, {len(removed)} removed", file=sys.stderr)
        self.assertEqual(answers.codes, {0}, answers.errors)
        for agent in ("a1", "b1", "a2", "b2"):
            self.assertTrue(any(name.startswith(agent) for name in answers.acknowledged))
        self.assert_whole([ann, *others], answers, removed)
        self.assertEqual(set(removed) & {text.split()[1] for text in self.found("a", ann)}, set())
        self.assert_counted(ann, *others)
        self.assert_healthy(ann, *others)


    def test_deliveries_beside_expiry(self):
        address = "old@site.test"
        self.create(address)
        agents = [start(machine, AGENT, f"{machine}-old", SECONDS, address) for machine in "ab"]
        expiry = start("b", LOOP, SECONDS, "--json", "expire", address, "--folder", "Inbox", "--older", "2s",
                       "--by", "received")
        answers = Answers(agents)
        code, out, err = end(expiry)
        self.assertEqual((code, answers.codes), (0, {0}), err)
        removed = sum(json.loads(line)["messages"] for line in out.splitlines())
        print(f"{len(answers.acknowledged)} messages, {removed} expired", file=sys.stderr)
        self.assertGreater(removed, 0)
        for machine in "ab":
            texts = self.found(machine, address)
            self.assertEqual(len(texts), len(answers.acknowledged) - removed)
            names = {text.split("\n", 1)[0].removeprefix("Subject: ") for text in texts}
            self.assertEqual(len(names), len(texts))
            self.assertLessEqual(names, answers.acknowledged)
        self.assert_counted(address)
        self.assert_healthy(address)


class FilesTest(ClusterCase):
    """The library's files, from both machines at the same time."""

    CALL = r"""exec python3 -c "
import ctypes, sys
library = ctypes.CDLL('{build}/libtsmail.so.1')
who, count, path = sys.argv[1], int(sys.argv[2]), sys.argv[3].encode()
size = ctypes.c_longlong
for i in range(count):
    {call}
" "$@" """

    def both(self, call, count, path):
        script = self.CALL.format(build=BUILD, call=call)
        for process in [start(machine, script, machine, count, path) for machine in "ab"]:
            code, _, err = end(process)
            self.assertEqual(code, 0, err)

    def test_size_records_are_summed_over_compactions(self):
        path = mail("a", "sizes@site.test") + "/.maildirsize"
        os.makedirs(os.path.dirname(path))
        with open(path, "w", encoding="ascii") as file:
            file.write("10 1\n" * 812)  # some appends before the first compaction
        self.both("library.tsl_append_maildirsize(path, size(1000), size(1))", 40,
                  "/var/spool/home/site.test/sizes~site.test/mail/.maildirsize")
        for machine in "ab":
            path = mail(machine, "sizes@site.test") + "/.maildirsize"
            self.assertEqual(self.kept(machine, path), (8120 + 80 * 1000, 812 + 80))
            self.assertLess(os.path.getsize(path), 2000)  # it was compacted

    def test_no_line_of_a_list_is_torn(self):
        self.create("lists@site.test")
        self.both("library.mail_list_add_to(b'lists@site.test', b'whitelist', "
                  "(who + '-%d@far.test' % i).encode(), 0)", 25, "")
        texts = {}
        for machine in "ab":
            [path] = glob.glob(f"{mail(machine, 'lists@site.test')}/../pref/*.whitelist")
            with open(path, encoding="ascii") as file:
                texts[machine] = file.read()
        self.assertEqual(texts["a"], texts["b"])
        lines = texts["a"].splitlines()
        print(f"{len(lines)} of 50 entries added at once are there", file=sys.stderr)
        expected = {f"{machine}-{i}@far.test" for machine in "ab" for i in range(25)}
        self.assertEqual(set(lines) - expected, set())
        self.assertEqual(len(lines), len(set(lines)))

    def test_no_preference_is_lost(self):
        """Each machine changes one of them, from the moment on when there is no file yet."""
        self.create("prefs@site.test")
        script = 'for i in 1 2 3 4 5; do $T pref set $1 $2=$((10 + i)) || exit; done'
        for process in [start("a", script, "prefs@site.test", "npage"),
                        start("b", script, "prefs@site.test", "page_size")]:
            code, _, err = end(process)
            self.assertEqual(code, 0, err)
        for machine in "ab":
            shown = json.loads(self.succeed(machine, "$T --json pref show $1", "prefs@site.test"))
            self.assertEqual((shown["npage"], shown["page_size"]), (15, 15))

    def test_flags_are_the_last_setters(self):
        address = "flags@site.test"
        self.create(address)
        shown = "$T --json quota show $1"
        for one, other, number in (("a", "b", 7), ("b", "a", 8)):
            self.succeed(one, "$T quota set $1 exceeded $2", address, number)
            self.assertEqual(json.loads(self.succeed(other, shown, address))["exceeded"]["value"], number)
            self.succeed(other, "$T quota clear $1 exceeded", address)
            self.assertFalse(json.loads(self.succeed(one, shown, address))["exceeded"]["set"])
        script = "for i in 1 2 3 4 5; do $T quota set $1 warning $2 || exit; done"
        for process in [start("a", script, address, 333333333), start("b", script, address, 22)]:
            code, _, err = end(process)
            self.assertEqual(code, 0, err)
        values = [json.loads(self.succeed(machine, shown, address))["warning"]["value"] for machine in "ab"]
        self.assertEqual(values[0], values[1])
        self.assertIn(values[0], (22, 333333333))

    def test_one_notice_a_day(self):
        """Two machines that look at the same moment may both send; nobody sends after that."""
        address, recorder = "notice@site.test", f"{TOP}/recorder"
        self.create(address)
        with open(recorder, "w", encoding="ascii") as file:
            file.write("#!/bin/sh\ncat >/dev/null\n")
        os.chmod(recorder, 0o755)
        self.addCleanup(os.remove, recorder)
        script = "for i in 1 2 3; do $T --json quota notify $1 --subject x || exit; done"
        sent = []
        for process in [start(machine, script, address, sendmail=recorder) for machine in "ab"]:
            code, out, err = end(process)
            self.assertEqual(code, 0, err)
            sent.append([json.loads(line)["sent"] for line in out.splitlines()])
        print(f"notices: {sent}", file=sys.stderr)
        self.assertTrue(sent[0][0] or sent[1][0])
        for later in (*sent[0][1:], *sent[1][1:]):
            self.assertFalse(later)
        for machine in "ab":
            out = self.succeed(machine, "$T --json quota notify $1 --subject x", address, sendmail=recorder)
            self.assertFalse(json.loads(out)["sent"])

    def test_a_reader_sees_what_the_other_machine_delivered(self):
        self.create("reader@site.test")
        for number, (one, other) in enumerate((("a", "b"), ("b", "a")), 1):
            self.succeed(one, "echo x | $T deliver $1", "reader@site.test")
            shown = self.succeed(other, "$T --json size $1", "reader@site.test")
            self.assertIn(f'"actual_messages":{number}', shown)
        self.assert_healthy("reader@site.test")


class FailureTest(ClusterCase):
    """Failures while both machines deliver: no acknowledged message is lost or stored twice, and a recount
    makes the totals right."""

    def during_deliveries(self, name, act, restore=lambda: None):
        address = f"{name}@site.test"
        self.create(address)
        agents = [start("a", AGENT, f"{name}-a", 2 * SECONDS, address),
                  start("b", AGENT, f"{name}-b", 2 * SECONDS, address)]
        time.sleep(SECONDS / 2)
        act()
        try:
            answers = Answers(agents)
        finally:
            restore()
        print(f"{name}: {len(answers.acknowledged)} messages, {len(answers.refused)} refused, the "
              f"longest took {answers.longest} s; {sorted(answers.errors)}", file=sys.stderr)
        self.assertGreater(len(answers.acknowledged), 1)
        self.assertLessEqual(answers.codes, {0, TEMPFAIL}, answers.errors)
        self.assertLess(answers.longest, LONGEST)
        return address, answers

    def assert_mended(self, address, answers):
        self.assert_whole([address], answers)
        self.succeed("b", "$T doctor --repair $1; $T recount $1", address)
        self.assert_counted(address)
        self.assert_healthy(address)

    def test_a_brick_that_is_killed_and_comes_back(self):
        def act():
            cluster("kill", "brick1")
            time.sleep(SECONDS / 2)
            cluster("start", "brick1")
        address, answers = self.during_deliveries("brick", act)
        cluster("healed", "60")
        self.assert_mended(address, answers)

    def test_a_link_that_is_cut_and_comes_back(self):
        def act():
            cluster("cut")
            time.sleep(SECONDS)
            cluster("join")
        address, answers = self.during_deliveries("link", act)
        cluster("healed", "60")
        self.assert_mended(address, answers)

    def test_a_client_that_is_killed(self):
        address, answers = self.during_deliveries("client", lambda: cluster("kill", "a"),
                                                  lambda: cluster("start", "a"))
        self.assertIn(TEMPFAIL, answers.codes)
        self.assert_mended(address, answers)


def main():
    if "TSMAIL_CLUSTER" not in os.environ:
        print("skipped: takes minutes and a machine of its own; scripts/test.sh --cluster runs it")
        sys.exit(SKIPPED)
    lacks = subprocess.run([CLUSTER, "missing"], stdout=subprocess.PIPE, text=True, check=False)
    if lacks.returncode == 0:
        print(f"skipped: {lacks.stdout.strip()}")
        sys.exit(SKIPPED)
    unittest.main(verbosity=2)


if __name__ == "__main__":
    main()
