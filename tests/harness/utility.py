"""The COM utility: a scripted one, its INI file, its answers."""
import functools
import os

import inifile
from xbsa import make_folder, read_text, write_plain

os.environ.pop("LD_PRELOAD", None)  # children must not inherit the sanitizer
INI = inifile.INI

SCRIPT = read_text(os.path.dirname(__file__) + "/standin/olm_com_interface")


@functools.cache  # only once: the test replaces the INI file
def need_private_etc():
    assert os.path.ismount("/etc") or os.path.exists(INI) and inifile.is_ours(), \
        "needs a private /etc: sandbox/run --exec python3 -m unittest ..."


class Utility:
    """The scripted utility in its own directory, and the INI file that names it."""

    def __init__(self, test, answers=None, script=SCRIPT, name="bin"):
        need_private_etc()
        os.environ.update(KORVA_SERVER="srv", KORVA_JOB="job")
        self.folder = make_folder(test)
        self.path = os.path.join(self.folder, name, "olm_com_interface")
        os.mkdir(os.path.dirname(self.path))
        if script:
            write_plain(self.path, script.replace("FOLDER", self.folder), 0o755)
        for verb, answer in ({"bare": b"reply=OK\n"} | (answers or {})).items():
            self.answer(verb, answer)
        write_plain(INI, f"SM_BIN_KORVA={os.path.dirname(self.path)}\n")

    def answer(self, verb, answer):
        write_plain(os.path.join(self.folder, verb), answer)

    def calls(self):
        texts, found = read_text(self.folder + "/calls").split("\0"), []
        while len(texts) > 1:
            end = int(texts[0]) + 1
            left = [number for number in texts[end + 1].split() if number not in ("10", "255")]
            # While the caller is in popen, the two internal signals of the C library are blocked too.
            mask = f"{int(texts[end], 16) & ~0x180000000:016x}"
            found.append((texts[1:end], mask, " ".join(left)))
            texts = texts[end + 2:]
        return found

    def arguments(self):
        return [" ".join(words) for words, *_ in self.calls()]


def answers(port, **changes):
    job = {"reply": "OK", "tape_server": f"127.0.0.1:{port}:user:geheim", "drive": "SMS01",
           "tape": "LBL:17", "savesetname": "ABC@R1", "segment": "5"} | changes
    lines = [f"{key}={value}\n" for key, value in job.items() if value is not None]
    return {"open": b"reply=OK\nsessionID=S1\n", "openjob": "".join(lines).encode()}


def start(x):
    os.environ["CALLER"] = str(os.getpid())
    return x.init(b"BSA_API_VERSION=1.0.1", owner=b"INFORMIX")


def traced(outcome, prefix):
    return [line[len(prefix):] for line in getattr(outcome, "trace", outcome) if line.startswith(prefix)]
