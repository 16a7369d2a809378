"""Real FTP servers: what is stored comes back. What is left of a host that dies: test_real.py."""
import shutil
import unittest

from ftpd import Daemon
from xbsa import STRICT, pattern, run_started

SIZES = [0, 1, 65535, 65536, 65537, 50 << 20]


def there_and_back(x, server):
    for size in SIZES:
        names, data = {"owner": server.owner, "path": b".", "name": b"%d.obj" % size}, pattern(size)
        got = x.store(data, **names), x.restore(**names)
        assert got == ([0, 0, 0], ([0, 0, 0], data)), (size, got[0], got[1][0])


class Servers(unittest.TestCase):
    daemons = "proftpd", "vsftpd"

    def test_there_and_back(self):
        for name in self.daemons:
            with self.subTest(name):
                server = Daemon(name)
                self.addCleanup(shutil.rmtree, server.folder)
                run_started(there_and_back, server, server=server, env=STRICT)
                self.assertEqual({key: len(data) for key, data in server.stored().items()},
                                 {f"{size}.obj": size for size in SIZES})


class AsRoot(Servers):
    daemons = "pure-ftpd",
