"""A scripted FTP server: correct unless a script changes a step. It records what it received."""
import contextlib
import select
import socket
import struct

from xbsa import DEADLINE

# The actions of each step. A text is a reply line, bytes are sent unchanged, a function is called with
# the server, an empty list is silence. connect opens the data connection (foreign: from another
# address), transfer moves the object.
POLITE = {"GREETING": ["220 ready"], "USER": ["331 password"], "PASS": ["230 in"],
          "TYPE": ["200 binary"], "CWD": ["250 there"], "PORT": ["200 port"],
          "STOR": ["150 opening TAPE 17 SEGMENT 3", "connect"], "RETR": ["150 opening", "connect"],
          "DATA": ["transfer"], "END": ["226 done"], "QUIT": ["221 bye", "close"]}


class Hangup(Exception):
    """The control connection is over."""


class Refused(Exception):
    """The client does not listen for the data connection."""


class Listener:
    patience = DEADLINE  # until the next connection

    def __init__(self):
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]

    def forget(self):
        self.listener.close()

    def serve(self, done):
        """Serves one connection after the other, until done is readable."""
        while self.listener in (ready := select.select([self.listener, done], [], [], self.patience)[0]):
            self.accept(self.listener.accept()[0])
        if not ready:
            raise TimeoutError


class Server(Listener):
    """Serves connections one after the other, the n-th with the n-th script (a dict like POLITE with
    the steps that differ), the rest with POLITE.
    heard: a list of command lines for each connection; ends: how each data connection ended (FIN,
    RST, REFUSED); objects: stored data by name."""

    def __init__(self, *scripts, objects=None):
        super().__init__()
        self.scripts, self.objects = list(scripts), objects or {}
        self.heard, self.ends = [], []
        self.control = self.data = self.target = self.name = self.verb = None

    def verbs(self):
        return [" ".join(line.split(" ")[0] for line in lines) for lines in self.heard]

    def accept(self, connection):
        self.control, self.data = connection, None
        self.control.settimeout(DEADLINE)
        script = POLITE | (self.scripts.pop(0) if self.scripts else {})
        self.heard.append([])
        with self.control, contextlib.suppress(Hangup, ConnectionError):
            self._play(script["GREETING"])
            for line in self.control.makefile("rb"):
                self._answer(line.decode("latin-1").rstrip("\r\n"), script)
        self._close_data()

    def _answer(self, line, script):
        self.heard[-1].append(line)
        verb, _, argument = line.partition(" ")
        if verb == "PORT":
            *address, high, low = argument.split(",")
            self.target = (".".join(address), int(high) * 256 + int(low))
        self.name, self.verb = argument, verb
        try:
            self._play(script.get(verb, ["502 unknown"]))
            if verb in ("STOR", "RETR", "LIST") and self.data:
                self._play(script["DATA"] + script["END"])
        except Refused:
            self.ends.append("REFUSED")

    def _play(self, actions):
        for action in actions:
            if callable(action):
                action(self)
            elif not isinstance(action, bytes) and hasattr(self, "_do_" + action):
                getattr(self, "_do_" + action)()
            else:
                self._say(action if isinstance(action, bytes) else action.encode("latin-1") + b"\r\n")

    def _say(self, text):
        """Ignores that the client has gone, because its earlier commands are still to be read."""
        with contextlib.suppress(ConnectionError):
            self.control.sendall(text)

    def _do_close(self):
        raise Hangup

    def _do_reset(self):
        _reset(self.control)
        raise Hangup

    def _do_connect(self, source="127.0.0.1"):
        self._close_data()
        try:
            self.data = socket.create_connection(self.target, DEADLINE, (source, 0))
        except ConnectionRefusedError:
            raise Refused from None
        except ConnectionResetError:  # already reset
            self.data = socket.socket()

    def _do_foreign(self):
        self._do_connect("127.0.0.2")

    def _do_reset_data(self):
        _reset(self.data)

    def _do_begin(self):
        self.data.sendall(self.objects[self.name])

    def _do_transfer(self):
        self.ends.append(self._receive() if self.verb == "STOR" else self._send())
        self._close_data()

    def _close_data(self):
        if self.data:
            self.data.close()
            self.data = None

    def _receive(self):
        with contextlib.suppress(OSError):
            self.objects[self.name] = b"".join(iter(lambda: self.data.recv(1 << 20), b""))
            return "FIN"
        return "RST"

    def _send(self):
        with contextlib.suppress(ConnectionError):
            self.data.sendall(self.objects.get(self.name, b""))
            return "FIN"
        return "RST"


def _reset(connection):
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()
