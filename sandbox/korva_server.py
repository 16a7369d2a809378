"""A server that speaks KORVA's control protocol, for trials and tests.

Objects travel under a path that begins with "SMS", in the long forms
STOR saveset:QAB:none:tapeid:tape:blocksize and RETR saveset:0:0:tapeid:segment:none. The COM
utility opens the job first; the server accepts only transfers that belong to an open job. Each
control connection has its own thread.
"""

import contextlib
import logging
import re
import resource
import select
import socket
import threading
import time

import catalogue
import faults
from catalogue import Refused
from transfer import CHUNK, Channel, Download, Failed, Upload, reset_on_close

SWEEP_INTERVAL = 15  # seconds
LOGIN_TIME, IDLE_TIME, DATA_TIME, CONNECT_TIME = 60, 300, 3600, 30  # seconds to wait for the client
END_TIME = 10  # seconds for the threads to end
ROOM = 1000  # connections at once, if there are descriptors for them
LINE = 4096  # bytes of a command
LOGINS = 3  # attempts in one connection
REFUSALS = {"greeting": "421", "user": "530", "pass": "530", "type": "504", "port": "500",
            "connect": "425", "end": "426", "quit": "500"}
BEFORE_LOGIN = ("user", "pass", "quit", "noop")
STORE = re.compile(rf"(\d{{1,10}}):QAB:none:{catalogue.TAPE_ID}:{catalogue.TAPE}:\d{{1,10}}",
                   re.ASCII)
RETRIEVE = re.compile(rf"(\d{{1,10}}):0:0:{catalogue.TAPE_ID}:(\d{{1,18}}):none", re.ASCII)

log = logging.getLogger("sandbox")


class Ended(Exception):
    """The connection is over."""


class Stalled(Exception):
    """A fault stops the data connection."""


def comes_from(host, address):
    """Whether the look-up of a host's name yields the address."""
    try:
        return host != "" and address in socket.gethostbyname_ex(host)[2]
    except (OSError, UnicodeError):
        return False


