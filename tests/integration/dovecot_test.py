"""Beside Dovecot, which serves the same folders over IMAP. Each reads what the other writes."""

import base64
import email.utils
import imaplib
import os
import random
import re
import subprocess
import threading
import time

import neighbours
from testing.toolkit import HOME, SAMPLES, SpoolCase, content, mail, messages, record, tsmail

LOG = "/tmp/dovecot.log"
CONF = "/etc/dovecot/dovecot.conf"
ADDRESS = "ann@site.test"
# Here no master process tells imap its user, but the environment, of which 2.4 keeps what is named.
STARTED_ALONE = {"2.3": "", "2.4": "import_environment {\n  USER = %{env:USER}\n}\n"}
FLAGS = {"\\Seen": "S", "\\Flagged": "F", "\\Answered": "R", "\\Deleted": "T", "\\Draft": "D"}


def version():
    """2.3 or 2.4, which want different configurations."""
    shown = subprocess.run(["dovecot", "--version"], check=True, stdout=subprocess.PIPE, text=True).stdout
    return re.match(r"\d+\.\d+(?=\.)", shown).group()


def network(text):
    """A message as IMAP shows it: every line end is CR LF, and there are no NUL bytes."""
    return re.sub(rb"\r?\n", b"\r\n", text).replace(b"\0", b"\x80")


def sizes(folder):
    """What the folder's files say, by plain means."""
    return [os.path.getsize(path) for path in messages(ADDRESS, folder)]


def wire(name):
    """A folder's name as IMAP writes it: modified UTF-7."""
    def shifted(match):
        coded = base64.b64encode(match.group().encode("utf-16-be"), b"+,").rstrip(b"=")
        return f"&{coded.decode()}-"
    return re.sub(r"[^\x20-\x7e]+", shifted, name.replace("&", "&-"))


def from_wire(text):
    def plain(match):
        coded = match.group(1)
        if not coded:
            return "&"
        return base64.b64decode(coded + "=" * (-len(coded) % 4), b"+,").decode("utf-16-be")
    return re.sub(r"&([^-]*)-", plain, text)


class Imap:
    """A new session that is logged in."""

    def __init__(self, folder=None, lists=True):
        home = os.path.dirname(mail(ADDRESS))
        step_down = "setpriv --reuid vmail --regid vmail --clear-groups"
        self.session = imaplib.IMAP4_stream(  # HOME: 2.3 alone reads it
            f"HOME={home} USER={ADDRESS} {step_down} /usr/lib/dovecot/imap -c {CONF} 2>>{LOG}")
        if lists:
            self("list")  # as a client does; see the page about what happens without
        if folder:
            self("select", f'"{folder}"')

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.session.logout()

    def __call__(self, command, *words):
        status, data = getattr(self.session, command)(*words)
        assert status == "OK", (command, words, status, data)
        return data

    def folders(self):
        return {re.search(rb'"/" "?(.*?)"?$', row).group(1).decode() for row in self("list")}

    def messages(self):
        """Content, date and flags of each message in the open folder."""
        if self("search", None, "ALL") == [b""]:
            return []
        found = []
        for part in self("fetch", "1:*", "(INTERNALDATE FLAGS BODY.PEEK[])"):
            if isinstance(part, tuple):
                flags = {flag.decode() for flag in imaplib.ParseFlags(part[0])} & set(FLAGS)
                date = time.mktime(imaplib.Internaldate2tuple(part[0]))
                found.append((part[1], date, flags))
        return found


class DovecotCase(SpoolCase):
    def setUp(self):
        super().setUp()
        neighbours.make_home()
        os.makedirs("/var/spool/dovecot")
        os.chown("/var/spool/dovecot", neighbours.VMAIL, neighbours.VMAIL)
        os.makedirs(os.path.dirname(CONF), exist_ok=True)
        with open(CONF, "w") as file:
            file.write(neighbours.configuration("dovecot.md", "dovecot.conf", of=f"Dovecot {version()}"))
            file.write(STARTED_ALONE[version()])
        with open(LOG, "w"):
            pass

    def tearDown(self):
        with open(LOG) as log:
            wrong = [line for line in log if not re.search(r": (Info|Debug): ", line)]
        self.assertEqual(wrong, [])

    def run_tool(self, *words, **options):
        return self.succeed(*words, **neighbours.as_vmail(), **options)

    def deliver(self, folder, *texts):
        return [self.run_tool("deliver", "--create", ADDRESS, "--folder", folder,
                              stdin=text).lines[0] for text in texts]

    def assert_sizes_right(self, *folders):
        """After a recount the records agree with the files, and so do all verbs."""
        self.run_tool("recount", ADDRESS)
        for folder in folders:
            found = sizes(folder)
            self.assertEqual(record(f"{mail(ADDRESS)}/{folder}/.ts_folder_size"),
                             (sum(found), len(found)), folder)
        shown = {row["folder"]: row for row in self.run_tool("folders", ADDRESS, "--json").objects}
        for folder in folders:
            found = sizes(folder)
            self.assertEqual((shown[folder]["bytes"], shown[folder]["messages"]),
                             (sum(found), len(found)), folder)
        found = tsmail("doctor", ADDRESS, "--json", **neighbours.as_vmail()).objects
        self.assertEqual({row["check"] for row in found} - {"untagged"}, set(), found)
        everything = [size for folder in shown for size in sizes(folder)]
        self.assertEqual(record(f"{mail(ADDRESS)}/.maildirsize"),
                         (sum(everything), len(everything)))


