"""The fuzz harnesses: their names, their archives of inputs, and their build with libFuzzer."""

import fcntl
import os
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDER = ROOT / "tests" / "fuzz"
NAMES = sorted(path.name[: -len("_fuzz.cpp")] for path in FOLDER.glob("*_fuzz.cpp"))


def archive(name):
    return FOLDER / "corpus" / f"{name}.tar.xz"


def unpacked(build, name):
    """Where the build unpacks the archive."""
    return build / "tests" / "fuzz" / "corpus" / name


def found(build, name):
    """Where scripts/fuzz keeps the inputs that reached new code."""
    return build / "corpus" / name


def add_arguments(parser):
    parser.add_argument("--build", type=Path, default=Path("build-fuzz"), metavar="DIR",
                        help="where to build (default build-fuzz)")
    parser.add_argument("names", nargs="*", metavar="HARNESS", help=f"{', '.join(NAMES)} (default all)")


def parse(parser):
    arguments = parser.parse_args()
    for name in arguments.names:
        if name not in NAMES:
            parser.error(f"no harness \"{name}\" (there are: {' '.join(NAMES)})")
    arguments.names = arguments.names or NAMES
    arguments.build = arguments.build.resolve()
    return arguments


def build(program, folder, *targets, options=()):
    """Configures with the options and builds the targets; only one process at a time builds in the folder."""
    if not shutil.which("clang++"):
        sys.exit(f"{program}: clang++ is missing: run scripts/setup test")
    folder.mkdir(parents=True, exist_ok=True)
    log = folder / "build.log"
    configure = ["cmake", "--preset", "fuzz", "-B", folder, *options]
    compile_and_link = ["cmake", "--build", folder, "--target", *targets, "--", f"-j{os.cpu_count()}"]
    with open(folder / ".lock", "w", encoding="ascii") as lock, open(log, "wb") as output:
        fcntl.flock(lock, fcntl.LOCK_EX)

        def run(command):
            if subprocess.run(command, cwd=ROOT, stdout=output, stderr=subprocess.STDOUT).returncode != 0:
                sys.exit(f"{tail(log, 40)}{program}: the build failed, see {log}")

        # The build itself configures again what changed, but not for a changed preset or other options.
        configured = folder / "configured-with"
        wanted = "\n".join([(ROOT / "CMakePresets.json").read_text(encoding="utf-8"), *options])
        if not configured.exists() or configured.read_text(encoding="utf-8") != wanted:
            run(configure)
            configured.write_text(wanted, encoding="utf-8")
        run(compile_and_link)


def tail(log, lines):
    text = log.read_text(encoding="utf-8", errors="replace").splitlines(keepends=True)
    return "".join(text[-lines:])
