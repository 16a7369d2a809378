"""Runs the programs of the benchmark and collects figures from their output and from tools."""

import contextlib
import ctypes
import json
import os
import pwd
import re
import shlex
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "sandbox"))
BLOCK = 65535
CURL = ["curl", "-sS", "--ftp-port", "127.0.0.1", "--disable-eprt", "-w", '{"wall": %{time_total}}']
LFTP = "set ftp:passive-mode no; set ftp:ssl-allow no; set xfer:clobber yes; "


FTPD = os.environ.get("XBSA_FTPD") or os.path.expanduser("~/.cache/korva-xbsa/ftpd")
VSFTPD = """listen=NO
run_as_launching_user=YES
ftp_username={user}
no_anon_password=YES
anon_root={folder}
anon_upload_enable=YES
anon_other_write_enable=YES
anon_world_readable_only=NO
write_enable=YES
seccomp_sandbox=NO
"""


class Vsftpd:
    """The fastest of the ordinary servers: a process for each connection, files in memory."""

    command = os.path.join(FTPD, "usr/sbin/vsftpd")

    def __init__(self, folder):
        data = os.path.join(folder, "vsftpd")
        os.makedirs(data, exist_ok=True)
        configuration = os.path.join(folder, "vsftpd.conf")
        with open(configuration, "w", encoding="ascii") as file:
            file.write(VSFTPD.format(user=pwd.getpwuid(os.getuid()).pw_name, folder=data))
        os.chmod(configuration, 0o600)
        library = f"{FTPD}/usr/lib/{os.uname().machine}-linux-gnu"
        self.run = {"args": [self.command, configuration], "env": {"LD_LIBRARY_PATH": library}}
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = str(self.listener.getsockname()[1])
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            connection = self.listener.accept()[0]
            subprocess.Popen(stdin=connection, stdout=connection, stderr=subprocess.DEVNULL,
                             **self.run)
            connection.close()


