"""The COM utility of the sandbox: opens and closes sessions and jobs, and answers queries.

    olm_com_interface -b|-r open|openjob:SID|closejob:SID|close:SID -C SERVER [OPTIONS]
                      [-- SPACE@PATH]
    olm_com_interface -q -C SERVER -j JOB [OPTIONS] -- SPACE@PATH

The answer is a list of key=value lines on standard output, "reply=OK" first, or a "message="
line and "reply=ERROR". KORVA_SANDBOX names the sandbox's folder; by default it is
the one whose bin/ the utility was started from. Imports are few, because a backup starts the
utility four times for each object; faults import the rest.
"""

import os
import pwd
import time

import catalogue
import faults
from catalogue import Refused

OPTIONS = "CIjsSdmWi"
STALL = 3600  # seconds, if the fault gives no number


def parse(arguments):
    """Split the command line into (direction, verb, sid, options, object name)."""
    options, name, rest = {}, None, list(arguments)
    direction = rest.pop(0) if rest else ""
    if direction not in ("-b", "-r", "-q"):
        raise Refused("usage: -b or -r VERB, or -q, and options")
    command = "query" if direction == "-q" else (rest.pop(0) if rest else "")
    while rest:
        word = rest.pop(0)
        if word == "--" and len(rest) == 1:
            name = rest.pop(0)
        elif word[:1] == "-" and word[1:] and word[1:] in OPTIONS and rest:
            options[word[1:]] = rest.pop(0)
        else:
            raise Refused("unknown or incomplete option")
    verb, _, sid = command.partition(":")
    return direction[1:], verb, sid, options, name


def check_texts(arguments):
    """Refuse text that could break an answer's lines or the catalogue."""
    for text in arguments:
        if any(ord(char) < 32 or 0xdc80 <= ord(char) <= 0xdcff or ord(char) == 127
               for char in text):
            raise Refused("an argument contains control characters, or is not UTF-8")


def number(text):
    """A non-negative decimal option value."""
    if not (text.isascii() and text.isdigit()) or len(text) > 18:
        raise Refused("an option needs a number")
    return int(text)


class Utility:
    """One run: the settings, the calling account, and a method for each step."""

    def __init__(self, folder, direction, sid, options, name):
        self.cat = catalogue.Catalogue(folder)
        self.settings = self.cat.settings
        self.direction, self.options, self.name = direction, options, name
        self.account = pwd.getpwuid(os.getuid()).pw_name
        self.key = (sid, direction, self.account)
        if self.option("C") != self.settings["server"]:
            raise Refused(f"this is server {self.settings['server']}, not the requested one")
        if self.account not in self.settings["accounts"].split():
            raise Refused(f"account {self.account} is unknown on this server")

    def option(self, letter):
        """The value of a required option."""
        if not self.options.get(letter):
            raise Refused(f"option -{letter} is missing")
        return self.options[letter]

    def object_name(self):
        """The object after "--"."""
        if not self.name or "@" not in self.name:
            raise Refused("an object SPACE@PATH is needed after --")
        return self.name

    def open(self):
        """Open a session."""
        sid = self.cat.open_session(self.direction, self.account, os.uname().nodename)
        return [("sessionID", sid)]

    def openjob(self):
        """Open a job and return where its object goes to or comes from."""
        job, name, password = self.option("j"), self.object_name(), os.urandom(16).hex()
        saveset = number(self.option("s"))
        if self.direction == "b":
            row = self.cat.open_backup(self.key, job, saveset, name, password)
        else:
            row = self.cat.open_restore(self.key, saveset, name, password)
        drive = self.options.get("d", "01")
        return [
            ("jobname", job),
            ("media", self.options.get("m", "DISK")),
            ("tape_server", self.tape_server(password)),
            ("drive", drive if drive.startswith("SMS") else "SMS" + drive),
            ("tape", f"{catalogue.TAPE}:{catalogue.TAPE_ID}:{catalogue.BLOCK_SIZE}"),
            ("savesetname", f"{row['saveset']}@{row['restore_id']}"),
            ("format", "QAB"),
            ("initiator", self.options.get("I", "unknown")),
            ("segment", row["segment"] if self.direction == "r" else 0),  # a backup's: see 150
            ("lifetime", 0),
        ]

    def tape_server(self, password):
        """With host and port only, the client logs in as account and host, else with this login."""
        place = f"{self.settings['address']}:{self.settings['port']}"
        if self.settings["login"] == "session":
            return f"{place}:{self.account}:{password}"
        return place.removesuffix(":11001")

    def closejob(self):
        """Close the job; -i is the status of the transfer."""
        self.cat.close_job(self.key, self.option("s"), number(self.option("i")))
        return []

    def close(self):
        """Close the session."""
        self.cat.close_session(self.key)
        return []

    def query(self):
        """Name the newest good copy, if there is one."""
        row = self.cat.newest(self.option("j"), self.object_name())
        return [("savesetname", f"{row['saveset']}@{row['restore_id']}")] if row else []


