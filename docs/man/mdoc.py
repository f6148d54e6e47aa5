"""mdoc.py - text, and the little Markdown that the documents use, as mdoc(7)."""

import re

WIDTH = 76


def escaped(text):
    """Text with nothing in it that roff would act upon."""
    return text.replace("\\", "\\e")


def marked(text):
    """Markdown's inline marks as fonts."""
    out = ""
    for piece in re.split(r"(`[^`]+`|\*\*[^*]+\*\*|\[[^\]]+\]\([^)]+\))", text):
        if piece.startswith("`"):
            out += "\\fB" + escaped(piece[1:-1]) + "\\fP"
        elif piece.startswith("**"):
            out += "\\fI" + escaped(piece[2:-2]) + "\\fP"
        elif re.match(r"\[[^\]]+\]\(", piece):
            out += escaped(re.match(r"\[([^\]]+)\]", piece).group(1))
        else:
            out += re.sub(r"\*(?=\w)([^*\s][^*]*)\*", r"\\fI\1\\fP", escaped(piece))
    return out


def line_safe(line):
    """A text line that does not begin with what roff takes for a request."""
    return "\\&" + line if line[:1] in (".", "'") else line


def with_functions(line):
    """A line of text; names of functions in it, "name()", stand as macros on lines of their own."""
    out = []
    for piece in re.split(r"(?:^| )((?:[\w:]|\\f.)+\(\)[.,;:)]*)(?= |$)", line):
        match = re.match(r"(?:\\f.)*([\w:]+)(?:\\f.)*\(\)(?:\\f.)*([.,;:)]*)$", piece)
        if match:
            out.append(f".Fn {match.group(1)}" + "".join(" " + mark for mark in match.group(2)))
        elif piece.strip():
            out.append(line_safe(piece.strip().replace("()", "(\\&)")))
    return out


def filled(text):
    """Paragraph text: a line for each sentence, long ones broken."""
    lines = []
    for sentence in re.split(r"(?<=[a-zA-Z0-9)\"'\]P][.?!])\s+", " ".join(text.split())):
        line = ""
        for word in sentence.split(" "):
            if line and len(line) + 1 + len(word) > WIDTH:
                lines.append(line)
                line = word
            else:
                line = f"{line} {word}" if line else word
        lines.append(line)
    return [part for line in lines for part in with_functions(line)]


def literal(text):
    lines = text.rstrip("\n").split("\n")
    return [".Bd -literal -offset indent", *(line_safe(escaped(line)) for line in lines), ".Ed"]


def quoted(text):
    """A macro's argument in one piece."""
    return '"' + escaped(text).replace('"', "\\(dq") + '"'


def cells_of(line):
    return [cell.strip().replace("\\|", "|") for cell in re.split(r"(?<!\\)\|", line.strip().strip("|"))]


def table(rows):
    """A table: the first column is the tag, the others follow, with their headings if several."""
    head, body = cells_of(rows[0]), [cells_of(row) for row in rows[2:]]
    out, tag = [".Bl -tag -width Ds -compact"], ""
    for row in body:
        tag = marked(row[0]) or tag  # an empty first cell goes on with the one above
        out.append(".It " + tag)
        rest = [(name, cell) for name, cell in zip(head[1:], row[1:]) if cell]
        for number, (name, cell) in enumerate(rest):
            if number:
                out.append(".br")
            out += filled(marked(f"{name}: {cell}" if len(head) > 2 else cell))
    return out + [".El"]


def listed(lines):
    out = [".Bl -bullet"]
    for item in re.split(r"\n(?=[-*] )", "\n".join(lines)):
        out += [".It", *filled(marked(item[2:]))]
    return out + [".El"]


def blocks_of(text):
    """The blocks of a Markdown text: (kind, lines)."""
    blocks, lines = [], text.split("\n")
    while lines:
        if not lines[0].strip():
            lines.pop(0)
        elif lines[0].startswith("```"):
            end = lines.index("```", 1)
            blocks.append(("code", lines[1:end]))
            lines = lines[end + 1:]
        elif lines[0].startswith("    "):
            end = next((i for i, line in enumerate(lines) if line and not line.startswith("    ")), len(lines))
            blocks.append(("code", [line[4:] for line in "\n".join(lines[:end]).rstrip().split("\n")]))
            lines = lines[end:]
        else:
            kind = {"#": "head", "|": "table", "-": "list", "*": "list"}.get(lines[0][0], "text")
            if kind == "list" and lines[0][1:2] != " ":
                kind = "text"
            end = 1
            while kind != "head" and end < len(lines) and lines[end].strip() and lines[end][:3] != "```":
                end += 1
            blocks.append((kind, lines[:end]))
            lines = lines[end:]
    return blocks


def converted(text, heading=".Ss"):
    """A Markdown text as mdoc; its headings become subsections."""
    out = []
    for kind, lines in blocks_of(text):
        if kind == "head":
            out.append(f"{heading} " + marked(lines[0].lstrip("# ")))
            continue
        # A paragraph, but where a heading already makes one.
        if kind in ("text", "list", "table") and out and not out[-1].startswith((".Sh", ".Ss")):
            out.append(".Pp")
        if kind == "code":
            out += literal("\n".join(lines))
        elif kind == "table":
            out += table(lines)
        elif kind == "list":
            out += listed(lines)
        else:
            out += filled(marked(" ".join(lines)))
    return out


def without_doubled_space(lines):
    """The lines without the paragraphs that a list, a display or a heading makes already."""
    out = []
    for number, line in enumerate(lines):
        following = lines[number + 1] if number + 1 < len(lines) else ""
        spaced = following.startswith((".Bl", ".Bd", ".Sh", ".Ss")) and "-compact" not in following
        if line != ".Pp" or not (spaced or out[-1].startswith((".Sh", ".Ss", ".Pp"))):
            out.append(line)
    return out


def page(name, section, purpose, body, date, names=()):
    """A whole page; body begins behind the section NAME."""
    names = [n for n in names if n != name]
    listed_names = [f".Nm {n} ," for n in [name, *names][:-1]] + [f".Nm {[name, *names][-1]}"]
    return "\n".join([".\\\" Made by docs/man/generate.py; changes belong into its sources.",
                      f".Dd {date}", f".Dt {name.upper()} {section}", ".Os",
                      ".Sh NAME", *listed_names, f".Nd {purpose}", *without_doubled_space(body)]) + "\n"