class Connection:
    """One control connection."""

    def __init__(self, cat, sock, peer, port):
        self.cat, self.socket, self.peer, self.port = cat, sock, peer, port
        self.lines = sock.makefile("rb")
        self.user = self.account = self.sid = self.target = self.segment = self.fault = None
        self.path, self.binary, self.said_quit, self.logins = "", False, False, 0
        self.faults, self.held = {}, contextlib.ExitStack()

    def serve(self):
        """Serve commands until the connection ends."""
        try:
            self.faults = faults.load(self.cat.folder)
            self.socket.settimeout(LOGIN_TIME)
            self.answer("greeting", "220 KORVA sandbox ready.")
            while True:
                self.obey(self.lines.readline(LINE))
        except (Ended, OSError) as error:
            log.info("%s:%d: end of the connection: %s", self.peer, self.port, error)
        finally:
            self.close()

    def close(self):
        """Release everything; a client that vanished without QUIT will not close its job."""
        with self.held, self.socket, self.lines:
            pass
        if self.segment is not None and not self.said_quit:
            try:
                self.cat.abandon(self.segment, "aborted")
            except (Refused, OSError) as error:
                log.error("segment %d: %s", self.segment, error)

    def wait(self, descriptor, events):
        """Wait for another descriptor while the client is connected."""
        poll = select.poll()
        poll.register(self.socket, select.POLLRDHUP)
        poll.register(descriptor, events)
        ready = dict(poll.poll(DATA_TIME * 1000))
        if self.socket.fileno() in ready:
            raise Ended("the client disconnected")
        if not ready:
            raise TimeoutError(0, "the connection timed out")

    # Faults.

    def play(self, step):
        """Carry out the fault of a step instead of the step, if there is one."""
        fault = self.faults.get(step)
        if fault is None:
            return False
        if step in ("stor", "retr") and faults.strikes_data(fault):
            self.fault = fault
            return False
        if fault.action == "refuse":
            self.reply(f"{REFUSALS.get(step, '550')} {fault.text or 'Refused on demand.'}")
        elif fault.action == "reply":
            self.reply(fault.text or "")
        elif fault.action == "raw":
            self.socket.sendall(faults.plain(fault.text))
        elif fault.action == "big":
            self.socket.sendall(b"x" * fault.number)
        elif fault.action in ("close", "reset"):
            self.drop(fault.action == "reset")
        return True

    def drop(self, reset, channel=None):
        """Hang up, on both connections."""
        reset_on_close(self.socket, reset)
        if channel:
            reset_on_close(channel.socket, reset)
        raise Ended("a fault on demand")

    def strike(self, verb, channel, moved):
        """Carry out the fault planned for this byte, or return how many may follow."""
        if self.fault is None or moved < self.fault.number:
            return self.fault.number - moved if self.fault else CHUNK
        if self.fault.action == "stall":
            raise Stalled
        if self.fault.action == "cut":
            if verb == "RETR":
                channel.end()
            raise Failed("426 Transfer aborted.")
        return self.drop(self.fault.action == "reset", channel)

    # The control connection.

    def reply(self, text):
        """Send a line."""
        self.socket.sendall(text.encode("utf-8", "surrogateescape") + b"\r\n")

    def answer(self, step, text):
        """Send the reply of a step, or carry out its fault."""
        if not self.play(step):
            self.reply(text)

    def obey(self, line):
        """Carry out a command."""
        if len(line) == LINE:
            self.reply("500 Command too long.")
        if not line.endswith(b"\n"):
            raise Ended("no more commands")
        verb, _, argument = line.decode("utf-8", "replace").rstrip("\r\n").partition(" ")
        step = verb.lower()
        shown = "***" if step == "pass" else argument
        log.info("%s:%d: %.200r", self.peer, self.port, f"{verb} {shown}".rstrip())
        method = getattr(self, f"do_{step}", None) if step.isalpha() else None
        self.said_quit = self.said_quit or step == "quit"
        if method is None:
            self.reply("500 Command not understood.")
        elif self.account is None and step not in BEFORE_LOGIN:
            self.reply("530 Log in with USER and PASS first.")
        elif not self.play(step):
            method(argument)

    def do_user(self, user):
        """Note the user name."""
        self.user, self.account = user, None
        self.reply("331 Username ok, send password.")

    def do_pass(self, password):
        """Log in an account that can prove its name."""
        self.logins += 1
        self.account = self.account_of(self.user, password)
        self.reply("530 Login incorrect." if self.account is None else "230 Logged in.")
        if self.account is not None:
            self.socket.settimeout(IDLE_TIME)
        elif self.logins >= LOGINS:
            raise Ended("too many attempts to log in")

    def account_of(self, user, password):
        """The account that has sent the password of its open job; with --login identity, the
        account that the client names, if it connects from the host that it names."""
        account = user
        if self.cat.settings["login"] == "identity":
            account, _, host = password.partition("@")
            known = user == "sms" and comes_from(host, self.peer)
        else:
            self.sid = self.cat.session_of_password(user, password)
            known = self.sid is not None
        return account if known and account in self.cat.settings["accounts"].split() else None

    def do_type(self, kind):
        """Binary only."""
        self.binary = kind.upper() == "I"
        self.reply("200 Type set to: Binary." if self.binary else "504 Only type I.")

    def do_cwd(self, path):
        """Choose the drive: a path must be the name of one."""
        known = path.startswith("SMS")
        self.path = path if known else self.path
        self.reply("250 Drive chosen." if known else "550 No such drive.")

    def do_port(self, argument):
        """Keep the client's address for the transfer command."""
        numbers = argument.split(",")
        if len(numbers) != 6 or not all(re.fullmatch("[0-9]{1,3}", each) and int(each) < 256
                                        for each in numbers):
            self.reply("501 Invalid PORT format.")
            return
        address, port = ".".join(numbers[:4]), int(numbers[4]) * 256 + int(numbers[5])
        if address != self.peer or port < 1024:
            self.reply("501 Data connections go to the client's own address only.")
            return
        self.target = (address, port)
        self.reply("200 PORT command successful.")

    def do_noop(self, _argument):
        """Do nothing."""
        self.reply("200 OK.")

    def do_quit(self, _argument):
        """End the session."""
        self.reply("221 Goodbye.")
        raise Ended("QUIT")

    # Transfers.

    def do_stor(self, argument):
        """Take the object of an open backup job."""
        self.transfer("STOR", argument)

    def do_retr(self, argument):
        """Send the object of an open restore job."""
        self.transfer("RETR", argument)

    def transfer(self, verb, argument):
        """Check, answer 150, connect, move the bytes; answer 226 only for complete objects."""
        try:
            moving = self.open_object(verb, argument)
        except (Refused, OSError) as error:
            self.reply(f"550 {verb} refused: {' '.join(str(error).split())}.")
            return
        with contextlib.ExitStack() as stack:
            stack.callback(moving.close)
            self.reply(f"150 Opening data connection for {moving.row['saveset']} "
                       f"TAPE {catalogue.TAPE_ID} SEGMENT {self.segment}")
            if self.play("connect"):
                return
            try:
                reply = self.move(verb, moving, stack)
            except Stalled:
                self.held.push(stack.pop_all())
                return
        self.answer("end", reply)

    def open_object(self, verb, argument):
        """The object that a valid transfer command names."""
        if not self.path or not self.target or not self.binary:
            raise Refused("TYPE I, CWD and PORT come first")
        fields = (STORE if verb == "STOR" else RETRIEVE).fullmatch(argument)
        if fields is None:
            raise Refused("not on this tape")
        row = self.cat.job_object("b" if verb == "STOR" else "r", int(fields[1]), self.account,
                                  self.sid)
        if verb == "RETR" and int(fields[2]) != row["segment"]:
            raise Refused("not on this tape")
        before, self.segment = self.segment, row["segment"]  # now, so that no sweep takes it
        try:
            return (Upload if verb == "STOR" else Download)(self.cat, row, self.wait)
        except (Refused, OSError):
            self.segment = before  # the object may belong to another connection
            raise

    def move(self, verb, moving, stack):
        """Connect and move the bytes; returns the reply."""
        target, self.target = self.target, None
        try:
            channel = Channel(self.socket.getsockname()[0], target, CONNECT_TIME, self.wait)
        except OSError as error:
            return ("426 Transfer aborted." if isinstance(error, ConnectionResetError)
                    else "425 Can't connect to the client.")
        stack.callback(channel.close)
        try:
            moving.run(channel, lambda moved: self.strike(verb, channel, moved))
            end = self.faults.get("end")
            if verb == "STOR" and end and end.action == "refuse":
                raise Failed("426 Transfer aborted.")
            moving.finish()
        except Failed as failure:
            return str(failure)
        except (Refused, OSError) as error:
            log.error("saveset %d: %s", moving.row["saveset"], error)
            return f"451 Transfer failed: {getattr(error, 'strerror', None) or 'see the log'}."
        channel.end()
        return "226 Transfer complete."


