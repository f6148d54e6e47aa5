#!/usr/bin/env python3
"""generate.py SOURCE OUT [GRAMMAR] - makes the manual pages.

Section 3 from the comments in include/tessaly, with what docs/man/functions.toml adds and the
examples in examples/man; section 5 from docs/formats; section 1, if the grammar of the command (the
output of "tsmail --help --json") is given, as command.py says.

SOURCE is the top of the sources; the pages go to OUT/man1, OUT/man3 and OUT/man5.
"""

import email.utils
import json
import pathlib
import re
import sys
import tomllib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
import command  # noqa: E402
import headers  # noqa: E402
import mdoc  # noqa: E402


def date_of(source):
    """The date of the newest entry in the packages' changelog, as mdoc wants it."""
    text = (source / "debian/changelog").read_text(encoding="utf-8")
    date = email.utils.parsedate_to_datetime(re.search(r"^ -- .*?>  (.*)$", text, re.M).group(1))
    return f"{date:%B} {date.day}, {date.year}"


# ---- comments of headers ---------------------------------------------------------------------------

def comment_blocks(text):
    """A comment's paragraphs; (literal?, lines). What is indented keeps its lines."""
    block, kind = [], None
    for line in [*text.split("\n"), ""]:
        now = None if not line.strip() else line.startswith("  ")
        if block and now != kind:
            yield kind, block
            block = []
        kind = now
        if now is not None:
            block.append(line)


def in_comment(text):
    """What comments mark: `name`. A '*' in them is C's."""
    return re.sub(r"`([^`]+)`", r"\\fB\1\\fP", mdoc.escaped(text))


def prose(comment):
    """A header's comment as mdoc."""
    out = []
    for is_literal, lines in comment_blocks(comment):
        if out:
            out.append(".Pp")
        if is_literal:
            if out:
                out.pop()
            least = min(len(line) - len(line.lstrip()) for line in lines)
            out += mdoc.literal("\n".join(line[least:] for line in lines))
        else:
            out += mdoc.filled(in_comment(" ".join(lines)))
    return out


def conventions(comment):
    """The part of a header's first comment from its conventions on: a list of tagged paragraphs."""
    out = []
    text = re.sub(r"^tessaly/\S+ - .*?\n\n|^Tessaly::\w+ - .*?\n\n", "", comment, flags=re.S)
    for paragraph in re.split(r"\n(?=\w.*\n  \w|\n)", text):
        lines = [line for line in paragraph.split("\n") if line.strip()]
        if len(lines) > 1 and all(line.startswith("  ") for line in lines[1:]) and ":" not in lines[0][-1:]:
            tagged = any(re.match(r"  \S+\s{2,}\S", line) for line in lines[1:])
            out += [".Ss " + lines[0]]
            out += tagged_list(lines[1:]) if tagged else prose("\n".join(line[2:] for line in lines[1:]))
        elif lines:
            out += ([".Pp"] if out and not out[-1].startswith(".Ss") else []) + prose("\n".join(lines))
    return out


def tagged_list(lines):
    """A list of "  Tag   text", each with its lines that go on."""
    out, items = [], []
    for line in lines:
        match = re.match(r"  (\S+)\s{2,}(\S.*)$", line)
        if match and not line.startswith("   "):
            items.append((match.group(1), [match.group(2)]))
        elif items:
            items[-1][1].append(line.strip())
    out.append(".Bl -tag -width Ds")
    for tag, text in items:
        out += [f".It {mdoc.escaped(tag)}", *mdoc.filled(in_comment(" ".join(text)))]
    return out + [".El"]


# ---- section 3 -------------------------------------------------------------------------------------

def without_indent(text):
    lead = len(text) - len(text.lstrip())
    return "\n".join(line[lead:] if line[:lead].isspace() else line for line in text.split("\n"))


