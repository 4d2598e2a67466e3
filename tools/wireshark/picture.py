#!/usr/bin/env python3
"""Draws text from standard input as an SVG picture of a terminal, for docs/wireshark.svg.

tshark -X lua_script:df1_cip.lua -2 -r t.pcapng | picture.py > docs/wireshark.svg
"""

import sys
from xml.sax.saxutils import escape

LINE, CHARACTER, BORDER = 18, 7.3, 14


def colour(line):
    if "[CRC is wrong]" in line or "NAK" in line:
        return "#ffb3a7"
    return "#ffe08a" if "(status " in line else "#e6e6e6"


def picture(lines):
    width = int(2 * BORDER + CHARACTER * max(map(len, lines)))
    height = 2 * BORDER + LINE * len(lines)
    yield f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" viewBox="0 0 {width} {height}">'
    yield f'<rect width="{width}" height="{height}" rx="6" fill="#1f2430"/>'
    yield '<g font-family="DejaVu Sans Mono, Menlo, Consolas, monospace" font-size="12" xml:space="preserve">'
    for number, line in enumerate(lines):
        y = BORDER + LINE * number + 13
        yield f'<text x="{BORDER}" y="{y}" fill="{colour(line)}">{escape(line)}</text>'
    yield "</g></svg>"


print("\n".join(picture([line.rstrip("\n") for line in sys.stdin] or [""])))
