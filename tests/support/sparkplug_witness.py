"""Decodes and encodes messages of Sparkplug B with Python's protobuf library.

sparkplug_witness.py FOLDER: FOLDER holds sparkplug_b_pb2.py, which protoc made of sparkplug_b.proto. Reads lines
`decode HEXADECIMAL` and `encode JSON`; answers each with a line: the message as JSON, or as hexadecimal text, or
`error: WHY`. 64-bit numbers are texts in JSON, bytes are Base64.
"""

import sys

sys.path.insert(0, sys.argv[1])
import sparkplug_b_pb2  # noqa: E402
from google.protobuf import json_format  # noqa: E402


def decode(text):
    payload = sparkplug_b_pb2.Payload()
    payload.ParseFromString(bytes.fromhex(text))
    return json_format.MessageToJson(payload, preserving_proto_field_name=True, indent=None)


def encode(text):
    return json_format.Parse(text, sparkplug_b_pb2.Payload()).SerializeToString().hex()


for line in sys.stdin:
    verb, _, text = line.rstrip("\n").partition(" ")
    try:
        print({"decode": decode, "encode": encode}[verb](text), flush=True)
    except Exception as error:  # the test shows it
        print("error:", str(error).replace("\n", " "), flush=True)