class FunctionPage:
    def __init__(self, source, row, common):
        self.row, self.common, self.source = row, common, source
        self.header = headers.parsed(source / "include/tessaly" / row["header"])
        wanted = set(row["sections"])
        self.sections = [s for s in self.header.sections if s.title in wanted]
        self.groups = [g for s in self.sections for g in s.groups]
        self.functions = [d for g in self.groups for d in g.declarations if d.is_function]
        self.others = [d for g in self.groups for d in g.declarations if not d.is_function]

    @property
    def names(self):
        """What a reader may ask for: functions and data, or the class."""
        if "class" in self.row:
            return []
        return [d.name for d in [*self.functions, *(o for o in self.others if not o.is_type)]]

    def facts(self, name):
        """What functions.toml says about a function, with what it says for the whole page."""
        facts = {key: self.row.get(key) for key in ("files", "locks", "threads")}
        facts["threads"] = facts["threads"] or self.common["threads"]
        facts.update(self.row["of"].get(name, {}))
        facts["args"] = {**self.row.get("common_args", {}), **facts.get("args", {})}
        return facts

    def example(self):
        for ending in ("c", "cpp"):
            path = self.source / "examples/man" / f"{self.row['name']}.{ending}"
            if path.exists():
                return path.read_text(encoding="utf-8")
        return ""

    def synopsis(self):
        out = [".Sh SYNOPSIS", f".In tessaly/{self.row['header']}"]
        if "class" in self.row:
            return out + mdoc.literal("\n".join(
                d.plain for g in self.groups for d in g.declarations if "= default" not in d.plain and not d.is_type))
        for declaration in [*self.others, *self.functions]:
            if declaration.is_type:
                continue
            if not declaration.is_function or any("(" in a for a in declaration.arguments):
                out += mdoc.literal(declaration.plain)
                continue
            out += [f".Ft {mdoc.quoted(declaration.result)}", f".Fo {declaration.name}"]
            out += [f".Fa {mdoc.quoted(a)}" for a in declaration.arguments] or [".Fa void"]
            out.append(".Fc")
        return out

    def argument_list(self, declarations):
        known = {}
        for declaration in declarations:
            facts = self.facts(declaration.name)
            for name in declaration.names_of_arguments():
                known.setdefault(name, facts["args"].get(name, ""))
        if not known:
            return []
        out = [".Pp", "Arguments:", ".Bl -tag -width Ds -compact"]
        for name, text in known.items():
            out += [f".It Fa {name}", *mdoc.filled(mdoc.marked(text))]
        return out + [".El"]

    def described(self, group):
        functions = [d for d in group.declarations if d.is_function and "= default" not in d.plain]
        names = list(dict.fromkeys(d.name for d in group.declarations))
        out = [".Ss " + mdoc.escaped(", ".join(names))] if names else []
        types = [d for d in group.declarations if d.is_type]
        if group.comment:
            out += ([".Pp"] if not names else []) + prose(group.comment)
        elif not names:
            return []
        shown = types or [d for d in group.declarations if not d.is_function and not group.comment]
        if shown:
            out += mdoc.literal("\n".join(without_indent(d.text) for d in shown))
        return out + self.argument_list(functions)

    def summary(self, heading, key):
        """One of the sections that has a line for each function, or one for all."""
        texts = {}
        for name in dict.fromkeys(d.name for d in self.functions):
            texts.setdefault(self.facts(name).get(key) or "", []).append(name)
        out = [f".Sh {heading}"]
        if len(texts) == 1:
            return out + mdoc.filled(mdoc.marked(next(iter(texts))))
        out.append(".Bl -tag -width Ds")
        for text, names in texts.items():
            out += [".It " + mdoc.escaped(", ".join(names)), *mdoc.filled(mdoc.marked(text))]
        return out + [".El"]

    def body(self, others):
        out = self.synopsis() + [".Sh DESCRIPTION"]
        out += mdoc.filled("The conventions of all functions, on texts, results, errors and locks, are those of")
        out += [".Xr libtsmail 3 ." if self.row["name"] != "libtsmail" else ""]
        if self.row["header"] != "mailstore.h":
            out += [".Pp", *conventions(self.header.comment)]
        for section in self.sections:
            if section.title and len(self.sections) > 1 and "class" not in self.row:
                out.append(f".Ss {section.title}")
            for group in section.groups:
                out += self.described(group)
        out += [".Ss Ownership", *mdoc.filled(self.row.get("ownership", self.common["ownership"]))]
        out += self.summary("RETURN VALUES", "returns") + self.summary("FILES", "files")
        out += self.summary("LOCKS", "locks") + self.summary("THREADS AND FORK", "threads")
        out += [".Sh EXAMPLES", *mdoc.literal(self.example())]
        return out + see_also(others)


