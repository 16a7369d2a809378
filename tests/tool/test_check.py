"""xbsactl check: its findings on a working server, and on each fault."""
import json
import os
import re
import select
import subprocess
import unittest

from ftpd import Daemon, serve_behind
from sandboxed import Sandbox
from server import Server
from utility import INI, Utility
from xbsa import LIBRARY, make_folder, read_bytes, rows, write_plain

TOOL = os.environ["XBSA_TOOL"]
PASSWORD = "canary-word"
NOBODY = "--host", "127.0.0.1:1", "--user", "b"  # no listener
FIREWALL, FULL = "nf_conntrack_ftp", {"GREETING": ["421 full", "close"]}
# Each line comes in time, but all lines take longer than an answer may.
DRIP = [b"220 hi\r\nx", *[lambda server: select.select([server.control], [], [], 1), b"\r\nx"] * 9, b"\r\n"]
FIELDS = {"id", "status", "found", "next", "milliseconds"}


def corrupt(server):
    data = server.objects[server.name]
    server.objects[server.name] = data[:70000] + bytes([data[70000] ^ 1]) + data[70001:]


LOOK, RESTORE, PAIR = 0, 2, 3  # other connections than that of the store
HUNG_UP = 'closed the connection; its last reply was: '
# The step, the finding, the next step; what the server did, in which of its connections, and
# KORVA_PORT_RANGE.
FAULTS = rows("result found next odd",
    ("network.greeting", "2 lines", "switch the banner off", {"GREETING": ["220-hi", "220 "]}, LOOK),
    ("network.greeting", "SSH-2.0", "SFTP", {"GREETING": ["SSH-2.0-x"]}, LOOK),
    ("network.greeting", "rejects sessions: 421 full", "limit of sessions", FULL, LOOK),
    ("network.greeting", "closed", "an FTP server", {"GREETING": ["close"]}, LOOK),
    ("network.greeting", "no answer within 2 s", "its log", {"GREETING": DRIP}, LOOK),
    ("network.login", "421 full", "limit of sessions", FULL),
    ("network.login", "530 ********?", "--user or the password", {"PASS": [f"530 {PASSWORD}?"]}),
    ("network.login", "530 no", "--user", {"USER": ["530 no"], "PASS": ["503 no"]}),
    ("network.login", "530 TLS only", "demands encryption", {"USER": ["530 TLS only", "close"]}),
    ("network.login", HUNG_UP + "331", "log", {"PASS": ["close"]}),
    ("network.type", "504 no", "binary", {"TYPE": ["504 no"]}),
    ("network.cwd", "CWD .: 550 no", "--path", {"CWD": ["550 no"]}),
    ("network.port", "502 no", "allow active mode", {"PORT": ["502 no"]}),
    ("network.stor", HUNG_UP + "200", "seccomp_sandbox=NO", {"STOR": ["close"]}),
    ("network.stor", "no reply to STOR", FIREWALL, {"STOR": []}),
    ("network.stor", "cannot connect back", FIREWALL, {"STOR": ["425 no"]}),
    ("network.stor", "125 opening", "answers 150", {"STOR": ["125 opening", "connect"]}),
    ("network.stor", "553 no", "let the account write", {"STOR": ["553 no"]}),
    ("network.data", "cannot connect back", FIREWALL, {"STOR": ["150 opening", "425 no"]}),
    ("network.data", "did not arrive", FIREWALL, {"STOR": ["150 opening"]}),
    ("network.data", "did not arrive", "KORVA_PORT_RANGE: 42000-42099",
     {"STOR": ["150 opening"]}, 1, "42000-42099"),
    ("network.login", "KORVA_PORT_RANGE = x is not allowed", "unset the variable", {}, 1, "x"),
    ("network.data", "other than", "strict mode", {"STOR": ["150 opening", "foreign"]}),
    ("network.end", "451-cut", "full disk", {"END": ["451-cut", "451 x"]}),
    ("network.end", "no 226, but: the server closed", "server's log", {"END": ["close"]}),
    ("library.store", "reset", "", {"STOR": ["150 opening", "connect", "reset_data"], "DATA": []}),
    ("library.restore", "550 no", "account", {"RETR": ["550 no"]}, RESTORE),
    ("library.compare", "from byte 70000", "do not trust", {"DATA": [corrupt, "transfer"]}, RESTORE),
    ("library.two_at_once", "BSACreateObject failed", "limit of sessions", FULL, PAIR), at=1, range=None)
