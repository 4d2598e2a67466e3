"""Checks that the labels of pictures do not overlap and are not cut off at the edge.

svg_labels.py FILE...: prints each pair of labels that overlap, and each label that reaches beyond its picture. Exit
status 0: none, 1: some, 2: a file that is no picture.

A reader's font is not known, so that the width of a text is estimated for a wide one.
"""

import math
import re
import sys
import xml.etree.ElementTree as ElementTree
from collections import namedtuple

Box = namedtuple("Box", "left top right bottom")
Label = namedtuple("Label", "text box")

# Widths in parts of the font's size.
NARROW, MEDIUM, LARGE, WIDE = 0.36, 0.63, 0.74, 0.97
MONOSPACED = 0.61
ASCENT, DESCENT = 0.76, 0.20
TOUCH = 0.5  # pixels that do not count


def width_of(text, size, family, bold):
    if "mono" in family.lower():
        return MONOSPACED * size * len(text)
    width = sum(NARROW if letter in "iljtfr.,:;'|!() -" else WIDE if letter in "mwMW%" else LARGE if letter.isupper()
                else MEDIUM for letter in text)
    return width * size * (1.08 if bold else 1)


class Style:
    """What a text inherits: its font, its anchor and where its coordinates begin."""

    def __init__(self, size=16.0, family="", anchor="start", bold=False, matrix=(1, 0, 0, 1, 0, 0)):
        self.size, self.family, self.anchor, self.bold, self.matrix = size, family, anchor, bold, matrix

    def of(self, element, classes):
        given = dict(element.attrib)
        for name in given.get("class", "").split():
            given.update(classes.get(name, {}))
        size = re.match(r"[\d.]+", given.get("font-size", ""))
        return Style(float(size.group()) if size else self.size, given.get("font-family", self.family),
                     given.get("text-anchor", self.anchor), given.get("font-weight", "bold" if self.bold else "") == "bold",
                     times(self.matrix, matrix_of(given.get("transform", ""))))


def times(first, second):
    a, b, c, d, e, f = first
    p, q, r, s, t, u = second
    return (a * p + c * q, b * p + d * q, a * r + c * s, b * r + d * s, a * t + c * u + e, b * t + d * u + f)


def matrix_of(text):
    matrix = (1, 0, 0, 1, 0, 0)
    for name, arguments in re.findall(r"(\w+)\(([^)]*)\)", text):
        numbers = [float(number) for number in re.findall(r"-?[\d.]+", arguments)]
        if name == "translate":
            step = (1, 0, 0, 1, numbers[0], numbers[1] if len(numbers) > 1 else 0)
        elif name == "scale":
            step = (numbers[0], 0, 0, numbers[-1], 0, 0)
        elif name == "rotate" and len(numbers) == 1:
            angle = math.radians(numbers[0])
            step = (math.cos(angle), math.sin(angle), -math.sin(angle), math.cos(angle), 0, 0)
        else:
            raise ValueError(f"transform \"{name}({arguments})\" is not known to this check")
        matrix = times(matrix, step)
    return matrix


def classes_of(root):
    """The properties of each class in the picture's style sheet, outside its rules for media."""
    classes = {}
    for element in root.iter():
        if local(element) == "style":
            sheet = re.sub(r"@media[^{]*\{(?:[^{}]*\{[^{}]*\})*[^{}]*\}", "", element.text or "")
            for names, body in re.findall(r"([^{}]+)\{([^{}]*)\}", sheet):
                for name in re.findall(r"\.([\w-]+)", names):
                    classes.setdefault(name, {}).update(re.findall(r"([\w-]+)\s*:\s*([^;]+?)\s*(?:;|$)", body))
    return classes


def local(element):
    return element.tag.rsplit("}", 1)[-1]


def pieces(element, style, classes):
    """The texts of an element and its parts, each with its style."""
    yield element.text or "", style
    for part in element:
        yield from pieces(part, style.of(part, classes), classes)
        yield part.tail or "", style


def label_of(element, style, classes):
    parts = list(pieces(element, style, classes))
    text = "".join(part for part, _ in parts)
    kept = text if "mono" in style.family.lower() else text.strip()
    width = sum(width_of(part, own.size, own.family, own.bold) for part, own in parts) * len(kept) / max(1, len(text))
    x, y = float(element.get("x", 0)), float(element.get("y", 0))
    left = {"start": x, "middle": x - width / 2, "end": x - width}[style.anchor]
    a, b, c, d, e, f = style.matrix
    corners = [(a * h + c * v + e, b * h + d * v + f) for h in (left, left + width)
               for v in (y - ASCENT * style.size, y + DESCENT * style.size)]
    across, down = zip(*corners)
    return Label(text.strip(), Box(min(across), min(down), max(across), max(down)))


def labels(root):
    classes = classes_of(root)

    def walk(element, style):
        own = style.of(element, classes)
        if local(element) == "text":
            label = label_of(element, own, classes)
            if label.text:
                yield label
        elif local(element) not in ("defs", "title", "desc", "style"):
            for part in element:
                yield from walk(part, own)
    return list(walk(root, Style()))


def overlap(one, other):
    return (min(one.right, other.right) - max(one.left, other.left) > TOUCH
            and min(one.bottom, other.bottom) - max(one.top, other.top) > TOUCH)


def problems(text):
    """Lines of text about a picture. Raises ValueError for what is none."""
    try:
        root = ElementTree.fromstring(text)
    except ElementTree.ParseError as error:
        raise ValueError(f"not an XML document ({error})") from error
    view = [float(number) for number in root.get("viewBox", "").split()]
    if local(root) != "svg" or len(view) != 4:
        raise ValueError("not an SVG picture with a viewBox")
    found = labels(root)
    lines = [f"\"{one.text}\" and \"{other.text}\" overlap" for i, one in enumerate(found) for other in found[i + 1:]
             if overlap(one.box, other.box)]
    edge = Box(view[0], view[1], view[0] + view[2], view[1] + view[3])
    return lines + [f"\"{label.text}\" is cut off at the edge" for label in found
                    if label.box.left < edge.left - TOUCH or label.box.right > edge.right + TOUCH
                    or label.box.top < edge.top - TOUCH or label.box.bottom > edge.bottom + TOUCH]


def main(paths):
    if not paths:
        print("usage: svg_labels.py FILE...", file=sys.stderr)
        return 2
    status = 0
    for path in paths:
        try:
            with open(path, encoding="utf-8") as file:
                found = problems(file.read())
        except (OSError, ValueError) as error:
            print(f"svg_labels: {path}: {error}", file=sys.stderr)
            return 2
        for line in found:
            print(f"{path}: {line}")
            status = 1
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
