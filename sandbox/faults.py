"""Faults on demand, one engine for the server and the COM utility.

A fault is STEP=ACTION. It comes from --fault, which writes the file "faults" in the sandbox's
folder (one fault per line; it may be edited while the sandbox runs: each connection and each run
of the utility reads it again), or, for the utility alone and with precedence, from the variable
KORVA_SANDBOX_FAULT, one fault per line.
"""

import os
from collections import namedtuple

FILE, VARIABLE = "faults", "KORVA_SANDBOX_FAULT"
SERVER_STEPS = "greeting user pass type cwd port stor retr connect end quit".split()
UTILITY_STEPS = "open openjob closejob close query".split()
SERVER_ACTIONS = "refuse reply raw big close reset stall cut".split()
UTILITY_ACTIONS = "refuse silent lost stall signal garbage raw big pieces stderr".split()

Fault = namedtuple("Fault", "action text number")


def parse(line):
    """Turn "STEP=ACTION" or "STEP=ACTION:VALUE" into (step, Fault); ValueError if it is unknown."""
    step, _, action = line.partition("=")
    step, (action, colon, text) = step.strip().lower(), action.partition(":")
    known = SERVER_ACTIONS if step in SERVER_STEPS else UTILITY_ACTIONS
    if step not in SERVER_STEPS + UTILITY_STEPS or action not in known:
        raise ValueError(f"unknown fault: {line}")
    number = int(text) if text.isascii() and text.isdigit() else None
    if action in ("big", "cut", "pieces") and not number and text != "0":
        raise ValueError(f"{action} needs a number of bytes: {line}")
    if action == "cut" and step not in ("stor", "retr"):
        raise ValueError(f"only STOR and RETR can be cut: {line}")
    return step, Fault(action, text if colon else None, number)


def load(folder, environment=None):
    """All faults in force as a dictionary from step to Fault."""
    lines = []
    path = os.path.join(folder, FILE)
    if os.path.exists(path):
        with open(path, encoding="utf-8") as file:
            lines = file.read().split("\n")
    lines += (environment or {}).get(VARIABLE, "").split("\n")
    return dict(parse(line) for line in lines if line.strip())


def strikes_data(fault):
    """Whether a fault of STOR or RETR waits for a number of data bytes."""
    return fault.number is not None and fault.action in ("cut", "stall", "close", "reset")


def plain(text):
    r"""The bytes of a fault's text, with the escapes \r, \n, \0 and \\ replaced."""
    import re  # not at the top, because the COM utility rarely needs it
    escapes = {"\\r": "\r", "\\n": "\n", "\\0": "\0", "\\\\": "\\"}
    text = re.sub(r"\\[rn0\\]", lambda match: escapes[match.group()], text or "")
    return text.encode("utf-8", "surrogateescape")
