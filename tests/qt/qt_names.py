#!/usr/bin/env python3
"""qt_names.py COMMITTED SOURCE... -- FLAG...: finds every class, function and macro of Qt that the sources use.

Compares them with the committed list of names that both Qt 4.8 and Qt 5 have. Exits with 1 and prints one line
for each name that is not on the list. Leaves out QtCompat.h, which contains the differences between the two. With
- as the list, prints the names.
"""

import os
import sys

from clang.cindex import CursorKind, Index, TranslationUnit

TYPES = {CursorKind.CLASS_DECL, CursorKind.STRUCT_DECL, CursorKind.CLASS_TEMPLATE}
USES = {
    CursorKind.DECL_REF_EXPR,
    CursorKind.MEMBER_REF_EXPR,
    CursorKind.CALL_EXPR,
    CursorKind.TYPE_REF,
    CursorKind.TEMPLATE_REF,
    CursorKind.OVERLOADED_DECL_REF,
    CursorKind.MACRO_INSTANTIATION,
}


def in_qt(cursor):
    file = cursor.location.file
    return file is not None and "/QtCore/" in file.name


def is_template(cursor):
    parent = cursor.semantic_parent
    while parent is not None and parent.type.get_num_template_arguments() <= 0:
        parent = parent.semantic_parent
    return parent is not None or "<>(" in cursor.displayname


def qualified(cursor):
    """The C++ name with its parameters; for a template, whose parameters differ with each use, with their number."""
    parents = []
    parent = cursor.semantic_parent
    while parent is not None and parent.kind != CursorKind.TRANSLATION_UNIT:
        if parent.spelling:
            parents.insert(0, parent.spelling)
        parent = parent.semantic_parent
    name = cursor.displayname
    if cursor.kind in TYPES:
        name = cursor.spelling
    elif is_template(cursor):
        name = f"{cursor.spelling}/{len(list(cursor.get_arguments()))}"
    return "::".join(parents + [name])


def moves(cursor):
    """True for a function that moves: a Qt without it copies instead."""
    return any(a.type.spelling.endswith("&&") for a in cursor.get_arguments() or [])


def is_ours(cursor, folders):
    file = cursor.location.file
    if file is None:
        return False
    path = os.path.realpath(file.name)
    return os.path.dirname(path) in folders and os.path.basename(path) != "QtCompat.h"


def names_in(source, folders, flags):
    unit = Index.create().parse(
        source, args=flags, options=TranslationUnit.PARSE_DETAILED_PROCESSING_RECORD
    )
    errors = [d.format() for d in unit.diagnostics if d.severity >= d.Error]
    if errors:
        sys.exit(f"qt_names: {source} does not compile: {errors[0]}")
    names = set()

    def visit(cursor):
        for child in cursor.get_children():
            if cursor.kind == CursorKind.TRANSLATION_UNIT and not is_ours(child, folders):
                continue
            if child.kind in USES:
                used = child.referenced
                if child.kind == CursorKind.MACRO_INSTANTIATION:
                    used = child.get_definition() or used
                if used is not None and in_qt(used) and not moves(used):
                    names.add(qualified(used))
            visit(child)

    visit(unit.cursor)
    return names


def main():
    if "--" not in sys.argv or len(sys.argv) < 4:
        sys.exit("qt_names: usage: qt_names.py COMMITTED SOURCE... -- FLAG...")
    split = sys.argv.index("--")
    committed, sources, flags = sys.argv[1], sys.argv[2:split], sys.argv[split + 1 :]
    folders = {os.path.dirname(os.path.realpath(source)) for source in sources}
    used = set()
    for source in sources:
        used |= names_in(source, folders, flags)
    if committed == "-":
        print("\n".join(sorted(used)))
        return
    with open(committed, encoding="ascii") as file:
        known = {line.strip() for line in file if line.strip() and not line.startswith("#")}
    for name in sorted(used - known):
        print(f"{name}: not on the list: does Qt 4.8 have it, and Qt 5.15? ({committed})")
    if not used:
        sys.exit("qt_names: found no use of Qt in the sources")
    sys.exit(not used <= known)


if __name__ == "__main__":
    main()
