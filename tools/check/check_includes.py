"""Checks that no include points to a higher room and that no files include each other in a circle.

check_includes.py [TREE]: prints each include and each circle that must not be. Exit status 0: none, 1: some.
Called by scripts/check-includes.
"""

import ast
import re
import sys
from pathlib import Path

# The headers of the driver that declare its records and entry points.
DRIVER = "src (declarations)"
# Each room and the rooms directly below it. A room sees itself and everything below it, and nothing else. A file
# is in the room with the longest path that begins its own.
ROOMS = {
    DRIVER: [],
    "src/internal": [DRIVER],
    "src": ["src/internal"],
    "common": [],
    "hostkit/line": ["common"],
    "hostkit/wire": ["hostkit/line"],
    "hostkit/project": ["hostkit/wire"],
    "hostkit/record": ["hostkit/project"],
    "hostkit/driver": ["hostkit/project", DRIVER],
    "hostkit/poll": ["hostkit/driver"],
    "hostkit/gateway": ["hostkit/poll"],
    "host/terminal": ["hostkit/gateway", "hostkit/record"],
    "host/commands": ["host/terminal"],
    "host": ["host/commands"],
    "gateway/loop": [],
    "gateway/lines": ["gateway/loop", "hostkit/gateway"],
    "gateway/history": ["gateway/lines", "hostkit/record"],
    "gateway/clients": ["gateway/history"],
    "gateway/delivery": ["gateway/loop", "hostkit/gateway", "hostkit/record"],
    "gateway/sparkplug": ["gateway/delivery"],
    "gateway/broker": ["gateway/lines", "gateway/sparkplug"],
    "gateway/http": ["gateway/loop", "common"],
    "gateway/web": ["gateway/http", "gateway/history"],
    "gateway": ["gateway/clients", "gateway/broker", "gateway/web"],
    "simulator": ["common"],
}
# The installed headers. The driver's internals may include those of them that declare records.
DECLARATIONS = "src/*.h"
RECORDS = ["src/Device_Driver.h", "src/Func_Initi.h", "src/Micro850Export.h", "src/tagcommunication.h"]
INCLUDE = re.compile(r'^[ \t]*#[ \t]*include[ \t]*["<]([^">]+)[">]', re.M)


def rooms_seen(room):
    """The room itself and every room below it."""
    seen = {room}
    for below in ROOMS[room]:
        seen |= rooms_seen(below)
    return seen


class Tree:
    """The C++ files of the rooms and what they include."""

    def __init__(self, root):
        self.root = root
        tops = sorted({room.split("/")[0] for room in ROOMS if room != DRIVER})
        self.files = sorted(
            str(path.relative_to(root)) for top in tops for suffix in ("*.h", "*.cpp")
            for path in (root / top).rglob(suffix))
        self.by_name = {}
        for file in self.files:
            self.by_name.setdefault(Path(file).name, []).append(file)
        self.problems = []
        self.includes = {file: self.included_by(file) for file in self.files}

    def room(self, file):
        if Path(file).match(DECLARATIONS):
            return DRIVER
        rooms = [room for room in ROOMS if file.startswith(room + "/")]
        return max(rooms, key=len) if rooms else None

    def may_include(self, file, other):
        room, others = self.room(file), self.room(other)
        if room == "src/internal" and others == DRIVER:
            return other in RECORDS
        return others in rooms_seen(room)

    def included_by(self, file):
        """The files of the rooms that the file includes. Notes each that it must not include."""
        if self.room(file) is None:
            self.problems.append(f"{file}: the folder is in no room (add it to ROOMS)")
            return []
        text = (self.root / file).read_text(encoding="utf-8")
        found = []
        for match in INCLUDE.finditer(text):
            other = self.resolve(file, match.group(1))
            if other is None:
                continue
            found.append(other)
            if not self.may_include(file, other):
                line = text.count("\n", 0, match.start(1)) + 1
                self.problems.append(f"{file}:{line}: must not include {other}: {self.reason(file, other)}")
        return found

    def reason(self, file, other):
        room = self.room(file)
        if room == "src/internal" and self.room(other) == DRIVER:
            return f"{room} sees only {', '.join(RECORDS)} of the units"
        below = sorted(rooms_seen(room) - {room})
        return f"{room} sees only {', '.join(below)}" if below else f"{room} sees no other room"

    def resolve(self, file, name):
        """The file that an include means; None for one of the system or of a library."""
        folder = (self.root / file).parent
        beside = (folder / name).resolve()
        if beside.is_file() and beside.is_relative_to(self.root):
            return str(beside.relative_to(self.root))
        found = [other for other in self.by_name.get(Path(name).name, []) if ("/" + other).endswith("/" + name)]
        allowed = [other for other in found if self.may_include(file, other)]
        if len(allowed) > 1:
            self.problems.append(f"{file}: \"{name}\" may be {' or '.join(allowed)}: rename one of them")
        return (allowed or found or [None])[0]


def unit(file):
    """A header and the source of the same name are one unit, except for the units of src/, which call each other."""
    return file if Path(file).parent == Path("src") else str(Path(file).with_suffix(""))


def circles(graph):
    """Shortest circles of the graph, each once, as lists that end with their first name."""
    found = {}
    for start in sorted(graph):
        paths = [[start]]
        seen = set()
        while paths:
            path = paths.pop(0)
            following = sorted(graph.get(path[-1], ()))
            if start in following:
                found.setdefault(frozenset(path), path + [start])
                break
            for name in following:
                if name not in seen:
                    seen.add(name)
                    paths.append(path + [name])
    return list(found.values())


def circles_of_includes(tree):
    graph = {}
    for file, others in tree.includes.items():
        graph.setdefault(unit(file), set()).update(unit(other) for other in others if unit(other) != unit(file))
    return circles(graph)


def modules_imported(path, folder):
    """The Python files of the folder that the file imports, anywhere in it."""
    names = set()
    for node in ast.walk(ast.parse(path.read_text(encoding="utf-8"))):
        if isinstance(node, ast.Import):
            names.update(alias.name for alias in node.names)
        elif isinstance(node, ast.ImportFrom) and node.module:
            names.add(node.module)
    return {folder / (name.replace(".", "/") + ".py") for name in names}


def circles_of_imports(root):
    graph = {}
    for path in sorted((root / "tools").rglob("*.py")):
        imported = modules_imported(path, path.parent) | modules_imported(path, root / "tools")
        graph[str(path.relative_to(root))] = {str(other.relative_to(root)) for other in imported if other.is_file()}
    return circles(graph)


def problems(root):
    tree = Tree(root)
    found = circles_of_includes(tree) + circles_of_imports(root)
    return tree.problems + [f"a circle: {' -> '.join(circle)}" for circle in found], len(tree.files)


def main():
    root = Path(sys.argv[1] if len(sys.argv) > 1 else ".").resolve()
    found, files = problems(root)
    if files == 0:
        sys.exit(f"check-includes: {root} holds no source of {', '.join(ROOMS)}")
    for problem in found:
        print(f"check-includes: {problem}", file=sys.stderr)
    if not found:
        print(f"check-includes: {files} files: every include points down, no circle")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