class ReadTest(DovecotCase):
    def test_delivered_messages_are_there(self):
        samples = [content(path) for path in SAMPLES]
        folders = {"Inbox": samples, "Work": samples[:2], "Work/2024": samples[2:3],
                   "Gr\u00fc\u00dfe und mehr": samples[:1]}
        for folder, texts in folders.items():
            paths = self.deliver(folder, *texts)
            for path, age in zip(paths, range(len(paths))):
                os.utime(path, (0, 1700000000 + 1000 * age))
        with Imap() as imap:
            listed = {"Inbox" if name.upper() == "INBOX" else from_wire(name) for name in imap.folders()}
            ours = {row["folder"] for row in
                    self.run_tool("folders", ADDRESS, "--json").objects}
            self.assertEqual(listed, ours)
            for folder in ("Inbox", "Work", "Work/2024"):
                imap("select", folder)
                texts = folders[folder]
                found = sorted(imap.messages(), key=lambda message: message[1])
                self.assertEqual([message[0] for message in found], [network(t) for t in texts])
                self.assertEqual([message[1] for message in found],
                                 [1700000000 + 1000 * n for n in range(len(texts))])

    # Every kind of name that tsmail makes: all ASCII characters that a name may have, and others.
    NAMES = ["Entw\u00fcrfe", "a&b", "&", "a&-b", "&APw-", "\u65e5\u672c\u8a9e", "\U0001f600 x", "a.b", "A b", "x~y", "#x",
             "!$%'()+,-;=@[]^_`{}z", "Work/2024/M\u00e4rz", "\u00c4/\u00d6", "n\u0303 decomposed", "x" * 200, "'quoted'", "%"]

    def test_every_folder_is_selected_and_its_messages_fetched(self):
        for name in self.NAMES:
            self.deliver(name, b"Subject: in\n\n" + name.encode() + b"\n")
        ours = {row["folder"] for row in self.run_tool("folders", ADDRESS, "--json").objects}
        self.assertLessEqual(set(self.NAMES), ours)
        with Imap() as imap:
            listed = {"Inbox" if name.upper() == "INBOX" else from_wire(name) for name in imap.folders()}
            self.assertEqual(listed, ours)
            for name in self.NAMES:
                with self.subTest(name):
                    imap("select", f'"{wire(name)}"')
                    [(text, _, _)] = imap.messages()
                    self.assertEqual(text, b"Subject: in\r\n\r\n" + name.encode() + b"\r\n")

    def test_the_one_kind_of_name_that_it_refuses(self):
        self.deliver("~x", b"Subject: x\n\nx\n")
        {"2.3": self.assert_refused, "2.4": self.assert_ends_at_it}[version()]()
        os.rename(f"{mail(ADDRESS)}/~x", f"{mail(ADDRESS)}/x")
        with Imap("x") as imap:
            self.assertEqual(len(imap.messages()), 1)

    def assert_refused(self):
        with Imap() as imap:
            status, reason = imap.session.select('"~x"')
            self.assertEqual(status, "NO")
            self.assertIn(b"Begins with '~'", reason[0])

    def assert_ends_at_it(self):
        """imap ends when it lists the folders, and says why in the log."""
        session = Imap(lists=False).session
        with self.assertRaises(imaplib.IMAP4.abort):
            session.list()
        session.process.wait(30)
        with open(LOG, "r+") as log:
            self.assertIn("assertion failed: (mailbox_list_is_valid_name(", log.readline())
            log.truncate(0)

    def test_a_folder_made_over_imap_has_its_name_in_the_store(self):
        with Imap() as imap:
            for name in self.NAMES[:8]:
                imap("create", f'"{wire(name)}"')
        shown = {row["folder"] for row in self.run_tool("folders", ADDRESS, "--json").objects}
        self.assertLessEqual(set(self.NAMES[:8]), shown)

    def test_sizes_are_those_of_the_files(self):
        texts = [b"Subject: %d\n\n" % n + b"x\n" * n for n in (0, 1, 700, 40000)]
        self.deliver("Inbox", *texts)
        with Imap("Inbox") as imap:
            found = [int(re.search(rb"RFC822.SIZE (\d+)", row).group(1))
                     for row in imap("fetch", "1:*", "(RFC822.SIZE)")]
        self.assertEqual(sorted(found), sorted(len(network(text)) for text in texts))
        self.assertEqual(sorted(sizes("Inbox")), sorted(len(text) for text in texts))


