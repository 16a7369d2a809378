"""One object on its way between a data connection, the store and the catalogue."""

import hashlib
import logging
import select
import socket
import struct

from database import Refused
from stores import CHUNK

log = logging.getLogger("sandbox")


class Failed(Exception):
    """A transfer has failed; the text is the reply."""


def reset_on_close(sock, reset=True):
    """Make the coming close of a socket a reset, or an orderly end."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", reset, 0))


class Channel:
    """The data connection. It always ends with a reset, unless end() was called."""

    def __init__(self, address, target, seconds, wait):
        self.wait = wait
        self.socket = socket.create_connection(target, seconds, (address, 0))
        reset_on_close(self.socket)
        self.socket.settimeout(None)

    def receive(self, buffer):
        """The number of bytes that came, 0 at an orderly end."""
        try:
            self.wait(self.socket, select.POLLIN)
            return self.socket.recv_into(buffer)
        except OSError as error:
            raise Failed("426 Transfer aborted.") from error

    def send(self, chunk):
        """Send all of it."""
        try:
            while chunk:
                self.wait(self.socket, select.POLLOUT)
                chunk = chunk[self.socket.send(chunk, socket.MSG_DONTWAIT):]
        except OSError as error:
            raise Failed("426 Transfer aborted.") from error

    def end(self):
        """End it in an orderly way."""
        reset_on_close(self.socket, False)

    def close(self):
        """Close it."""
        self.socket.close()


class Upload:
    """Receives a backup object; the catalogue records it when it is complete."""

    def __init__(self, catalogue, row, wait):
        self.catalogue, self.row = catalogue, row
        self.sha256, self.size, self.stored = hashlib.sha256(), 0, False
        catalogue.advance(row["segment"], "opened", "storing")
        try:
            self.stream = catalogue.store.writer(row["saveset"], wait)
        except OSError:
            catalogue.abandon(row["segment"], "aborted")
            raise

    def run(self, channel, strike):
        """Move all bytes; strike() gets the count so far."""
        buffer = memoryview(bytearray(CHUNK))
        while size := channel.receive(buffer):
            self.sha256.update(buffer[:size])
            self.stream.write(buffer[:size])
            self.size += size
            strike(self.size)

    def finish(self):
        """Make the object durable, then record it, unless its job was abandoned in the meantime."""
        self.stream.finish()
        self.catalogue.advance(self.row["segment"], "storing", "stored", size=self.size,
                               sha256=self.sha256.hexdigest())
        self.stored = True

    def close(self):
        """End the writing; an unfinished object is abandoned."""
        self.stream.close(self.stored)
        if not self.stored:
            try:
                self.catalogue.abandon(self.row["segment"], "aborted")
            except Refused as error:
                log.error("saveset %d: %s", self.row["saveset"], error)


class Download:
    """Sends a stored object, and checks it against the catalogue."""

    def __init__(self, catalogue, row, wait):
        self.row, self.sha256 = row, hashlib.sha256()
        self.stream = catalogue.store.reader(row["saveset"], wait)

    def run(self, channel, strike):
        """Move all bytes; strike() gets the count so far, and returns how many may follow."""
        sent = 0
        while chunk := self.stream.read(min(CHUNK, strike(sent))):
            self.sha256.update(chunk)
            channel.send(memoryview(chunk))
            sent += len(chunk)

    def finish(self):
        """Check that exactly the stored bytes were read."""
        self.stream.finish()
        if self.sha256.hexdigest() != self.row["sha256"]:
            raise OSError(0, "the object differs from what was stored")

    def close(self):
        """End the reading."""
        self.stream.close()
