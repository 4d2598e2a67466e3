"""Tests of tools/wireshark/df1_cip.lua with tshark. Run by ctest; arguments: the dissector, the programs' folder.

The frames are built here from the protocol, without the project's code, and so is what they should be shown as.
"""

import json
import os
import random
import struct
import subprocess
import sys
import tempfile
import unittest

DISSECTOR = sys.argv.pop(1)
PROGRAMS = sys.argv.pop(1)

# ---- Frames ------------------------------------------------------------------------------------


def crc16(data):
    crc = 0
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0xA001 if crc & 1 else 0)
    return crc


def frame(data):
    doubled = data.replace(b"\x10", b"\x10\x10")
    return b"\x10\x06\x10\x02" + doubled + b"\x10\x03" + struct.pack("<H", crc16(data + b"\x03"))


def message(command, tns, body, nodes=(0, 1), status=0):
    return frame(struct.pack("<BBBBHH", *nodes, command, status, tns, 0) + body)


def request(tns, cip, connected=True):
    return message(0x0A, tns, struct.pack("<HBB", 0x5C3A, tns + 7 & 0xFF, 0x45) + cip) if connected else \
        message(0x0B, tns, cip)


def reply(tns, cip, connected=True):
    return message(0x4A, tns, struct.pack("<HBB", 1, tns + 7 & 0xFF, 0x45) + cip, (1, 0)) if connected else \
        message(0x4B, tns, cip, (1, 0))


def symbol(name):
    return bytes([0x91, len(name)]) + name + b"\0" * (len(name) % 2)


