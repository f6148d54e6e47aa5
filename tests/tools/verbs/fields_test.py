"""--json: every verb shows exactly the fields of its schema."""

import json
import os
import unittest

from testing.schemas import check_shown
from testing.toolkit import HOME, SOURCE, SpoolCase, mail, messages, run, tsmail

ANN = "ann@site.test"


def documented():
    """{verb: set of fields of its objects} from the schemas; a verb without fields shows nothing."""
    with open(os.path.join(SOURCE, "docs/schema/verbs.json"), encoding="utf-8") as file:
        data = json.load(file)

    def fields(schema):
        if schema is False:
            return set()
        inner = [data["$defs"][schema["$ref"].rsplit("/", 1)[1]]] if "$ref" in schema else []
        inner += schema.get("oneOf", []) + schema.get("anyOf", [])
        return set(schema.get("properties", {})).union(*map(fields, inner))

    return {verb: fields(schema) for verb, schema in data["verbs"].items()}


def leaves(grammar, name=""):
    for verb in grammar["verbs"]:
        full = f"{name} {verb['name']}".strip()
        if verb["verbs"]:
            yield from leaves(verb, full)
        else:
            yield full


class FieldsTest(SpoolCase):
    """The command lines for each verb: together they show every field."""

    def prepared(self):
        self.succeed("create", ANN, "--folder", "Work")
        self.succeed("deliver", ANN, stdin=b"Subject: x\n\nx\n")
        with open("/tmp/broken.toml", "w", encoding="utf-8") as file:
            file.write("timezone = \n")
        with open("/tmp/entries", "w", encoding="utf-8") as file:
            file.write("x@site.test\n")
        with open("/tmp/mbox", "w", encoding="utf-8") as file:
            file.write("From ann@site.test Thu Jan  1 00:00:00 1970\nSubject: x\n\nx\n\n")
        os.makedirs("/tmp/program", exist_ok=True)
        with open("/bin/sendmail", "w", encoding="utf-8") as file:
            file.write("#!/bin/sh\ncat >/dev/null\n")
        os.chmod("/bin/sendmail", 0o755)

    def runs(self):
        message = os.path.basename(messages(ANN)[0])
        return {
            "paths": [["paths", ANN], ["paths", ANN, "--kind", "inbox"]],
            "create": [["create", ANN]],
            "folders": [["folders", "--all"]],
            "deliver": [["deliver", ANN, "/tmp/entries"], ["deliver", ANN, "--dry-run"],
                        ["deliver", ANN, "/tmp/none"]],
            "export": [["export", ANN, "/tmp/exported"]],
            "import": [["import", ANN, "/tmp/mbox", "--folder", "Imported"]],
            "lmtp": [["lmtp", "--listen", "nowhere"]],  # it shows nothing
            "policy": [["policy", "--listen", "nowhere"]],
            "size": [["size", ANN]],
            "recount": [["recount", ANN]],
            "tag": [["tag", "--all"]],
            "messages": [["messages", "--all", "Inbox"]],
            "usage": [["usage"], ["usage", "--verify"], ["usage", "--by-domain"]],
            "metrics": [["metrics"]],
            "pref show": [["pref", "show", ANN]],
            "pref get": [["pref", "get", ANN, "npage"]],
            "pref set": [["pref", "set", ANN, "npage=50"]],
            "pref reset": [["pref", "reset", ANN, "npage"]],
            "list add": [["list", "add", "--all", "whitelist", "a@site.test", "b@site.test"]],
            "list names": [["list", "names", "--all"]],
            "list show": [["list", "show", "--all", "whitelist"]],
            "list find": [["list", "find", "--all", "whitelist", "a@site.test"]],
            "list match": [["list", "match", "--all", "whitelist", "a@site.test"]],
            "list replace": [["list", "replace", ANN, "whitelist", "2", "c@site.test", "--dry-run"],
                             ["list", "replace", ANN, "whitelist", "2", "c@site.test"]],
            "list import": [["list", "import", ANN, "whitelist", "/tmp/entries"]],
            "list export": [["list", "export", ANN, "whitelist"]],
            "list remove": [["list", "remove", "--all", "whitelist", "a@site.test"]],
            "quota set": [["quota", "set", ANN, "warning"]],
            "quota show": [["quota", "show", ANN]],
            "quota clear": [["quota", "clear", ANN, "warning"]],
            "quota notify": [["quota", "notify", ANN, "--subject", "x"]],
            "quota reset": [["quota", "reset", ANN]],
            "doctor": [["doctor", "--spool"], ["doctor", ANN]],  # the previous verb marked the mailbox
            "quota archive": [["quota", "archive"]],
            "check-name": [["check-name", "x"]],
            "config check": [["config", "check", "/tmp/broken.toml"]],
            "message move": [["message", "move", ANN, "Inbox", message, "--to", "Work"],
                             ["message", "move", ANN, "Work", message, "--to", "Inbox"]],
            "message flag": [["message", "flag", ANN, "Inbox", message, "-S"]],
            "message rm": [["message", "rm", ANN, "Inbox", message]],
            "expire": [["expire", ANN, "--folder", "Trash", "--older", "30d"]],
            "rm": [["rm", "--all", "Work"]],
            "restore": [["restore", "--all", "Work"]],
            "sweep": [["rm", ANN, "Work"], ["sweep", ANN]],
            "mailbox remove": [["mailbox", "remove", ANN, "--yes"]],
            "mailbox restore": [["mailbox", "restore", ANN]],
            "mailbox rename": [["mailbox", "rename", ANN, "eve@site.test"]],
            "domain rename": [["domain", "rename", "site.test", "new.test"]],
            "help": [["help", "deliver"]],
        }

    # The last command lines of these verbs report a fault, with these exit codes.
    CODES = {"config check": 65, "deliver": 66, "doctor": 1, "lmtp": 64, "policy": 64}

    # These show preferences: their fields are the preferences' names.
    PREFERENCES = {"pref show", "pref get"}

    def test_every_verb_shows_its_fields(self):
        self.prepared()
        fields, runs = documented(), self.runs()
        grammar = json.loads(tsmail("--help", "--json").out)
        self.assertEqual(set(runs), set(leaves(grammar)), "each verb is run here")
        self.assertEqual(set(runs), set(fields), "each verb has a schema")
        for verb, rows in runs.items():
            shown = set()
            for words in rows:
                done = tsmail("--json", *words, stdin=b"Subject: x\n\nx\n")
                self.assertEqual(done.code, self.CODES.get(verb, 0) if words is rows[-1] else 0, (verb, done))
                for row in done.objects:
                    self.assertIsInstance(row, dict)
                    shown.update(row)
            if verb in self.PREFERENCES:
                self.assertIn("npage", shown)
            else:
                self.assertEqual(shown, fields[verb], verb)

    def test_what_differs_from_a_schema_is_found(self):
        good = {"path": "/x", "folder": "Inbox", "size": 1}
        words = ["deliver", ANN, "--json"]
        check_shown(words, json.dumps(good) + "\n")
        for change in ({"size": "1"}, {"size": -1}, {"size": None}, {"more": 1}):
            with self.assertRaises(AssertionError):
                check_shown(words, json.dumps({**good, **change}) + "\n")
        with self.assertRaises(AssertionError):
            check_shown(words, '{"path":"/x","folder":"Inbox"}\n')
        with self.assertRaises(AssertionError):
            check_shown(["--json", "pref", "set", ANN], "{}\n")

    def test_the_grammar_is_shown_for_programs(self):
        one = json.loads(tsmail("list", "add", "--help", "--json").out)
        self.assertEqual(one["name"], "add")
        self.assertEqual([a["names"] for a in one["arguments"]], [["ADDRESS"], ["LIST"], ["ENTRY"]])
        self.assertEqual([a["many"] for a in one["arguments"]], [False, False, True])
        [scope] = [option for option in one["options"] if option["names"] == ["--scope"]]
        self.assertEqual((scope["names"], scope["value"], scope["required"], scope["words"]),
                         (["--scope"], True, False, ["user", "home", "system"]))

    def test_sizes_in_tables_are_in_binary_units(self):
        self.succeed("create", ANN)
        self.succeed("deliver", ANN, stdin=b"x" * 1536)
        self.assertIn("1.5 KiB", self.succeed("folders", ANN).out)
        self.assertIn("1.5 KiB", self.succeed("quota", "show", ANN).out)
        self.assertEqual(json.loads(self.succeed("--json", "quota", "show", ANN).out)["bytes"], 1536)