# Environment and options instead of the usual ones, and the finding. {} is a directory with odd files.
SETTINGS = [({"XBSA_PASSWORD": None}, (), "login", "no password", "--password-file"),
    ({"XBSA_PASSWORD": "x" * 60}, (), "login", "too long", "52 bytes"),
    ({}, ("--host", "x" * 64), "network.name", "xxxx", "DNS"),
    ({}, (), "network.tcp", "127.0.0.1:1: Connection refused", "port is right"),
    ({"XBSA_TRACE": "2", "XBSA_LOGFILE": "{}/none/log"}, (), "log", "/none/log", "account write"),
    ({"KORVA_JOURNAL": "{}/none/journal"}, (), "journal", "/none/journal", "right to write"),
    *(({}, ("--library", path), step, text, advice) for path, step, text, advice in (
        ("{}/bits.so", "library.file", "is 32 bit", "built for 64 bit"),
        ("{}/machine.so", "library.file", "S/390", "built for 64 bit"),
        ("{}/text.so", "library.file", "not a shared library", "again"),
        ("libm.so.6", "library.calls", "BSAInit", "install"))),
    ({}, ("--informixdir", "{}/none"), "database.directory", "not a directory", "--informixdir")]
# A line of the onconfig file, a row of sm_versions, and their status.
DATABASES = [("bar_bsalib_path LIBRARY # x", "1|1.0.1|KORVA|1.8A1", "ok", "ok"),
    ("BAR_BSALIB_PATH libxbsa.so.1", "7|1.0.1|KORVA|1.8A1|", "fail", "ok"),
    ("BAR_BSALIB_PATH /bin/true", "1|1.0.1|OTHER|1.8A1", "fail", "fail"),
    ("#BAR_BSALIB_PATH LIBRARY", "", "warn", "fail")]


# Settings of a database that backs up its logs, then the findings on changed settings.
GOOD = {"LTAPEDEV": "/dev/tape", "ALARMPROGRAM": "$INFORMIXDIR/bin/gz", "BAR_XFER_BUF_SIZE": 31,
        "BACKUP_FILTER": "'gz -1'", "RESTORE_FILTER": "'gz -d'", "BAR_RETRY": 1, "BAR_PROGRESS_FREQ": 5,
        "BAR_MAX_BACKUP": 4}
ONCONFIGS = rows("setting status found odd",
    ("", "", "", {}),
    ("LTAPEDEV", "fail", "discards", {"LTAPEDEV": "/dev/null"}),
    ("", "", "", {"LTAPEDEV": "/dev/null", "ALARMPROGRAM": "", "options": ["--no-logs"]}),
    ("ALARMPROGRAM", "warn", "not set", {"ALARMPROGRAM": ""}),
    ("ALARMPROGRAM", "warn", "backs up a full log", {"ALARMPROGRAM": "/x/no_log.sh"}),
    ("ALARMPROGRAM", "warn", "BACKUPLOGS=N", {"ALARMPROGRAM": "off"}),
    ("ALARMPROGRAM", "fail", "not exist", {"ALARMPROGRAM": "/none"}),
    ("BAR_XFER_BUF_SIZE", "fail", "32: more pages", {"BAR_XFER_BUF_SIZE": 32}),
    ("BAR_XFER_BUF_SIZE", "fail", "not a number", {"BAR_XFER_BUF_SIZE": "64K"}),
    ("BACKUP_FILTER RESTORE_FILTER", "fail", "no backup can be restored", {"RESTORE_FILTER": ""}),
    ("BACKUP_FILTER", "warn", "everybody", {"BACKUP_FILTER": "open"}),
    ("RESTORE_FILTER", "fail", "not exist", {"RESTORE_FILTER": "none"}),
    ("BAR_RETRY", "warn", "first error", {"BAR_RETRY": 0}),
    ("BAR_PROGRESS_FREQ", "warn", "5 minutes", {"BAR_PROGRESS_FREQ": 4}),
    ("BAR_MAX_BACKUP", "warn", "spaces", {"BAR_MAX_BACKUP": 0}),
    ("BAR_MAX_BACKUP", "fail", "has 4 ports", {"BAR_MAX_BACKUP": 5}))