def tag_request(service, path, rest):
    return bytes([service, len(path) // 2]) + path + rest


def read(name, element=b"", count=1, offset=0):
    return tag_request(0x52, symbol(name) + element, struct.pack("<HI", count, offset))


def write(name, code, value, count=1):
    return tag_request(0x53, symbol(name), struct.pack("<HHI", code, count, 0) + value)


def answer(service, data=b"", status=0, extended=()):
    return bytes([service | 0x80, 0, status, len(extended)]) + struct.pack(f"<{len(extended)}H", *extended) + data


def capture(path, packets, step=0.001):
    with open(path, "wb") as file:
        file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 147))
        for number, packet in enumerate(packets):
            micros = round(number * step * 1e6)
            file.write(struct.pack("<IIII", 1000 + micros // 1000000, micros % 1000000, len(packet), len(packet)) + packet)


TRIPLE = struct.pack("<HHI", 0x0002, 0x1234, 0x02563412)
OPEN = tag_request(0x54, bytes.fromhex("20062401"), struct.pack("<BBII", 5, 247, 0x80000002, 0x80010001) + TRIPLE
                   + struct.pack("<B3xIHIHB", 2, 2000000, 0x43F8, 1000000, 0x43F9, 0xA3) + bytes.fromhex("0220022401"))
CLOSE = tag_request(0x4E, bytes.fromhex("20062401"), struct.pack("<BB", 5, 247) + TRIPLE + bytes.fromhex("020020022401"))
IDENTITY = struct.pack("<HHHBBHI", 0x1234, 14, 850, 1, 2, 0x0030, 0xC0FFEE) + b"\x05Press"


class Dissected(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = scratch.name

    def tshark(self, path, *arguments):
        command = ["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", path, "-2", *arguments]
        done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=200)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotIn("Lua", done.stderr)
        return done.stdout

    def rows(self, packets, *fields, path=None):
        """The fields of each packet. `packets` may be a list to be written, or nothing if `path` is a trace."""
        if path is None:
            path = os.path.join(self.folder, "frames.pcap")
            capture(path, packets)
        named = [word for field in fields for word in ("-e", field)]
        lines = self.tshark(path, "-T", "fields", "-E", "separator=|", *named).splitlines()
        return [line.split("|") for line in lines]

    def info(self, *packets):
        return [row[0] for row in self.rows(packets, "_ws.col.Info")]


# ---- What is shown -----------------------------------------------------------------------------


class Fields(Dissected):
    def one(self, packet, **expected):
        names = {name: "df1." + name.replace("__", ".") for name in expected}
        row = self.rows([packet], *names.values())[0]
        self.assertEqual(dict(zip(names, row)), expected)

    def test_of_an_identity_request_and_its_reply(self):
        self.one(request(1, bytes.fromhex("010220012401"), connected=False), **{"class": "0x0001"}, instance="1")
        self.one(reply(1, answer(0x01, IDENTITY), connected=False), identity__vendor="4660",
                 identity__device_type="14", identity__product_code="850", identity__major="1", identity__minor="2",
                 identity__status="0x0030", identity__serial="0x00c0ffee", identity__name="Press")

    def test_of_a_forward_open(self):
        self.one(request(2, OPEN, connected=False), **{"class": "0x0006,0x0002"}, instance="1,1", open__tick="0x05",
                 open__ticks="247", open__ot_id="0x80000002", open__to_id="0x80010001", open__serial="0x0002",
                 open__vendor="0x1234", open__originator_serial="0x02563412", open__multiplier="2",
                 open__ot_interval="2000000", open__ot_parameters="0x43f8", open__to_interval="1000000",
                 open__to_parameters="0x43f9", open__transport="0xa3")

    def test_of_the_reply_to_a_forward_open(self):
        data = struct.pack("<II", 0x00A15C3A, 0x80010001) + TRIPLE + struct.pack("<IIBB", 2000000, 1000000, 0, 0)
        self.one(reply(2, answer(0x54, data), connected=False), open__ot_id="0x00a15c3a", open__to_id="0x80010001",
                 open__serial="0x0002", open__vendor="0x1234", open__originator_serial="0x02563412",
                 open__ot_interval="2000000", open__to_interval="1000000", open__application_size="0")

    def test_of_a_refused_forward_open_name_the_reason_and_the_connection(self):
        refusal = reply(2, answer(0x54, TRIPLE + b"\x03\0", 0x01, [0x0100]), connected=False)
        self.one(refusal, cip_status="0x01", cip_extended="0x0100", open__serial="0x0002", open__vendor="0x1234",
                 open__originator_serial="0x02563412", open__remaining_path="3",
                 error="Connection failure: connection in use (status 01/0100)")

    def test_of_a_forward_close_and_its_reply(self):
        self.one(request(3, CLOSE, connected=False), **{"class": "0x0006,0x0002"}, open__tick="0x05",
                 open__ticks="247", open__serial="0x0002", open__vendor="0x1234", open__originator_serial="0x02563412")
        self.one(reply(3, answer(0x4E, TRIPLE + b"\0\0"), connected=False), open__serial="0x0002",
                 open__vendor="0x1234", open__originator_serial="0x02563412", open__application_size="0")

    def test_of_a_path_have_the_element_of_every_size(self):
        for segment, element in (("28FF", 255), ("29000001", 256), ("2A0000000100", 65536), ("300000000100", 65536),
                                 ("3000FFFFFFFF", 4294967295)):
            self.one(request(5, read(b"Zone", bytes.fromhex(segment))), tag="Zone", element=str(element), count="1",
                     offset="0")
        self.one(request(5, tag_request(0x0E, bytes.fromhex("21000701250008013005"), b"")), **{"class": "0x0107"},
                 instance="264", attribute="5")


class Info(Dissected):
    def test_shows_tag_value_and_transaction_number(self):
        self.assertEqual(
            self.info(request(7, read(b"Speed")), reply(7, answer(0x52, bytes.fromhex("C300D204"))),
                      request(8, read(b"Level", b"\x28\x10", 2)), reply(8, answer(0x52, bytes.fromhex("C300FFFF0100"))),
                      request(9, write(b"Setpoint", 0xCA, struct.pack("<f", 42.25))), reply(9, answer(0x53)),
                      request(10, read(b"Log", offset=484)), reply(10, answer(0x52, bytes.fromhex("D10001"), 6))),
            ["Read Tag Fragmented Speed, TNS 7", "Read Tag Fragmented reply Speed = INT 1234, TNS 7",
             "Read Tag Fragmented Level[16] x2, TNS 8", "Read Tag Fragmented reply Level[16] = INT -1, 1, TNS 8",
             "Write Tag Fragmented Setpoint = REAL 42.25, TNS 9", "Write Tag Fragmented reply Setpoint, TNS 9",
             "Read Tag Fragmented Log from byte 484, TNS 10",
             "Read Tag Fragmented reply Log = BYTE 0x01 (partial), TNS 10"])

    def test_shows_the_words_of_a_refusal(self):
        refusals = (
            (0x05, [], "Path destination unknown (status 05)"),
            (0xFF, [0x2105], "General error: access beyond the end of the tag (status FF/2105)"),
            (0xFF, [0x2107, 3], "General error: type does not match the tag (status FF/2107)"),
            (0x01, [0x0107], "Connection failure: connection not found (status 01/0107)"),
            (0x01, [0x7777], "Connection failure (status 01/7777)"),
            (0x77, [], "Unknown status (status 77)"),
        )
        for status, extended, words in refusals:
            shown = self.info(request(7, read(b"Nope")), reply(7, answer(0x52, b"", status, extended)))
            self.assertEqual(shown[1], f"Read Tag Fragmented reply Nope: {words}, TNS 7")

    def test_shows_values_of_every_type(self):
        for code, value, text in (
            (0xC1, b"\1\0", "BOOL true, false"), (0xC2, b"\x80", "SINT -128"), (0xC6, b"\x80", "USINT 128"),
            (0xC4, b"\0\0\0\x80", "DINT -2147483648"), (0xC8, b"\xff" * 4, "UDINT 4294967295"),
            (0xC5, struct.pack("<q", -9007199254740993), "LINT -9007199254740993"),
            (0xC9, b"\xff" * 8, "ULINT 18446744073709551615"), (0xCA, struct.pack("<f", 0.1), "REAL 0.1"),
            (0xCB, struct.pack("<d", 0.1), "LREAL 0.1"), (0xCA, struct.pack("<f", 1 / 3), "REAL 0.33333334"),
            (0xCA, bytes.fromhex("0000807F"), "REAL inf"), (0xD2, b"\x34\x12", "WORD 0x1234"),
            (0xD4, bytes.fromhex("EFCDAB8967452301"), "LWORD 0x0123456789ABCDEF"), (0xCD, b"\x38\x4a", "DATE 19000"),
            (0xDB, b"\xff" * 4, "TIME -1"), (0xDA, b"\2Hi\0", 'SHORT_STRING "Hi", ""'),
            (0xD0, b"\3\0a\"\\", 'STRING "a\\"\\\\"'), (0xD5, b"\1\0H\0", 'STRING2 "H"'),
            (0xDA, b"\5a\n\x1b\0\x9b", 'SHORT_STRING "a\\x0a\\x1b\\x00\\x9b"'), (0xDA, b"\5ab", "SHORT_STRING (cut short)"),
            (0xC3, b"\1\0\2", "INT 1, (cut short)"), (0xC6, bytes(range(9)), "USINT 0, 1, 2, 3, 4, 5, 6, 7, ..."),
        ):
            shown = self.rows([reply(7, answer(0x52, struct.pack("<H", code) + value))], "df1.shown")
            self.assertEqual(shown, [[text]], hex(code))

    def test_shows_no_control_character_of_a_name(self):
        shown = self.info(request(7, read(b"A\x1b]0;x\x07\n\x9b")))
        self.assertEqual(shown, ["Read Tag Fragmented A\\x1b]0;x\\x07\\x0a\\x9b, TNS 7"])

    def test_says_that_a_frame_is_corrupt_or_cut(self):
        good = reply(7, answer(0x52, bytes.fromhex("C300D204")))
        flipped = good[:-6] + bytes([good[-6] ^ 1]) + good[-5:]
        shown = self.info(flipped, good[:-1], good[:14], b"\x10\x06\x10\x02\x00", b"\x10\x15", b"\x10\x05\x10\x06")
        self.assertTrue(shown[0].startswith("[CRC is wrong] Read Tag Fragmented reply INT "), shown[0])
        self.assertEqual(shown[1], "[CRC is wrong] Read Tag Fragmented reply INT 1234, TNS 7")
        self.assertEqual(shown[2:], ["[cut short] connected reply, TNS 7", "[cut short] Message is cut short", "NAK",
                                     "ENQ ACK"])


class Links(Dissected):
    def test_lead_from_each_reply_to_its_request_and_back_with_the_time_between(self):
        rows = self.rows([request(7, read(b"A")), request(8, read(b"B")), reply(8, answer(0x52, b"\xc1\0\1")),
                          reply(7, answer(0x52, b"\xc1\0\0"))],
                         "df1.request_in", "df1.response_in", "df1.response_time", "_ws.col.Info")
        self.assertEqual([row[:2] for row in rows], [["", "4"], ["", "3"], ["2", ""], ["1", ""]])
        self.assertEqual([round(float(row[2]), 6) for row in rows[2:]], [0.001, 0.003])
        self.assertEqual(rows[3][3], "Read Tag Fragmented reply A = BOOL false, TNS 7")

    def test_lead_a_reply_to_the_newest_request_of_its_number(self):
        rows = self.rows([request(7, read(b"A")), reply(7, answer(0x52, b"\xc1\0\1")), request(7, read(b"B")),
                          reply(7, answer(0x52, b"\xc1\0\0"))], "df1.request_in", "df1.response_in")
        self.assertEqual(rows, [["", "2"], ["1", ""], ["", "4"], ["3", ""]])

    def test_do_not_lead_to_a_request_of_another_service_or_kind(self):
        rows = self.rows([request(7, read(b"A")), reply(7, answer(0x53)), reply(7, answer(0x52), connected=False)],
                         "df1.request_in", "df1.response_in")
        self.assertEqual(rows, [["", ""]] * 3)

    def test_do_not_begin_at_a_corrupt_reply(self):
        good = reply(7, answer(0x52, bytes.fromhex("C300D204")))
        rows = self.rows([request(7, read(b"A")), good[:-1] + b"\x77", good, good], "df1.request_in",
                         "df1.response_in")
        self.assertEqual(rows, [["", "3"], ["", ""], ["1", ""], ["1", ""]])

    def test_name_the_request_that_is_repeated(self):
        asked = request(7, read(b"A"))
        rows = self.rows([asked, asked, asked, reply(7, answer(0x52, b"\xc1\0\1"))], "df1.repeat_of",
                         "df1.request_in", "_ws.col.Info")
        self.assertEqual([row[:2] for row in rows], [["", ""], ["1", ""], ["1", ""], ["", "3"]])
        self.assertEqual(rows[2][2], "Read Tag Fragmented A, TNS 7, repeated")


class Hostile(Dissected):
    def test_frames_are_dissected_without_an_error_of_the_script(self):
        whole = [request(1, bytes.fromhex("010220012401"), False), reply(1, answer(0x01, IDENTITY), False),
                 request(2, OPEN, False), request(3, CLOSE, False), reply(2, answer(0x54, TRIPLE, 1, [0x0100]), False),
                 request(5, read(b"Zone", bytes.fromhex("300000000100"))), request(6, write(b"T", 0xDA, b"\3abc")),
                 reply(6, answer(0x52, b"\xda\0\3abc"))]
        packets = [packet[:size] for packet in whole for size in range(1, len(packet))]
        draw = random.Random(1)
        for _ in range(600):
            data = bytearray(draw.choice(whole)[4:-4].replace(b"\x10\x10", b"\x10"))
            for _ in range(draw.randint(1, 4)):
                data[draw.randrange(len(data))] = draw.choice((0, 1, 0x10, 0x7F, 0x80, 0xFF, draw.randrange(256)))
            packets.append(frame(bytes(data[: draw.randint(1, len(data))] if draw.random() < 0.5 else data)))
        packets += [draw.randbytes(draw.randint(1, 300)) for _ in range(200)]
        packets += [b"\x10\x02" + bytes([byte]) * 20000 for byte in (0, 0x10, 0x91)]
        path = os.path.join(self.folder, "frames.pcap")
        capture(path, packets)
        self.assertEqual(self.tshark(path, "-Y", "_ws.lua.error"), "")
        self.assertEqual(len(self.tshark(path).splitlines()), len(packets))


# ---- A session ---------------------------------------------------------------------------------


class Session(Dissected):
    """A session that the host records: reads, a write, a refusal, a corrupt reply."""

    TAGS = {"tags": [{"name": "Speed", "type": "INT", "value": 1234}, {"name": "Setpoint", "type": "REAL", "value": 1}]}
    # The reply to the third read, which is the fifth reply of the session.
    FAULTS = {"faults": [{"fault": "flip", "message": 5, "byte": 24, "bit": 0}]}

    def record(self, tags, faults, read, write):
        """False when a reply came late, since the machine was busy: the host asks for it again then."""
        command = [os.path.join(PROGRAMS, "micro850-sim"), "--quiet", tags, "--faults", faults]
        host = os.path.join(PROGRAMS, "micro850-host")
        with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as simulator:
            self.addCleanup(simulator.kill)
            port = simulator.stdout.readline().strip()
            line = ["--port", port, "--timeout", "20000", "--trace"]
            first = subprocess.run([host, "read", "Speed", "Nope", *line, read], capture_output=True, check=False)
            self.assertEqual(first.returncode, 1, first.stderr)
            subprocess.run([host, "write", "Setpoint=42.25", *line, write], capture_output=True, check=True)
            simulator.terminate()
        shown = "".join(subprocess.run([host, "trace", path], capture_output=True, check=True, text=True).stdout
                        for path in (read, write))
        return shown.count(": NAK: not received intact") == 1 and " (again: attempt " not in shown

    def test_shows_each_request_and_reply_as_it_was(self):
        for name, content in ("tags.json", self.TAGS), ("faults.json", self.FAULTS):
            with open(os.path.join(self.folder, name), "w", encoding="utf-8") as file:
                json.dump(content, file)
        path = [os.path.join(self.folder, name) for name in ("tags.json", "faults.json", "t.pcapng", "w.pcapng")]
        for _ in range(100):
            if self.record(*path):
                break
        else:
            self.fail("a reply came late each time")
        rows = self.rows(None, "_ws.col.Source", "_ws.col.Info", "df1.request_in", path=path[2])
        rows = [row for row in rows if row[1] != "ACK"]
        read_speed = ["Read Tag Fragmented Speed", "Read Tag Fragmented reply Speed = INT 1234"]
        expected = ["Get_Attributes_All", 'Get_Attributes_All reply "Micro850 simulated unit 01"', "Forward_Open",
                    "Forward_Open reply", *read_speed, "Read Tag Fragmented Nope",
                    "Read Tag Fragmented reply Nope: Path destination unknown (status 05)", read_speed[0],
                    "[CRC is wrong] Read Tag Fragmented reply", "NAK", read_speed[1]]
        shown = [row[1].split(", TNS")[0] for row in rows]
        shown[9] = shown[9].split(" reply")[0] + " reply"
        self.assertEqual(shown[: len(expected)], expected)
        self.assertEqual([row[0] for row in rows[:2]], ["host", "controller"])
        self.assertEqual([row[2] for row in rows[:12]], ["", "1", "", "3", "", "5", "", "7", "", "", "", "9"])
        written = [row[0].split(", TNS")[0] for row in self.rows(None, "_ws.col.Info", path=path[3])]
        at = written.index("Write Tag Fragmented Setpoint = REAL 42.25")
        self.assertEqual(written[at + 1 : at + 4], ["Write Tag Fragmented reply Setpoint",
                         "Read Tag Fragmented Setpoint", "Read Tag Fragmented reply Setpoint = REAL 42.25"])


if __name__ == "__main__":
    unittest.main()
