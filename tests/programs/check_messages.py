"""check_messages.py SCHEMA MESSAGES [DEFINITION [refused]]: validates each line of a file against a schema, or one of
its definitions. With "refused", each line must be one that the schema refuses."""
import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
if len(sys.argv) > 3:
    schema = {"$defs": schema["$defs"], "$ref": "#/$defs/" + sys.argv[3]}
refused = sys.argv[4:] == ["refused"]
validator = jsonschema.Draft202012Validator(schema)
mistakes = 0
count = 0
with open(sys.argv[2], encoding="utf-8") as file:
    for line in file:
        count += 1
        errors = list(validator.iter_errors(json.loads(line)))
        if refused and not errors:
            mistakes += 1
            print("not refused:", line.strip()[:300])
        for error in [] if refused else errors:
            mistakes += 1
            print(line.strip()[:300])
            for inner in [error, *sorted(error.context, key=lambda e: -len(e.absolute_path))[:8]]:
                print("   ", list(inner.absolute_path), inner.message[:200])
print(count, "messages")
sys.exit(1 if mistakes or not count else 0)
