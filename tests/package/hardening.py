#!/usr/bin/env python3
"""hardening.py BUILD FILE...: checks that built files have the hardening that cmake/Hardening.cmake asks for.

Checks the compile commands of the build too, and the objects, because a linked file does not show everything. BUILD is
a build of CMake (compile_commands.json) or of qmake (Makefile).
"""

import json
import os
import re
import shlex
import subprocess
import sys
import tempfile

# By processor, as the compiler calls it: the option that marks the targets of branches, and the marks.
BRANCH_OPTIONS = {
    "x86_64": ("-fcf-protection", {"IBT", "SHSTK"}),
    "aarch64": ("-mbranch-protection=standard", {"BTI", "PAC"}),
}
LARGE_FRAME = "void use(char*); void large() { char frame[100000]; use(frame); }\n"


class Failure(Exception):
    """A reason why nothing can be checked, in one line."""


def output(command, text=""):
    done = subprocess.run(command, input=text, capture_output=True, text=True, check=False)
    return done.stdout if done.returncode == 0 else None


# ---- The compile commands ----------------------------------------------------------------------


class Command:
    """One command that compiles an object. The last option of a kind wins."""

    def __init__(self, folder, words):
        self.words = words
        self.object = os.path.join(folder, words[words.index("-o") + 1])

    def target(self):
        """The library or program that the object belongs to; "" in a build of qmake, which has only one."""
        found = re.search(r"CMakeFiles/([^/]*)\.dir/", self.object)
        return found.group(1) if found else ""

    def last(self, pattern):
        return next((word for word in reversed(self.words) if re.fullmatch(pattern, word)), "")

    def compiler(self):
        """The compiler with the options that decide on the code. A launcher such as ccache is left out."""
        begin = next(i for i, word in enumerate(self.words) if re.search(r"(\+\+|cc|clang)(-[0-9.]+)?$", word))
        kept = [word for word in self.words[begin + 1 :] if re.match(r"-[fmO]|--sysroot=|--param=|-std=", word)]
        return [self.words[begin], *kept]

    def knows(self, option):
        command = [*self.compiler(), "-Werror", option, "-x", "c++", "-S", "-o", os.devnull, os.devnull]
        return output(command) is not None

    def assembly(self, source, *options):
        return output([*self.compiler(), *options, "-x", "c++", "-S", "-o", "-", "-"], source)


def commands_of(build):
    """The commands of every object of the library, of the programs and of the libraries linked into them."""
    listed = os.path.join(build, "compile_commands.json")
    if os.path.exists(listed):
        with open(listed, encoding="utf-8") as file:
            entries = [(entry["directory"], shlex.split(entry["command"])) for entry in json.load(file)]
        commands = [Command(folder, words) for folder, words in entries if "-o" in words]
        return [command for command in commands if re.fullmatch("micro850[a-z-]*", command.target())]
    if os.path.exists(os.path.join(build, "Makefile")):
        lines = (output(["make", "-C", build, "-B", "-n"]) or "").splitlines()
        return [Command(build, shlex.split(line)) for line in lines if " -c " in line and " -o " in line]
    raise Failure(f"{build} holds neither compile_commands.json nor a Makefile (configure it first)")


# ---- The checks --------------------------------------------------------------------------------


def marks_of(path):
    """The marks of the processor's features in the notes of a file."""
    listed = output(["readelf", "--wide", "--notes", path]) or ""
    features = re.findall(r"(?:x86 feature|AArch64 feature): ([^\n]*)", listed)
    return {mark.strip() for feature in features for mark in feature.split(",")}


