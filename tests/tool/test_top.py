"""xbsactl top: what it shows of unprepared hosts."""
import contextlib
import ctypes as c
import json
import math
import mmap
import os
import pty
import random
import re
import shutil
import signal
import subprocess
import threading
import time
import unittest

import xbsa
from ftpd import serve_behind
from server import Server
from xbsa import DEADLINE, LIBRARY, ROOT, descriptor, make_folder, read_bytes, rows, write_plain

TOOL, CANARY = os.environ["XBSA_TOOL"], "canary-7731"
OWNER, EVIL = b"user=u:pass=" + CANARY.encode(), b"a\x1b]0;\x9b" + b"z" * 2000  # fills its field
# A program that contains the record; a library with another record.
HOST = r"""
#include <string.h>
#include <unistd.h>
#include "xbsa_session.h"
int main(void)
{
    strcpy(sGlobal.sObject.sBSA_Object.objectName.objectSpaceName, "copied");
    sGlobal.sSession.iLastCall = CALL_CREATE_OBJECT;
    sGlobal.sSession.SData = -1;
    for (void *vpCall = (void *)&BSASendData; vpCall; usleep(10000)) sGlobal.sSession.dBytes += 1e5;
}"""
OTHER = "char sGlobal[100] = {1}; int BSASendData(void) { return sGlobal[0]; }"
FORBID = "#include <errno.h>\nlong process_vm_readv(void) { errno = EPERM; return -1; }"


def idle(x, _):
    x.init(b"BSA_API_VERSION=1.0.1")


def store(x, server):
    x.start(server)
    assert x.store(end=False, data=b"x" * 65535, owner=OWNER) == [0, 0]
    while x.send(b"x" * 65535) == 0:
        pass


def restore(x, server):
    x.start(server)
    x.restore(owner=OWNER)


def refused(x, server):
    x.start(server)
    x.store(end=False, owner=OWNER)


def garbage(x, _):
    session, name = x.state.sSession, x.state.sObject.sBSA_Object.name
    session.iLastCall, session.SData, session.dBytes = 0x200, -5, math.nan
    c.memmove(c.addressof(session) + xbsa.TYPES["Session"].szLastMessage.offset, EVIL, 1536)
    c.memmove(c.addressof(name), EVIL, 1024)


def map_odd_files(folder):
    """Files with the library's name that are not the library, and files with false contents."""
    data, draw, kept = bytearray(read_bytes(LIBRARY)), random.Random(1), []
    start, count = int.from_bytes(data[32:40], "little"), int.from_bytes(data[56:58], "little")
    for at in range(start, start + 56 * count, 56):
        if data[at] == 2:  # the dynamic section is found as in a plain mapping of the file
            data[at + 16:at + 24] = data[at + 8:at + 16]
    for number in range(80):
        odd = bytearray(data)
        for _ in range(number):
            odd[draw.randrange(0x6000)] = draw.randrange(256)
        odd = {77: data[:5000], 78: draw.randbytes(9000), 79: b"\x7fELF"}.get(number, odd)
        write_plain(f"{folder}/libxbsa.so.{number}", bytes(odd))
        with open(f"{folder}/libxbsa.so.{number}", "rb") as file:
            kept.append(mmap.mmap(file.fileno(), 0, mmap.MAP_PRIVATE, mmap.PROT_READ))
    write_plain(folder + "/ready", "")
    return kept