def run(folder, arguments):
    """Do what the command line asks and return the answer's text."""
    try:
        check_texts(arguments)
        direction, verb, sid, options, name = parse(arguments)
        utility = Utility(folder, direction, sid, options, name)
        steps = {step: getattr(utility, step) for step in faults.UTILITY_STEPS}
        if verb not in steps:
            raise Refused("unknown verb")
        lines = [("reply", "OK")] + steps[verb]()
    except (Refused, OSError, KeyError, ValueError) as error:
        lines = [("message", " ".join(str(error).split())), ("reply", "ERROR")]
    return "".join(f"{key}={value}\n" for key, value in lines).encode()


def unblock_signals():
    """Unblock the signals that the host has blocked, so that a stalled utility can be ended."""
    import signal
    signal.pthread_sigmask(signal.SIG_SETMASK, [])
    return signal


def stall(seconds):
    """Wait without an answer, until the time is over, the host ends or a signal comes."""
    unblock_signals()
    parent, end = os.getppid(), time.monotonic() + seconds
    while time.monotonic() < end and os.getppid() == parent:
        time.sleep(0.1)


def answer_with(fault, folder, arguments):
    """The answer under a fault, as a list of pieces to write."""
    action = fault.action
    if action == "stall":
        stall(STALL if fault.number is None else fault.number)
    elif action == "signal":
        os.kill(os.getpid(), getattr(unblock_signals(), fault.text or "SIGKILL"))
    elif action == "stderr":
        os.write(2, b"no answer on demand\n")
    elif action == "refuse":
        return [f"message={fault.text or 'refused on demand'}\nreply=ERROR\n".encode()]
    elif action == "garbage":
        return [bytes(range(256)) * 4]
    elif action == "raw":
        return [faults.plain(fault.text)]
    elif action == "lost":
        run(folder, arguments)
    elif action == "big":
        answer = run(folder, arguments)
        return [(answer + b"media=" + b"x" * fault.number)[:fault.number]]
    elif action == "pieces":
        answer, size = run(folder, arguments), max(1, fault.number)
        return [answer[at:at + size] for at in range(0, len(answer), size)]
    return []


def main(command_line):
    """Print the answer; return 0 if it is OK."""
    arguments = command_line[1:]
    beside = os.path.dirname(os.path.dirname(os.path.abspath(command_line[0])))
    folder = os.environ.get("KORVA_SANDBOX") or beside
    step = "query" if arguments[:1] == ["-q"] else "".join(arguments[1:2]).partition(":")[0]
    try:
        fault = faults.load(folder, os.environ).get(step)
        pieces = answer_with(fault, folder, arguments) if fault else [run(folder, arguments)]
    except ValueError as error:
        pieces = [f"message={error}\nreply=ERROR\n".encode()]
    try:
        for piece in pieces:
            while piece:
                piece = piece[os.write(1, piece):]
            if len(pieces) > 1:
                time.sleep(0.002)
    except BrokenPipeError:
        return 1  # the host has stopped reading
    return 0 if b"".join(pieces).startswith(b"reply=OK") else 1
