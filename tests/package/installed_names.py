#!/usr/bin/env python3
"""installed_names.py NAMES EXPORTS FOLDER HEADER... -- FLAG...: finds every name that the installed headers declare.

Compares the names that Clang finds in the headers of FOLDER with the list NAMES: records, types, functions,
objects, enumerators, namespaces, macros, and macros that conditions test. Each function and object must also
be in EXPORTS, and each of EXPORTS in a header. Exits with 1 and prints one line for each difference. With -
as NAMES, prints the names.
"""

import os
import re
import sys

from clang.cindex import CursorKind, Index, TranslationUnit

KINDS = {
    CursorKind.CLASS_DECL: "record",
    CursorKind.STRUCT_DECL: "record",
    CursorKind.UNION_DECL: "record",
    CursorKind.CLASS_TEMPLATE: "template",
    CursorKind.FUNCTION_TEMPLATE: "template",
    CursorKind.ENUM_DECL: "enumeration",
    CursorKind.ENUM_CONSTANT_DECL: "enumerator",
    CursorKind.TYPEDEF_DECL: "type",
    CursorKind.TYPE_ALIAS_DECL: "type",
    CursorKind.FUNCTION_DECL: "function",
    CursorKind.VAR_DECL: "object",
    CursorKind.NAMESPACE: "namespace",
    CursorKind.NAMESPACE_ALIAS: "namespace",
    CursorKind.USING_DECLARATION: "using",
    CursorKind.USING_DIRECTIVE: "using",
    CursorKind.MACRO_DEFINITION: "macro",
}
# Blocks that contain declarations but are no part of their names.
TRANSPARENT = {CursorKind.LINKAGE_SPEC, CursorKind.UNEXPOSED_DECL, CursorKind.ENUM_DECL, CursorKind.NAMESPACE}


def guards_of(path):
    """The include guard of a header, and every macro that its other conditions test."""
    with open(path, encoding="ascii") as file:
        conditions = re.findall(r"^[ \t]*#[ \t]*(if|ifdef|ifndef|elif)\b(.*)$", file.read(), re.MULTILINE)
    guard = conditions[0][1].strip() if conditions and conditions[0][0] == "ifndef" else None
    words = {word for _, text in conditions[1:] for word in re.findall(r"\b[A-Za-z_]\w*", text)}
    return guard, words - {"defined"}


def declared_in(folder, headers, flags):
    paths = [os.path.realpath(os.path.join(folder, header)) for header in headers]
    text = "".join(f'#include "{path}"\n' for path in paths)
    unit = Index.create().parse(
        "host.cpp", args=flags, unsaved_files=[("host.cpp", text)],
        options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD,
    )
    errors = [d.format() for d in unit.diagnostics if d.severity >= d.Error]
    if errors:
        sys.exit(f"installed_names: the headers do not compile: {errors[0]}")
    root = os.path.realpath(folder) + os.sep
    names, guards = set(), set()
    for path in paths:
        guard, switches = guards_of(path)
        guards.add(guard)
        names |= {f"switch {name}" for name in switches}

    def visit(cursor):
        for child in cursor.get_children():
            file = child.location.file
            if file is None or not os.path.realpath(file.name).startswith(root):
                continue
            kind = KINDS.get(child.kind)
            if kind and child.spelling and child.spelling not in guards:
                names.add(f"{kind} {child.spelling}")
            elif not kind and child.kind.is_declaration() and child.kind not in TRANSPARENT:
                names.add(f"{child.kind.name} {child.spelling}")
            if child.kind in TRANSPARENT:
                visit(child)

    visit(unit.cursor)
    return names


def lines_of(path):
    with open(path, encoding="ascii") as file:
        return {" ".join(line.split()) for line in file if line.strip() and not line.startswith("#")}


def exported_in(path):
    """The functions and objects of the library, without parameters. A constructor belongs to its record."""
    return {line.split("(")[0] for line in lines_of(path) if "::" not in line}


def main():
    if "--" not in sys.argv or sys.argv.index("--") < 5:
        sys.exit("installed_names: usage: installed_names.py NAMES EXPORTS FOLDER HEADER... -- FLAG...")
    split = sys.argv.index("--")
    listed, exports, folder = sys.argv[1:4]
    declared = declared_in(folder, sys.argv[4:split], sys.argv[split + 1 :])
    if listed == "-":
        print("\n".join(sorted(declared)))
        return
    found = [f"{name}: declared by an installed header, but not in {listed}"
             for name in sorted(declared - lines_of(listed))]
    found += [f"{name}: in {listed}, but no installed header declares it"
              for name in sorted(lines_of(listed) - declared)]
    callable_names = {name for name in declared if name.split()[0] in ("function", "object")}
    found += [f"{name}: declared for hosts, but the library does not export it"
              for name in sorted(callable_names - exported_in(exports))]
    found += [f"{name}: exported by the library, but no installed header declares it"
              for name in sorted(exported_in(exports) - callable_names)]
    print("\n".join(found) or f"installed_names: {len(declared)} names, all listed")
    sys.exit(1 if found else 0)


if __name__ == "__main__":
    main()