class Bench:
    """The programs of one build, a server, and a directory in memory."""

    def __init__(self, build, nagle=False):
        self.build = build
        self.library = os.path.join(build, "lib", "libxbsa.so.1")
        self.peers = os.path.join(build, "bench")
        self.tool = os.path.join(build, "bin", "xbsactl")
        memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
        self.folder = tempfile.mkdtemp(prefix="bench", dir=memory)
        command = [self.peer("sink")] + ["--nagle"] * nagle
        self.server = subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
        self.port = self.server.stdout.readline().strip()
        self.informix = None

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.terminate()
        self.server.communicate()
        shutil.rmtree(self.folder)

    def peer(self, name):
        return os.path.join(self.peers, name)

    def drive(self, way, size, block=BLOCK, count=1, file=None):
        """The command line that moves objects through the library."""
        return [self.peer("drive"), self.library, way, self.port, str(block), str(size),
                str(count)] + [file] * (file is not None)

    def bare(self, way, size, block=BLOCK):
        """The same bytes from or to the same server without a library."""
        return [self.peer("limit"), {"store": "send", "restore": "recv"}[way], self.port, str(block),
                str(size)]

    def talk(self, way, size, count=1):
        """The same conversation without a library."""
        return [self.peer("limit"), way, self.port, str(BLOCK), str(size), str(count)]

    def file(self, size):
        """A file of this size in memory, with all pages touched."""
        path = os.path.join(self.folder, str(size))
        if not os.path.exists(path):
            with open(path, "wb") as file:
                for _ in range(0, size, 1 << 20):
                    file.write(bytes(min(size, 1 << 20)))
        return path

    def curl(self, way, size):
        url = f"ftp://ftp:p@127.0.0.1:{self.port}/{size}"
        return CURL + (["-T", self.file(size), url] if way == "store" else ["-o", "/dev/null", url])

    def lftp(self, way, size):
        verb = f"put {self.file(size)} -o {size}" if way == "store" else f"get {size} -o /dev/null"
        return ["lftp", "-c", f"{LFTP}open -u ftp,p ftp://127.0.0.1:{self.port}; {verb}"]

    def shells(self, way, size, pipe):
        """xbsactl, curl and lftp as their users run them: with a file in memory, or a pipe from or to cat."""
        store, url = way == "store", f"ftp://ftp:p@127.0.0.1:{self.port}/{size}"
        file = self.file(size) if store else os.path.join(self.folder, "restored")
        local, source = ("-", "/dev/stdin") if pipe else (file, file) # lftp has no "-"
        verb = f"put {source} -o {size}" if store else f"cat {size}" if pipe else f"get {size} -o {file}"
        commands = {
            "xbsactl": f"{self.tool} {way} {size} {local} 2> {self.folder}/messages",
            "curl": f"curl -sS -P 127.0.0.1 --disable-eprt {'-T' if store else '-o'} {local} {url}",
            "lftp": f"lftp -c '{LFTP}open -u ftp,p ftp://127.0.0.1:{self.port}; {verb}'"}
        first, last = (f"cat {file} | ", "") if store else ("", " | cat > /dev/null")
        return {program: ["sh", "-c", f"{first}{command}{last}" if pipe else f"exec {command}"]
                for program, command in commands.items()}

    def far(self, command):
        """The same command as a text for the near end of a long line; the server is at the far end."""
        words = ["$PORT" if word == self.port else shlex.quote(word) for word in command]
        text = " ".join(["BENCH_HOST=10.9.0.2"] + words)
        text = text.replace(f"127.0.0.1:{self.port}", "10.9.0.2:$PORT")
        return text.replace("127.0.0.1", "10.9.0.1")

    @contextlib.contextmanager
    def informix_mode(self):
        """Wraps commands so that they find a COM utility."""
        import inifile
        os.makedirs(os.path.join(self.folder, "bin"), exist_ok=True)
        utility = os.path.join(self.folder, "bin", "olm_com_interface")
        shutil.copy(self.peer("limit"), utility)
        self.informix = {"BENCH_OWNER": "INFORMIX", "BENCH_PORT": self.port, "KORVA_JOB": "job",
                         "KORVA_SERVER": "server", "BENCH_UTILITY": utility}
        yield lambda command: inifile.namespace_command(self.folder, command)


def sample(command, env=None):
    """Runs once. Returns the printed figures, and time, CPU seconds and peak memory with the start."""
    start = time.monotonic()
    child = subprocess.Popen(command, stdout=subprocess.PIPE, text=True,
                             env=os.environ | (env or {}))
    text = child.stdout.read()
    _, status, usage = os.wait4(child.pid, 0)
    child.returncode = os.waitstatus_to_exitcode(status)
    if child.returncode != 0:
        sys.exit(f"failed: {' '.join(command)}")
    took = {"wall": time.monotonic() - start, "cpu": usage.ru_utime + usage.ru_stime,
            "peak": usage.ru_maxrss * 1024}
    found = re.search(r"\{.*\}", text)
    return took | (json.loads(found.group()) if found else {})


def together(command, processes, env=None):
    """The same with several processes at once; returns the longest wall time."""
    children = [subprocess.Popen(command, stdout=subprocess.PIPE, text=True,
                                 env=os.environ | (env or {})) for _ in range(processes)]
    texts = [child.communicate()[0] for child in children]
    if any(child.returncode for child in children):
        sys.exit(f"failed: {' '.join(command)}")
    return {"wall": max(json.loads(text)["wall"] for text in texts)}


def summary(values):
    quartiles = statistics.quantiles(values, n=4, method="inclusive") if len(values) > 1 else values * 3
    return {"q1": quartiles[0], "median": statistics.median(values), "q3": quartiles[2],
            "runs": len(values)}


