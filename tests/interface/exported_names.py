#!/usr/bin/env python3
"""exported_names.py - the names that a library exports are exactly those that its headers declare.

usage: exported_names.py LIBRARY... -- HEADER...

Prints what is missing on either side. Exits with 1 if there is a difference.
"""
import re
import subprocess
import sys

TOOLCHAIN_SYMBOLS = re.compile(r"^(TSMAIL_\d+|__gcov\w*|__asan\w*|__ubsan\w*|__tsan\w*|_init|_fini)$")


def strip(text):
    text = re.sub(r"/\*.*?\*/", " ", text, flags=re.S)
    text = re.sub(r"//[^\n]*", " ", text)
    return re.sub(r"^\s*#.*$", " ", text, flags=re.M)


def body_removed(text, opening):
    """The text with each `opening {...};` cut out, and the bodies."""
    bodies = []
    while True:
        match = re.search(opening, text)
        if not match:
            return text, bodies
        depth, end = 1, match.end()
        while depth:
            depth += {"{": 1, "}": -1}.get(text[end], 0)
            end += 1
        bodies.append((match, text[match.end():end - 1]))
        text = text[:match.start()] + text[end:]


def declared_name(declaration):
    """The name that a declaration introduces, or None."""
    match = re.search(r"(operator\s*[=!<]+|~?\w+)\s*\(", declaration)
    if match:
        return re.sub(r"\s", "", match.group(1))
    match = re.search(r"(\w+)\s*(\[\w*\])?\s*$", declaration)
    return match.group(1) if match else None


def class_members(name, body):
    public = re.split(r"\bprivate\s*:", body)[0].replace("public:", "")
    public = re.sub(r"\{[^{}]*\}", ";", public)
    for declaration in filter(None, map(str.strip, public.split(";"))):
        if "= default" in declaration:
            continue
        yield f"Tessaly::{name}::{declared_name(declaration)}"


def declared(header):
    text = strip(open(header, encoding="utf-8").read())
    text, _ = body_removed(text, r"\benum\s+\w*\s*(:\s*[\w:]+\s*)?\{")
    text, classes = body_removed(text, r"\bclass\s+(\w+)[^;{]*\{")
    text, _ = body_removed(text, r"\bstruct\s+\w*\s*\{")
    text = re.sub(r'extern\s+"C"\s*\{|namespace\s+\w+\s*\{|\}', " ", text)
    for match, body in classes:
        yield from class_members(match.group(1), body)
    for declaration in map(str.strip, text.split(";")):
        if declaration and not declaration.startswith("typedef"):
            name = declared_name(declaration)
            if name:
                yield name


def exported(library):
    lines = subprocess.run(["nm", "-DC", "--defined-only", library], check=True,
                           capture_output=True, text=True).stdout.splitlines()
    for line in lines:
        name = line.split(maxsplit=2)[2]
        name = re.sub(r"^(vtable|typeinfo|typeinfo name) for .*", "", name)  # of a declared class
        name = re.sub(r"@.*|\[abi:\w+\]", "", name)
        name = re.sub(r"(?<!operator)\(.*", "", name)
        if name and not TOOLCHAIN_SYMBOLS.match(name):
            yield name


def main(words):
    cut = words.index("--")
    have = {name for library in words[:cut] for name in exported(library)}
    want = {name for header in words[cut + 1:] for name in declared(header)}
    for name in sorted(want - have):
        print(f"declared, not exported: {name}")
    for name in sorted(have - want):
        print(f"exported, not declared: {name}")
    print(f"{len(have & want)} names agree")
    return 0 if have == want and have else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
