"""Real FTP servers: what is stored comes back, and a host that dies leaves no false object."""
import os
import shutil
import signal
import unittest

from ftpd import Daemon
from xbsa import pattern, run

SIZES = [0, 1, 65535, 65536, 65537, 50 << 20]
OLD, NEW = b"the old object", pattern(100000)


def there_and_back(x, server):
    x.start(server)
    got = []
    for size in SIZES:
        names = {"owner": server.owner, "path": b".", "name": b"%d.obj" % size}
        stored, (codes, data) = x.store(pattern(size), **names), x.restore(**names)
        got.append((size, stored, codes, data == pattern(size)))
    return got


def killed_while_storing(x, server):
    x.start(server)
    names = {"owner": server.owner, "path": b".", "name": b"obj"}
    if x.store(OLD, **names) == [0, 0, 0] and x.store(NEW, end=False, **names) == [0, 0]:
        os.kill(os.getpid(), signal.SIGKILL)


class Servers(unittest.TestCase):
    def daemon(self, name):
        server = Daemon(name)
        self.addCleanup(shutil.rmtree, server.folder)
        return server

    def check(self, name):
        server = self.daemon(name)
        got = run(there_and_back, server, server=server, env={"KORVA_STRICT": "1"})
        self.assertEqual(got.value, [(size, [0, 0, 0], [0, 0, 0], True) for size in SIZES])
        self.assertEqual({key: len(data) for key, data in server.stored().items()},
                         {f"{size}.obj": size for size in SIZES})
        server = self.daemon(name)
        run(killed_while_storing, server, server=server, killed=True)
        return server

    def test_proftpd(self):
        """Keeps the old object until the new one is whole."""
        self.assertEqual(self.check("proftpd").stored(), {"obj": OLD})

    def test_vsftpd(self):
        """Throws the half object away."""
        self.assertEqual(self.check("vsftpd").stored(), {})

    def test_pyftpdlib(self):
        self.check_kept_half("pyftpdlib")

    def check_kept_half(self, name):
        """Takes a reset for the end and keeps the half object: no server for backups."""
        kept = self.check(name).stored()["obj"]
        self.assertTrue(NEW.startswith(kept))


class AsRoot(Servers):
    test_proftpd = test_vsftpd = test_pyftpdlib = None

    def test_pure_ftpd(self):
        self.check_kept_half("pure-ftpd")