def check(*options, env=None, kernel=None):
    """The exit code and the findings by step, as status, found and next; checks their promises."""
    env = os.environ | {"XBSA_PASSWORD": PASSWORD, "KORVA_STRICT": "1"} | (env or {})
    set_up = "".join(f"echo {value} >/proc/sys/net/ipv4/{name}; " for name, value in
                     (kernel or {}).items())
    runner = ["unshare", "-rn", "sh", "-c", f'set -e; {set_up} exec "$@"', "sh"] if kernel else []
    done = subprocess.run([*runner, TOOL, "check", "--json", *options], capture_output=True, text=True,
                          env={key: text for key, text in env.items() if text is not None},
                          timeout=100, check=False)
    out, answer = done.stdout, json.loads(done.stdout)
    assert PASSWORD not in out + done.stderr and "Sanitizer" not in done.stderr, out + done.stderr
    assert answer["schema"] == 2 and answer["mode"] in ("plain", "informix") and all(set(step) == FIELDS for step in answer["steps"]), out
    found = {step["id"]: (step["status"], step["found"], step["next"]) for step in answer["steps"]}
    assert len(found) == len(answer["steps"]), out
    assert done.returncode == any(row[0] == "fail" for row in found.values()), (done.returncode, out)
    assert all(bool(text) == (status in ("warn", "fail")) for status, _, text in found.values()), out
    return done.returncode, found


class Case(unittest.TestCase):
    def setUp(self):
        self.folder = make_folder(self)

    def write(self, name, data):
        write_plain(os.path.join(self.folder, name), data)

    def assert_fails(self, found, step, text, advice):
        self.assertEqual([key for key, (status, *_) in found.items() if status == "fail"], [step])
        self.assertIn(text, found[step][1])
        self.assertIn(advice, found[step][2])