# Actions of a host and its server; the output. idle: seconds since the last byte grow.
HOSTS = rows("scenario script direction space path bytes message idle",
    (idle, {}, None, None, None, 0, "", False),
    (store, {"DATA": ["stop"]}, "store", "obj", "/data", range(65535, 1 << 30, 65535), "", True),
    (restore, {"DATA": ["begin", "stop"]}, "restore", "obj", "/data", 65535, "", True),
    (refused, {"STOR": [f"553 no {CANARY}"]}, "store", "obj", "/data", 0, "553 no ********", False),
    (garbage, {}, "restore", EVIL[:1024].decode("utf-8", "replace"), "", 0, "a\x1b]0;", False))


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = make_folder(self)
        os.chmod(self.folder, 0o755)
        self.plain = {key: text for key, text in os.environ.items() if key != "LD_PRELOAD"}

    def child(self, job, *args):
        """The pid of a process that does this and waits to be ended."""
        child = os.fork()
        if child == 0:
            with contextlib.suppress(BaseException):
                signal.signal(signal.SIGPIPE, signal.SIG_DFL)
                kept = job(*args)
                time.sleep(DEADLINE)
                del kept
            os._exit(1)
        self.addCleanup(os.waitpid, child, 0)
        self.addCleanup(os.kill, child, signal.SIGKILL)
        return child

    def host(self, scenario, server=None, library=LIBRARY):
        def job():
            xbsa.LIBRARY = library
            scenario(xbsa.Library(None), server)
        return self.child(job)

    def serve(self, script):
        over, server = threading.Event(), Server(script, objects={"obj": b"y" * 65535})
        server._do_stop = over.wait
        serve_behind(self, server)
        self.addCleanup(over.set)
        return server

    def top(self, *options, code=0, runner=(), tool=TOOL, **env):
        done = subprocess.run([*runner, tool, "top", "--once", *options], capture_output=True,
                              env=self.plain | env, timeout=DEADLINE, check=False)
        out, error = done.stdout.decode(), done.stderr.decode()
        self.assertNotRegex(out + error, CANARY + "|Sanitizer|terminate")
        self.assertIn(done.returncode, [0, 1] if code is None else [code], out + error)
        return out, error, done.returncode

    def find(self, pid):
        out, _, code = self.top("--json", code=None)
        answer = json.loads(out)
        self.assertEqual((list(answer), answer["schema"]), (["schema", "processes"], 1))
        self.assertFalse(code and answer["processes"])
        pids = [process["pid"] for process in answer["processes"]]
        self.assertEqual(pids, sorted(pids))  # another test's process may have loaded the library twice
        return answer["processes"][pids.index(pid)] if pid in pids else None

    def until(self, condition):
        end = time.monotonic() + DEADLINE
        while not (value := condition()):
            self.assertLess(time.monotonic(), end)
        return value

    def compile(self, text, name, *options):
        write_plain(f"{self.folder}/{name}.c", text)
        subprocess.run(["cc", "-I", ROOT + "/include", f"{self.folder}/{name}.c", "-o",
                        f"{self.folder}/{name}", *options], check=True, env=self.plain)
        return f"{self.folder}/{name}"


