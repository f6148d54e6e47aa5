"""The manual: well-formed pages, one for each name, with all the facts."""

import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import tomllib
import unittest

SOURCE = pathlib.Path(os.environ["TSMAIL_SOURCE"])
BUILD = pathlib.Path(os.environ["TSMAIL_BUILD"])
MAN = BUILD / "docs/man"
sys.path.insert(0, str(SOURCE / "docs/man"))
import command  # noqa: E402
import generate  # noqa: E402


def text_of(path):
    return path.read_text(encoding="utf-8")


def pages():
    """Pages that are not links."""
    return sorted(p for p in MAN.glob("man*/*") if not text_of(p).startswith(".so "))


def links():
    return sorted(p for p in MAN.glob("man*/*") if text_of(p).startswith(".so "))


class FormTest(unittest.TestCase):
    def test_lint_finds_nothing(self):
        self.assertGreater(len(pages()), 20)
        done = subprocess.run(["mandoc", "-T", "lint", *pages()], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)
        # The linter looks for other pages among the installed ones. The next test looks for them here.
        found = [line for line in done.stdout.splitlines() if "referenced manual not found" not in line]
        self.assertEqual(found, [])

    def test_references_lead_somewhere(self):
        for page in pages():
            for name, section in re.findall(r"^\.(?:It )?Xr (\S+) (\d)", text_of(page), re.M):
                self.assertTrue((MAN / f"man{section}/{name}.{section}").exists(), (page, name))
            for name, section in re.findall(r"([\w.-]+)\((\d)\)",
                                            re.sub(r"\\f.", "", text_of(page))):
                if name.startswith(("tsmail", "libtsmail")):
                    self.assertTrue((MAN / f"man{section}/{name}.{section}").exists(), (page, name))

    def test_links_lead_to_pages(self):
        self.assertGreater(len(links()), 60)
        for link in links():
            target = MAN / text_of(link).split()[1]
            self.assertIn(target, pages())
            self.assertRegex(text_of(target), rf"(?m)^\.Nm {link.stem}( ,)?$")

    def test_man_shows_every_page_without_a_warning(self):
        env = {**os.environ, "LC_ALL": "C.UTF-8", "MANPAGER": "cat", "MANWIDTH": "80"}
        for page in [*pages(), *links()]:
            done = subprocess.run(["man", "--warnings", "-l", page], cwd=MAN, env=env, check=False,
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
            self.assertEqual((done.returncode, done.stderr), (0, ""), page)
            self.assertIn("NAME", done.stdout, page)


class FunctionsTest(unittest.TestCase):
    """functions.toml is about the functions that exist, and about all of them."""

    @classmethod
    def setUpClass(cls):
        cls.data = tomllib.loads(text_of(SOURCE / "docs/man/functions.toml"))
        cls.pages = [generate.FunctionPage(SOURCE, row, cls.data["common"]) for row in cls.data["page"]]

    def test_every_exported_name_has_a_page(self):
        exported = re.findall(r"^    (\w+);", text_of(SOURCE / "cmake/tsmail.map"), re.M)
        exported += re.findall(r"^    (\w+);", text_of(SOURCE / "cmake/tssupport.map"), re.M)
        exported += re.findall(r"^    (\w+);", text_of(SOURCE / "cmake/kqfquery.map"), re.M)
        self.assertGreater(len(exported), 80)
        for name in exported:
            self.assertTrue((MAN / f"man3/{name}.3").exists(), name)

    def test_every_section_of_every_header_is_on_a_page(self):
        for path in (SOURCE / "include/tessaly").glob("*.h"):
            rows = [row for row in self.data["page"] if row["header"] == path.name]
            shown = {title for row in rows for title in row["sections"]}
            there = {s.title for s in generate.headers.parsed(path).sections if s.groups}
            self.assertEqual(there, shown & there, path.name)

    def test_every_function_has_its_facts(self):
        for page in self.pages:
            for function in page.functions:
                facts = page.facts(function.name)
                self.assertIn(function.name, page.row["of"], page.row["name"])
                for key in ("returns", "files", "locks", "threads"):
                    self.assertTrue(facts.get(key), (function.name, key))
                if "= default" not in function.plain:
                    self.assertLessEqual(set(function.names_of_arguments()), set(facts["args"]), function.name)

    def test_facts_are_about_what_there_is(self):
        for page in self.pages:
            arguments = {}
            for function in page.functions:
                arguments.setdefault(function.name, set()).update(function.names_of_arguments())
            for name, facts in page.row["of"].items():
                self.assertIn(name, arguments, page.row["name"])
                self.assertLessEqual(set(facts.get("args", {})), arguments[name], name)

    def test_every_function_is_in_its_pages_example(self):
        for page in self.pages:
            example = page.example()
            for name in {f.name for f in page.functions if not f.name.startswith(("~", "operator"))}:
                self.assertRegex(example, rf"\b{name}\b", page.row["name"])
        there = {p.stem for p in (SOURCE / "examples/man").glob("*.c*")}
        self.assertEqual(there, {page.row["name"] for page in self.pages})

    def test_pages_say_all_of_it(self):
        for page in self.pages:
            text = text_of(MAN / f"man3/{page.row['name']}.3")
            for heading in ("SYNOPSIS", "DESCRIPTION", "RETURN VALUES", "FILES", "LOCKS", "THREADS AND FORK",
                            "EXAMPLES"):
                self.assertIn(f"\n.Sh {heading}\n", text, page.row["name"])
            self.assertIn("\n.Ss Ownership\n", text)


class FormatsTest(unittest.TestCase):
    def test_every_document_of_a_format_is_a_page(self):
        data = tomllib.loads(text_of(SOURCE / "docs/man/functions.toml"))
        self.assertEqual({row["source"] for row in data["format"]},
                         {p.name for p in (SOURCE / "docs/formats").glob("*.md")})


class CommandTest(unittest.TestCase):
    """Section 1 is about the verbs that exist."""

    @classmethod
    def setUpClass(cls):
        cls.grammar = json.loads(subprocess.run([BUILD / "tools/tsmail", "--help", "--json"], check=True,
                                                stdout=subprocess.PIPE).stdout)
        cls.described = command.documented_verbs(text_of(SOURCE / "docs/man/tsmail.md"))
        cls.schema = json.loads(text_of(SOURCE / "docs/schema/verbs.json"))

    def test_every_verb_has_a_page_that_says_all_of_it(self):
        verbs = dict(command.leaves(self.grammar))
        for name, verb in verbs.items():
            self.assertTrue(self.described.get(name, "").strip(), f"docs/man/tsmail.md says nothing about {name}")
            page = text_of(MAN / f"man1/{command.page_of(name)}.1")
            for heading in ("SYNOPSIS", "DESCRIPTION", "JSON", "EXIT STATUS", "EXAMPLES"):
                self.assertIn(f"\n.Sh {heading}\n", page, name)
            for argument in command.without_help([*verb["options"], *verb["arguments"]]):
                self.assertIn(max(argument["names"], key=len).lstrip("-"), page)
            self.assertIn(f"\n.It Xr {command.page_of(name)} 1\n", text_of(MAN / "man1/tsmail.1"))
        self.assertEqual(set(self.described) - set(verbs), {"", "Environment and files", "Examples"})

    def test_there_is_no_other_page(self):
        names = {command.page_of(name) for name, _ in command.every_verb(self.grammar)}
        self.assertEqual({p.stem for p in (MAN / "man1").glob("*")}, {"tsmail", *names})

    def test_groups_name_their_verbs(self):
        page = text_of(MAN / "man1/tsmail-list.1")
        self.assertEqual(re.findall(r"^\.It Xr (\S+) 1$", page, re.M),
                         [command.page_of(n) for n, _ in command.leaves(self.grammar) if n.startswith("list ")])

    def test_fields_are_those_of_the_schema(self):
        for name, schema in self.schema["verbs"].items():
            if schema is False or name.startswith("pref "):
                continue
            page, forms = text_of(MAN / f"man1/{command.page_of(name)}.1"), schema.get("oneOf", [schema])
            wanted = [field for form in forms if "anyOf" not in form
                      for field in command.resolved(form, self.schema["$defs"])["properties"]]
            self.assertEqual([field for field in re.findall(r"^\.It Va (\w+) ", page, re.M) if wanted], wanted, name)

    def test_examples_are_two_at_least(self):
        for name, _ in command.leaves(self.grammar):
            examples = command.parts_of(self.described[name])["Examples"]
            self.assertGreaterEqual(len(re.findall(r"^    \$ .*tsmail", examples, re.M)), 2, name)

    def test_exit_codes_are_explained(self):
        codes = command.exit_codes(SOURCE)
        header = text_of(SOURCE / "tools/cli/failure.h")
        self.assertEqual(len(codes), len(re.findall(r"^    k\w+ = \d+", header, re.M)))
        usage = subprocess.run([BUILD / "tools/tsmail", "--help"], check=True, stdout=subprocess.PIPE,
                               text=True).stdout
        for number, what in codes:
            self.assertTrue(what or number == "0", number)
            self.assertIn(f"\n.It {number}\n", text_of(MAN / "man1/tsmail.1"))
            self.assertRegex(usage, rf"\b{number} ")

    def test_own_exit_codes_go_over_the_general_ones(self):
        codes = command.exit_codes(SOURCE)
        verb = {"arguments": [{"names": ["ADDRESS"]}]}
        shown = command.codes_of_verb(verb, "| 1 | no |\n| 67, 73 | - |\n| 75 | later |\n", codes)
        self.assertEqual(list(shown), ["0", "1", "64", "65", "70", "74", "75"])
        self.assertEqual((shown["1"], shown["75"]), ("no", "later"))
        self.assertEqual(list(command.codes_of_verb({"arguments": []}, "", codes)), ["0", "64", "70", "74", "75"])


class ExamplesTest(unittest.TestCase):
    """The examples on the page of every verb run as they are."""

    PREPARED = """
        tsmail -q create ann@site.test --folder Work; tsmail -q create bert@site.test
        printf 'Subject: x\\n\\nx\\n' >message.eml
        tsmail -q deliver ann@site.test message.eml message.eml; tsmail -q deliver ann+Work@site.test message.eml
        tsmail -q list add ann@site.test whitelist bert@site.test cleo@site.test
        mkdir -p /var/spool/etc/mail; tsmail -q list add - blacklist spam@other.test --scope system
        printf 'dora@site.test\\nemil@site.test\\n' >entries.txt; echo 'It is nearly full.' >notice.txt
        echo 'timezone = 12' >new.toml
        mkdir -p old-maildir/cur old-maildir/new old-maildir/tmp; cp message.eml old-maildir/cur/1:2,S
        { echo 'From ann@site.test Thu Jan  1 00:00:00 2015'; cat message.eml; echo; } >archive.mbox
    """

    def test_they_run(self):
        texts = command.documented_verbs(text_of(SOURCE / "docs/man/tsmail.md"))
        program = pathlib.Path("/bin/sendmail")
        program.write_text("#!/bin/sh\ncat >/dev/null\n", encoding="utf-8")
        program.chmod(0o755)
        for name, text in texts.items():
            prompts = "[#$>]" if os.geteuid() == 0 else "[$>]"
            lines = re.findall(rf"^    {prompts} (.*)$", command.parts_of(text).get("Examples", ""), re.M)
            with self.subTest(name), tempfile.TemporaryDirectory() as work:
                for old in os.listdir("/var/spool"):
                    shutil.rmtree(f"/var/spool/{old}")
                env = {**os.environ, "PATH": f"{BUILD}/tools:{os.environ['PATH']}", "LC_ALL": "C.UTF-8"}
                done = subprocess.run(["bash", "-euo", "pipefail", "-c", self.PREPARED + "\n" + "\n".join(lines)],
                                      cwd=work, env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                      check=False, stdin=subprocess.DEVNULL)
                self.assertEqual(done.returncode, 0, done.stdout)


if __name__ == "__main__":
    unittest.main()