class Plain(Case):
    def on_server(self, server, *options, **environment):
        serve_behind(self, server)
        return check("--host", f"127.0.0.1:{server.port}", "--user", "ftp", *options, env=environment)

    def test_good(self):
        daemon = Daemon("vsftpd")
        code, found = self.on_server(daemon)
        self.assertEqual((code, daemon.stored()), (0, {}))
        self.assertLessEqual({step for step, row in found.items() if row[0] != "ok"}, {  # depend on the machine
            "kernel.tcp_retries2", "kernel.tcp_keepalive_time"}, found)
        self.assertIn("objects removed: 3", found["cleanup"][1])

    def test_server(self):
        for fault in FAULTS:
            with self.subTest(fault.result + fault.found):
                slow = re.search(f"{FIREWALL}|within 2|other than|arrive", str(fault))
                server = Server(*[{}] * fault.at, fault.odd)
                found = self.on_server(server, *["--timeout", "2"] * bool(slow),
                                       KORVA_PORT_RANGE=fault.range)[1]
                self.assert_fails(found, *fault[:3])
                stores = " ".join(server.heard[1] if len(server.heard) > 1 else []).count("STOR")
                if stores and not re.search(": [45]", found["network.stor"][1]):
                    self.assertIn("xbsactl-check-", found["cleanup"][1])  # the object may exist
                if fault.result == "library.compare":  # this server does not delete
                    self.assertEqual([found[name][0] for name in ("library.two_at_once", "cleanup")],
                                     ["not_tried", "warn"])
                if fault.result.startswith("network."):
                    tried = [key for key in found if "library." in key and found[key][0] != "not_tried"]
                    self.assertEqual(" ".join(tried),
                                     "library.file library.rights library.load library.calls library.version")

    def test_settings(self):
        head = read_bytes(LIBRARY)[:64]
        self.write("bits.so", head[:4] + b"\1" + head[5:])
        self.write("machine.so", head[:18] + b"\x16\0" + head[20:])
        self.write("text.so", "#!/bin/sh\n")
        for env, options, step, text, advice in SETTINGS:
            with self.subTest(step + text):
                env = {key: value and value.format(self.folder) for key, value in env.items()}
                options = [option.format(self.folder) for option in options]
                host = ["--host", "127.0.0.1:1"] * ("--host" not in options)
                found = check("--user", "backup", *options, *host, env=env)[1]
                if step != "network.tcp":
                    found["network.tcp"] = ("not_tried", "", "")  # no listener
                self.assert_fails(found, step, text, advice)

    def test_settings_of_the_database(self):
        for setting, status, text, odd in ONCONFIGS:
            self.configure(*[f"{name} {odd.get(name, good)}" for name, good in GOOD.items()])
            found = check(*NOBODY, "--informixdir", self.folder, *odd.get("options", ()),
                          env={"KORVA_PORT_RANGE": "42000-42003"})[1]
            bad = {step: row for step, row in found.items() if step.startswith("database.") and row[0] != "ok"}
            self.assertEqual({step: row[0] for step, row in bad.items()}, dict.fromkeys(
                [f"database.{name}" for name in setting.split()], status), odd)
            self.assertTrue(all(text in found for _, found, _ in bad.values()), (bad, text))

    def configure(self, *lines):
        for name in ("etc", "bin"):
            os.makedirs(os.path.join(self.folder, name), exist_ok=True)
        self.write("etc/onconfig", "\n".join([f"BAR_BSALIB_PATH {LIBRARY}", *lines, ""]))
        self.write("etc/sm_versions", "1|1.0.1|KORVA|1.8A1\n")
        for name in ("bin/gz", "bin/open"):
            self.write(name, "#!/bin/sh\nBACKUPLOGS=Y\n")
        self.write("bin/off", "BACKUPLOGS=N\n")
        os.chmod(os.path.join(self.folder, "bin/open"), 0o777)

    def test_streams(self):
        """As many parallel sessions as the database opens; then a server that allows one less."""
        self.configure("BAR_MAX_BACKUP 3")
        options, step = ("--informixdir", self.folder), "library.all_at_once"
        self.assertIn("all 3 stored", self.on_server(Daemon("vsftpd"), *options)[1][step][1])
        found = self.on_server(Daemon("vsftpd", most=9), *options)[1]
        self.assert_fails(found, step, "421 full", "limit of sessions")

    def test_round_trip(self):
        found = self.on_server(Server({}), KORVA_SOCKET_BUFFER="1")[1]["network.throughput"]
        self.assertRegex(" ".join(found), "^warn .* 0 Mbit/s for a store.*tcp_wmem")

    def test_database(self):
        os.mkdir(os.path.join(self.folder, "etc"))
        for line, row, *want in DATABASES:
            self.write("etc/onconfig.x", line.replace("LIBRARY", LIBRARY) + "\n")
            self.write("etc/sm_versions", row + "\n")
            for name, env in ((("--onconfig", "onconfig.x"), {}), ((), {"ONCONFIG": "onconfig.x"})):
                found = check(*NOBODY, "--informixdir", self.folder, *name, env=env)[1]
                self.assertEqual([found["database." + name][0] for name in ("onconfig", "sm_versions")], want, found)

    def test_kernel(self):
        for retries, silence, *want in ((15, 7200, "ok.*after 15 min", "ok.*after 131 min"),
                (8, 600, "ok.*after 102 s", "ok.*after 21 min"),
                (5, 10200, "warn.*after 13 s", "warn.*after 3 h"),
                (20, 1, "warn.*after 25 min", "ok.*after 11 min")):
            kernel = {"tcp_retries2": retries, "tcp_keepalive_time": silence}
            found = check(*NOBODY, kernel=kernel)[1]
            self.assertRegex(";".join(" ".join(found["kernel." + name][:2]) for name in kernel),
                             "^" + ".*;".join(want))

    def run_tool(self, *options):
        run = subprocess.run([TOOL, "check", *options], env=os.environ | {"XBSA_PASSWORD": PASSWORD},
                             stdout=subprocess.PIPE, text=True, check=False)
        return run.returncode, run.stdout

    def test_nagios(self):
        """One line, and a code for each state; a real server refuses an unknown account."""
        for name, code, line in (("vsftpd", 0, "(OK|WARNING) - "), ("proftpd", 2, "CRITICAL - network.login: 530 ")):
            server = serve_behind(self, Daemon(name))
            done, out = self.run_tool("--nagios", "--user", "ftp", "--host", f"127.0.0.1:{server.port}")
            self.assertRegex(out, rf"^XBSA {line}[^\n|]*\| ok=\d+ [^\n|]*\n$")
            self.assertEqual(done, code + ("WARNING" in out), out)

    def test_wrong_arguments(self):
        """They are not a server failure for a monitoring system."""
        for line in ("", "--host x:0 --user b", "--host x", "--timeout x", "--informix --host x",
                     "--informix --space x"):
            self.assertEqual(self.run_tool(*line.split()), (2, ""), line)
            code, out = self.run_tool("--nagios", *line.split())
            self.assertRegex(f"{code} {out}", r"^3 XBSA UNKNOWN - .*(--|missing).*\n\Z", line)
        self.assertIn("--nagios excludes --json", self.run_tool("--nagios", "--json")[1])