class BytesTest(SpoolCase):
    def test_names_that_are_not_utf8_can_be_told_apart(self):
        self.succeed("create", ANN)
        names = [b"a\xff", b"a\xfe", "\u00e4".encode(), b"\xed\xa0\x80"]
        for name in names:
            for part in (b"cur", b"new", b"tmp"):
                os.makedirs(os.path.join(os.fsencode(mail(ANN)), name, part))
        rows = self.succeed("--json", "folders", ANN).objects
        shown = {bytes.fromhex(row["folder_hex"]) if "folder_hex" in row else row["folder"].encode()
                 for row in rows}
        self.assertLessEqual(set(names), shown)
        self.assertEqual(sum("folder_hex" in row for row in rows), 3)
        self.assertTrue(all(("path_hex" in row) == ("folder_hex" in row) for row in rows))


class VerboseTest(SpoolCase):
    def test_who_works_is_said_to_those_who_ask(self):
        if os.geteuid() != 0:
            self.skipTest("only root takes the owner's identity")
        self.succeed("create", ANN)
        run(["chown", "-R", "1000:1000", f"{HOME}/site.test/ann~site.test"])
        self.assertEqual(self.succeed("folders", ANN).err, "")
        self.assertRegex(self.succeed("-v", "folders", ANN).err,
                         r"^tsmail: working as user 1000, group \d+\n$")
        self.assertEqual(self.succeed("-v", "-q", "folders", ANN).err, "")


if __name__ == "__main__":
    unittest.main()
