"""The data connection of the sandbox's server: one object in, or one object out."""

import errno
import hashlib
import logging
import socket
import struct
import sys

from pyftpdlib.handlers import ActiveDTP, DTPHandler
from pyftpdlib.ioloop import RetryError

from database import Refused

CHUNK = 65536

log = logging.getLogger("sandbox")


def reset_on_close(sock):
    """Make the coming close of a socket a reset in place of an orderly end."""
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


class Upload:
    """The file that takes a backup object; the catalogue hears of it when it is whole."""

    def __init__(self, catalogue, row, loop):
        self.catalogue, self.row, self.name = catalogue, row, str(row["saveset"])
        catalogue.advance(row["segment"], "opened", "storing")
        try:
            self.stream = catalogue.store.writer(row["saveset"], loop)
        except OSError:
            catalogue.abandon(row["segment"], "aborted")
            raise
        self.sha256, self.size = hashlib.sha256(), 0
        self.closed = self.stored = False

    def write(self, chunk):
        """Take some bytes; False when the store has enough of them for now."""
        self.sha256.update(chunk)
        self.size += len(chunk)
        return self.stream.write(chunk)

    def finish(self, done):
        """Make the whole object safe, then tell the catalogue, then the caller."""
        self.stream.finish(lambda safe: done(safe and self.record()))

    def record(self):
        """Whether the catalogue takes the object: not when its job was given up meanwhile."""
        try:
            self.catalogue.advance(self.row["segment"], "storing", "stored", size=self.size,
                                   sha256=self.sha256.hexdigest())
            self.stored = True
        except Refused as error:
            log.error("saveset %s: %s", self.name, error)
        return self.stored

    def close(self):
        """End the writing; what was not finished is given up."""
        self.closed = True
        self.stream.close()
        if not self.stored:
            try:
                self.catalogue.abandon(self.row["segment"], "aborted")
            except Refused as error:
                log.error("saveset %s: %s", self.name, error)


class Download:
    """The file of a stored object, checked against the catalogue while it is read."""

    def __init__(self, catalogue, row, loop):
        self.row, self.name = row, str(row["saveset"])
        self.stream = catalogue.store.reader(row["saveset"], loop)
        self.sha256, self.closed = hashlib.sha256(), False
        self.left = sys.maxsize  # hand out no more bytes than this

    def more(self):
        """The next bytes, none at the end."""
        chunk = self.stream.read(min(CHUNK, self.left))
        if chunk is None:
            raise RetryError
        self.sha256.update(chunk)
        self.left -= len(chunk)
        return chunk

    def finish(self, done):
        """Say whether exactly the bytes were read that were stored."""
        self.stream.finish(
            lambda ended: done(ended and self.sha256.hexdigest() == self.row["sha256"]))

    def close(self):
        """End the reading."""
        self.closed = True
        self.stream.close()


class DataConnection(DTPHandler):
    """Moves the bytes; a reset is no end of file, and 226 is said of whole objects only."""

    timeout = 3600  # seconds without a byte; a backup may wait for its tape

    def __init__(self, sock, cmd_channel):
        self.ended = False  # the peer has closed in good order
        self.finishing = False  # all bytes are through, the store has the word
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
        try:
            data = self.recv(self.ac_in_buffer_size)
        except RetryError:
            return
        self.tot_bytes_received += len(data)
        if data and not self.file_obj.write(data):
            self.pause()
        if data and self.fault and self.tot_bytes_received >= self.fault.number:
            self.strike()

    handle_read_event = handle_read

    def initiate_send(self):
        """Send what the store has."""
        try:
            super().initiate_send()
        except RetryError:
            self.pause()

    def pause(self):
        """Let the client wait until the store can go on."""
        self.modify_ioloop_events(0)
        self.file_obj.stream.ready(self.resume)

    def resume(self):
        """Try again what the store could not do."""
        try:
            if self.receive and not self.file_obj.write(b""):
                self.pause()
            else:
                self.modify_ioloop_events(self.ioloop.READ if self.receive else self.ioloop.WRITE)
        except OSError:
            self.handle_error()

    def handle_close(self):
        """The end of the data: decide what becomes of the object."""
        if self._closed or self.finishing:
            return
        if self.fault and self.fault.number == self.tot_bytes_sent and not self.receive:
            self.strike()
            return
        whole = self.ended if self.receive else not self.producer_fifo
        if whole and not (self.receive and self.cmd_channel.fails("end")):
            self.finishing = True
            self.del_channel()
            self.file_obj.finish(self.finished)
        else:
            self.settle("426 Transfer aborted.")

    def finished(self, whole):
        """The store and the catalogue have spoken."""
        self.settle("226 Transfer complete." if whole else "451 Transfer failed in the store.")

    def handle_error(self):
        """Something broke on our side: a full disk, or rclone in the middle."""
        reason = sys.exc_info()[1]
        log.error("transfer failed", exc_info=reason)
        self.settle(f"451 Transfer failed: {getattr(reason, 'strerror', None) or 'see the log'}.")

    def settle(self, reply):
        """Say what became of the object; a client that does not listen meets a reset."""
        self.transfer_finished = reply.startswith("226")
        if not self.transfer_finished and self.socket is not None:
            reset_on_close(self.socket)
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
