"""Minimises the inputs of the fuzz harnesses and packs their archives again; called by scripts/pack-corpora.

An archive gets the seeds that make_corpus writes, under their names, and of the other inputs those that reach
code which no other input reaches. Equal inputs give an equal archive: names are sorted, times and owners fixed.
"""

import argparse
import io
import lzma
import shutil
import subprocess
import sys
import tarfile
import tempfile
from pathlib import Path

import harnesses


def pack(folder, archive):
    """Writes the files of the folder to the archive; gives their number."""
    names = sorted(path.name for path in folder.iterdir())
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        for name in names:
            content = (folder / name).read_bytes()
            entry = tarfile.TarInfo(name)
            entry.size = len(content)
            tar.addfile(entry, io.BytesIO(content))
    archive.write_bytes(lzma.compress(packed.getvalue(), preset=9 | lzma.PRESET_EXTREME))
    return len(names)


def minimise(name, build, seeds, target):
    """Fills the target with the seeds and with what the other inputs reach besides them."""
    target.mkdir()
    if (seeds / name).is_dir():
        shutil.copytree(seeds / name, target, dirs_exist_ok=True)
    sources = [harnesses.unpacked(build, name), harnesses.found(build, name)]
    log = build / f"merge-{name}.log"
    with open(log, "wb") as output:
        done = subprocess.run([build / "bin" / f"fuzz_{name}", "-merge=1", target,
                               *(source for source in sources if source.is_dir())],
                              stdout=output, stderr=subprocess.STDOUT)
    if done.returncode != 0:
        sys.exit(f"{harnesses.tail(log, 40)}pack-corpora: {name}: the inputs could not be merged, see {log}")


def main():
    parser = argparse.ArgumentParser(
        prog="pack-corpora", description="Minimises the inputs of the fuzz harnesses and packs their archives again.")
    harnesses.add_arguments(parser)
    arguments = harnesses.parse(parser)
    harnesses.build("pack-corpora", arguments.build, "fuzzers", "make_corpus")
    with tempfile.TemporaryDirectory() as scratch:
        seeds = Path(scratch) / "seeds"
        subprocess.run([arguments.build / "bin" / "make_corpus", seeds], check=True)
        for name in arguments.names:
            minimise(name, arguments.build, seeds, Path(scratch) / name)
            count = pack(Path(scratch) / name, harnesses.archive(name))
            print(f"pack-corpora: {name}: {count} inputs, {harnesses.archive(name).stat().st_size} bytes", flush=True)


if __name__ == "__main__":
    main()
