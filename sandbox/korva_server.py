"""A server that speaks KORVA's control language, for trying out and for tests.

Objects travel under a path that begins with "SMS", in the long forms
STOR saveset:QAB:none:tapeid:tape:blocksize and RETR saveset:0:0:tapeid:segment:none. The COM
utility opens the job first; the server takes and gives only what an open job names.
"""

import logging
import os
import socket
import time

from pyftpdlib.authorizers import AuthenticationFailed
from pyftpdlib.handlers import FTPHandler, proto_cmds
from pyftpdlib.servers import FTPServer

import catalogue
import faults
from transfer import DataConnection, DataConnector, Download, Upload, reset_on_close

SWEEP_INTERVAL = 15  # seconds
REFUSALS = {"greeting": "421", "user": "530", "pass": "530", "type": "504", "port": "500",
            "connect": "425", "end": "426", "quit": "500"}
COMMANDS = "USER PASS TYPE CWD PORT STOR RETR QUIT NOOP".split()


class Access:
    """Says who may log in: an open session with its password, or a host's own account."""

    def __init__(self, cat, accounts):
        self.cat, self.accounts = cat, accounts

    def validate_authentication(self, username, password, handler):
        """Let an account in whose word can be checked, or raise."""
        account = username
        if username == "sms":
            account, _, host = password.partition("@")
            known = self.comes_from(host, handler.remote_ip)
        else:
            handler.sid = self.cat.session_of_password(username, password)
            known = handler.sid is not None
        if not known or account not in self.accounts:
            raise AuthenticationFailed("Login incorrect.")
        handler.account = account

    @staticmethod
    def comes_from(host, address):
        """Whether the look-up of a host's name yields the address."""
        try:
            return host != "" and address in socket.gethostbyname_ex(host)[2]
        except (OSError, UnicodeError):
            return False

    def get_home_dir(self, _username):
        """No client sees the file system."""
        return os.sep

    def get_msg_login(self, _username):
        """The text of the reply to PASS."""
        return "Logged in."

    def get_msg_quit(self, _username):
        """The text of the reply to QUIT."""
        return "Goodbye."


