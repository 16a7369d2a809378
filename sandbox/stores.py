"""Where the bytes of objects are: files in a folder, or a remote of rclone.

A stream writes or reads one object, and makes its caller wait while the store is slow; the caller's
wait() ends the wait when the client has gone. finish() makes an object durable, or checks that it
was read to its end, and fails with OSError. After close() without finish() nothing remains that
could look like a complete object.
"""

import contextlib
import logging
import os
import select
import shutil
import subprocess

from database import Refused
from private import no_follow

OBJECTS = "objects"
LOG = "server.log"
PART = ".part"
CHUNK = 65536
REMOVAL_TIME = 60  # seconds for pending removals at the end
NOT_FOUND = 3  # rclone's exit code for a missing directory

log = logging.getLogger("sandbox")


def open_store(folder, place):
    """The store of a sandbox: "rclone:REMOTE:PATH", or nothing for files in its folder."""
    return RcloneStore(folder, place.partition(":")[2]) if place else FolderStore(folder)


class FolderStore:
    """A file for each object; it gets its name when it is complete."""

    def __init__(self, folder):
        self.folder = os.path.join(folder, OBJECTS)

    def clear(self):
        """Remove what an earlier server left unfinished, which frees a full disk."""
        os.makedirs(self.folder, mode=0o700, exist_ok=True)
        for name in os.listdir(self.folder):
            if name.endswith(PART):
                os.unlink(os.path.join(self.folder, name))

    def names(self):
        """The names of all objects."""
        return set(os.listdir(self.folder))

    def path(self, saveset):
        """Where a complete object is."""
        return os.path.join(self.folder, str(saveset))

    def writer(self, saveset, _wait):
        """A stream that writes an object."""
        return FileWriter(self.path(saveset))

    def reader(self, saveset, _wait):
        """A stream that reads an object."""
        return FileReader(self.path(saveset))

    def remove(self, saveset):
        """Remove an object; its writer removes an incomplete one."""
        with contextlib.suppress(FileNotFoundError):
            os.unlink(self.path(saveset))

    def close(self):
        """Nothing is pending here."""


class FileWriter:
    """Writes "NAME.part", which becomes NAME."""

    def __init__(self, path):
        self.path, self.part = path, path + PART
        if os.path.lexists(path):
            raise FileExistsError(f"{path} already exists")
        self.file = open(self.part, "wb", buffering=0, opener=no_follow)

    def write(self, chunk):
        """Write some bytes."""
        while chunk:
            chunk = chunk[self.file.write(chunk):]

    def finish(self):
        """Make the whole object survive a power cut."""
        os.fsync(self.file.fileno())
        os.rename(self.part, self.path)
        folder = os.open(os.path.dirname(self.path), os.O_RDONLY)
        try:
            os.fsync(folder)
        finally:
            os.close(folder)

    def close(self, keep=False):
        """End the writing. An object that is not kept is removed at once, because the catalogue may
        need the space on a full disk."""
        self.file.close()
        for path in () if keep else (self.part, self.path):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)


class FileReader:
    """Reads a file."""

    def __init__(self, path):
        self.file = open(path, "rb", buffering=0, opener=no_follow)
        self.read, self.close = self.file.read, self.file.close

    def finish(self):
        """The end of a file is the end of its object."""


class RcloneStore:
    """A name for each object under REMOTE:PATH; a separate rclone moves its bytes."""

    def __init__(self, folder, target):
        self.log, self.target, self.removals = os.path.join(folder, LOG), target, []
        for program in ("rclone", "setpriv"):
            if shutil.which(program) is None:
                raise Refused(f"{program} is missing: apt-get install {program}")

    def clear(self):
        """Nothing to do: an object appears on the remote when it is complete."""

    def path(self, saveset):
        """What rclone calls an object."""
        return self.target + ("" if self.target[-1] in ":/" else "/") + str(saveset)

    def names(self):
        """The names of all objects."""
        listing = subprocess.run(["rclone", "lsf", self.target], capture_output=True, text=True,
                                 check=False)
        if listing.returncode not in (0, NOT_FOUND):
            raise Refused(f"rclone cannot list {self.target}: {listing.stderr.strip()}")
        return set(listing.stdout.split())

    def writer(self, saveset, wait):
        """A stream that writes an object."""
        return Rclone("rcat", self.path(saveset), self.log, wait)

    def reader(self, saveset, wait):
        """A stream that reads an object."""
        return Rclone("cat", self.path(saveset), self.log, wait)

    def remove(self, saveset):
        """Start to remove what may have arrived of an object; the next start removes the rest."""
        self.removals = [removal for removal in self.removals if removal.poll() is None]
        self.removals.append(subprocess.Popen(
            ["rclone", "deletefile", self.path(saveset)], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    def close(self):
        """Wait for pending removals, but not for ever."""
        for removal in self.removals:
            with contextlib.suppress(subprocess.TimeoutExpired):
                removal.wait(REMOVAL_TIME)


class Rclone:
    """The stream through an rclone: "rcat" writes an object, "cat" reads one.

    The end of its standard input makes rclone complete the object. It must never come by accident,
    so rclone is killed before its pipe is closed, and when the thread that started it ends. The end
    of its standard output is the end of rclone. Its errors go to the server's log.
    """

    def __init__(self, verb, path, complaints, wait):
        self.wait = wait
        with open(complaints, "ab", opener=no_follow) as file:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", "rclone", verb, path], bufsize=0,
                stdin=subprocess.PIPE if verb == "rcat" else subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=file)
        self.input, self.output = self.process.stdin, self.process.stdout
        for pipe in filter(None, (self.input, self.output)):
            os.set_blocking(pipe.fileno(), False)

    def write(self, chunk):
        """Write some bytes."""
        while chunk:
            taken = self.input.write(chunk)
            if taken is None:
                self.wait(self.input, select.POLLOUT)
            chunk = chunk[taken or 0:]

    def read(self, size):
        """The next bytes, none at the end."""
        chunk = self.output.read(size)
        while chunk is None:
            self.wait(self.output, select.POLLIN)
            chunk = self.output.read(size)
        return chunk

    def finish(self):
        """Close the input, and check how rclone ends."""
        if self.input:
            self.input.close()
        while self.read(CHUNK):
            pass
        if self.process.wait() != 0:
            raise OSError(0, f"rclone ended with {self.process.returncode}")

    def close(self, keep=False):  # pylint: disable=unused-argument
        """Make sure that rclone has ended, and only then close its pipes."""
        self.process.kill()
        self.process.wait()
        for pipe in filter(None, (self.input, self.output)):
            pipe.close()
