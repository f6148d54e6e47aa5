#!/usr/bin/env python3
"""comments.py INCLUDE OUT [PARSER] - makes the docstrings: what the headers in INCLUDE/tessaly say
about each name, as a C++ table in the file OUT.

PARSER is the folder that holds headers.py, which the manual pages are made with, too; without it
the one of this checkout.
"""

import pathlib
import sys

HEADERS = ("MailUserId.h", "mailstore.h", "userpref.h", "maillist.h")


def key(header, declaration):
    """Under which name a declaration is found: members have their class in front."""
    is_member = header == "MailUserId.h" and not declaration.is_type
    return ("TSMailUserId::" if is_member else "") + declaration.name


def comments(include, headers):
    """{name: comment}; what overloads say is joined."""
    found = {}
    for name in HEADERS:
        for section in headers.parsed(include / "tessaly" / name).sections:
            for group in section.groups:
                for declaration in group.declarations:
                    texts = found.setdefault(key(name, declaration), [])
                    if group.comment and group.comment not in texts:
                        texts.append(group.comment)
    return {name: "\n\n".join(texts) for name, texts in found.items()}


def table(found):
    rows = "".join(f'    {{"{name}", R"comment({text})comment"}},\n' for name, text in sorted(found.items()))
    return ("// Made from the headers by comments.py.\n"
            "struct Comment {\n    std::string_view name;\n    const char* text;\n};\n\n"
            f"inline constexpr Comment kComments[] = {{\n{rows}}};\n")


def main(include, out, parser=pathlib.Path(__file__).resolve().parent.parent / "docs/man"):
    sys.path.insert(0, str(parser))
    import headers  # pylint: disable=import-outside-toplevel
    text = table(comments(pathlib.Path(include), headers))
    pathlib.Path(out).write_text(text, encoding="utf-8")


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    main(*sys.argv[1:])
