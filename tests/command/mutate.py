#!/usr/bin/env python3
"""
On command, as root: do the tests that CI runs on the library notice small faults in it? Plants some
at random places of a copy of src/, one at a time, and asks the tests, the likely ones first. Faults
that change nothing are listed in mutate.equivalent, each with the reason.

  tests/command/mutate.py [--seed N] [--count M]    M faults (100) of the choice N (1)

Returns 1 when more than five of a hundred are missed.
"""
import argparse
import collections
import concurrent.futures
import glob
import json
import os
import random
import re
import shlex
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.abspath(__file__ + "/../../..")
# Not the tools' own tests, nor what looks at the sources; where memory is watched, the quick ones.
ASKED = {"release": "answers|calls|com|faults|helpers|hosts?|random|servers|torture|trace$|transfer",
         "asan": "asan.(calls|com|helpers|leaks|trace$)"}
AT_ONCE = 4  # tests of a fault
STOPPED = threading.Event()
ALONE = ["unshare", "--pid", "--fork", "--kill-child", "--mount-proc"]  # ends with all its children

# What is looked for in the code, without its comments and texts, and what takes its place.
CHANGES = [
    (r" && ", " || "), (r" \|\| ", " && "), (r" == ", " != "), (r" != ", " == "),
    (r" >= ", " > "), (r" > ", " >= "), (r" <= ", " < "), (r" < ", " <= "),
    (r" [+-] 1\b(?!\.)", ""), (r"\btrue\b", "false"), (r"\bfalse\b", "true"),
    (r"\b(?:MSG|O|SO|F)_[A-Z_]+\b|\berrno\b(?=[;,)])", "0"), (r"\.right\b", ".left"),
    (r" [|+-]= ", " = "), (r" (?:\||\+|-) [\w.>-]+(?![\w.>(-])", ""), (r" [*/%] \w+(?![\w(.])", ""),
    (r"(?<![\w.-])-?\d+(?=[uUlL]*\b)(?![.\w]*[xX.])", lambda found: str(int(found[0]) + 1)),
    (r"(?<=\bif \()|(?<=\bwhile \()", "condition"), (r";", "statement"),
]
NO_EXPRESSION = re.compile(
    r"(return|break|continue|case|default|goto|static\w*|const|struct|typedef|using|extern|enum|"
    r"namespace)\b|[\w:]+(<.*>)?[\s*&]+\w+\s*(=|;|\[|\(|\{|,|$)|\}|$")
HEAD = re.compile(r"[\s\x01]*(?:(?:if|while|for|switch) \(|else\b|do\b|case [^:]*:|default:)")


def blanked(text):
    """The same length, without comments, texts, and lines for the preprocessor."""
    return re.sub(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|^#(?:\\\n|[^\n])*',
                  lambda found: re.sub(r"[^\n]", "\x01", found[0]), text, flags=re.M | re.S)


def closing(code, start):
    """The place of the bracket that closes the one in front of start."""
    depth = 1
    while depth:
        depth += {"(": 1, ")": -1}.get(code[start], 0)
        start += 1
    return start - 1


def statement(code, end):
    """Where the statement that ends there begins, or None where it is a declaration or a jump."""
    depth, start = 0, end
    while start and (depth or code[start - 1] not in ";{}"):
        start -= 1
        depth += {")": 1, "(": -1}.get(code[start], 0)
        if depth < 0:
            return None  # inside the head of a loop
    while head := HEAD.match(code[start:end]):
        start += head.end()
        start = closing(code, start) + 1 if head[0][-1] == "(" else start
    start += re.match(r"[\s\x01]*", code[start:]).end()
    return None if NO_EXPRESSION.match(code[start:end]) else start


def faults_in(text):
    """For each place: where the old text begins and ends, and the new one."""
    code = blanked(text)
    for pattern, new in CHANGES:
        for found in re.finditer(pattern, code):
            start, end = found.span()
            if new == "condition":
                end = closing(code, start)
                yield start, end, f"!({text[start:end]})"
            elif new == "statement":
                start = statement(code, start)
                if start is not None:
                    yield start, end, ";"
            else:
                yield start, end, new(found) if callable(new) else new