class Informix(Case):
    def test_faults_before_the_server(self):
        def answer(text):
            return lambda: Utility(self, {"-q": text})
        query, hung = "utility.query", "#!/bin/sh\nexec sleep 600\n"
        for prepare, step, text, advice, env in [
                (Utility, "variable.KORVA_JOB", "not set", "set it", {"KORVA_JOB": None}),
                (lambda: os.unlink(INI), "ini.file", "No such file", "SM_BIN_KORVA=", {}),
                (lambda: write_plain(INI, "sm_bin_korva=/x\n"), "ini.key", "sm_bin_", "SM_BIN_KORVA=", {}),
                (lambda: write_plain(INI, "SM_BIN_KORVA=/x\n"), "utility.file", "/x/olm", "install", {}),
                (lambda: os.chmod(Utility(self).path, 0), "utility.file", "not exec", "a+x", {}),
                (answer(b"message=no job\nreply=ERROR\n"), query, "ERROR: no job", "KORVA_JOB", {}),
                (answer(b""), query, "nothing printed", "by hand", {}),
                (lambda: Utility(self, script=hung), query, "no answer within 2 s", "by hand", {}),
                (Utility, "variable.KORVA_SERVER", "128 bytes: too long", "shorten", {"KORVA_SERVER": "x" * 128})]:
            with self.subTest(step + text):
                prepare(*[self] if prepare is Utility else [])
                found = check("--informix", "--timeout", "2" if "no answer" in text else "30", env=env)[1]
                self.assert_fails(found, step, text, advice)
                self.assertEqual(found["library.store"][0], "not_tried")

    def test_sandbox(self):
        sandbox = Sandbox(self)
        code, found = check("--informix")
        self.assertEqual((code, sandbox.states(), found["cleanup"][1].count(", "), found["cleanup"][0]),
                         (0, ["good"] * 3, 2, "ok"), found)  # nothing to do, otherwise --nagios would always warn
        for fault, *want in (("CONNECT=refuse", "network.data", "425", FIREWALL),
                             ("PASS=reply:530 no", "network.login", "530 no", "add account and host"),
                             ("openjob=refuse:no drive", "library.store", "no drive", "")):
            sandbox.fault(fault)
            self.assert_fails(check("--informix")[1], *want)
