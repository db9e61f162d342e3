#!/usr/bin/env python3
"""Plants one fault after the other in a copy of the sources, runs the tests of its area, and lists the survivors.

  run.py [--list] [--jobs N] [--survivors FILE] [FOLDER...]

The tables are the *.txt files beside this script:

  @ FOLDER TESTS...   the folders of tests (or parts of test names) that are run for sources in FOLDER
  = FILE [TESTS...]   the source of the faults that follow; its own tests run besides those of the folder
  - OLD               the text that is replaced, up to the end of the row; consecutive rows are several text lines
  + NEW               the text that replaces it, in the same form; "+" alone is the empty text
  # ...               a comment

OLD must occur in FILE exactly once. The copy is in build/mutants/tree; no other source is changed.
"""
import argparse
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
TREE = TOP / "build/mutants/tree"
BUILD = TREE / "build/release"
LOG = TOP / "build/logs/mutants.log"
LIBRARIES = ["tirn", "hurn", "zut"]
# Sources that are also linked into the test programs, which are then rebuilt.
STATIC = re.compile(r"\.h$|^libtirn/(base|arch|crc32/x86_64/forms)/|^platform/(bounded/|kernel/[^/]*$)")
AREA_SECONDS = 400  # a longer run hangs, which counts as a failure
LEAST_SHARE = 85


class Fault:
    def __init__(self, where, source, tests):
        self.where, self.source, self.tests, self.old, self.new, self.line = where, source, tests, [], [], 0

    def plant(self, text):
        """Returns the text with the fault, or None if the row is stale."""
        old, new = "\n".join(self.old), "\n".join(self.new)
        if not old or text.count(old) != 1:
            return None
        self.line = text[: text.index(old)].count("\n") + 1
        return text.replace(old, new)

    def change(self):
        return " / ".join(s.strip() for s in self.old) + "  ->  " + " / ".join(s.strip() for s in self.new)


def read_tables():
    faults, folders = [], {}
    for table in sorted(pathlib.Path(__file__).parent.glob("*.txt")):
        source, tests, kind = "", [], ""
        for number, row in enumerate(table.read_text().splitlines(), 1):
            if not row or row[0] == "#":
                continue
            before, kind, text = kind, row[0], row[2:]
            if kind == "@":
                folders[text.split()[0]] = text.split()[1:]
            elif kind == "=":
                source, *tests = text.split()
            elif kind == "-":
                if before != "-":
                    faults.append(Fault(f"{table.name}:{number}", source, tests))
                faults[-1].old.append(text)
            elif kind == "+":
                faults[-1].new.append(text)
            else:
                sys.exit(f"{table.name}:{number}: not a row: {row}")
    for fault in faults:
        fault.folder = next((f for f in folders if fault.source.startswith(f + "/")), None)
        if fault.folder is None:
            sys.exit(f"{fault.where}: no tests are named for {fault.source}")
        fault.tests = fault.tests + folders[fault.folder]
    return faults


def copy_sources():
    """Writes only files that differ, so that a second run builds little."""
    names = subprocess.run(["git", "-c", f"safe.directory={TOP}", "ls-files", "-z", "--cached", "--others",
                            "--exclude-standard"], cwd=TOP, check=True, capture_output=True).stdout
    names = {n for n in names.decode().split("\0") if n and (TOP / n).is_file()}
    for name in names:
        source, target = TOP / name, TREE / name
        if not target.is_file() or target.read_bytes() != source.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(source.read_bytes())
            target.chmod(source.stat().st_mode)
    for old in TREE.rglob("*"):
        name = str(old.relative_to(TREE))
        if old.is_file() and not name.startswith("build/") and name not in names:
            old.unlink()


def run(command, seconds=None):
    """Returns the status and the output of the command. One that takes too long is killed with all its processes; the
    status is then None."""
    process = subprocess.Popen(command, cwd=TREE, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True)
    try:
        output = process.communicate(timeout=seconds)[0]
    except subprocess.TimeoutExpired:
        os.killpg(process.pid, signal.SIGKILL)
        output = process.communicate()[0]
        process.returncode = None
    with LOG.open("a") as log:
        log.write(f"$ {' '.join(command)}\n{output}\n")
    return process.returncode, output


def build(targets):
    return run(["cmake", "--build", str(BUILD), "-j", str(OPTIONS.jobs), "--target", *targets])[0] == 0


