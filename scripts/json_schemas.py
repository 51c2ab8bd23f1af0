#!/usr/bin/env python3
"""The schemas of docs/json: what the programs print with --json.

    json_schemas.py update              writes docs/json.md, the same for people
    json_schemas.py check               status 1 when docs/json.md is not current, or a schema is not sound
    json_schemas.py validate NAME       reads JSON, one object a line or one in all, and compares it with the schema

Knows the keywords that the schemas use. One that it does not know is an error, so that nothing is said which is
not checked.
"""

import ipaddress
import json
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SCHEMAS = os.path.join(ROOT, "docs", "json")
PAGE = os.path.join(ROOT, "docs", "json.md")
COMMON = "common.json"
# In the order of the page.
NAMES = ["ruk-info", "ruk-info-doctor", "ruk-info-stats", "ruk-top", "ruk-recv", "ruk-recv-stats", "ruk-send", "ruk-ping",
         "ruk-accept", "ruk-bench", "rukrun-stats"]
KEYWORDS = {"$schema", "$defs", "$ref", "title", "description", "type", "properties", "required", "items",
            "additionalProperties", "enum", "pattern", "format", "minimum", "maximum", "minLength", "minItems",
            "maxProperties", "oneOf", "allOf", "dependentRequired"}
HEAD = """# JSON output

What the programs print with `--json`: one object a line ("ruk-accept -o" and "ruk-bench" write one over several
lines), UTF-8. Times are nanoseconds since 1970, 0 when unknown. The schemas are in [`docs/json`](json); this page is made
of them by `scripts/json_schemas.py update`, and the tests hold what the programs print against them.

Members may be added in later releases, and values to those lists that name checks, probes and reasons; what is listed
stays. Read past what you do not know. The schemas tell exactly what their own release prints and refuse anything else
(`additionalProperties` is false): validate with those of the installed release.
"""

loaded = {}


def load(file):
    if file not in loaded:
        with open(os.path.join(SCHEMAS, file), encoding="utf-8") as source:
            loaded[file] = json.load(source)
    return loaded[file]


def resolve(reference, file):
    """The schema that a $ref means, and the file that it is in."""
    where, pointer = reference.split("#/")
    file = where or file
    schema = load(file)
    for step in pointer.split("/"):
        schema = schema[step]
    return schema, file


def is_type(value, name):
    number = isinstance(value, (int, float)) and not isinstance(value, bool)
    return {"object": isinstance(value, dict), "array": isinstance(value, list), "string": isinstance(value, str),
            "boolean": isinstance(value, bool), "null": value is None, "number": number,
            "integer": number and value == int(value)}[name]


def is_address(text):
    try:
        return bool(ipaddress.IPv4Address(text))
    except ValueError:
        return False


def faults_of_object(value, schema, file, path):
    for name in schema.get("required", []):
        if name not in value:
            yield f"{path}: '{name}' is missing"
    for name, others in schema.get("dependentRequired", {}).items():
        yield from (f"{path}: '{name}' without '{other}'" for other in others if name in value and other not in value)
    if len(value) > schema.get("maxProperties", len(value)):
        yield f"{path}: {len(value)} members"
    known = schema.get("properties", {})
    surplus = schema.get("additionalProperties", True)
    for name, member in value.items():
        if name in known:
            yield from faults(member, known[name], file, f"{path}.{name}")
        elif surplus is False:
            yield f"{path}: '{name}' is not in the schema"
        elif surplus is not True:
            yield from faults(member, surplus, file, f"{path}.{name}")


def faults(value, schema, file, path="$"):
    """What of a value is not as the schema has it, in words."""
    unknown = set(schema) - KEYWORDS
    if unknown:
        yield f"{path}: the schema has keywords that nothing checks: {sorted(unknown)}"
    if "$ref" in schema:
        other, other_file = resolve(schema["$ref"], file)
        yield from faults(value, other, other_file, path)
    for part in schema.get("allOf", []):
        yield from faults(value, part, file, path)
    if "oneOf" in schema:
        tried = [list(faults(value, part, file, path)) for part in schema["oneOf"]]
        if sum(not found for found in tried) != 1:
            nearest = min(tried, key=len)
            yield f"{path}: not one of the alternatives; the nearest lacks: {'; '.join(nearest) or 'unambiguity'}"
    types = schema.get("type", [])
    types = [types] if isinstance(types, str) else types
    if types and not any(is_type(value, name) for name in types):
        yield f"{path}: {json.dumps(value)} is no {' or '.join(types)}"
        return
    if "enum" in schema and value not in schema["enum"]:
        yield f"{path}: {json.dumps(value)} is none of {schema['enum']}"
    if isinstance(value, str):
        if "pattern" in schema and not re.search(schema["pattern"], value):
            yield f"{path}: {value!r} does not match {schema['pattern']}"
        if schema.get("format") == "ipv4" and not is_address(value):
            yield f"{path}: {value!r} is no IPv4 address"
        if len(value) < schema.get("minLength", 0):
            yield f"{path}: too short"
    if is_type(value, "number") and not schema.get("minimum", value) <= value <= schema.get("maximum", value):
        yield f"{path}: {value} is out of bounds"
    if isinstance(value, list):
        if len(value) < schema.get("minItems", 0):
            yield f"{path}: too few elements"
        for i, element in enumerate(value):
            yield from faults(element, schema.get("items", {}), file, f"{path}[{i}]")
    if isinstance(value, dict):
        yield from faults_of_object(value, schema, file, path)


