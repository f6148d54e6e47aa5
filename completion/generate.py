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


def preference_keys(grammar):
    return next(a["words"] for name, verb in every_verb(grammar) for a in verb["arguments"]
                if name == "pref get" and "words" in a)


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


# The functions that offer what an argument of this name may be.
ZSH_ACTIONS = {"FILE": "_files", "SOURCE": "_files", "DIR": "_files", "--body-file": "_files", "ADDRESS": "_tsmail_any_addresses", "FOLDER": "_tsmail_any_folders",
               "--folder": "_tsmail_any_folders", "--to": "_tsmail_any_folders", "LIST": "_tsmail_any_lists", "--domain": "_tsmail_any_domains",
               "SETTING": "_tsmail_any_keys"}


def action(argument, verb=""):
    if "words" in argument:
        return "(" + " ".join(argument["words"]) + ")"
    name = argument["names"][-1]
    if name == "NAME" and verb.startswith("message"):
        return "_tsmail_any_messages"
    return ZSH_ACTIONS.get(name, "_tsmail_anything")


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
        lines.append(quoted(f"{place}{optional}:{described(argument['names'][0])}:{action(argument, name)}"))
    function = "_tsmail" + "".join("_" + part for part in name.replace("-", "_").split())
    if not verb["verbs"]:
        return (f"{function}() {{\n    local -a line\n    local -A opt_args\n    _arguments -s \\\n        "
                + " \\\n        ".join(lines) + "\n}\n")
    rows = " ".join(quoted(f"{v['name']}:{v['help']}") for v in verb["verbs"])
    lines += ["'1: :->verb'", "'*:: :->rest'"]
    return (f"{function}() {{\n    local state line context curcontext=$curcontext\n    local -a verbs\n"
            f"    verbs=({rows})\n    _arguments -s -C \\\n        " + " \\\n        ".join(lines) + "\n"
            f"    case $state in\n    verb) _describe verb verbs ;;\n"
            f"    rest) (( $+functions[{function}_${{words[1]//-/_}}] )) && {function}_${{words[1]//-/_}} ;;\n"
            f"    esac\n}}\n")


def zsh_help(grammar):
    """The function of "tsmail help", whose arguments are the verbs."""
    rows = "".join(f"    {quoted(name)}) compadd -- {' '.join(v['name'] for v in verb['verbs'])} ;;\n"
                   for name, verb in every_verb(grammar) if verb["verbs"])
    return f'_tsmail_help() {{\n    case "${{words[2,CURRENT-1]}}" in\n{rows}    esac\n}}\n'


def zsh_tables(grammar):
    functions = [zsh_help(grammar) if name == "help" else zsh_function(name, verb, grammar["options"])
                 for name, verb in reversed(list(every_verb(grammar)))]
    return {"FUNCTIONS": "\n".join(functions), "KEYS": " ".join(preference_keys(grammar))}


# ---- fish ------------------------------------------------------------------------------------------

FISH_ANSWERS = {"ADDRESS": "(__tsmail_addresses)", "FOLDER": "(__tsmail_folders)", "--folder": "(__tsmail_folders)",
                "--to": "(__tsmail_folders)",
                "LIST": "(__tsmail_lists)", "--domain": "(__tsmail_domains)", "SETTING": "(__tsmail_keys)"}


def fish_quoted(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish_answer(argument, verb):
    """What stands for an argument: words, a call, or "" for a file, None for what only the user knows."""
    name = argument["names"][-1]
    if "words" in argument:
        return " ".join(argument["words"])
    if name == "NAME" and verb.startswith("message"):
        return "(__tsmail_messages)"
    return "" if name in ("FILE", "SOURCE", "DIR", "--body-file") else FISH_ANSWERS.get(name)


def fish_words(argument, verb):
    """The options of "complete" that offer what an argument may be."""
    answer = fish_answer(argument, verb)
    if answer == "":
        return " -F"
    return " -f" + (f" -a {fish_quoted(answer)}" if answer else "")


def fish_option(condition, option, verb):
    names = "".join(f" -l {name[2:]}" if name.startswith("--") else f" -s {name[1:]}" for name in option["names"])
    value = " -r" + fish_words(option, verb) if option["value"] else ""
    return f"complete -c tsmail{condition}{names}{value} -d {fish_quoted(option['help'])}"


def fish_lines(name, verb):
    path = f" {name}" if name else ""
    for option in verb["options"]:
        if name == "" or "--help" not in option["names"]:
            yield fish_option(f" -n '__tsmail_in{path}'" if name else "", option, name)
    for below in verb["verbs"]:
        yield (f"complete -c tsmail -n '__tsmail_at 0 0{path}' -f -a {below['name']} "
               f"-d {fish_quoted(below['help'])}")
        yield f"complete -c tsmail -n '__tsmail_at 1 0 help{path}' -f -a {below['name']} -d {fish_quoted(below['help'])}"
    for place, argument in enumerate(verb["arguments"] if name != "help" else []):
        last = 1 if argument["many"] else 0
        if fish_answer(argument, name) is not None:
            yield f"complete -c tsmail -n '__tsmail_at {place} {last}{path}'{fish_words(argument, name)}"


def fish_tables(grammar):
    values = [name for _, verb in every_verb(grammar) for option in verb["options"] if option["value"]
              for name in option["names"]]
    lines = [line for name, verb in every_verb(grammar) for line in fish_lines(name, verb)]
    return {"LINES": "\n".join(lines), "VALUES": " ".join(sorted(set(values))),
            "KEYS": " ".join(f"{key}=" for key in preference_keys(grammar))}


def main(grammar, template):
    tree = json.loads(pathlib.Path(grammar).read_text(encoding="utf-8"))
    text = pathlib.Path(template).read_text(encoding="utf-8")
    made = {"tsmail.bash.in": bash_tables, "_tsmail.in": zsh_tables, "tsmail.fish.in": fish_tables}
    tables = made[pathlib.Path(template).name](tree)
    for name, table in tables.items():
        text = text.replace(f"@{name}@", table)
    sys.stdout.write(text)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