class Fault:
    def __init__(self, file, text, start, end, new):
        self.file, self.text = file, text[:start] + new + text[end:]
        first, last = text.rfind("\n", 0, start) + 1, (text + "\n").find("\n", end)
        old, line = text[first:last], text[first:start] + new + text[end:last]
        self.label = f"{file}: {' '.join(old.split())} => {' '.join(line.split())}"
        self.number = text.count("\n", 0, start) + 1


def call(folder, *words):
    """What a command prints that must end well."""
    done = subprocess.run(words, cwd=folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          encoding="latin-1", check=False)
    if done.returncode:
        raise SystemExit(f"{' '.join(words)}: {done.stdout[-2000:]}")
    return done.stdout


class Build:
    """Of a preset, with the tests that ask its library or a copy of it."""

    def __init__(self, tree, preset, tool, limit):
        self.tree, self.folder, self.limit = tree, f"{tree}/build/{preset}", limit
        ftpd = os.environ.get("XBSA_FTPD", os.path.expanduser("~/.cache/korva-xbsa/ftpd"))
        call(tree, "cmake", "--preset", preset, f"-DXBSA_TOOL={tool}", f"-DXBSA_FTPD={ftpd}")
        call(tree, "cmake", "--build", "--preset", preset, "-j2")
        os.mkdir(f"{self.folder}/tmp")
        listed = json.loads(call(self.folder, "ctest", "--show-only=json-v1"))["tests"]
        self.tests = {row["name"]: row for row in listed if re.match(ASKED[preset], row["name"])}
        with open(f"{self.folder}/compile_commands.json", encoding="utf-8") as file:
            self.commands = {row["file"]: row for row in json.load(file)}
        self.seconds, self.sound, self.lock = collections.Counter(), set(), threading.Lock()

    def make(self, fault, folder):
        """The library with a fault; False where the compiler refuses it or makes the same of it."""
        for name in "lib", "bin", "tmp":
            os.makedirs(f"{folder}/{name}", exist_ok=True)
        row = self.commands[f"{self.tree}/{fault.file}"]
        words, source = shlex.split(row["command"]), f"{folder}/{os.path.basename(fault.file)}"
        sound, made = words[words.index("-o") + 1], f"{folder}/made.o"
        with open(source, "w", encoding="utf-8") as file:
            file.write(fault.text)
        words = [made if word == sound else word for word in words[:-1]] + [source, "-w"]
        if subprocess.run(words, cwd=row["directory"], capture_output=True, check=False).returncode:
            return False
        with open(made, "rb") as one, open(f"{row['directory']}/{sound}", "rb") as other:
            if one.read() == other.read():
                return False
        with open(f"{self.folder}/src/CMakeFiles/xbsa.dir/link.txt", encoding="utf-8") as file:
            words = [made if word == sound else word for word in shlex.split(file.read())]
        at = words.index("-o") + 1
        words[at] = os.path.join(folder, "lib", os.path.basename(words[at]))
        call(f"{self.folder}/src", *words)
        os.link(words[at], f"{folder}/lib/libxbsa.so.1")
        if os.path.exists(f"{self.folder}/bin"):
            os.link(f"{self.folder}/bin/xbsactl", f"{folder}/bin/xbsactl")
        return True

    def start(self, name, folder):
        row = self.tests[name]
        values = {item["name"]: item["value"] for item in row["properties"]}
        env = dict(line.split("=", 1) for line in values["ENVIRONMENT"])
        for key in "XBSA_LIBRARY", "XBSA_TOOL":
            env[key] = env[key].replace(self.folder, folder)
        at = row["command"].index("unittest") + 1
        return subprocess.Popen(
            [*ALONE, *row["command"][:at], "-f", *row["command"][at:]], stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL, cwd=values["WORKING_DIRECTORY"],
            env={**os.environ, **env, "TMPDIR": f"{folder}/tmp"})

    def first_to_fail(self, names, folder):
        """Twice, or by its time limit; or None."""
        names, running, failed = collections.deque(names), {}, set()
        try:
            while (names or running) and not STOPPED.is_set():
                while names and len(running) < AT_ONCE:
                    name = names.popleft()
                    running[name] = self.start(name, folder), time.monotonic()
                time.sleep(0.02)
                for name, (test, begin) in list(running.items()):
                    seconds = time.monotonic() - begin
                    if seconds > self.limit or (test.poll() and name in failed):
                        return name
                    if test.poll() is not None:
                        del running[name]
                        self.seconds[name] = self.seconds[name] or seconds
                    if test.poll():
                        failed.add(name)
                        names.appendleft(name)
        finally:
            for test, _ in running.values():
                test.kill()
                test.wait()
        return None

    def first_to_notice(self, folder, likely):
        """A test that passes without the fault."""
        names = sorted(self.tests, key=lambda name: (-likely[name], self.seconds[name]))
        found = self.first_to_fail(names, folder)
        with self.lock:
            if found and found not in self.sound and self.first_to_fail([found], self.folder):
                raise SystemExit(f"{found} fails without any fault")
            self.sound.add(found)
        return found


