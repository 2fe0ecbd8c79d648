#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Validates the documents on standard input, one after the other, against a schema. Each of them must
also be refused with a member left out or added anywhere, so that the schema says something.

usage: validate.py SCHEMA"""
import copy
import json
import sys

import jsonschema

# Members that may be missing: only list and show give a snapshot's disk_bytes.
OPTIONAL = {"disk_bytes"}


def objects(value):
    if isinstance(value, dict):
        yield value
    for child in value.values() if isinstance(value, dict) else value if isinstance(value, list) else []:
        yield from objects(child)


def broken(document):
    """Copies of the document, each with one fault, and what the fault is."""
    for number, original in enumerate(objects(document)):
        for change in [*original, None]:
            faulty = copy.deepcopy(document)
            target = list(objects(faulty))[number]
            if change is None:
                target["unknown"] = 1
            elif change not in OPTIONAL:
                del target[change]
            else:
                continue
            yield faulty, f"{change or 'an unknown member'} of object {number}"


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        schema = json.load(file)
    jsonschema.Draft202012Validator.check_schema(schema)
    validator = jsonschema.Draft202012Validator(schema)
    decoder = json.JSONDecoder()
    text = sys.stdin.read().strip()
    count = 0
    while text:
        document, end = decoder.raw_decode(text)
        text = text[end:].strip()
        count += 1
        for error in validator.iter_errors(document):
            sys.exit(f"{json.dumps(document, indent=1)}\n{error.message}\n{error.context}")
        for faulty, fault in broken(document):
            if validator.is_valid(faulty):
                sys.exit(f"{json.dumps(document, indent=1)}\nis valid, too, with this fault: {fault}")
    print(count)


main()
