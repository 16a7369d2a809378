"""The promises of the built object to programs that load it."""
import ctypes
import glob
import os
import re
import subprocess
import unittest

from xbsa import LIBRARY, ROOT, Global, read_text

OBJECTS = {"src": "src/CMakeFiles/xbsa.dir", "tools/xbsactl": "tools/CMakeFiles/xbsactl.dir/xbsactl"}


def readelf(option):
    return subprocess.run(["readelf", "-W", option, LIBRARY], check=True, capture_output=True, text=True).stdout


def symbols(house, room, kinds):
    files = [os.path.join(os.environ["XBSA_BUILD"], OBJECTS[house], room, name + ".o")
             for name in os.listdir(f"{ROOT}/{house}/{room}") if name.endswith(".cpp")]
    listed = subprocess.run(["nm", "-P", *files], check=True, capture_output=True, text=True)
    return set(re.findall(rf"^(\S+) [{kinds}]\b", listed.stdout, re.M))


def included(house, room):
    texts = [read_text(path) for path in glob.glob(f"{ROOT}/{house}/{room}/*")]
    return {name for text in texts for name in re.findall(r'#include "(\w+/\w+)\.h"', text)
            if not name.startswith(room + "/")}


class Contract(unittest.TestCase):
    def test_rooms(self):
        """The object files follow the table of rooms, and a room's header is its interface."""
        table = re.findall(r"^\| `([\w/]+)/(\w+)` \|.*\| ([\w ,]*) \|$",
                           read_text(ROOT + "/CONTRIBUTING.md"), re.M)
        for house in OBJECTS if os.environ["XBSA_TOOL"] else ["src"]:
            rooms = [room for place, room, _ in table if place == house]
            self.assertEqual({f"{ROOT}/{house}/{room}/" for room in rooms},
                             set(glob.glob(f"{ROOT}/{house}/*/")))
            made = {room: symbols(house, room, "TDBR") for room in rooms}
            for room, uses in [row[1:] for row in table if row[0] == house]:
                with self.subTest(house, room=room):
                    wanted = symbols(house, room, "U")
                    used = {other for other in rooms if other != room and made[other] & wanted}
                    self.assertEqual(used, set(re.findall(r"\w+", uses)))
                    self.assertLessEqual(used, set(rooms[rooms.index(room) + 1:]))
                    others = {f"{other}/{other}" for other in rooms} | {"base/json"}
                    self.assertLessEqual(included(house, room), others)

    def test_exports(self):
        text = re.sub(r"#.*", "", read_text(os.environ["XBSA_MAP"]))
        listed = re.findall(r"(\w+);", text.split("local:")[0])
        symbols = re.findall(r"(\d+) (?:FUNC|OBJECT) +GLOBAL +DEFAULT +\d+ (\w+)", readelf("--dyn-syms"))
        self.assertEqual(sorted(name for _, name in symbols), sorted(listed))
        self.assertIn((str(ctypes.sizeof(Global)), "sGlobal"), symbols)

    def test_headers(self):
        strict = "-fsyntax-only -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror".split()
        for standard in ("c90", "c99", "c11", "c17", "c++98", "c++11", "c++17", "c++20"):
            for header in glob.glob(ROOT + "/include/*.h"):
                language = "c++-header" if "+" in standard else "c-header"
                done = subprocess.run(["cc", f"-std={standard}", "-x", language, *strict, header],
                                      check=False, capture_output=True, text=True)
                self.assertEqual((done.returncode, done.stderr), (0, ""), (standard, header))

    def test_loading(self):
        """Needs only an old C library, and leaves nothing to bind late or to relocate in the code."""
        dynamic, segments = readelf("-d"), readelf("-l")
        self.assertEqual(re.findall(r"NEEDED.*\[(.*)\]", dynamic), ["libc.so.6"])
        self.assertEqual(re.findall(r"SONAME.*\[(.*)\]", dynamic), ["libxbsa.so.1"])
        self.assertRegex(dynamic, r"BIND_NOW")
        self.assertNotRegex(dynamic, r"SYMBOLIC")  # program and library use one record
        self.assertRegex(segments, r"GNU_RELRO")
        self.assertRegex(segments, r"GNU_STACK.* RW +0x")
        versions = re.findall(r"GLIBC_([\d.]+)", readelf("-V"))
        self.assertEqual([v for v in versions if [int(n) for n in v.split(".")] > [2, 17]], [])
        self.assertTrue(versions)
