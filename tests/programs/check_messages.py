"""check_messages.py SCHEMA MESSAGES: validates each line of a file against the schema of the gateway's protocol."""
import json
import sys

import jsonschema

with open(sys.argv[1], encoding="utf-8") as file:
    schema = json.load(file)
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
mistakes = 0
count = 0
with open(sys.argv[2], encoding="utf-8") as file:
    for line in file:
        count += 1
        for error in validator.iter_errors(json.loads(line)):
            mistakes += 1
            print(line.strip()[:300])
            for inner in [error, *sorted(error.context, key=lambda e: -len(e.absolute_path))[:8]]:
                print("   ", list(inner.absolute_path), inner.message[:200])
print(count, "messages")
sys.exit(1 if mistakes or not count else 0)
