"""The commands in the documents: each verb and each option is one of the grammar."""

import json
import os
import pathlib
import re
import shlex
import unittest

SOURCE = pathlib.Path(os.environ["TSMAIL_SOURCE"])
GRAMMAR = json.loads((pathlib.Path(os.environ["TSMAIL_BUILD"]) / "tools/grammar.json").read_text("utf-8"))
DOCUMENTS = sorted([SOURCE / "README.md", *SOURCE.glob("docs/*.md"), *SOURCE.glob("docs/neighbours/*.md")])
# In a block of code behind a prompt or at the beginning, or between backticks.
COMMAND = re.compile(r"^ +(?:[$#] )?(?:sudo )?(tsmail [^|>\n]*)|`(tsmail [^`]*)`", re.M)


def commands():
    for path in DOCUMENTS:
        for match in COMMAND.finditer(path.read_text("utf-8")):
            yield path.name, " ".join((match[1] or match[2]).split())


def options_of(verb):
    return {name for option in verb["options"] for name in option["names"]}


def problem(line):
    """What the grammar does not know of a command line, or None."""
    try:
        words = shlex.split(line, comments=True)[1:]
    except ValueError:
        return None  # a part of a shell's text
    verb, options = GRAMMAR, options_of(GRAMMAR)
    for word in words:
        if word.startswith("--"):
            if word.split("=")[0] not in options | {"--help"}:
                return f"the option {word}"
        elif verb["verbs"] and not word.startswith("-"):
            below = {row["name"]: row for row in verb["verbs"]}
            if word not in below:
                return None if word.isupper() or word == "..." else f"the verb {word}"
            verb = below[word]
            options |= options_of(verb)
    return None


class CommandsTest(unittest.TestCase):
    def test_documents_use_what_there_is(self):
        rows = list(commands())
        self.assertGreater(len(rows), 40)
        self.assertEqual([(*row, problem(row[1])) for row in rows if problem(row[1])], [])

    def test_what_there_is_not_is_found(self):
        self.assertIsNone(problem("tsmail list add ann@site.test whitelist x@y"))
        self.assertIsNone(problem("tsmail --json expire --older=30d --all"))
        self.assertEqual(problem("tsmail expires"), "the verb expires")
        self.assertEqual(problem("tsmail list adds"), "the verb adds")
        self.assertEqual(problem("tsmail rm --dry"), "the option --dry")


if __name__ == "__main__":
    unittest.main()
