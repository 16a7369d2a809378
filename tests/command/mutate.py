#!/usr/bin/env python3
"""
On command, as root: do CI's tests of the library notice small faults in it?
Plants random faults in a copy of src/, one at a time, and runs the tests, those
that failed last first. mutate.equivalent lists faults that change nothing, each
with the reason.

  tests/command/mutate.py [--seed N] [--count M]   M faults (100) of seed N (1)

Returns 1 if the tests miss more than five of a hundred.
"""
import argparse
import glob
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.abspath(__file__ + "/../../..")
FTPD = os.environ.get("XBSA_FTPD", os.path.expanduser("~/.cache/korva-xbsa/ftpd"))
# Neither the tools' tests nor those of the sources. With the sanitizer only quick tests run, and only
# if those of the release build miss a fault.
ASKED = {"release": "^(calls|com|faults|helpers|hosts?|journal|random|settings|torture|trace$|transfer)",
         "asan": "^asan.(calls|com|helpers|journal|trace$)"}
ALONE = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]  # ends with all children
# A faulty restore may never end. The sanitizer needs all addresses.
LIMITED = {"release": ["prlimit", "--as=4000000000"], "asan": []}

# Patterns in a line without its comment and texts, and their replacements.
CHANGES = [
    (r" && ", " || "), (r" \|\| ", " && "), (r" == ", " != "), (r" != ", " == "),
    (r" >= ", " > "), (r" > ", " >= "), (r" <= ", " < "), (r" < ", " <= "),
    (r" [+-] 1\b(?!\.)", ""), (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\b(?:MSG|O|SO|F)_[A-Z_]+\b|\berrno\b(?=[;,)])", "0"), (r"\.right\b", ".left"),
    (r" [|+-]= ", " = "), (r" (?:\||\+|-) [\w.>-]+(?![\w.>(-])", ""), (r" [*/%] \w+(?![\w(.])", ""),
    (r"(?<![\w.-])-?\d+(?=[uUlL]*\b)(?![.\w]*[xX.])", lambda found: str(int(found[0]) + 1)),
    (r"\b(?:if|while) \(", lambda found: found[0] + "!"),  # negates the first operand
    # a whole call or assignment, also after a condition
    (r"(?<=\) )[\w.>\[\]-]+( [|+-]?= |\().*;$|^ +[\w.>\[\]-]+( [|+-]?= |\().*;$", ";")]


def blanked(line):
    """The line with comment, texts and preprocessor directives blanked out."""
    return re.sub(r'//.*|^#.*|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'',
                  lambda found: "\x01" * len(found[0]), line)


def all_faults():
    """For each fault: file, line number, new line and label."""
    for file in sorted(glob.glob("src/**/*.cpp", root_dir=ROOT, recursive=True)):
        for number, line in enumerate(read(file).splitlines()):
            for pattern, new in CHANGES:
                for found in re.finditer(pattern, blanked(line)):
                    text = new(found) if callable(new) else new
                    changed = line[:found.start()] + text + line[found.end():]
                    yield file, number, changed, f"{file}: {line.strip()} => {changed.strip()}"


def read(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as file:
        return file.read()


def chosen(seed):
    """All faults that are not equivalent, in random order."""
    listed = {line.rsplit("  # ", 1)[0] for line in read("tests/command/mutate.equivalent").splitlines()}
    faults = list(all_faults())
    if stale := listed - {label for *_, label in faults}:
        raise SystemExit("mutate.equivalent lists what is not a fault now:\n" + "\n".join(sorted(stale)))
    random.Random(seed).shuffle(faults)
    return [fault for fault in faults if fault[-1] not in listed]


def run(tree, *words):
    return subprocess.run(words, cwd=tree, capture_output=True, encoding="latin-1", check=False)


def build(tree, preset):
    """The bytes of the library, or None if the compiler refuses it."""
    if not os.path.exists(f"{tree}/build/{preset}/CMakeCache.txt"):
        run(tree, "cmake", "--preset", preset, "-DXBSA_TOOL=OFF", f"-DXBSA_FTPD={FTPD}").check_returncode()
    if run(tree, "cmake", "--build", "--preset", preset, "-j2").returncode:
        return None
    with open(f"{tree}/build/{preset}/lib/libxbsa.so.1", "rb") as file:
        return file.read()


def first_to_fail(tree, preset):
    """The test that fails twice or times out, or None."""
    done = run(tree, *ALONE, *LIMITED[preset], "timeout", "900", "ctest", "--preset", preset, "-j4",
               "-R", ASKED[preset], "--stop-on-failure", "--repeat", "until-pass:2")
    if done.returncode == 124:
        return "the time limit"
    failed = re.findall(r"^\s*\d+ - (\S+) \(", done.stdout, re.M)
    if done.returncode and not failed:
        raise SystemExit(done.stdout + done.stderr)
    return failed[0] if failed else None


def plant(tree, sound, fault):
    """Whether the line compiles to other code, and the first test that notices it."""
    file, number, changed, _ = fault
    lines = read(file).splitlines()
    lines[number] = changed
    found = None
    try:
        with open(f"{tree}/{file}", "w", encoding="utf-8") as source:
            source.write("\n".join(lines) + "\n")
        if build(tree, "release") in (None, sound):
            return False, None
        found = first_to_fail(tree, "release")
        if not found and build(tree, "asan"):
            found = first_to_fail(tree, "asan")
    finally:
        shutil.copy(f"{ROOT}/{file}", f"{tree}/{file}")
        os.utime(f"{tree}/{file}")
    return True, found


def main():
    parser = argparse.ArgumentParser(description=__doc__.strip(),
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=100)
    arguments = parser.parse_args()
    count = missed = 0
    with tempfile.TemporaryDirectory(prefix="mutate") as tree:
        os.chmod(tree, 0o755)
        shutil.copytree(ROOT, tree, dirs_exist_ok=True, symlinks=True,
                        ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
        sound = {preset: build(tree, preset) for preset in ASKED}["release"]
        for preset in ASKED:
            if failed := first_to_fail(tree, preset):
                raise SystemExit(f"{failed} fails without any fault")
        for fault in chosen(arguments.seed):
            planted, found = plant(tree, sound, fault)
            count, missed = count + planted, missed + (planted and not found)
            if planted:
                print(f"{count:3} line {fault[1] + 1} of {fault[-1]}: "
                      f"{f'noticed by {found}' if found else 'MISSED'}", flush=True)
            if count == arguments.count:
                break
    print(f"{count - missed} of {count} noticed")
    return missed * 20 > count


sys.exit(main())