class Top(Case):
    def test_hosts(self):
        for row in HOSTS:
            with self.subTest(row.scenario.__name__):
                pid = self.host(row.scenario, self.serve(row.script))
                def settled():
                    found = self.find(pid)
                    right = found and row.message in found["last_message"] and found["direction"] == row.direction
                    return right and (not row.idle or (found["seconds_since_last_byte"] or 0) > 1) and found
                found = self.until(settled)
                self.assertEqual([found.pop(key) for key in ("program", "space", "path")],
                                 [os.path.basename(os.path.realpath("/proc/self/exe")), row.space, row.path])
                self.assertIn(found.pop("bytes"), row.bytes if isinstance(row.bytes, range) else [row.bytes])
                later, seconds = self.find(pid), found.pop("seconds_since_last_byte")
                self.assertEqual(list(found), ["pid", "direction", "last_message"])
                self.assertGreater(later["seconds_since_last_byte"] or 0, seconds or -1)
                line = re.search(rf"^ *{pid}  .*", self.top()[0], re.M)[0]
                self.assertIn(row.direction or "idle", line.split())
                self.assertNotRegex(line, r"[\0-\x1f\x7f-\x9f]")

    def test_upgrade(self):
        """A library with any name, deleted or replaced since."""
        for odd in ("rm $0", "cp /bin/true x; mv x $0"):
            path = shutil.copy(LIBRARY, self.folder + "/any")
            pid = self.host(idle, library=path)
            self.until(lambda: self.find(pid))  # pylint: disable=W0640
            subprocess.run(["sh", "-c", odd, path], check=True, cwd=self.folder)
            self.assertIsNone(self.find(pid)["direction"])

    def test_copy(self):
        """A program linked with the library contains the record."""
        for options in (["-no-pie", "-fno-pic"], ["-pie", "-fPIE"]):
            program = self.compile(HOST, "host", *options, LIBRARY, "-Wl,--allow-shlib-undefined",
                                   f"-Wl,-rpath,{os.path.dirname(LIBRARY)}")
            pid = self.child(lambda: os.execv(program, [program]))
            first = self.until(lambda: (found := self.find(pid)) and found["seconds_since_last_byte"] is not None and found)
            self.assertEqual((first["program"], first["space"]), ("host", "copied"))
            self.assertLess(first["bytes"], self.find(pid)["bytes"])
            self.assertRegex(self.top()[0], rf"(?m)^ *{pid}  host +store +[1-9]\d* +\d+\.\d MB/s +\d+\.\d s  copied$")

    def test_other_layout(self):
        path = self.compile(OTHER, "other.so", "-shared", "-fPIC")
        pid = self.child(c.CDLL, path)
        note = f"xbsactl: {pid} (python3.{os.sys.version_info[1]}) is not shown: its record has 100 bytes instead"
        self.until(lambda: note in self.top(code=None)[1])
        self.assertIsNone(self.find(pid))

    def test_odd_files(self):
        pid = self.child(map_odd_files, self.folder)
        self.until(lambda: os.path.exists(self.folder + "/ready"))
        host = self.host(idle)
        self.until(lambda: self.find(host))
        self.assertIsNone(self.find(pid))

    def test_short_lives(self):
        script = 'while :; do LD_PRELOAD="$LD_PRELOAD $0" /bin/true; done'
        self.child(lambda: os.execv("/bin/sh", ["sh", "-c", script, LIBRARY]))
        for _ in range(20):
            self.top(code=None)

    def test_live(self):
        host = self.host(idle)
        self.until(lambda: self.find(host))
        child, terminal = pty.fork()
        if child == 0:
            os.execve("/bin/sh", ["sh", "-c", f"stty cols 40 rows 9; exec {TOOL} top --interval 1"], self.plain)
        shown = b""
        while shown.count(b"\x1b[H") < 3:
            shown += os.read(terminal, 9999)
        os.write(terminal, b"\x03")
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), -signal.SIGINT)
        blocks = re.sub(r"\x1b\[.", "", shown.decode().replace("\x1b[H", "\f")).split("\f")[1:]
        self.assertIn(f"{host}  python", blocks[1])
        for block in blocks:
            self.assertLess(len(block.split("\n")), 10)
            self.assertLess(max(map(len, block.split("\r\n"))), 41, block)

    def test_forbidden(self):
        shim = self.compile(FORBID, "shim.so", "-shared", "-fPIC")
        pid = self.host(idle)
        self.until(lambda: self.find(pid))
        out, error, _ = self.top(code=1, LD_PRELOAD=shim, ASAN_OPTIONS="verify_asan_link_order=0")
        self.assertEqual(out, "no process that can be looked at has the library loaded\n")
        self.assertRegex(error, rf"xbsactl: {pid} \(python.*\) has the library loaded, but the system forbids")
        self.assertRegex(error, "\nhint: .*(SYS_PTRACE|as root)")


class AsRoot(Case):
    def test_other_account(self):
        pid = self.host(idle)
        self.until(lambda: self.find(pid))
        other = {"tool": shutil.copy(TOOL, self.folder), "code": 1,
                 "runner": ["setpriv", "--reuid=60123", "--clear-groups"]}  # an unused account
        out, error, _ = self.top(**other)
        self.assertEqual(out, "no process that can be looked at has the library loaded\n")
        self.assertRegex(error, r"^xbsactl: not looked at: \d+ processes \(the system forbids it\)\nhint: .*as root")
        self.assertIn('processes": []', self.top("--json", **other)[0])