class KorvaHandler(FTPHandler):
    """One control connection."""

    banner = "KORVA sandbox ready."
    proto_cmds = {name: dict(proto_cmds[name], perm=None) for name in COMMANDS}
    dtp_handler, active_dtp = DataConnection, DataConnector
    auth_failed_timeout = 0
    use_sendfile = False  # the bytes are checked on their way out
    cat = None  # set by make_server

    def __init__(self, conn, server, ioloop=None):
        self.account = self.sid = self.target = self.segment = self.data_fault = None
        self.path, self.said_quit = "", False
        self.faults = faults.load(self.cat.folder)
        super().__init__(conn, server, ioloop=ioloop)

    # Faults.

    def fails(self, step):
        """Whether a step is to be refused."""
        return step in self.faults and self.faults[step].action == "refuse"

    def play(self, step):
        """Carry out the fault of a step, if there is one, in its place."""
        fault = self.faults.get(step)
        if fault is None:
            return False
        if step in ("stor", "retr") and faults.strikes_data(fault):
            self.data_fault = fault
            return False
        if fault.action == "refuse":
            self.respond(f"{REFUSALS.get(step, '550')} {fault.text or 'Refused on demand.'}")
        elif fault.action == "reply":
            self.respond(fault.text or "")
        elif fault.action in ("raw", "big"):
            data = faults.plain(fault.text) if fault.action == "raw" else b"x" * fault.number
            super(FTPHandler, self).push(data)  # as it is, no encoding, no line end
        elif fault.action in ("close", "reset"):
            self.drop(fault.action == "reset")
        return True

    def drop(self, reset):
        """Hang up, on both connections."""
        for channel in (self, self.data_channel):
            if reset and channel is not None:
                reset_on_close(channel.socket)
        self.close()

    # The control connection.

    def handle(self):
        """Greet."""
        if not self.play("greeting"):
            super().handle()

    def process_command(self, cmd, *args, **kwargs):
        """Carry out a command, or its fault."""
        self.said_quit = self.said_quit or cmd == "QUIT"
        if not self._closed and not self.play(cmd.lower()):
            super().process_command(cmd, *args, **kwargs)

    def ftp_CWD(self, path):
        """Choose the drive; only the names of drives are paths here."""
        if not path.startswith("SMS"):
            self.respond("550 No such drive.")
            return
        self.path = path
        self.respond("250 Drive chosen.")

    def _make_eport(self, ip, port):
        """Keep the client's address for the transfer command (called by ftp_PORT)."""
        if ip != self.remote_ip or port < 1024:
            self.respond("501 Data connections go to the client's own address only.")
            return
        self.target = (ip, port)
        self.respond("200 PORT command successful.")

    def ftp_STOR(self, file):
        """Take the object of an open backup job."""
        self.transfer("STOR", file)

    def ftp_RETR(self, file):
        """Send the object of an open restore job."""
        self.transfer("RETR", file)

    def transfer(self, verb, argument):
        """Check, answer 150, connect; the data connection does the rest."""
        try:
            file = self.open_object(verb, argument.split(":"))
        except (catalogue.Refused, OSError, ValueError) as error:
            self.respond(f"550 {verb} refused: {error}.".replace("\n", " "))
            return
        row, self.segment = file.row, file.row["segment"]
        self.respond(f"150 Opening data connection for {row['saveset']} "
                     f"TAPE {catalogue.TAPE_ID} SEGMENT {self.segment}")
        if verb == "STOR":
            self._in_dtp_queue = (file, verb)
        else:
            self._out_dtp_queue = (file, True, file, verb)
        if not self.play("connect"):
            target, self.target = self.target, None
            self._dtp_connector = self.active_dtp(*target, self)
        elif self.fails("connect"):
            self.drop_queue()

    def open_object(self, verb, fields):
        """The file for a transfer command, when everything about the command is right."""
        if not self.path or not self.target or self._current_type != "i":
            raise catalogue.Refused("TYPE I, CWD and PORT come first")
        if len(fields) != 6 or self.data_channel or self._in_dtp_queue or self._out_dtp_queue:
            raise catalogue.Refused("six fields, one transfer at a time")
        direction = "b" if verb == "STOR" else "r"
        row = self.cat.job_object(direction, int(fields[0]), self.account, self.sid)
        tape = ["QAB", "none", str(catalogue.TAPE_ID), catalogue.TAPE]
        place = ["0", "0", str(catalogue.TAPE_ID), str(row["segment"]), "none"]
        if fields[1:5] != tape if verb == "STOR" else fields[1:] != place:
            raise catalogue.Refused("not on this tape")
        if verb == "STOR":
            if not fields[5].isdigit():
                raise catalogue.Refused("the block size is no number")
            return Upload(self.cat, row, self.ioloop)
        file = Download(self.cat, row, self.ioloop)
        if self.data_fault:
            file.left = self.data_fault.number
        return file

    def start_data(self, sock):
        """The data connection stands."""
        self._dtp_connector = None
        self.data_channel = self.dtp_handler(sock, self)
        self._on_dtp_connection()

    def drop_queue(self):
        """The data connection will not come: give up the waiting transfer."""
        for queue, place in ((self._in_dtp_queue, 0), (self._out_dtp_queue, 2)):
            if queue is not None:
                queue[place].close()
        self._in_dtp_queue = self._out_dtp_queue = None

    def on_disconnect(self):
        """A client that vanished without QUIT will not close its job."""
        if self.segment is not None and not self.said_quit:
            self.cat.abandon(self.segment, "aborted")


def make_server(folder, settings):
    """Bind the server, write the settings for the utility, sweep; the caller runs the loop."""
    cat = KorvaHandler.cat = catalogue.Catalogue(folder, settings)
    KorvaHandler.authorizer = Access(cat, settings["accounts"].split())
    server = FTPServer((settings["host"], settings["port"]), KorvaHandler)
    settings["port"] = server.address[1]
    cat.write_settings()

    def sweep():
        busy = {handler.segment for handler in server.ioloop.socket_map.values()
                if isinstance(handler, KorvaHandler)}
        cat.sweep(time.time() - settings["sweep_after"], busy - {None})

    sweep()
    cat.clear_store()
    server.ioloop.call_every(min(SWEEP_INTERVAL, max(1, settings["sweep_after"])), sweep,
                             _errback=lambda: logging.exception("sweep failed"))
    return server
