"""headers.py - the exported headers as data: sections, and in them comments with what they are about."""

import re
from dataclasses import dataclass, field


@dataclass
class Declaration:
    text: str  # as it stands, trailing comments included

    @property
    def plain(self):
        return " ".join(re.sub(r"/\*.*?\*/", " ", self.text, flags=re.S).split())

    @property
    def is_type(self):
        return re.match(r"(typedef|enum|struct \w+ \{|class)", self.plain) is not None

    @property
    def name(self):
        """The name that is declared."""
        if self.is_type:
            match = re.search(r"\(\*(\w+)\)|\}\s*(\w+)\s*;|^(?:enum|struct|class)\s+(\w+)", self.plain)
        else:
            match = re.search(r"(operator\s*[=!<]+|~?\w+)\s*\(|(\w+)\s*(?:\[\w*\])?\s*;", self.plain)
        return next(group for group in match.groups() if group)

    @property
    def is_function(self):
        return not self.is_type and "(" in self.plain

    @property
    def result(self):
        return re.match(rf"(.*?)\s*{re.escape(self.name)}\s*\(", self.plain).group(1)

    @property
    def arguments(self):
        """The arguments as they stand."""
        inner = re.search(rf"{re.escape(self.name)}\s*\((.*)\)[^)]*;", self.plain).group(1).strip()
        parts, depth = [""], 0
        for char in inner:
            depth += {"(": 1, ")": -1}.get(char, 0)
            if char == "," and depth == 0:
                parts.append("")
            else:
                parts[-1] += char
        return [part.strip() for part in parts if part.strip() not in ("", "void")]

    @property
    def argument_names(self):
        return [re.search(r"\(\*(\w+)\)|(\w+)\s*(?:=\s*\w+)?$", argument) for argument in self.arguments]

    def names_of_arguments(self):
        return [next(g for g in match.groups() if g) for match in self.argument_names if match]


@dataclass
class Group:
    """A comment and what it is about: declarations, or nothing for one that stands alone."""
    comment: str
    declarations: list = field(default_factory=list)


@dataclass
class Section:
    title: str
    groups: list = field(default_factory=list)


@dataclass
class Header:
    name: str
    comment: str
    sections: list


def comment_text(raw):
    """The text between /* and */, without what stands in front of its lines."""
    lines = re.sub(r"^\s*/\*\s?|\s*\*/\s*$", "", raw.strip()).split("\n")
    return "\n".join([lines[0].rstrip(), *(re.sub(r"^\s*\*? ?", "", line, count=1).rstrip()
                                            for line in lines[1:])]).strip("\n")


NOISE = re.compile(r"^\s*(#.*|extern \"C\" \{|\}|namespace \w+ \{|\}  // namespace.*|public:)?$")


def pieces_of(text):
    """("comment"|"code"|"blank", text) for each piece of a header, in order."""
    lines = text.split("\n")
    while lines:
        line = lines.pop(0)
        if not line.strip():
            yield "blank", ""
        elif line.strip().startswith("/*"):
            while "*/" not in line:
                line += "\n" + lines.pop(0)
            yield "comment", line
        elif not NOISE.match(line):
            def unfinished(code):
                code = re.sub(r"/\*.*?\*/", "", code, flags=re.S)
                return "/*" in code or code.count("{") != code.count("}") or not code.rstrip().endswith(";")
            if re.match(r"class \w+", line):  # its members are declarations themselves
                continue
            while unfinished(line):
                line += "\n" + lines.pop(0)
            # A comment that goes on behind the declaration.
            yield "code", line


def parsed(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    text = re.sub(r"\n  private:.*?\n\};", "\n", text, flags=re.S)
    pieces = list(pieces_of(text))
    header = Header(path.name, comment_text(pieces.pop(0)[1]), [Section("")])
    group = None
    for kind, piece in pieces:
        title = re.match(r"\s*/\* -+ (.*?) -+ \*/", piece)
        if kind == "comment" and title:
            header.sections.append(Section(title.group(1)))
            group = None
        elif kind == "comment":
            group = Group(comment_text(piece))
            header.sections[-1].groups.append(group)
        elif kind == "blank":
            group = None
        else:
            if group is None:
                group = Group("")
                header.sections[-1].groups.append(group)
            group.declarations.append(Declaration(piece))
    return header