def see_also(pages):
    """"name section" of each, in mandoc's order."""
    rows = sorted({tuple(page.split()) for page in pages}, key=lambda row: (row[1], row[0].lower()))
    out = [".Sh SEE ALSO"]
    return out + [f".Xr {name} {section}" + (" ," if (name, section) != rows[-1] else "")
                  for name, section in rows]


def function_pages(source, data, out, date):
    pages = [FunctionPage(source, row, data["common"]) for row in data["page"]]
    names = [page.row["name"] for page in pages]
    for page in pages:
        name = page.row["name"]
        formats = [f"{f['name']} 5" for f in data["format"] if f"{name} 3" in f["see"]]
        text = mdoc.page(name, 3, page.row["purpose"], page.body(["libtsmail 3", *formats]), date,
                         page.names or [page.row["class"]])
        (out / f"{name}.3").write_text(text, encoding="utf-8")
        for link in page.names:
            if link != name:
                (out / f"{link}.3").write_text(f".so man3/{name}.3\n", encoding="utf-8")
    overview(source, data, names, out, date)
    return pages


def overview(source, data, names, out, date):
    header = headers.parsed(source / "include/tessaly/mailstore.h")
    body = [".Sh SYNOPSIS", *(f".In tessaly/{name}" for name in
                              dict.fromkeys(page["header"] for page in data["page"])),
            ".Pp", "cc ... $(pkg-config --cflags --libs tsmail)",
            ".Sh DESCRIPTION",
            *mdoc.filled("The mail storage library: it knows where everything of a mailbox lies, and works on "
                         "folders, message names, sizes, quota flags, preferences and address lists. Each "
                         "function works on files and returns; nothing is kept between calls."),
            ".Bl -tag -width Ds"]
    for row in data["page"]:
        body += [f".It Xr {row['name']} 3", row["purpose"]]
    body += [".El", *conventions(header.comment)]
    body += see_also(["tsmail 1", *(f"{name} 3" for name in names), *(f"{f['name']} 5" for f in data["format"])])
    (out / "libtsmail.3").write_text(
        mdoc.page("libtsmail", 3, "the mail storage library", body, date), encoding="utf-8")


# ---- section 5 -------------------------------------------------------------------------------------

def format_pages(source, data, out, date):
    for row in data["format"]:
        text = (source / "docs/formats" / row["source"]).read_text(encoding="utf-8")
        text = re.sub(r"\A# .*\n", "", text)
        body = [".Sh DESCRIPTION", *mdoc.converted(text), *see_also(row["see"] + ["tsmail 1"])]
        (out / f"{row['name']}.5").write_text(mdoc.page(row["name"], 5, row["purpose"], body, date),
                                             encoding="utf-8")


# ---- section 1 -------------------------------------------------------------------------------------

def command_pages(source, grammar, out, date):
    for name, purpose, body in command.pages(source, grammar, see_also):
        (out / f"{name}.1").write_text(mdoc.page(name, 1, purpose, body, date), encoding="utf-8")


def main(source, out, grammar=None):
    source, out = pathlib.Path(source), pathlib.Path(out)
    data = tomllib.loads((source / "docs/man/functions.toml").read_text(encoding="utf-8"))
    date = date_of(source)
    for section in ("man1", "man3", "man5"):
        (out / section).mkdir(parents=True, exist_ok=True)
        for old in (out / section).glob("*"):
            old.unlink()
    function_pages(source, data, out / "man3", date)
    format_pages(source, data, out / "man5", date)
    if grammar:
        tree = json.loads(pathlib.Path(grammar).read_text(encoding="utf-8"))
        command_pages(source, tree, out / "man1", date)


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    main(*sys.argv[1:])