def listen(host, port):
    """The listening socket; a failure names address and port."""
    try:
        return socket.create_server((host, port), backlog=128)
    except OSError as error:
        reason = error.strerror.split(" (while")[0]  # newer Pythons add the address
        raise Refused(f"cannot listen on {host} port {port}: {reason}\n"
                      "hint: use --port 0 for a free port, or --listen for another address of this"
                      " machine"
                      ) from error


class Server:
    """Accepts connections in the thread that calls serve()."""

    def __init__(self, folder, settings):
        self.cat, self.connections = catalogue.Catalogue(folder, settings), {}
        self.cat.db.lock = threading.RLock()
        # Four descriptors for each connection: control, data, and an rclone's pipes.
        self.room = min(ROOM, (resource.getrlimit(resource.RLIMIT_NOFILE)[0] - 40) // 4)
        self.sweep()
        self.cat.check_store()
        self.socket = listen(settings["host"], settings["port"])
        settings["port"] = self.socket.getsockname()[1]
        self.cat.write_settings()

    def sweep(self):
        """Abandon what nobody will finish; on a full disk the server still serves the good copies,
        and the next sweep tries again."""
        before = time.time() - self.cat.settings["sweep_after"]
        try:
            self.cat.sweep(before, lambda: {each.segment for each in list(self.connections)})
        except (Refused, OSError) as error:
            log.error("sweep failed: %s", error)

    def serve(self):
        """Accept for ever, and sweep from time to time."""
        interval = min(SWEEP_INTERVAL, max(1, self.cat.settings["sweep_after"]))
        next_sweep = time.monotonic() + interval
        while True:
            if select.select([self.socket], [], [], max(0, next_sweep - time.monotonic()))[0]:
                self.accept()
            else:
                self.sweep()
                next_sweep = time.monotonic() + interval

    def accept(self):
        """Start a thread for a client, if the limit allows it."""
        try:
            sock, (peer, port) = self.socket.accept()
        except OSError as error:
            log.error("cannot accept a connection: %s", error)
            time.sleep(0.1)  # out of descriptors: others will end
            return
        connection = Connection(self.cat, sock, peer, port)
        thread = threading.Thread(target=self.attend, args=(connection,), daemon=True)
        try:
            if len(self.connections) >= self.room:
                raise RuntimeError("too many connections")
            self.connections[connection] = thread
            thread.start()
        except RuntimeError as error:
            log.error("%s: %s", peer, error)
            self.connections.pop(connection, None)
            with contextlib.suppress(OSError), sock, connection.lines:
                connection.reply("421 Too many connections.")

    def attend(self, connection):
        """What the thread of a connection does."""
        try:
            connection.serve()
        except Exception:  # pylint: disable=broad-except
            log.exception("%s: internal error", connection.peer)
        finally:
            del self.connections[connection]

    def close(self):
        """Abort the transfers in progress, and end."""
        self.socket.close()
        for connection, thread in list(self.connections.items()):
            with contextlib.suppress(OSError):
                connection.socket.shutdown(socket.SHUT_RDWR)
            with contextlib.suppress(RuntimeError):  # a signal came before the thread was started
                thread.join(END_TIME)
        self.cat.close()