class ChangeTest(DovecotCase):
    def test_flags_are_seen(self):
        self.deliver("Inbox", *[b"Subject: %d\n\ntext\n" % n for n in range(6)])
        rng = random.Random(7)
        with Imap("Inbox") as imap:
            for number in range(1, 6):
                chosen = rng.sample(sorted(FLAGS), rng.randint(1, 4))
                imap("store", str(number), "+FLAGS", f"({' '.join(chosen)})")
            expected = sorted((text, sorted(FLAGS[flag] for flag in flags))
                              for text, _, flags in imap.messages())
        shown = self.run_tool("messages", ADDRESS, "Inbox", "--json").objects
        inbox = f"{mail(ADDRESS)}/Inbox"
        found = sorted((network(content(f"{inbox}/{row['place']}/{row['name']}")),
                        sorted(row["flags"])) for row in shown)
        self.assertEqual(found, expected)
        self.assert_sizes_right("Inbox")

    def test_moves_copies_expunges(self):
        self.deliver("Inbox", *[b"Subject: %d\n\n" % n + b"line\n" * n for n in range(40)])
        rng = random.Random(11)
        with Imap("Inbox") as imap:
            for folder in ("Work", "Work/Sub", "Old"):
                imap("create", folder)
            self.assertEqual(tsmail("folders", ADDRESS, **neighbours.as_vmail()).code, 0)
            numbers = [str(n) for n in rng.sample(range(1, 41), 30)]
            imap("copy", ",".join(numbers[:10]), "Work")
            imap("copy", ",".join(numbers[5:20]), "Work/Sub")
            imap("store", ",".join(numbers[:5]), "+FLAGS", "(\\Deleted)")
            imap("expunge")
            imap("_simple_command", "MOVE", "3:7", "Old")  # numbers are new after an expunge
            imap("append", "Old", "(\\Seen)", imaplib.Time2Internaldate(1700000000),
                 b"Subject: appended\r\n\r\nby IMAP\r\n")
            imap("rename", "Old", "Work/Older")
        self.assertEqual([len(sizes(name)) for name in ("Inbox", "Work", "Work/Sub", "Work/Older")],
                         [30, 10, 15, 6])
        self.assert_sizes_right("Inbox", "Work", "Work/Sub", "Work/Older")
        names = [row["folder"] for row in self.run_tool("folders", ADDRESS, "--json").objects]
        self.assertIn("Work/Older", names)
        self.assertNotIn("Old", names)

    def test_names_of_its_own_are_tagged(self):
        self.deliver("Inbox", b"Subject: ours\n\ntext\n")
        with Imap("Inbox") as imap:
            for n in range(10):
                imap("append", "INBOX", "(\\Flagged)" if n % 2 else "",
                     imaplib.Time2Internaldate(1700000000 + n), b"Subject: %d\r\n\r\nx\r\n" % n)
            before = sorted(imap.messages())
        untagged = [path for path in messages(ADDRESS) if "#F" not in path]
        self.assertEqual(len(untagged), 10)
        self.assertTrue(all(",S=" in path for path in untagged), untagged)
        self.run_tool("tag", ADDRESS)
        after = messages(ADDRESS)
        self.assertEqual([path for path in after if "#F" not in path], [])
        for path in after:
            self.assertIn(f",#F#S#{os.path.getsize(path)}#E", path)
        with Imap("Inbox") as imap:
            self.assertEqual(sorted(imap.messages()), before)
        self.assert_sizes_right("Inbox")


class TagTest(DovecotCase):
    def test_a_folder_is_tagged_while_it_is_read(self):
        texts = [b"Subject: %d\n\n" % n + os.urandom(400).hex().encode() + b"\n"
                 for n in range(300)]
        self.deliver("Inbox", texts[0])
        inbox = f"{mail(ADDRESS)}/Inbox"
        for n, text in enumerate(texts[1:], 1):
            with open(f"{inbox}/cur/{1700000000 + n}.M{n}P1.host:2,", "wb") as file:
                file.write(text)
            os.chown(file.name, neighbours.VMAIL, neighbours.VMAIL)
        wanted = sorted(network(text) for text in texts)
        with Imap("Inbox") as imap:
            self.assertEqual(sorted(message[0] for message in imap.messages()), wanted)
        stop = threading.Event()
        rounds = []

        def read():
            while not stop.is_set():
                with Imap("Inbox") as imap:
                    for number in range(1, 301, 7):
                        imap.session.fetch(str(number), "(BODY.PEEK[])")
                rounds.append(len(rounds))

        reader = threading.Thread(target=read)
        reader.start()
        while not rounds:
            time.sleep(0.01)
        self.run_tool("tag", ADDRESS)
        seen = len(rounds)
        while len(rounds) < seen + 2 and reader.is_alive():
            time.sleep(0.01)
        stop.set()
        reader.join()
        self.assertEqual([path for path in messages(ADDRESS) if "#F" not in path], [])
        with Imap("Inbox") as imap:
            self.assertEqual(sorted(message[0] for message in imap.messages()), wanted)
        self.assert_sizes_right("Inbox")


if __name__ == "__main__":
    import unittest
    unittest.main()
