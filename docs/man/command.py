"""command.py - the pages of the command: tsmail(1), and one for each verb and each group of verbs.

Made from the grammar ("tsmail --help --json"), docs/man/tsmail.md, docs/schema/verbs.json and the exit
codes in tools/cli/failure.h.
"""

import json
import re

import mdoc

# What every verb may end with; those of ADDRESS only where a mailbox is worked in.
CODES_OF_ALL = ("0", "64", "70", "74", "75")
CODES_OF_MAILBOXES = ("65", "67", "73")


def leaves(grammar, name=""):
    """(full name, verb) of each verb that does something, in the order of the help."""
    for full, verb in every_verb(grammar, name):
        if not verb["verbs"]:
            yield full, verb


def every_verb(grammar, name=""):
    """(full name, verb) of each verb, a group before its own."""
    for verb in grammar["verbs"]:
        full = f"{name} {verb['name']}".strip()
        yield full, verb
        yield from every_verb(verb, full)


def page_of(name):
    return "tsmail-" + name.replace(" ", "-")


def documented_verbs(text):
    """{full name: Markdown} of tsmail.md's sections, and {"": what stands in front of them}."""
    parts = re.split(r"^## (.*)\n", text, flags=re.M)
    return {"": re.sub(r"\A# .*\n", "", parts[0]), **dict(zip(parts[1::2], parts[2::2]))}


def parts_of(text):
    """A verb's section: {heading: Markdown}; "" is what stands in front of the first heading."""
    parts = re.split(r"^### (.*)\n", text, flags=re.M)
    return {"": parts[0], **dict(zip(parts[1::2], parts[2::2]))}


# ---- arguments -------------------------------------------------------------------------------------

def one_argument(argument):
    """An argument in a synopsis: .Op Fl -name Ar value."""
    if argument["names"][0].startswith("-"):
        flag = max(argument["names"], key=len)
        text = f"Fl {flag[1:]}" + (" Ar " + value_name(argument) if argument["value"] else "")
    else:
        text = "Ar " + argument["names"][0] + (" ..." if argument["many"] else "")
    return f".{text}" if argument["required"] else f".Op {text}"


def value_name(argument):
    return max(argument["names"], key=len).lstrip("-").rsplit("-", 1)[-1].upper()


def without_help(arguments):
    return [a for a in arguments if "--help" not in a["names"]]


def argument_items(arguments):
    out = []
    for argument in without_help(arguments):
        if argument["names"][0].startswith("-"):
            flags = " , ".join(f"Fl {name[1:]}" for name in argument["names"])
            out.append(f".It {flags}" + (f" Ar {value_name(argument)}" if argument["value"] else ""))
        else:
            out.append(f".It Ar {argument['names'][0]}" + (" ..." if argument["many"] else ""))
        out += mdoc.filled(mdoc.marked(argument["help"] + "."))
        if "words" in argument:
            out += mdoc.filled("One of " + ", ".join(argument["words"]) + ".")
    return [".Bl -tag -width Ds", *out, ".El"] if out else []


# ---- fields of --json ------------------------------------------------------------------------------

def resolved(schema, defs):
    """A schema with what it refers to."""
    if "$ref" not in schema:
        return schema
    other = resolved(defs[schema["$ref"].rsplit("/", 1)[-1]], defs)
    return {**other, **{key: value for key, value in schema.items() if key not in ("$ref", "properties")}}


TYPES = {"string": "a text", "integer": "a number", "boolean": "true or false", "array": "an array",
         "object": "an object", "null": "null"}


def type_text(schema):
    if "enum" in schema:
        return " or ".join(f'"{word}"' for word in schema["enum"])
    types = schema["type"] if isinstance(schema["type"], list) else [schema["type"]]
    return " or ".join(TYPES[t] for t in types)


def field_items(schema, defs):
    out = [".Bl -tag -width Ds"]
    for name, field in schema["properties"].items():
        field = resolved(field, defs)
        out += [f".It Va {name} , No {mdoc.escaped(type_text(field))}",
                *mdoc.filled(mdoc.marked(field["description"][0].upper() + field["description"][1:] + "."))]
    return [*out, ".El"]


def field_section(schema, defs):
    if schema is False:
        return ["Nothing is shown."]
    out = mdoc.filled(mdoc.marked("With `--json` each result is an object on a line of its own. Its fields:"))
    for number, form in enumerate(resolved(s, defs) for s in schema.get("oneOf", schema.get("anyOf", [schema]))):
        if number:
            out += [".Pp", *mdoc.filled(mdoc.marked(f"{form['title']}:"))]
        if "properties" in form:
            out += field_items(form, defs)
        else:
            out = mdoc.filled("An object with a field for each preference, a text, a number, or true or false.")
    return out


# ---- exit codes ------------------------------------------------------------------------------------

def exit_codes(source):
    """The rows of the enumeration ExitCode: (number, what)."""
    text = (source / "tools/cli/failure.h").read_text(encoding="utf-8")
    return re.findall(r"^    k\w+ = (\d+),\s*(?://\s*(.*))?$", text, re.M)


