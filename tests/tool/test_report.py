"""What the journal says in the morning: the last good copy of each object, and whether it comes back."""
import gzip
import json
import os
import re
import signal
import socket
import subprocess
import time

from sandboxed import Sandbox
from test_tool import CANARY, Site, wait_while
from xbsa import DEADLINE, read_bytes, read_text, rows, write_plain

HOUR, DIGEST = 3600, "b5e9c1ad071b3e7fc779cfaa5e523818"  # of "hello", by xxhsum -H2
STAMP = "%Y-%m-%dT%H:%M:%SZ"


def line(name, age, **keys):
    """A line as the library writes it, that many seconds ago."""
    entry = dict(schema=1, time=time.strftime(STAMP, time.gmtime(time.time() - age)), pid=4711, mode="informix",
                 direction="store", space=name, path="dbs", copy_id=7, server="s:21", bytes=5000, blocks=1,
                 seconds=0.5, result=0, error="", xxh128=DIGEST) | keys
    return json.dumps(entry, separators=(",", ":"), ensure_ascii=False)


def failed(name, age, error="552 full", **keys):
    return line(name, age, result=3, error=error, **keys)


GOOD = line("a", HOUR)
# The journal's lines, options, exit code of report and with --nagios, what the text says, and the
# status of each object.
REPORTS = rows("lines options code nagios says objects",
    ([GOOD], "", 0, 0, r"^ok +6\d min +5.0 kB +10.0 kB/s +7 +a@dbs$", "ok"),
    ([GOOD], "--max-age 90m --min-size 5kb --space a", 0, 0, "^1 ok, 0 small, 0 old, 0 failed$", "ok"),
    ([GOOD], "--max-age 3000", 1, 2, r"^ +last good copy 6\d min ago$", "old"),
    ([GOOD], "--min-size 5001", 1, 1, "^ +last good copy has 5000 bytes$", "small"),
    ([GOOD], "--max-age 50m --min-size 1MiB", 1, 2, "1 old", "old"),
    ([GOOD, failed("a", 60)], "", 1, 2, r"^ +failed \d+ s ago: 552 full$", "failed"),
    ([failed("a", 60), GOOD], "", 1, 2, "552 full", "failed"),  # an older file is read later
    ([failed("a", 2 * HOUR), GOOD], "", 0, 0, "1 ok", "ok"),
    ([failed("a", 60), line("a", 60)], "", 0, 0, "1 ok", "ok"),  # the retry of the same second
    ([line("a", 60), failed("a", 60)], "", 1, 2, "1 failed", "failed"),
    ([failed("a", 60)], "", 1, 2, "^failed +- +- +- +- +a@dbs$", "failed"),
    ([GOOD], "--space a --space b", 1, 2, "^failed .* b\n +never stored$", "ok failed"),
    ([GOOD, line("b", 9, mode="plain", path="db")], "", 0, 0, "^ok .* - +db/b$", "ok ok"),
    ([line("a", 9, path=f"/0/{log}") for log in range(9)], "--min-size 1MB", 0, 0, r"^ok .* a@/0/\*$", "ok"),
    ([line("a", 9, path=path) for path in ("0", "/1", "10", "12")], "", 0, 0, r"(?s) a@/1$.* a@0$", "ok ok ok"),
    ([GOOD, line("b", 9, direction="restore"), failed("a", 9, direction="restore")], "", 0, 0, "1 ok", "ok"),
    ([], "", 1, 2, "no store is recorded", ""),
    # damage: half a line alone, with a good one glued to it, too long, no UTF-8, wrong types, newer
    ([GOOD[:99], GOOD], "", 0, 0, "1 damaged lines skipped", "ok"),
    ([GOOD[:99] + line("b", 9), GOOD], "", 0, 0, "1 damaged lines skipped", "ok ok"),
    (["\0" * 999 + GOOD, "", "{}", GOOD[:-1] + "x", "[" * 60000], "", 0, 0, "5 damaged lines skipped", "ok"),
    ([GOOD, line("b" * 70000, 9), line("b", 9)], "", 0, 0, "1 damaged lines skipped", "ok ok"),
    ([GOOD, *(line("b", 9, **{key: value}) for key, value in dict(bytes=-1, copy_id=1 << 32, result="0", time="now",
      seconds="1", xxh128="xyz", path=None).items())], "", 0, 0, "7 damaged lines skipped", "ok"),
    ([GOOD, line("b", 9, schema=2)], "", 0, 0, "1 lines of a newer version skipped", "ok"),
    ([line("a", HOUR, more=[{}])], "", 0, 0, "1 ok", "ok"))


