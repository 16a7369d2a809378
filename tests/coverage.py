#!/usr/bin/env python3
"""Holds what gcovr counted against the list of exceptions; called by coverage.sh.

An exception is the file and the text of the line, so that it survives when lines move:

    src/stpc/line.cpp: if (iRet == 0) return 0;  # the reason

What a reason calls "now and then" may be run as well.
"""
import collections
import json
import re
import sys

# The level of the trace chooses here, and the rest of the line is arguments of that trace.
TRACE = re.compile(r"\bTRACE(_CALL|_REPLY)?\(")


def count(files):
    """What was not run, by file and text of the line; how many of lines and branches were."""
    missing, totals = collections.defaultdict(list), collections.Counter()
    for file in files:
        with open(file["file"], encoding="ascii") as source:
            texts = [line.strip() for line in source]
        for line in (row for row in file["lines"] if not row["gcovr/noncode"]):
            text = texts[line["line_number"] - 1]
            branches = [] if TRACE.search(text) else [row["count"] > 0 for row in line["branches"]]
            totals["lines"] += 1
            totals["lines run"] += line["count"] > 0
            totals["branches"] += len(branches)
            totals["branches run"] += sum(branches)
            if line["count"] == 0:
                missing[file["file"], text].append((line["line_number"], "the line"))
            elif not all(branches):
                missing[file["file"], text].append(
                    (line["line_number"], f"{branches.count(False)} of {len(branches)} branches"))
    return missing, totals


def read_exceptions(path):
    with open(path, encoding="ascii") as file:
        rows = [re.fullmatch(r"(\S+): (.+?)  # (.+)", line.rstrip("\n")) for line in file
                if line.strip()]
    return {(row[1], row[2]): row[3] for row in rows}


def main(counted, listed):
    with open(counted, encoding="ascii") as file:
        missing, totals = count(json.load(file)["files"])
    exceptions = read_exceptions(listed)
    unlisted = set(missing) - set(exceptions)
    run = sorted(row for row in set(exceptions) - set(missing)
                 if not exceptions[row].startswith("now and then: "))
    for file, text in sorted(missing):
        for number, what in missing[file, text]:
            print(f"{file}:{number}: not run: {what} of: {text}")
            print(f"    {exceptions.get((file, text), 'NOT LISTED')}")
    for file, text in run:
        print(f"{file}: listed, but run or gone: {text}")
    for kind in "lines", "branches":
        done, total = totals[kind + " run"], totals[kind]
        print(f"{kind}: {done} of {total}, {100 * done / total:.1f} %")
    return bool(unlisted or run)


sys.exit(main(*sys.argv[1:]))
