"""What the built object promises to the program that loads it."""
import ctypes
import glob
import os
import re
import subprocess
import unittest

from xbsa import LIBRARY, ROOT, Global, read_text

OBJECTS = os.path.join(os.environ["XBSA_BUILD"], "src", "CMakeFiles", "xbsa.dir")


def readelf(option):
    return subprocess.run(["readelf", "-W", option, LIBRARY], check=True, capture_output=True,
                          text=True).stdout


def symbols(room, kinds):
    files = [os.path.join(OBJECTS, room, name + ".o")
             for name in os.listdir(f"{ROOT}/src/{room}") if name.endswith(".cpp")]
    listed = subprocess.run(["nm", "-P", *files], check=True, capture_output=True, text=True)
    return set(re.findall(rf"^(\S+) [{kinds}]\b", listed.stdout, re.M))


class Contract(unittest.TestCase):
    def test_rooms(self):
        table = re.findall(r"^\| `src/(\w+)` \|.*\| ([\w ,]*) \|$", read_text(ROOT + "/CONTRIBUTING.md"),
                           re.M)
        rooms = [room for room, _ in table]
        self.assertEqual({f"{ROOT}/src/{room}/" for room in rooms}, set(glob.glob(ROOT + "/src/*/")))
        made = {room: symbols(room, "TDBR") for room in rooms}
        for place, (room, uses) in enumerate(table):
            wanted = symbols(room, "U")
            used = {other for other in rooms if other != room and made[other] & wanted}
            self.assertEqual(used, set(re.findall(r"\w+", uses)), room)
            self.assertLessEqual(used, set(rooms[place + 1:]), room)

    def test_exports(self):
        text = re.sub(r"#.*", "", read_text(os.environ["XBSA_MAP"]))
        listed = re.findall(r"(\w+);", text.split("local:")[0])
        symbols = re.findall(r"(\d+) (?:FUNC|OBJECT) +GLOBAL +DEFAULT +\d+ (\w+)",
                             readelf("--dyn-syms"))
        self.assertEqual(sorted(name for _, name in symbols), sorted(listed))
        self.assertIn((str(ctypes.sizeof(Global)), "sGlobal"), symbols)

    def test_headers(self):
        """Each header stands alone, in every C and C++ that a compiler of today knows."""
        strict = "-fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror".split()
        for standard in ("c90", "c99", "c11", "c17", "c++98", "c++11", "c++17", "c++20"):
            for header in glob.glob(ROOT + "/include/*.h"):
                language = "c++-header" if "+" in standard else "c-header"
                done = subprocess.run(["cc", f"-std={standard}", "-x", language, *strict, header],
                                      check=False, capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (0, ""), (standard, header))

    def test_loading(self):
        """Needs the C library alone, an old one, and leaves nothing to be bound or rewritten."""
        dynamic, segments = readelf("-d"), readelf("-l")
        self.assertEqual(re.findall(r"NEEDED.*\[(.*)\]", dynamic), ["libc.so.6"])
        self.assertEqual(re.findall(r"SONAME.*\[(.*)\]", dynamic), ["libxbsa.so.1"])
        self.assertRegex(dynamic, r"BIND_NOW")
        self.assertNotRegex(dynamic, r"SYMBOLIC")  # a program sees the record that the library uses
        self.assertRegex(segments, r"GNU_RELRO")
        self.assertRegex(segments, r"GNU_STACK.* RW +0x")
        versions = re.findall(r"GLIBC_([\d.]+)", readelf("-V"))
        self.assertEqual([v for v in versions if [int(n) for n in v.split(".")] > [2, 17]], [])
        self.assertTrue(versions)