def test(areas, *options):
    """Returns None if all tests pass, else a text that names what failed."""
    wanted = "|".join("^" + re.escape(a) if a.endswith("/") else re.escape(a) for a in areas)
    status, output = run(["ctest", "--test-dir", str(BUILD), "-j", str(OPTIONS.jobs), "--no-tests=error", "--timeout",
                          "60", "-R", wanted, "-LE", "models|packaging", *options], AREA_SECONDS)
    if status == 0:
        return None
    failed = re.findall(r"^\s+\d+ - (\S+ \(.*?\))", output, re.MULTILINE)
    return ", ".join(failed) or ("time limit" if status is None else output[-300:])


def programs(areas):
    return sorted(p.stem for a in areas if a.endswith("/") for p in (TREE / "tests" / a).glob("*_test.cpp"))


def prepare(faults):
    areas = sorted({a for f in faults for a in f.tests})
    print("Building, and running these tests without a fault:", *areas, flush=True)
    TREE.mkdir(parents=True, exist_ok=True)
    LOG.parent.mkdir(parents=True, exist_ok=True)
    LOG.write_text("")
    copy_sources()
    os.environ.update(CCACHE_BASEDIR=str(TREE), CCACHE_NOHASHDIR="1")
    if not (BUILD / "build.ninja").is_file() and run(["cmake", "--preset", "release"])[0] != 0:
        sys.exit(f"the configuration failed, see {LOG}")
    if not build(["all"]):
        sys.exit(f"the build failed, see {LOG}")
    failure = test(areas)
    if failure:
        sys.exit(f"tests fail without a fault: {failure}")


def judge(fault, changed):
    """Returns how the fault was found, or None. `changed` are the programs that still contain the previous fault."""
    path = TREE / fault.source
    sound = path.read_text()
    mine = programs(fault.tests) if STATIC.search(fault.source) else []
    path.write_text(fault.plant(sound))
    try:
        if not build([*LIBRARIES, *sorted({*mine, *changed})]):
            sys.exit(f"{fault.where}: does not compile: {fault.change()}")
        changed[:] = mine
        return test(fault.tests, "--stop-on-failure")
    finally:
        path.write_text(sound)


def main():
    global OPTIONS
    parser = argparse.ArgumentParser(prog="./dev mutants")
    parser.add_argument("--list", action="store_true", help="print the rows, plant none")
    parser.add_argument("--jobs", type=int, default=os.cpu_count())
    parser.add_argument("folder", nargs="*", help="only the faults in these folders, libtirn/cfg for one")
    OPTIONS = parser.parse_args()
    wanted = [f.rstrip("/") for f in OPTIONS.folder]
    faults = [f for f in read_tables() if not wanted or any((f.source + "/").startswith(w + "/") for w in wanted)]
    stale = [f for f in faults if not (TOP / f.source).is_file() or f.plant((TOP / f.source).read_text()) is None]
    for fault in stale:
        print(f"stale: {fault.where}: not once in {fault.source}: {fault.change()}")
    for fault in faults if OPTIONS.list else []:
        print(f"{fault.source}:{fault.line}: {fault.change()}  [{' '.join(fault.tests)}]")
    if OPTIONS.list or stale or not faults:
        print(f"{len(faults)} faults, {len(stale)} stale")
        sys.exit(1 if stale or not faults else 0)
    prepare(faults)
    counts, changed = {}, []
    for number, fault in enumerate(faults, 1):
        began = time.monotonic()
        found = judge(fault, changed)
        planted_and_found = counts.setdefault(fault.folder, [0, 0])
        planted_and_found[0] += 1
        planted_and_found[1] += found is not None
        outcome = f"found by {found}" if found else f"SURVIVED  {fault.change()}"
        print(f"[{number}/{len(faults)}] {fault.source}:{fault.line}: {outcome} ({time.monotonic() - began:.0f} s)",
              flush=True)
    print()
    for folder, (planted, found) in counts.items():
        print(f"{folder:32} {found:3} of {planted:3}")
    planted, found = (sum(c[i] for c in counts.values()) for i in (0, 1))
    print(f"{planted} planted, {found} found, {planted - found} survived ({100 * found // planted} %)")
    sys.exit(1 if 100 * found < LEAST_SHARE * planted else 0)


if __name__ == "__main__":
    main()