class Check:
    def __init__(self, build):
        self.commands = commands_of(build)
        if not self.commands:
            raise Failure(f"{build} compiles nothing of the library or of the programs")
        self.problems = []
        first = self.commands[0]
        processor = (output([first.compiler()[0], "-dumpmachine"]) or "").split("-")[0]
        self.branch_option, self.marks = BRANCH_OPTIONS.get(processor, ("", set()))
        if self.branch_option and not first.knows(self.branch_option):
            self.branch_option, self.marks = "", set()
        self.stops_large_frames = first.knows("-fstack-clash-protection")

    def require(self, holds, path, problem):
        if not holds:
            self.problems.append(f"{path}: {problem}")

    def check_command(self, command):
        def require(holds, problem):
            self.require(holds, command.object, problem)

        fortified = command.last("-D_FORTIFY_SOURCE.*|-U_FORTIFY_SOURCE")
        require(fortified in ("-D_FORTIFY_SOURCE=2", "-D_FORTIFY_SOURCE=3"), "compiled without checked calls")
        require(command.last("-O.*") not in ("", "-O0"), "compiled without optimisation, so no call is checked")
        guards = command.last("-f(no-)?stack-protector(-strong|-all|-explicit)?")
        require(guards in ("-fstack-protector", "-fstack-protector-strong", "-fstack-protector-all"),
                "compiled without stack canaries")
        if self.stops_large_frames:
            require(command.last("-f(no-)?stack-clash-protection") == "-fstack-clash-protection",
                    "compiled without stack probes")
        if self.branch_option:
            kind = self.branch_option.split("=")[0]
            require(command.last(f"{kind}(=.*)?") == self.branch_option, "compiled without branch marks")

    def check_objects(self):
        for command in self.commands:
            self.check_command(command)
            if self.marks and os.path.exists(command.object):
                self.require(self.marks <= marks_of(command.object), command.object, "the object has no branch marks")
        by_target = {command.target(): command for command in self.commands}
        for target, command in sorted(by_target.items()):
            if self.stops_large_frames:
                plain = command.assembly(LARGE_FRAME, "-fno-stack-clash-protection")
                self.require(command.assembly(LARGE_FRAME) != plain, target or "library",
                             "the compiler probes no page of a large frame")

    def check_file(self, path):
        def require(holds, problem):
            self.require(holds, path, problem)

        segments = output(["readelf", "--wide", "--program-headers", path])
        dynamic = output(["readelf", "--wide", "--dynamic", path])
        symbols = output(["readelf", "--wide", "--dyn-syms", path])
        if segments is None:
            raise Failure(f"{path} is no ELF file")
        target = re.sub(r"\.so.*", "", re.sub("^lib", "", os.path.basename(path)))
        require({command.target() for command in self.commands} & {target, ""}, "no compile command builds it")
        require(re.search("GNU_STACK .* RW ", segments), "the stack is executable")
        require("GNU_RELRO" in segments, "no segment becomes read-only after relocation")
        require("RWE" not in segments, "a segment is writable and executable")
        require(re.search("BIND_NOW|Flags:.* NOW", dynamic), "symbols are bound late")
        require("TEXTREL" not in dynamic, "code is relocated")
        require("UND __stack_chk_fail" in symbols, "no function guards its stack")
        # Only programs name a loader.
        is_program = "INTERP" in segments
        require(self.start_file_marks(is_program) <= marks_of(path), "the file has no branch marks")
        if is_program:
            require("file type is DYN" in segments and re.search("Flags:.* PIE", dynamic),
                    "the program is always at the same address")
            # The library calls no function that has a checked form; for it, the compile commands are enough.
            require(re.search(r"UND __[a-z0-9_]+_chk(@|\s)", symbols), "no call of the C library is checked")

    def start_file_marks(self, is_program):
        """The marks that the linker can give a file: it gives none if the C library's start files have none."""
        if not self.marks:
            return set()
        with tempfile.TemporaryDirectory() as folder:
            linked = os.path.join(folder, "linked")
            how = "-pie" if is_program else "-shared"
            command = [*self.commands[0].compiler(), how, "-fPIC", "-x", "c++", "-o", linked, "-"]
            if output(command, "int main() { return 0; }\n") is None:
                raise Failure(f"{command[0]} cannot link")
            return self.marks & marks_of(linked)


def main():
    if len(sys.argv) < 3:
        raise Failure("name the build and the built files to check")
    check = Check(sys.argv[1])
    check.check_objects()
    for path in sys.argv[2:]:
        check.check_file(path)
    for problem in check.problems:
        print(f"hardening: {problem}", file=sys.stderr)
    if check.problems:
        return 1
    print(f"hardening: {len(sys.argv) - 2} files and {len(check.commands)} objects are hardened")
    if check.marks and not check.start_file_marks(False):
        print("hardening: the C library's start files have no branch marks, so the linker gives the files none")
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as error:
        print(f"hardening: {error}", file=sys.stderr)
        sys.exit(2)