def codes_of_verb(verb, own, codes):
    """{number: what} of a verb: the general ones, and over them what its own table says; "-" is never."""
    works_in_mailboxes = any("ADDRESS" in a["names"] for a in verb["arguments"])
    wanted = [*CODES_OF_ALL, *(CODES_OF_MAILBOXES if works_in_mailboxes else ())]
    found = {number: what or "done" for number, what in codes if number in wanted}
    for row in re.findall(r"^\| ([0-9, ]+) \| (.*) \|$", own, re.M):
        for number in row[0].split(", "):
            found[number] = row[1]
    return {n: what for n, what in sorted(found.items(), key=lambda row: int(row[0])) if what != "-"}


def code_section(codes):
    out = [".Sh EXIT STATUS", ".Bl -tag -width Ds -compact"]
    for number, what in codes.items():
        out += [f".It {number}", *mdoc.filled(mdoc.marked(what))]
    return [*out, ".El"]


# ---- pages -----------------------------------------------------------------------------------------

def purpose(verb):
    return verb["help"][0].lower() + verb["help"][1:]


def also_of(name, names, text):
    """What a verb's page refers to: what its text names, and the verbs of its group."""
    named = re.findall(r"`([\w.-]+)\((\d)\)`", text)
    group = name.rpartition(" ")[0]
    siblings = [page_of(n) for n in names if group and n.rpartition(" ")[0] == group and n != name]
    return sorted({"tsmail 1", *(f"{n} {s}" for n, s in named if n != page_of(name)), *(f"{n} 1" for n in siblings)})


def verb_page(name, verb, text, schema, codes, see_also):
    parts = parts_of(text)
    options = without_help(verb["options"])
    return [".Sh SYNOPSIS", f".Nm tsmail {name}",
            *(one_argument(a) for a in [*options, *verb["arguments"]]),
            ".Sh DESCRIPTION", *mdoc.filled(mdoc.marked(verb["help"] + ".")),
            *([".Pp", *mdoc.converted(parts[""])] if parts[""].strip() else []),
            *([".Pp", "Arguments and options:", *argument_items([*verb["arguments"], *options])]
              if verb["arguments"] or options else []),
            ".Pp", *mdoc.filled(mdoc.marked("`--json`, `--quiet` and `--verbose` are those of `tsmail(1)`.")),
            ".Sh JSON", *field_section(schema["verbs"][name], schema["$defs"]),
            *code_section(codes), ".Sh EXAMPLES", *mdoc.converted(parts["Examples"]), *see_also]


def verb_list(rows):
    out = [".Bl -tag -width Ds -compact"]
    for name, verb in rows:
        out += [f".It Xr {page_of(name)} 1", *mdoc.filled(verb["help"] + ".")]
    return [*out, ".El"]


def overview(grammar, texts, codes, see_also):
    common = without_help(grammar["options"])
    return [".Sh SYNOPSIS", ".Nm", ".Op Fl -json", ".Op Fl q", ".Op Fl v", ".Ar VERB", ".Op Ar ARGUMENT ...", ".Nm",
            ".Fl -help | -version", ".Sh DESCRIPTION", *mdoc.converted(texts[""]), ".Ss Options of all verbs",
            *argument_items(common), ".Ss Verbs",
            *mdoc.filled(mdoc.marked("Each has a page of its own, which `tsmail help VERB` shows.")),
            *verb_list(leaves(grammar)), *mdoc.converted(texts["Environment and files"], ".Sh"),
            *code_section({number: what or "done" for number, what in codes}),
            *mdoc.converted(texts["Examples"], ".Sh"), *see_also]


def pages(source, grammar, see_also):
    """(name, purpose, body) of each page of section 1."""
    texts = documented_verbs((source / "docs/man/tsmail.md").read_text(encoding="utf-8"))
    schema = json.loads((source / "docs/schema/verbs.json").read_text(encoding="utf-8"))
    codes, names = exit_codes(source), [name for name, _ in leaves(grammar)]
    formats = ["tsmail-folders 5", "tsmail-size-records 5", "tsmail-quota 5", "tsmail-preferences 5",
               "tsmail-lists 5", "tsmail.toml 5"]
    yield ("tsmail", purpose({"help": grammar["help"].rstrip(".")}),
           overview(grammar, texts, codes, see_also(["libtsmail 3", *formats])))
    for name, verb in every_verb(grammar):
        if verb["verbs"]:
            rows = [(n, v) for n, v in leaves(grammar) if n.startswith(f"{name} ")]
            body = [".Sh SYNOPSIS", f".Nm tsmail {name}", ".Ar VERB", ".Op Ar ARGUMENT ...", ".Sh DESCRIPTION",
                    *mdoc.filled(verb["help"] + ":"), *verb_list(rows), *see_also(["tsmail 1"])]
        else:
            own = codes_of_verb(verb, parts_of(texts[name]).get("Exit status", ""), codes)
            body = verb_page(name, verb, texts[name], schema, own, see_also(also_of(name, names, texts[name])))
        yield page_of(name), purpose(verb), body