def compare(ours, theirs, pairs, fields=("wall",), less=({}, {})):
    """
    Ours and theirs (callables that return figures) in turn, the first one changing from pair to
    pair. For each field theirs / ours, so above 1 is better than theirs; less: figures of both
    that are not part of the transfer and are subtracted. And the medians of both.
    """
    ratios, sides = {field: [] for field in fields}, ([], [])
    for number in range(pairs):
        pair = [None, None]
        for side in (1, 0) if number % 2 else (0, 1):
            pair[side] = (ours, theirs)[side]()
        for field in fields:
            for side in (0, 1):
                pair[side][field] -= less[side].get(field, 0)
            ratios[field].append(pair[1][field] / pair[0][field])
        for side in (0, 1):
            sides[side].append(pair[side])
    return [summary(ratios[field]) | {
        name: statistics.median(run[field] for run in side)
        for name, side in zip(("ours", "theirs"), sides)} for field in fields]


def ticks():
    """The machine's processor time so far: in all, used, and stolen by other virtual machines."""
    with open("/proc/stat", encoding="ascii") as file:
        user, nice, system, idle, wait, irq, soft, steal = map(int, file.readline().split()[1:9])
    used = user + nice + system + irq + soft
    return used + idle + wait + steal, used, steal


def shares(first):
    """The shares of processor time that were used and stolen since the first ticks()."""
    total, used, steal = (now - then for now, then in zip(ticks(), first))
    return used / max(total, 1), steal / max(total, 1)


@contextlib.contextmanager
def large_buffers(size):
    """
    Lets sockets ask for buffers of `size` bytes, if this process may change these limits. They hold
    for the whole system, so they are put back at the end.
    """
    with contextlib.ExitStack() as stack:
        for name in ("rmem_max", "wmem_max"):
            with contextlib.suppress(OSError):
                limit = stack.enter_context(open(f"/proc/sys/net/core/{name}", "rb+", buffering=0))
                earlier = limit.read()
                stack.callback(os.pwrite, limit.fileno(), earlier, 0)
                os.pwrite(limit.fileno(), b"%d" % max(size, int(earlier)), 0)
        yield


def own_network():
    """
    Moves this process to a network of its own, if it may: no other traffic, and ended connections
    leave their ports at once. Returns whether it may.
    """
    new_network = 0x40000000 # CLONE_NEWNET
    if ctypes.CDLL(None).unshare(new_network) != 0:
        return False
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with open("/proc/sys/net/ipv4/tcp_max_tw_buckets", "w", encoding="ascii") as file:
        file.write("1024")
    return True


def system_calls(command, env=None):
    """The number of each system call, as counted by strace -c."""
    with tempfile.NamedTemporaryFile("r") as file:
        subprocess.run(["strace", "-c", "-o", file.name] + command, check=True,
                       stdout=subprocess.DEVNULL, env=os.environ | (env or {}))
        rows = [line.split() for line in file if re.match(r"\s+\d", line)]
    return {row[-1]: int(row[3]) for row in rows if row[-1] != "total"}


def calls_for(less, more, times, env=None):
    """System calls of one more repetition: the second command repeats more often than the first."""
    first, second = system_calls(less, env), system_calls(more, env)
    extra = {name: (count - first.get(name, 0)) / times for name, count in second.items()}
    return {name: round(count, 2) for name, count in sorted(extra.items()) if count}


def instructions(command, function, library, env=None):
    """
    Instructions of one call of the library's function: in the library itself, and in everything
    that it calls outside the kernel.
    """
    with tempfile.NamedTemporaryFile("r") as file:
        subprocess.run(["valgrind", "--tool=callgrind", "--compress-strings=no", "-q",
                        "--compress-pos=no", f"--toggle-collect={function}",
                        f"--callgrind-out-file={file.name}"] + command, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                       env=os.environ | (env or {}))
        inside = total = calls = 0
        owner = callee = ""
        called = False
        for line in file:
            key, _, value = line.strip().partition("=")
            if key == "ob":
                owner = value
            elif key == "cfn":
                callee = value
            elif key == "calls":
                calls += int(value.split()[0]) if callee == function else 0
                called = True
            elif re.match(r"\d+ \d+$", line):
                cost = 0 if called else int(line.split()[1])
                inside += cost if os.path.basename(owner).startswith("libxbsa") else 0
                total += cost
                called = False
    return round(inside / calls, 1), round(total / calls, 1)
