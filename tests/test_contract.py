"""What the built object promises to the program that loads it."""
import ctypes
import os
import re
import subprocess
import unittest

from xbsa import LIBRARY, Global, read_text


def readelf(option):
    return subprocess.run(["readelf", "-W", option, LIBRARY], check=True, capture_output=True,
                          text=True).stdout


class Contract(unittest.TestCase):
    def test_exports(self):
        """Exactly the reviewed list."""
        text = re.sub(r"#.*", "", read_text(os.environ["XBSA_MAP"]))
        listed = re.findall(r"(\w+);", text.split("local:")[0])
        symbols = re.findall(r"(\d+) (?:FUNC|OBJECT) +GLOBAL +DEFAULT +\d+ (\w+)",
                             readelf("--dyn-syms"))
        self.assertEqual(sorted(name for _, name in symbols), sorted(listed))
        self.assertIn((str(ctypes.sizeof(Global)), "sGlobal"), symbols)

    def test_loading(self):
        """Needs the C library alone, an old one, and leaves nothing to be bound or rewritten."""
        dynamic, segments = readelf("-d"), readelf("-l")
        self.assertEqual(re.findall(r"NEEDED.*\[(.*)\]", dynamic), ["libc.so.6"])
        self.assertEqual(re.findall(r"SONAME.*\[(.*)\]", dynamic), ["libxbsa.so.1"])
        self.assertRegex(dynamic, r"BIND_NOW")
        self.assertRegex(dynamic, r"SYMBOLIC")
        self.assertRegex(segments, r"GNU_RELRO")
        self.assertRegex(segments, r"GNU_STACK.* RW +0x")
        versions = re.findall(r"GLIBC_([\d.]+)", readelf("-V"))
        self.assertEqual([v for v in versions if [int(n) for n in v.split(".")] > [2, 17]], [])
        self.assertTrue(versions)
