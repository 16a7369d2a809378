"""The data connection of the sandbox's server: one object in, or one object out."""

import contextlib
import errno
import hashlib
import logging
import os
import socket
import struct

from pyftpdlib.handlers import ActiveDTP, DTPHandler
from pyftpdlib.ioloop import RetryError

from catalogue import sync_folder

log = logging.getLogger("sandbox")


def reset_on_close(sock):
    """Make the coming close of a socket a reset in place of an orderly end."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


class Upload:
    """The file that takes a backup object; it gets its name when it is whole."""

    def __init__(self, catalogue, row):
        self.catalogue, self.row = catalogue, row
        catalogue.advance(row["segment"], "opened", "storing")
        self.name = catalogue.file_of(row["saveset"])
        try:
            self.file = open(self.name + ".part", "wb")
        except OSError:
            catalogue.abandon(row["segment"], "aborted")
            raise
        self.sha256 = hashlib.sha256()

    @property
    def closed(self):
        """Whether no more bytes are taken."""
        return self.file.closed

    def write(self, chunk):
        """Take some bytes."""
        self.file.write(chunk)
        self.sha256.update(chunk)

    def finish(self):
        """Make the whole object safe on disk, then tell the catalogue."""
        self.file.flush()
        os.fsync(self.file.fileno())
        os.rename(self.name + ".part", self.name)
        sync_folder(os.path.dirname(self.name))
        self.catalogue.advance(self.row["segment"], "storing", "stored", size=self.file.tell(),
                               sha256=self.sha256.hexdigest())
        return True

    def close(self):
        """End the writing; what was not finished is given up."""
        with contextlib.suppress(OSError):  # a full disk, of which finish() or write() told
            self.file.close()
        if os.path.exists(self.name + ".part"):
            self.catalogue.abandon(self.row["segment"], "aborted")


class Download:
    """The file of a stored object, checked against the catalogue while it is read."""

    def __init__(self, catalogue, row):
        self.row = row
        self.name = catalogue.file_of(row["saveset"])
        self.file = open(self.name, "rb")
        self.sha256 = hashlib.sha256()
        self.limit = None  # hand out no more bytes than this

    @property
    def closed(self):
        """Whether the file is closed."""
        return self.file.closed

    def read(self, size):
        """The next bytes, none at the end."""
        if self.limit is not None:
            size = min(size, self.limit - self.file.tell())
        chunk = self.file.read(size)
        self.sha256.update(chunk)
        return chunk

    def finish(self):
        """Whether exactly the bytes were read that were stored."""
        return self.sha256.hexdigest() == self.row["sha256"]

    def close(self):
        """Close the file."""
        self.file.close()


class DataConnection(DTPHandler):
    """Moves the bytes; a reset is no end of file, and 226 is said of whole objects only."""

    timeout = 3600  # seconds without a byte; a backup may wait for its tape

    def __init__(self, sock, cmd_channel):
        self.ended = False  # the peer has closed in good order
        self.fault = cmd_channel.data_fault
        super().__init__(sock, cmd_channel)

    def recv(self, buffer_size):
        """Receive, and tell an orderly end from a reset."""
        try:
            data = self.socket.recv(buffer_size)
        except (BlockingIOError, InterruptedError) as error:
            raise RetryError from error
        except OSError:
            data = b""
        else:
            self.ended = not data
        if not data:
            self.handle_close()
        return data

    def handle_read(self):
        """Take what has arrived, up to the point where a fault strikes."""
        super().handle_read()
        if not self._closed and self.fault and self.tot_bytes_received >= self.fault.number:
            self.strike()

    handle_read_event = handle_read

    def handle_close(self):
        """The end of the data: decide what became of the object and say so."""
        if self._closed:
            return
        if self.fault and self.fault.number == self.tot_bytes_sent and not self.receive:
            self.strike()
            return
        whole = self.ended if self.receive else not self.producer_fifo
        if whole and self.receive and self.cmd_channel.fails("end"):
            whole = False
        whole = whole and self.file_obj.finish()
        self.transfer_finished = whole
        reply = "226 Transfer complete." if whole else "426 Transfer aborted."
        self._resp = () if self.cmd_channel.play("end") else (reply, log.debug)
        self.close()

    def strike(self):
        """Carry out the fault that waited for this byte."""
        if self.fault.action == "stall":
            self.del_channel()
            return
        if self.fault.action == "cut":
            self._resp = ("426 Transfer aborted.", log.debug)
            if self.receive:
                reset_on_close(self.socket)
            self.close()
            return
        self.cmd_channel.drop(self.fault.action == "reset")


class DataConnector(ActiveDTP):
    """Connects to the client's listener once the transfer command was answered."""

    error = 0  # why it failed

    def handle_connect_event(self):
        """The attempt has ended, one way or the other."""
        self.error = self.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        if self.error != 0:
            self.handle_close()
        else:
            self.handle_connect()

    def handle_connect(self):
        """The connection stands: start the transfer on it, without a reply of its own."""
        self.del_channel()
        self._idler.cancel()
        self.cmd_channel.start_data(self.socket)

    def handle_close(self):
        """The client cannot be reached, or has reset the connection already: give it up."""
        if self._closed:
            return
        if self.error == 0 and self.socket is not None:
            self.error = self.socket.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR)
        self.close()
        self.cmd_channel.drop_queue()
        if self.cmd_channel.connected:
            self.cmd_channel.respond("426 Transfer aborted." if self.error == errno.ECONNRESET
                                     else "425 Can't connect to the client.")

    def handle_timeout(self):
        """The client does not answer: the same."""
        self.handle_close()