class Work:
    """The tree, its builds, and what was learned about which tests notice faults of a file."""

    def __init__(self, tree):
        self.tree, self.lock = tree, threading.Lock()
        self.likely = collections.defaultdict(collections.Counter)
        self.release, self.asan = Build(tree, "release", "OFF", 90), None
        while failing := self.release.first_to_fail(self.release.tests, self.release.folder):
            print(f"{failing} fails without any fault and is not asked")
            del self.release.tests[failing]
        self.release.sound.update(self.release.tests)

    def second(self):
        """Only when the release let a fault pass."""
        with self.lock:
            self.asan = self.asan or Build(self.tree, "asan", "ON", 300)
        return self.asan

    def notice(self, fault, folder):
        begin, keys = time.monotonic(), (fault.file, os.path.dirname(fault.file))
        likely = self.likely[keys[0]] + self.likely[keys[1]]
        found = self.release.first_to_notice(folder, likely)
        shutil.rmtree(folder, ignore_errors=True)
        if not found and not STOPPED.is_set() and self.second().make(fault, folder):
            found = self.second().first_to_notice(folder, likely)
        shutil.rmtree(folder, ignore_errors=True)
        for key in keys:
            self.likely[key][found] += 1
        return fault, found, time.monotonic() - begin


def read(name):
    with open(os.path.join(ROOT, name), encoding="utf-8") as file:
        return file.read()


def all_faults():
    for path in sorted(glob.glob("src/**/*.cpp", root_dir=ROOT, recursive=True)):
        text = read(path)
        for place in faults_in(text):
            yield Fault(path, text, *place)


def chosen(arguments):
    """All that are not equivalent, in the order of the choice."""
    listed = {line.rsplit("  # ", 1)[0] for line in read("tests/command/mutate.equivalent").splitlines()}
    faults = list(all_faults())
    if stale := listed - {fault.label for fault in faults}:
        raise SystemExit("mutate.equivalent lists what is not a fault now:\n" + "\n".join(sorted(stale)))
    random.Random(arguments.seed).shuffle(faults)
    yield from (fault for fault in faults if fault.label not in listed)


def planted(work, arguments):
    """Each fault that a compiler takes, and the folder of its library."""
    count = 0
    for fault in chosen(arguments):
        folder = f"{work.tree}/{count}"
        if count == arguments.count:
            return
        if work.release.make(fault, folder):
            count += 1
            yield fault, folder
        else:
            shutil.rmtree(folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__.strip(),
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--count", type=int, default=100)
    arguments = parser.parse_args()
    tree, begin = tempfile.mkdtemp(prefix="mutate"), time.monotonic()
    os.chmod(tree, 0o755)
    shutil.copytree(ROOT, tree, dirs_exist_ok=True, symlinks=True,
                    ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit("stopped"))
    missed = count = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        try:
            work = Work(tree)
            asked = [pool.submit(work.notice, *pair) for pair in planted(work, arguments)]
            for done in concurrent.futures.as_completed(asked):
                fault, found, seconds = done.result()
                count, missed = count + 1, missed + (not found)
                print(f"{count:3} line {fault.number} of {fault.label}: "
                      f"{f'noticed by {found}' if found else 'MISSED'}, {seconds:.0f} s", flush=True)
        finally:
            STOPPED.set()
            pool.shutdown(cancel_futures=True)
            shutil.rmtree(tree, ignore_errors=True)
    print(f"{count - missed} of {count} noticed, {(time.monotonic() - begin) / count:.0f} s each")
    return missed * 20 > count


sys.exit(main())
