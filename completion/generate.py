#!/usr/bin/env python3
"""generate.py GRAMMAR TEMPLATE - fills a completion script from the grammar of the command.

GRAMMAR is the output of "tsmail --help --json". The result goes to standard output.
"""

import json
import pathlib
import sys


def is_option(argument):
    return argument["names"][0].startswith("-")


def every_verb(verb, name=""):
    """(full name, verb) of the command ("") and all its verbs, groups first."""
    yield name, verb
    for below in verb["verbs"]:
        yield from every_verb(below, f"{name} {below['name']}".strip())


def names_of(options):
    return [name for option in options for name in option["names"]]


# ---- bash ------------------------------------------------------------------------------------------

def bash_tables(grammar):
    verbs, words, values = [], [], []
    for name, verb in every_verb(grammar):
        arguments = [a["names"][0] + ("..." if a["many"] else "") for a in verb["arguments"]]
        verbs.append(f"    '{name}')\n"
                     f"        verbs='{' '.join(v['name'] for v in verb['verbs'])}'\n"
                     f"        options='{' '.join(names_of(verb['options']))}'\n"
                     f"        arguments='{' '.join(arguments)}' ;;")
        for argument in [*verb["options"], *verb["arguments"]]:
            patterns = " | ".join(f"'{name}:{n}'" for n in argument["names"])
            if "words" in argument:
                words.append(f"    {patterns}) printf '%s\\n' {' '.join(argument['words'])} ;;")
            if is_option(argument) and argument["value"]:
                values.append(f"    {patterns}) ;;")
    return {"VERBS": "\n".join(verbs), "WORDS": "\n".join(words), "VALUES": "\n".join(values),
            "COMMON": " ".join(names_of(grammar["options"]))}


# ---- zsh -------------------------------------------------------------------------------------------

def quoted(text):
    return "'" + text.replace("'", "'\\''") + "'"


def described(text):
    """A text within a word for _arguments."""
    return "".join("\\" + c if c in "[]:\\" else c for c in text)


def action(argument):
    if "words" in argument:
        return "(" + " ".join(argument["words"]) + ")"
    name = argument["names"][-1]
    if name == "FILE" or name.endswith("-file"):
        return "_files"
    return "_tsmail_addresses" if name == "ADDRESS" else "_tsmail_anything"


def zsh_option(option):
    for name in option["names"]:
        text = f"{name}[{described(option['help'])}]"
        yield quoted(text + (f":value:{action(option)}" if option["value"] else ""))


def zsh_function(name, verb, common):
    options = [o for o in verb["options"] if name == "" or "--help" not in o["names"]]
    lines = [spec for option in [*options, *(common if name else [])] for spec in zsh_option(option)]
    for number, argument in enumerate(verb["arguments"], 1):
        place = "*" if argument["many"] else str(number)
        optional = "" if argument["required"] or argument["many"] else ":"
        lines.append(quoted(f"{place}{optional}:{described(argument['names'][0])}:{action(argument)}"))
    function = "_tsmail" + "".join("_" + part for part in name.replace("-", "_").split())
    if not verb["verbs"]:
        return f"{function}() {{\n    _arguments -s \\\n        " + " \\\n        ".join(lines) + "\n}\n"
    rows = " ".join(quoted(f"{v['name']}:{v['help']}") for v in verb["verbs"])
    lines += ["'1: :->verb'", "'*:: :->rest'"]
    return (f"{function}() {{\n    local state line context curcontext=$curcontext\n    local -a verbs\n"
            f"    verbs=({rows})\n    _arguments -s -C \\\n        " + " \\\n        ".join(lines) + "\n"
            f"    case $state in\n    verb) _describe verb verbs ;;\n"
            f"    rest) (( $+functions[{function}_${{words[1]//-/_}}] )) && {function}_${{words[1]//-/_}} ;;\n"
            f"    esac\n}}\n")


def zsh_tables(grammar):
    return {"FUNCTIONS": "\n".join(zsh_function(name, verb, grammar["options"])
                                   for name, verb in reversed(list(every_verb(grammar))))}


def main(grammar, template):
    tree = json.loads(pathlib.Path(grammar).read_text(encoding="utf-8"))
    text = pathlib.Path(template).read_text(encoding="utf-8")
    tables = bash_tables(tree) if template.endswith(".bash.in") else zsh_tables(tree)
    for name, table in tables.items():
        text = text.replace(f"@{name}@", table)
    sys.stdout.write(text)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
