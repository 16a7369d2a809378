"""A sandbox for one test, and whole transfers through it."""
import contextlib
import ctypes as c
import os
import signal
import socket
import subprocess

import inifile
from catalogue import Catalogue
from utility import need_private_etc
from xbsa import Descriptor, Name, Query, make_folder, pattern, write_plain

RUN = os.path.join(os.path.dirname(inifile.__file__), "run")


class Sandbox:
    """A server in its own directory, and the INI file that names it."""

    def __init__(self, test, *options, folder=None):
        need_private_etc()
        os.environ.update(KORVA_SERVER="sandbox", KORVA_JOB="demo")
        self.folder = folder or make_folder(test)
        self.process = subprocess.Popen([RUN, "--folder", self.folder, *options],
                                        stdout=subprocess.PIPE, text=True)
        test.addCleanup(self.stop)
        lines = iter(self.process.stdout.readline, "")
        assert any("Ready" in line for line in lines), "the sandbox does not start"
        write_plain(inifile.INI, inifile.text_for(self.folder))

    def stop(self, how=signal.SIGKILL):
        self.process.send_signal(how)
        self.process.wait()
        self.process.stdout.close()

    def fault(self, line):
        write_plain(os.path.join(self.folder, "faults"), line + "\n")

    def objects(self):
        with contextlib.closing((catalogue := Catalogue(self.folder)).db):
            names, *rows = catalogue.table()
        return [dict(zip(names, row)) for row in rows]

    def utility(self, *arguments):
        line = [f"{self.folder}/bin/olm_com_interface", *arguments, *"-C sandbox -j demo -s 1 --".split()]
        answer = subprocess.check_output([*line, "obj\u009b@/data"], text=True)
        return dict(line.split("=", 1) for line in answer.splitlines())

    def open_job(self):
        """The server's address and the login of a new backup job, if given."""
        session = self.utility("-b", "open")["sessionID"]
        return self.utility("-b", "openjob:" + session)["tape_server"].split(":")

    def talk(self, *commands):
        port = Catalogue.read_settings(self.folder)["port"]
        with socket.create_connection(("127.0.0.1", port)) as sock, sock.makefile("rb") as replies:
            codes = [replies.readline()[:3].decode()]
            for command in commands:
                sock.sendall(command.encode("latin-1") + b"\r\n")
                codes.append(replies.readline()[:3].decode())
        return codes[1:]

    def states(self):
        return [each["state"] for each in self.objects()]


def start(x):
    assert x.init(b"BSA_API_VERSION=1.0.1", b"BSA_TIMEOUT=5", owner=b"INFORMIX") == 0


def query(x, space=b"obj"):
    """The code and the copy id."""
    found, asked = Descriptor(), Query(name=Name(space, b"/data"), copyType=3)
    x.BSABeginTxn(x.handle)
    code = x.BSAQueryObject(x.handle, c.byref(asked), c.byref(found))
    x.BSAEndTxn(x.handle, 1)
    return code, found.copyId.right


def ask_and_restore(x, copy):
    start(x)
    return query(x), x.restore(copy_id=copy)


def there_and_back(x, data, space=b"obj"):
    stored, copy = x.store(data, name=space), x.state.sObject.sBSA_Object.copyId.right
    found = query(x, space)
    assert (stored, found) == ([0, 0, 0], (0, copy)), (stored, found, copy)
    restored = x.restore(name=space, copy_id=copy)
    assert restored == ([0, 0, 0], data), (restored[0], len(restored[1]))


def both_ways(x, size):
    start(x)
    there_and_back(x, pattern(size))
