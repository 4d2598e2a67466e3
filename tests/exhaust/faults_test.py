"""faults_test.py BUILD PROGRAM: builds copies of the driver with one fault each, and runs `PROGRAM --quick` with each.

Every fault must be noticed. A copy is made of the objects in BUILD; only the changed unit is compiled again.
"""

import json
import os
import shlex
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

SOURCES = Path(__file__).resolve().parents[2] / "src"

# Unit to compile, file to change, text, its replacement, and what the program says then.
FAULTS = [
    ("internal/Frame.cpp", "internal/Crc16.h", "places << 14", "places << 13", "the CRC of the bytes"),
    ("internal/Frame.cpp", "internal/Frame.cpp", "kFirstEtx = 21", "kFirstEtx = 22", "is intact"),
    ("internal/Frame.cpp", "internal/Frame.cpp", "(etx - run) % 2 == 0 ? 2 : 1", "1", "intact"),
    ("Func_DealData.cpp", "Func_DealData.cpp", "tagstore::kShortString ? 1 : 0", "tagstore::kShortString ? 0 : 0",
     "says value"),
    ("Func_DealData.cpp", "Func_DealData.cpp", "static_cast<char>(value.typeHigh)", "'\\0'", "says type"),
]


def compile_commands(build):
    """The command that compiles each unit of the driver in BUILD."""
    commands = json.loads((build / "compile_commands.json").read_text())
    return {Path(entry["file"]).relative_to(SOURCES).as_posix(): entry for entry in commands
            if SOURCES in Path(entry["file"]).parents and "micro850.dir" in entry["command"]}


def faulty_library(folder, commands, fault):
    """Builds the driver with one fault in FOLDER and returns the library's path."""
    unit, file, old, new, _ = fault
    shutil.copytree(SOURCES, folder / "src")
    text = (folder / "src" / file).read_text()
    assert text.count(old) == 1, f"{file} has \"{old}\" {text.count(old)} times: adapt the fault"
    (folder / "src" / file).write_text(text.replace(old, new))
    objects = []
    for name, entry in commands.items():
        command = shlex.split(entry["command"])
        compiled = Path(entry["directory"]) / command[command.index("-o") + 1]
        if name == unit:
            compiled = folder / "unit.o"
            command = [part.replace(str(SOURCES), str(folder / "src")) for part in command]
            command[command.index("-o") + 1] = str(compiled)
            subprocess.run(command, cwd=folder, check=True)
        objects.append(str(compiled))
    library = folder / "libmicro850.so.0"
    subprocess.run(["c++", "-shared", f"-Wl,-soname,{library.name}", "-o", str(library), *objects, "-lQt5Core"],
                   check=True)
    return library


def missed(build, program, commands, fault):
    """What is wrong with the program's run with this fault; empty if it notices the fault."""
    with tempfile.TemporaryDirectory() as folder:
        library = faulty_library(Path(folder), commands, fault)
        run = subprocess.run([program, "--quick"], env={**os.environ, "LD_PRELOAD": str(library)},
                             stdout=subprocess.PIPE, text=True, check=False)
    return "" if run.returncode == 1 and fault[-1] in run.stdout else f"{fault}: {run.returncode}\n{run.stdout}"


def main():
    """Runs every fault and fails if one is missed."""
    build, program = Path(sys.argv[1]), sys.argv[2]
    commands = compile_commands(build)
    assert commands, "no unit of the driver is in compile_commands.json"
    misses = [miss for fault in FAULTS if (miss := missed(build, program, commands, fault))]
    print("\n".join(misses) or f"{len(FAULTS)} of {len(FAULTS)} faults are noticed")
    sys.exit(1 if misses else 0)


if __name__ == "__main__":
    main()
