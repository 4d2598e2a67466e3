"""faults_test.py BUILD PROGRAM: builds copies of the driver with one fault each, and runs PROGRAM with each.

Every fault must be noticed. A copy is made of the objects in BUILD; only the changed unit is compiled again.
"""

import json
import os
import shlex
import shutil
import subprocess
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

SOURCES = Path(__file__).resolve().parents[2] / "src"

# Unit to compile, file to change, text, its replacement, and the part that must notice and what it says then.
FRAME, BYTES = "internal/Frame.cpp", "internal/FrameBytes.h"
DRIVER, STATION = "Device_Driver.cpp", "tagcommunication.cpp"
STORE, SETUP, LISTS = "Func_DealData.cpp", "internal/ConnectionSetup.cpp", "internal/RequestLists.cpp"
FAULTS = [
    (FRAME, BYTES, "places << 6", "places << 5", "crc", "the CRC of the bytes"),
    (FRAME, BYTES, "kFirstEtx = 21", "kFirstEtx = 22", "replies", "is intact"),
    (FRAME, BYTES, "(etx - run) % 2 == 0 ? 2 : 1", "1", "replies", "intact"),
    (STORE, STORE, "tagstore::kShortString ? 1 : 0", "tagstore::kShortString ? 0 : 0", "replies", "says value"),
    (STORE, STORE, "static_cast<char>(value.typeHigh)", "'\\0'", "replies", "says type"),
    (DRIVER, DRIVER, "        settings.failureCount = 0;\n", "", "sessions", "driver: settings"),
    (DRIVER, DRIVER, "    request.startAddress = 0;\n", "", "sessions", "driver:   startAddress 3"),
    (DRIVER, DRIVER, "        readNumber = 0;\n        head.replyLength = length;", "        head.replyLength = length;",
     "sessions", "attempts of DataCom"),
    (DRIVER, DRIVER, "kLongestBurst = 5", "kLongestBurst = 6", "sessions", "Start: long bursts"),
    (DRIVER, DRIVER, "    driverstate::notifyRefresh(PLC_driver.result.varType);\n", "", "sessions", "model:  callback"),
    (STATION, STATION, "counter == 0xFFFF ? 1 :", "counter == 0xFFFF ? 0 :", "sessions", "transactionCounter 0"),
    (STATION, STATION, "    if (!flag)\n        record.connectionId.clear();\n", "", "sessions", "connectionId"),
    (SETUP, SETUP, "    patchSerial(bytes);\n    forwardOpen =", "    forwardOpen =", "sessions", "sendQueue"),
    (LISTS, LISTS, "for (int i = 1; i < writes.size(); ++i)", "for (int i = 0; i < writes.size(); ++i)", "sessions",
     "write A of station 1; write A of station 1"),
    ("Func_GetOrSetData.cpp", "Func_GetOrSetData.cpp", "if (!record.handshakeDone)", "if (false)", "sessions",
     "driver: GetRegisterData 1"),
]


def compile_commands(build):
    """The command that compiles each unit of the driver in BUILD."""
    commands = json.loads((build / "compile_commands.json").read_text())
    return {Path(entry["file"]).relative_to(SOURCES).as_posix(): entry for entry in commands
            if SOURCES in Path(entry["file"]).parents and "micro850.dir" in entry["command"]}


def faulty_library(folder, commands, fault):
    """Builds the driver with one fault in FOLDER and returns the library's path."""
    unit, file, old, new = fault[:4]
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
            command.append("-O0")
            subprocess.run(command, cwd=folder, check=True)
        objects.append(str(compiled))
    library = folder / "libmicro850.so.0"
    subprocess.run(["c++", "-shared", f"-Wl,-soname,{library.name}", "-o", str(library), *objects, "-lQt5Core"],
                   check=True)
    return library


def missed(program, commands, fault):
    """What is wrong with the program's run with this fault; empty if it notices the fault."""
    part, message = fault[4:]
    with tempfile.TemporaryDirectory() as folder:
        library = faulty_library(Path(folder), commands, fault)
        run = subprocess.run([program, "--quick", "--jobs", "1", "--only", part], env={**os.environ, "LD_PRELOAD": str(library)},
                             stdout=subprocess.PIPE, text=True, check=False)
    return "" if run.returncode == 1 and message in run.stdout else f"{fault}: {run.returncode}\n{run.stdout}"


def main():
    """Runs every fault and fails if one is missed."""
    build, program = Path(sys.argv[1]), sys.argv[2]
    commands = compile_commands(build)
    assert commands, "no unit of the driver is in compile_commands.json"
    with ThreadPoolExecutor(max_workers=2) as pool:
        misses = [miss for miss in pool.map(lambda fault: missed(program, commands, fault), FAULTS) if miss]
    print("\n".join(misses) or f"{len(FAULTS)} of {len(FAULTS)} faults are noticed")
    sys.exit(1 if misses else 0)


if __name__ == "__main__":
    main()