class Report(Site):
    def report(self, *arguments, code=0):
        return "".join(self.call("report", *arguments, code=code))

    def test_table(self):
        for row in REPORTS:
            with self.subTest(row):
                write_plain("j", "".join(text + "\n" for text in row.lines))
                arguments = ["--journal", "j", *row.options.split()]
                self.assertRegex(self.report(*arguments, code=row.code), f"(?m){row.says}")
                answer = json.loads(self.call("report", *arguments, "--json", code=row.code)[0])
                self.assertEqual((answer["schema"], [each["status"] for each in answer["objects"]]),
                                 (1, row.objects.split()))
                out = self.call("report", *arguments, "--nagios", code=row.nagios)[0]
                self.assertRegex(out, f"^XBSA {['OK', 'WARNING', 'CRITICAL'][row.nagios]} - .* ok=\\d+ small=.*\n$")

    def test_values(self):
        write_plain("j", failed("a\"\u00e4", 9, CANARY + "|\u202e") + "\n" + line("a\"\u00e4", HOUR, more=1) + "\n")
        stamp = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(time.time() - 9))
        write_plain("act", f"{stamp} 4711  4710 (-43240) no\n2026-01-01 00:00:00 4711  4710 long ago\n")
        self.env["KORVA_JOURNAL"] = "j"
        [found] = json.loads(self.call("report", "--json", "--bar-act-log", "act", code=1)[0])["objects"]
        self.assertEqual((found["last_good"].pop("age_seconds") - HOUR) // 60, 0)
        self.assertEqual(found["last_good"], json.loads(read_bytes("j").splitlines()[1]))
        self.assertEqual((found["last_failure"]["copy_id"], found["space"], len(found["messages"])),
                         (7, "a\"\u00e4", 1))
        text = self.report("--prometheus", "p", "--bar-act-log", "act", code=1)
        self.assertRegex(text, r"\n +failed \d+ s ago: .*\n +\d.* \(-43240\) no\n0 ok")
        self.assertNotIn("\u202e", text)
        metrics = dict(re.findall(r'^xbsactl_object_(\w+)\{space="a\\"ä",path="dbs"\} ([\d.]+)$',
                                  read_bytes("p").decode(), re.M))
        self.assertEqual((metrics["ok"], metrics["last_good_bytes"], len(metrics)), ("0", "5000", 5))
        self.assertEqual(self.call("report", "--nagios", code=2)[0].count("|"), 1)
        write_plain("p", "mine\n")
        for arguments, code in ((["--prometheus", "p"], 6), (["--journal", "none"], 6), (["--journal", "."], 6),
                                (["--max-age", "x"], 2), (["--max-age", "0"], 2), (["--json", "--nagios"], 3)):
            self.report(*arguments, code=code)
        del self.env["KORVA_JOURNAL"]
        self.assertIn("needs --journal", self.report(code=2))

    def test_rotated(self):
        """Whatever logrotate leaves is read, once, and nothing else."""
        for name, space in (("j", "now"), ("j.1", "one"), ("j-20261126", "day"), ("j.old", "no"), ("jj.1", "no"),
                            ("other", "other")):
            write_plain(name, line(space, 9) + "\n")
        packed = gzip.compress((line("packed", 9) + "\n").encode() * 9)
        write_plain("j.2.gz", packed)
        os.link("j", "j.7")
        out = self.report("--journal", "j", "--journal", "other", "--journal", "j")
        self.assertEqual(re.findall("(\\w+)@dbs", out), ["day", "now", "one", "other", "packed"])
        os.unlink("j")  # it is rotated just now
        write_plain("j.2.gz", packed[:-9])
        self.assertIn("cut short in \"./j.2.gz\"", self.report("--journal", "./j"))


class Verify(Site):
    def test_drill(self):
        server = self.serve()
        self.env["KORVA_JOURNAL"] = "j"
        for name in ("same", "changed", "short", "gone", b"tw\xe4ce", b"tw\xe4ce"):
            self.call("store", name)
        del self.env["KORVA_JOURNAL"]
        write_plain(f"{server.data}/changed", "jello")
        write_plain(f"{server.data}/short", "hell")
        os.unlink(f"{server.data}/gone")
        with open("j", "a", encoding="ascii") as journal:
            journal.write(failed("same", 0, mode="plain", path=".") + "\n" + line("other", 9) + "\n" +
                          line("deep", 9, mode="plain", path="no") + "\n")
        bad = r"FAIL  changed: differs: XXH3-128 is (?!{0})\w{{32}} and should be {0}".format(DIGEST)
        lines = [bad, "FAIL  gone: BSAG.*", "FAIL  no/deep: BSAG.*",
                 "FAIL  short: differs: has 4 bytes and should have 5", "ok    same: 5 bytes", "ok    tw.+ce: 5 bytes"]
        for jobs in "1", "3":
            out, error = self.call("verify", "--journal", "j", "--jobs", jobs, "--status", "s", code=1)
            for printed, wanted in zip(sorted(out.splitlines()), lines, strict=True):
                self.assertRegex(printed, f"^{wanted}$")
            self.assertEqual(error, "xbsactl: 4 of 6 objects failed to verify\n")
            text = re.sub("{.*}", "", read_text("s"))
            self.assertLessEqual({"xbsactl_verified_objects 2", "xbsactl_differing_objects 4",
                                  "xbsactl_transferred_bytes 19"}, set(text.splitlines()))
            answer = json.loads(self.call("verify", "--journal", "j", "--jobs", jobs, "--json", code=1)[0])
            self.assertEqual([each["ok"] for each in answer["objects"]], [False, False, False, True, False, True])
        for arguments, code in ((["same"], 0), (["short"], 1), (["none"], 3), (["--path", "no"], 1),
                                (["--sample", "2/1"], 2), (["--sample", "x"], 2), (["--jobs", "0"], 2)):
            self.call("verify", "--journal", "j", *arguments, code=code)
        self.call("verify", "--all", "--manifest", "j", "--newest", code=2)
        self.options[-1] = "nobody"
        self.assertNotIn(CANARY, "".join(self.call("verify", "--journal", "j", "--jobs", "2", code=1)) + read_text("j"))

    def test_silence(self):
        """Each process has the limit of time, and none outlives the tool."""
        write_plain("j", "".join(line(name, 9, mode="plain", path=".") + "\n" for name in "abc"))
        with socket.create_server(("127.0.0.1", 0)) as silent:
            self.options = ["--host", f"127.0.0.1:{silent.getsockname()[1]}", "--user", "u"]
            arguments = ["verify", "--journal", "j", "--jobs", "2"]
            out = self.call(*arguments, "--timeout", "1", code=1)[0]
            self.assertEqual(out.count("the server sent no greeting within 1 s"), 3)
            with self.start(*arguments, "--timeout", "0") as tool:
                wait_while(lambda: len(read_text(f"/proc/{tool.pid}/task/{tool.pid}/children").split()) < 2)
                tool.terminate()
                self.assertEqual((tool.communicate(timeout=DEADLINE), tool.returncode), ((b"", b""), -signal.SIGTERM))

    def test_nights(self):
        """In T nights each object has its turn, N of T shares a night."""
        write_plain("clock.c", "#include <stdlib.h>\n#include <time.h>\ntime_t time(time_t *now) { time_t day = "
                    "atol(getenv(\"DAY\")) * 86400; return now ? *now = day : day; }\n")
        subprocess.run(["cc", "-shared", "-fPIC", "-o", "clock.so", "clock.c"], check=True)
        write_plain("j", "".join(line(f"s{i}", 9, mode="plain", path=".") + "\n" for i in range(64)))
        self.options = ["--host", "127.0.0.1:1", "--user", "u"]
        self.env |= dict(LD_PRELOAD=os.path.abspath("clock.so"), ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=0")
        for sample, nights in ("1/4", 4), ("3/8", 3):
            seen = []
            for night in range(nights):
                self.env["DAY"] = str(20000 + night)
                out = self.call("verify", "--journal", "j", "--sample", sample, code=1)[0]
                seen.append(re.findall(r"^FAIL  (s\d+):", out, re.M))
                self.assertLess(5, len(seen[-1]))
                self.assertLess(len(seen[-1]), 45)
            self.assertEqual(len(set(sum(seen, []))), 64)
            self.assertEqual(len(sum(seen, [])) == 64, sample == "1/4")  # the last night of 3/8 is a part again


class Informix(Site):
    def test_copies(self):
        sandbox = Sandbox(self)
        os.environ.pop("KORVA_JOURNAL", None)
        self.env |= {"KORVA_JOURNAL": "j", "KORVA_SERVER": "sandbox", "KORVA_JOB": "demo"}
        self.options = ["--informix"]
        for space in "a", "b":
            for data in b"hello", b"jello":
                self.call("store", "dbs", "--space", space, data=data)
        sandbox.fault("STOR=refuse")
        self.call("store", "dbs", "--space", "c", code=4)
        copies = [entry["copy_id"] for entry in map(json.loads, read_text("j").splitlines())]
        lines = [f"ok    {space}@dbs: copy id {copy}, 5 bytes" for space, copy in zip("aabb", copies)]
        for arguments, wanted in (([], lines), (["--newest"], lines[1::2]), (["--space", "b"], lines[2:]),
                                  (["--copy-id", str(copies[2])], lines[2:3]), (["dbs", "--space", "a"], lines[:2])):
            self.assertEqual(self.call("verify", "--journal", "j", *arguments)[0].splitlines(), wanted)
        stored = sandbox.objects()
        self.options = []
        self.assertRegex(self.call("report", code=1)[0], "(?m)^failed .* c@dbs\n +failed .*")
        self.assertEqual(len(stored), 5)
