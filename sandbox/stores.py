"""Where the bytes of objects lie: files in a folder, or whatever rclone reaches.

A stream takes or gives one object and never makes the server's loop wait: write() says whether it
took all, read() returns None when there is nothing yet, and ready() calls back when it is worth
another try. finish() calls back with whether the object is safe in the store, or was read to its
end. close() before that leaves nothing that could pass for a whole object.
"""

import contextlib
import logging
import os
import shutil
import subprocess

from database import Refused

OBJECTS = "objects"
LAST_WORDS = 1000  # bytes of rclone's complaints that are kept for the log
REMOVAL_TIME = 60  # seconds for what is still being removed when we end
NOT_FOUND = 3  # rclone's exit code for a folder that is not there

log = logging.getLogger("sandbox")


def open_store(folder, place):
    """The store of a sandbox: "rclone:REMOTE:PATH", or nothing for files in its folder."""
    return RcloneStore(place.partition(":")[2]) if place else FolderStore(folder)


class FolderStore:
    """A file for each object; it gets its name when it is whole."""

    def __init__(self, folder):
        self.folder = os.path.join(folder, OBJECTS)

    def names(self):
        """The numbers of all objects, whole or not; makes the folder at the first start."""
        os.makedirs(self.folder, exist_ok=True)
        return {name.partition(".")[0] for name in os.listdir(self.folder)}

    def path(self, saveset):
        """Where a whole object lies."""
        return os.path.join(self.folder, str(saveset))

    def writer(self, saveset, _loop):
        """A stream that takes an object."""
        return FileWriter(self.path(saveset))

    def reader(self, saveset, _loop):
        """A stream that gives an object."""
        return FileReader(self.path(saveset))

    def remove(self, saveset):
        """Remove what was received of an object."""
        for path in (self.path(saveset), self.path(saveset) + ".part"):
            with contextlib.suppress(FileNotFoundError):
                os.unlink(path)

    def close(self):
        """Nothing goes on by itself here."""


class FileWriter:
    """Writes "NAME.part", which becomes NAME."""

    def __init__(self, path):
        self.path = path
        self.file = open(path + ".part", "wb")

    def write(self, chunk):
        """Take some bytes: always all of them."""
        self.file.write(chunk)
        return True

    def finish(self, done):
        """Make the whole object survive a power cut."""
        self.file.flush()
        os.fsync(self.file.fileno())
        os.rename(self.path + ".part", self.path)
        folder = os.open(os.path.dirname(self.path), os.O_RDONLY)
        try:
            os.fsync(folder)
        finally:
            os.close(folder)
        done(True)

    def close(self):
        """End the writing."""
        with contextlib.suppress(OSError):  # a full disk, of which finish() or write() told
            self.file.close()


class FileReader:
    """Reads a file."""

    def __init__(self, path):
        self.file = open(path, "rb")
        self.read, self.close = self.file.read, self.file.close

    @staticmethod
    def finish(done):
        """The end of a file is the end of its object."""
        done(True)


class RcloneStore:
    """A name for each object under REMOTE:PATH; an rclone of its own moves its bytes."""

    def __init__(self, target):
        self.target, self.removals = target, []
        for program in ("rclone", "setpriv"):
            if shutil.which(program) is None:
                raise Refused(f"{program} is missing: apt-get install {program}")

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

    def writer(self, saveset, loop):
        """A stream that takes an object."""
        return Rclone(loop, "rcat", self.path(saveset))

    def reader(self, saveset, loop):
        """A stream that gives an object."""
        return Rclone(loop, "cat", self.path(saveset))

    def remove(self, saveset):
        """Begin to remove what may have arrived of an object; the next start gets what stays."""
        self.removals = [removal for removal in self.removals if removal.poll() is None]
        self.removals.append(subprocess.Popen(
            ["rclone", "deletefile", self.path(saveset)], stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    def close(self):
        """Wait for the removals that go on, but not for ever."""
        for removal in self.removals:
            with contextlib.suppress(subprocess.TimeoutExpired):
                removal.wait(REMOVAL_TIME)


class Watch:
    """Has the server's loop call back once, when something happens to a descriptor."""

    def __init__(self, loop, descriptor, events, call):
        self.loop, self._fileno, self.call = loop, descriptor, call
        loop.register(descriptor, self, events)

    def readable(self):
        """It waits for whatever it was registered for."""
        return True

    writable = readable

    def happened(self):
        """Call back."""
        self.close()
        self.call()

    handle_read_event = handle_write_event = handle_close = happened

    @staticmethod
    def handle_error():
        """The one who is called back takes care of errors of his own; this is ours."""
        log.exception("a callback failed")

    def close(self):
        """Wait no longer; the descriptor may be another's by now."""
        if self.loop.socket_map.get(self._fileno) is self:
            self.loop.unregister(self._fileno)


class Rclone:
    """The stream through an rclone: "rcat" takes an object, "cat" gives one.

    The end of its standard input makes rclone complete the object. It must never come by accident,
    so rclone is killed before its pipe is closed, and when this server dies.
    """

    def __init__(self, loop, verb, path):
        takes = verb == "rcat"
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "rclone", verb, path], bufsize=0,
            stdin=subprocess.PIPE if takes else subprocess.DEVNULL,
            stdout=subprocess.DEVNULL if takes else subprocess.PIPE, stderr=subprocess.PIPE)
        self.pipe = self.process.stdin if takes else self.process.stdout
        self.event = loop.WRITE if takes else loop.READ
        os.set_blocking(self.pipe.fileno(), False)
        self.loop, self.rest, self.words, self.done = loop, b"", b"", None
        self.listener, self.waiter = None, None
        self.listen()

    def write(self, chunk):
        """Take some bytes; False when some of them wait for room in the pipe."""
        self.rest += chunk
        while self.rest:
            taken = self.pipe.write(self.rest)
            if taken is None:
                return False
            self.rest = self.rest[taken:]
        return True

    def read(self, size):
        """The next bytes, None if there are none yet, nothing at the end."""
        return self.pipe.read(size)

    def ready(self, call):
        """Call when the pipe has room or bytes again, or has broken."""
        self.waiter = Watch(self.loop, self.pipe.fileno(), self.event, call)

    def listen(self):
        """Hear what rclone complains of, until it has ended."""
        self.listener = Watch(self.loop, self.process.stderr.fileno(), self.loop.READ, self.hear)

    def hear(self):
        """Keep the last words; their end is the end of the process."""
        words = self.process.stderr.read(LAST_WORDS)
        if words:
            self.words = (self.words + words)[-LAST_WORDS:]
            self.listen()
            return
        if self.process.wait() != 0:
            log.error("rclone ended with %d: %s", self.process.returncode,
                      self.words.decode(errors="replace").strip())
        self.tell()

    def finish(self, done):
        """End the pipe in good order, and say later whether rclone ended well."""
        self.done = done
        self.pipe.close()
        self.tell()

    def tell(self):
        """Say how rclone has ended, once that is known and asked for."""
        if self.done and self.process.returncode is not None:
            self.done(self.process.returncode == 0)

    def close(self):
        """Make sure that rclone has ended, and only then close its pipe."""
        for watch in (self.listener, self.waiter):
            if watch:
                watch.close()
        self.process.kill()
        self.process.wait()
        self.pipe.close()
        self.process.stderr.close()
