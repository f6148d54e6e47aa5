"""Checks the output of --json against the schemas with an independent validator."""

import functools
import json
import os
import sys

BUILD = os.environ["TSMAIL_BUILD"]
DEBIAN = "/usr/lib/python3/dist-packages"  # where the validator is, whichever Python runs the tests


def strict(schema):
    """The schema, but with objects that allow no other fields. Later versions may show programs more fields;
    these tests must not meet any."""
    if isinstance(schema, list):
        return [strict(part) for part in schema]
    if not isinstance(schema, dict):
        return schema
    inner = {key: strict(part) for key, part in schema.items()}
    describes_fields = isinstance(schema.get("type"), str) and "properties" in schema
    # (Current validators treat the properties that a reference's "additionalProperties" allows as unevaluated.)
    any_field = schema.get("$ref") == "#/$defs/preferences"
    closed = ("$schema" in schema and not any_field) or describes_fields
    # A text that is not UTF-8 has its bytes in a second field.
    hexadecimal = {"_hex$": {"type": "string", "pattern": "^([0-9a-f][0-9a-f])+$"}}
    return {**inner, "patternProperties": hexadecimal, "unevaluatedProperties": False} if closed else inner


@functools.cache
def jsonschema():
    try:
        import jsonschema as module
    except ImportError:
        sys.path.append(DEBIAN)
        import jsonschema as module
    return module


@functools.cache
def validator(verb):
    path = os.path.join(BUILD, "docs/schema", verb.replace(" ", "-") + ".json")
    with open(path, encoding="utf-8") as file:
        schema = json.load(file)
    judge = jsonschema().Draft202012Validator
    judge.check_schema(schema)
    return judge(strict(schema))


@functools.cache
def grammar():
    with open(os.path.join(BUILD, "tools/grammar.json"), encoding="utf-8") as file:
        return json.load(file)


def takes_value(word, *verbs):
    return any(option["value"] and word in option["names"] for verb in verbs for option in verb["options"])


def verb_of(words):
    """The full name of the verb in a command line; "" if there is none. For --help it is "help"."""
    if not {"-h", "--help"}.isdisjoint(words):
        return "help"
    at, names, rest = grammar(), [], iter(words)
    for word in rest:
        if word.startswith("-"):
            if takes_value(word, at, grammar()):
                next(rest, None)
            continue
        at = next((verb for verb in at["verbs"] if verb["name"] == word), None)
        if at is None:
            return ""
        names.append(word)
        if not at["verbs"]:
            return " ".join(names)
    return ""


def check_shown(words, shown):
    """An AssertionError if a line of the output for this command line does not match its schema."""
    words = [os.fsdecode(word) for word in words]
    if "--json" not in words or "--version" in words:
        return
    verb = verb_of(words)
    for line in shown.splitlines(keepends=True):
        if line.endswith("\n"):  # a killed process may have cut its last line
            errors = list(validator(verb).iter_errors(json.loads(line)))
            assert not errors, f"tsmail {' '.join(words)}: {errors[0].message}: {line}"
