"""The texts are plain English, correctly spelt: english.phrases, english.allowed, english.words."""
import os
import re
import subprocess
import unittest

from xbsa import ROOT

SKIPPED = ("tests/tool/english.", "tests/tool/test_english.py")
PAGES = re.compile(r"(README|CHANGELOG|CONTRIBUTING|docs/.*)\.md|man/.*")


def lines(name):
    with open(os.path.join(ROOT, "tests/tool/english." + name), encoding="utf-8") as file:
        return [line.rstrip("\n") for line in file if line[0] != "#"]


PHRASES = [(re.compile(pattern.replace(" ", r"\s+(?:(?://|#|\*)\s+)?"), re.IGNORECASE), *sentences)
           for pattern, *sentences in (line.split(" => ") for line in lines("phrases"))]
ALLOWED = [line.split(" => ")[0] for line in lines("allowed")]


def output(*command, text=None):
    return subprocess.run(command, input=text, stdout=subprocess.PIPE, text=True, check=False).stdout


def files():
    for path in subprocess.check_output(["git", "ls-files"], cwd=ROOT, text=True).split():
        if not path.startswith(SKIPPED) and not path.endswith((".svg", ".png")):
            with open(os.path.join(ROOT, path), encoding="utf-8") as file:
                yield path, re.sub("|".join(map(re.escape, ALLOWED)), "", file.read())


def phrases(text):
    return [f"{text.count(chr(10), 0, found.start()) + 1}: {found[0]}"
            for row in PHRASES for found in row[0].finditer(text)]


def misspelt(text):
    """In prose of Markdown or man: without code, links, macros, and names with odd capitals."""
    text = re.sub(r"(?ms)^ *```.*?^ *```|`[^`]*`|\]\([^)]*\)|<[^>]+>|https?://\S+", " ", text)
    text = re.sub(r"(?m)^\.[A-Z]+|\\f.|\\\(..|\\", " ", text)
    words = set(re.findall(r"(?<![\w./*$~-])[A-Z]?[a-z]+(?![\w/=*-]|\.\w)", text))
    unknown = output("aspell", "list", "-d", "en_GB", text="\n".join(words)).split()
    return set(unknown) - set(" ".join(lines("words")).split())


def mistakes(text):
    """In any file, without names as in C++ and the bullets of man."""
    return output("codespell", "--ignore-regex", r"\b[a-z]{1,3}[A-Z]\w*|\\\(bu", "-", text=text)


class English(unittest.TestCase):
    maxDiff = None

    def test_list(self):
        for _, bad, good in PHRASES:
            wrapped = bad.replace(" ", "\n    // ")
            self.assertEqual([len(phrases(text)) for text in (bad, wrapped, good)], [1, 1, 0], bad)
        self.assertEqual(misspelt("A `recieve` wich\n```\nxyzzy\n```\n.B \\fBteh\\fR"), {"wich", "teh"})
        self.assertIn("receive", mistakes("uMark and recieve"))

    def test_phrases(self):
        self.assertEqual({path: found for path, text in files() if (found := phrases(text))}, {})

    def test_spelling(self):
        self.assertEqual(mistakes("\n".join(f"{path}: {line}" for path, text in files()
                                            for line in text.splitlines())), "")
        self.assertEqual({path: found for path, text in files()
                          if PAGES.fullmatch(path) and (found := misspelt(text))}, {})