def documents(text):
    """The objects of a text: one in all, or one a line."""
    try:
        return [json.loads(text)]
    except json.JSONDecodeError:
        return [json.loads(line) for line in text.splitlines()]


def validate(name, text):
    found = documents(text)
    wrong = [fault for document in found for fault in faults(document, load(f"{name}.json"), f"{name}.json")]
    if not found:
        wrong.append("nothing to compare")
    for fault in wrong:
        print(f"{name}: {fault}")
    return 1 if wrong else 0


# ------------------------------------------------------------------ soundness of the schemas

def subschemas(schema, path):
    yield schema, path
    for key in ("properties", "$defs"):
        for name, sub in schema.get(key, {}).items():
            yield from subschemas(sub, f"{path}.{name}")
    for key in ("items", "additionalProperties"):
        if isinstance(schema.get(key), dict):
            yield from subschemas(schema[key], f"{path}.{key}")
    for key in ("oneOf", "allOf"):
        for i, sub in enumerate(schema.get(key, [])):
            yield from subschemas(sub, f"{path}.{key}[{i}]")


def unsound(file):
    for schema, path in subschemas(load(file), file):
        if set(schema) - KEYWORDS:
            yield f"{path}: unknown keywords {sorted(set(schema) - KEYWORDS)}"
        if "$ref" in schema:
            resolve(schema["$ref"], file)
        known = schema.get("properties")
        if known is not None and schema.get("additionalProperties") is False:
            strange = set(schema.get("required", [])) - set(known)
            if strange:
                yield f"{path}: requires what it does not have: {sorted(strange)}"
        if "enum" not in schema and known and schema.get("type") == "object" and "additionalProperties" not in schema:
            yield f"{path}: says nothing of other members"


# ------------------------------------------------------------------ the page

def kind(schema, file):
    """Type of a member in words, and the objects that it consists of."""
    if "$ref" in schema:
        other, other_file = resolve(schema["$ref"], file)
        if "properties" in other:
            name = schema["$ref"].rsplit("/", 1)[1]
            return f"[{name}](#{name})" if other_file == COMMON else name, [(name, other, other_file)]
        return kind(other, other_file)
    if "oneOf" in schema:
        words, objects = zip(*[kind(part, file) for part in schema["oneOf"]])
        return " or ".join(words), sum(objects, [])
    if schema.get("type") == "array":
        word, objects = kind(schema["items"], file)
        return f"array of {word}", objects
    if "enum" in schema:
        return ", ".join(json.dumps(value) for value in schema["enum"]), []
    if "additionalProperties" in schema and "properties" not in schema:
        return "object of numbers", []
    types = schema["type"]
    return types if isinstance(types, str) else " or ".join(types), []


def table(schema, file):
    lines, objects = ["| member | type | meaning |", "|---|---|---|"], []
    for name, member in schema["properties"].items():
        word, inside = kind(member, file)
        objects += inside
        optional = "" if name in schema.get("required", []) else ", optional"
        lines.append(f"| `{name}` | {word}{optional} | {member.get('description', '')} |")
    return "\n".join(lines) + "\n", objects


def sections(schema, file, done):
    """The table of a schema, and those of its own objects."""
    text, objects = table(schema, file)
    for name, inside, inside_file in objects:
        if inside_file != file or name in done:
            continue
        done.add(name)
        text += f"\n**{name}**: {inside['description']}\n\n" + sections(inside, file, done)
    return text


def page():
    text = HEAD
    for name in NAMES:
        schema = load(f"{name}.json")
        title = schema["title"]
        text += f"\n## {title}\n\n[`{name}.json`](json/{name}.json)\n\n" + sections(schema, f"{name}.json", set())
    text += "\n## Shared objects\n\n[`common.json`](json/common.json)\n"
    for name, schema in load(COMMON)["$defs"].items():
        if "properties" in schema and name != "spread":
            text += f"\n### {name}\n\n{schema['description']}.\n\n" + table(schema, COMMON)[0]
    return text


def main():
    if sys.argv[1:] == ["update"]:
        with open(PAGE, "w", encoding="utf-8") as out:
            out.write(page())
    elif sys.argv[1:] == ["check"]:
        wrong = [fault for name in [*NAMES, "common"] for fault in unsound(f"{name}.json")]
        if sorted(os.listdir(SCHEMAS)) != sorted([f"{name}.json" for name in NAMES] + [COMMON]):
            wrong.append("docs/json holds other files than this script knows")
        with open(PAGE, encoding="utf-8") as present:
            if present.read() != page():
                wrong.append("docs/json.md is not current: scripts/json_schemas.py update")
        for fault in wrong:
            print(fault)
        return 1 if wrong else 0
    elif len(sys.argv) == 3 and sys.argv[1] == "validate":
        return validate(sys.argv[2], sys.stdin.read())
    else:
        sys.exit(__doc__)
    return 0


if __name__ == "__main__":
    sys.exit(main())
