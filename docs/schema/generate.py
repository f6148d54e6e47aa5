#!/usr/bin/env python3
"""generate.py VERBS OUT - makes a JSON Schema for each verb of the command.

VERBS is verbs.json, where they stand together; OUT/list-add.json is the one of "tsmail list add", with
nothing in it to be looked for elsewhere.
"""

import json
import pathlib
import re
import sys

DIALECT = "https://json-schema.org/draft/2020-12/schema"


def used(schema, defs):
    """The names of the definitions that a schema refers to, and those refer to."""
    found, new = set(), set(references(schema))
    while new:
        found |= new
        new = {name for known in new for name in references(defs[known])} - found
    return found


def references(schema):
    return re.findall(r'"#/\$defs/(\w+)"', json.dumps(schema))


def complete(verb, schema, defs):
    """A verb's schema as a document of its own."""
    head = {"$schema": DIALECT, "title": f"tsmail {verb}"}
    if schema is False:
        return {**head, "description": f'"tsmail --json {verb}" shows nothing.', "not": {}}
    names = used(schema, defs)
    return {**head, "description": f'A line that "tsmail --json {verb}" shows.', **schema,
            **({"$defs": {name: defs[name] for name in defs if name in names}} if names else {})}


def file_name(verb):
    return verb.replace(" ", "-") + ".json"


def main(verbs, out):
    data, out = json.loads(pathlib.Path(verbs).read_text(encoding="utf-8")), pathlib.Path(out)
    out.mkdir(parents=True, exist_ok=True)
    for old in out.glob("*.json"):
        old.unlink()
    for verb, schema in data["verbs"].items():
        text = json.dumps(complete(verb, schema, data["$defs"]), indent=2)
        (out / file_name(verb)).write_text(text + "\n", encoding="utf-8")


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(*sys.argv[1:])
