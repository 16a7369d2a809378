"""The COM utility as a real child process: its command lines, its answers, and who logs in."""
import ctypes as c
import os
import pwd
import re
import socket
import time
import unittest

from calls import call
from server import Server
from utility import INI, Utility, answers, start, traced
from xbsa import STRICT, Descriptor, Name, Query, both_modes, descriptor, rows, run, write_plain

FULL_MASK, NO_MASK = "fffffffe7ffbfeff", "0" * 16
# The command lines of each task, one per run; a blank word is a second blank.
FROM, JOB = "-C {szKORVAServer} -I informix", "-C {szKORVAServer} -j {szJobName} -s {saveset} -I informix"
OPEN = ["{way} open " + FROM, "{way} openjob:{szSessionID} " + JOB + "{options} --  {space}@{path}"]
CLOSE = ["{way} closejob:{szSessionID} " + JOB + " -i 2", "{way} close:{szSessionID} " + FROM + " -i 2"]
QUERY = ["-q " + FROM + " -j {szJobName} -s NULL -- {space}@{path}"]
TASKS = {0: [""], 1: OPEN, 2: OPEN, 3: CLOSE, 4: CLOSE, 5: QUERY, 6: [""], 7: [""]}
OPTIONS = {"szKORVATapeServer": "-S", "szDrive": "-d", "szPool": "-m", "szCOMTimeOut": "-W"}
FIELDS = {"szKORVAServer": "srv-1.x", "szJobName": "job_%=+:,/", "szKORVATapeServer": "tape",
          "szDrive": "SMS01", "szPool": "pool", "szCOMTimeOut": "30", "szSessionID": "S1",
          "szSavesetID": "77", "szRestoreID": "", "space": "rootdbs", "path": "/data"}
NO_OPTIONS = dict.fromkeys(OPTIONS, "")
# Values that differ from FIELDS, and whether a job is open.
LINES = rows("task values started", *((task, values, 1) for task in (1, 2) for values in (
    {}, NO_OPTIONS, *(NO_OPTIONS | {name: FIELDS[name]} for name in OPTIONS))),
    *((task, {"szRestoreID": restore}, started) for task in (3, 4) for restore in ("", "R1")
      for started in (1, 0)), *((task, {}, 1) for task in (5, 6, 7, 0)))
# Texts of at most seven bytes that would make a file named "c" if a shell read them.
HOSTILE = [";>c;", "`>c`", "$(>c)", "\n>c\n", "'>c;'", "\">c\"", "|>c", "&>c&", "a b", "*", "~",
           "'", "\\", "-x", "\x01\xff", "#", "!!", "''>c''"]


def expected(task, values, started):
    saveset = values["szSavesetID"] if task != 2 else "4294967295"
    if task in (3, 4) and values["szRestoreID"]:
        saveset += "@" + values["szRestoreID"]
    options = "".join(f" {word} {{{name}}}" for name, word in OPTIONS.items() if values[name])
    values = values | {"way": "-b" if task in (1, 3) else "-r", "saveset": saveset}
    lines = TASKS[task][TASKS[task] is CLOSE and not started:]
    lines = [line.replace("{options}", options) for line in lines]
    return [[word.format(**values) for word in line.split(" ")] for line in lines]


def in_turn(x, call, rows):
    found = []
    for row in rows:
        x.trace.clear()
        found.append((call(x, *row), x.trace[:]))
    return found


def run_task(x, task, values, started=1, status=0):
    """The result, the answer's status, strange files; the saveset, and whether a job is open."""
    if not x.handle:
        start(x)
    com, values = x.state.sCOM, {name: text.encode("latin-1") for name, text in values.items()}
    names = Name(values.pop("space"), values.pop("path"))
    for name, value in values.items():
        setattr(com, name, value)
    com.iOpenJobStarted = started
    x.state.sObject.sSMS.iOpStatus = status
    x.state.sObject.sBSA_Object.name = x.state.sQueryDescriptor.name = names
    x.state.sObject.sBSA_Object.copyId.right = 2**32 - 1
    before = int(time.time() - 0.1)  # time(2) is up to a tick late
    code = x.com_intf(task, c.byref(com))
    saveset = com.szSavesetID.decode("latin-1")
    if task == 1 and saveset.isdigit():
        assert before <= int(saveset) <= int(time.time())
    strange = set(os.listdir(".")) - {"stdout", "stderr"}
    return (code, x.state.sObject.sSMS.iOpStatus, strange), saveset, com.iOpenJobStarted


class Commands(unittest.TestCase):
    def check(self, table, mask=FULL_MASK, name="bin", strict="0", plain=True):
        """plain: no word needs quotes, so the trace shows the words unchanged."""
        utility = Utility(self, name=name)
        arguments = [(row.task, FIELDS | row.values, row.started, 2) for row in table]
        got = run(in_turn, run_task, arguments, env={"KORVA_STRICT": strict})
        calls = iter(utility.calls())
        for row, ((result, saveset, _), trace) in zip(table, got.value):
            with self.subTest(row):
                values = FIELDS | row.values
                values["szSavesetID"] = saveset if row.task == 1 else values["szSavesetID"]
                lines = expected(row.task, values, row.started)
                if plain:
                    self.assertEqual(traced(trace, "com_intf: COM COMMAND: "),
                                     [f"[{utility.path} {' '.join(words)}]" for words in lines])
                self.assertEqual([next(calls, None) for _ in lines], [
                    ([word for word in words if word], FULL_MASK, "0 1 2") for words in lines])
                silent = row.task in (0, 7)
                self.assertEqual(result, (int(silent), 2, set()))
                self.assertEqual("com_intf: COM answer not received." in trace, silent)
        self.assertEqual((got.mask, list(calls)), (mask, []))

    def test_lines(self):
        for strict, mask in (("yes", FULL_MASK), ("1", NO_MASK)):
            self.check(LINES, mask, strict=strict)
        self.check([row for row in LINES if len(expected(row.task, FIELDS, row.started)) == 1], NO_MASK)

    def test_hostile(self):
        self.check([LINES[0]._replace(task=task, values=dict.fromkeys(FIELDS, text))
                    for text in HOSTILE for task in range(1, 6)], name="b;>c $(>c)'", plain=False)

    def test_too_long(self):
        utility, values = Utility(self), FIELDS | {"space": ";" * 1024}
        long_names = {"szJobName": "j" * 255, "szSavesetID": "'" * 255}
        rows = [(1, values), (2, values), (3, values | long_names), (5, values)]
        for (result, _, is_open), trace in run(in_turn, run_task, rows).value:
            self.assertEqual((result, is_open), ((-1, 3, set()), 1))
            self.assertTrue(traced(trace, "com_intf: Command line too long, not run: ["))
        self.assertEqual([line[:7] for line in utility.arguments()], ["-b open", "-r open"])


# The utility's script, if it can be run, and how many bytes of its answer are read.
UTILITIES = rows("script read", (None, 0), ("kill -9 $$", 0), ("echo reply=ERROR >&2", 0),
    ("for i in re ply = OK '\\n' x; do printf $i; done", 10),
    # nothing after a good answer matters
    *(("echo reply=OK; " + then, 9) for then in ("exit 255", "kill -9 $$", "exec >&- 2>&-; sleep 0.2")),
    ("echo reply=OK; yes x | head -c 100000", 32768), ("echo reply=OK; yes x | head -c 32758", 32767))
NAME = "/olm_com_interface"
# "KEY" is replaced by the key. The path follows the directory "/b"; room is the caller's buffer size.
INIS = rows("file code path length",
    *((file, 0, NAME, 2) for file in (
        "  KEY  =  /b  \r\n", "KEY=/b", "[section]\n#KEY=/x\n\n  \nnonsense\nOTHER=/x\nKEY=/b\nKEY=/y\n",
        "x" * 511 + "KEY=/x\nKEY=/b\n", "KEY=/b" + " " * 1500 + "\r\n", "a\0b\n\0\nKEY=/b\0\nOTHER=/x\n")),
    *((file, 1, None, 1024) for file in ("sm_bin_korva=/x\nSm_Bin_Korva=/x\nKEY_=/x\n",
        "x" * 1022 + "KEY=/x\n", "KEY=/b" + "d" * 497 + "\n")),
    ("KEY=/b" + "d" * 496, 0, "d" * 496 + NAME, 498), ("KEY=/b/\n", 0, NAME, 3),
    ("KEY=/b=c\n", 0, "=c" + NAME, 4), ("KEY=/b\n", 1, None, 2, 1),
    ("KEY=/b" + "d" * 398, 1, None, 400, 419), ("KEY=/b" + "d" * 398, 0, "d" * 398 + NAME, 400, 420),
    ("KEY=\n", 1, None, 0, 19), ("KEY=\n", 0, NAME, 0, 20), room=1024)


class Runs(unittest.TestCase):
    def test_utilities(self):
        for row in UTILITIES:
            with self.subTest(row.script):
                Utility(self, script=row.script and f"#!/bin/sh\n{row.script}\n")
                got = run(run_task, 6, FIELDS)
                self.assertEqual((got.value[0], got.mask, got.stderr), ((0, 0, set()), NO_MASK, ""))
                sizes = traced(got, "com_intf: Answer received, bytes read: ")
                self.assertEqual(sum(int(size[1:-2]) for size in sizes), row.read)
                self.assertEqual("com_intf: COM answer not received." in got.trace, row.read == 0)

    def test_no_input(self):
        utility = Utility(self)
        got = run(lambda x: [x.com_intf(task, None) for task in (0, 6, 7, 1, 2, 3, 4, 5)]).value
        self.assertEqual((got[:3], 0 in got, set(utility.arguments()) - {""}), ([1, 1, 1], False, set()))

    def test_ini_file(self):
        def find(x, text, room):
            write_plain(INI, text.replace("KEY", "SM_BIN_KORVA"))
            path, size = c.create_string_buffer(1024), c.c_uint(room)
            code = x.find_com_intf(path, c.byref(size))
            return code, path.value.decode(), size.value
        got = run(in_turn, find, [(row.file, row.room) for row in INIS]).value
        for row, (value, _) in zip(INIS, got):
            with self.subTest(row.file[:40], length=len(row.file), room=row.room):
                folder = "/b" if "/b" in row.file else ""
                self.assertEqual(value, (row.code, folder + row.path if row.path else "", row.length))


# Answers, the result, and fields afterwards.
ANSWERS = rows("answer code",
    # Two lines that count equal a reply.
    *((text + "\nlifetime=0", 0) for text in (
        "jobname=a|tape_server=h|drive=d|tape=l:1|format=f|savesetname=a|initiator=a|segment=1|"
        "logfile=l|verbose=2|message=no tape|sessionID=s").split("|")),
    *((text, 0) for text in ("reply=OK", "reply = ok  \r\n\r\n", "media=a\nreply=OK",
                             "\x80\xff\nreply=OK\n\0reply=ERROR", "x" * 20000 + "\nreply=OK")),
    *((text, 1) for text in (
        "", "\n\r\n", "Reply=OK", " reply=OK", "reply=OKAY", "reply=", "reply", "replyX=OK",
        "reply=maybe", "reply=OK\nreply=OK", "message=no tape\nreply=ERROR", "reply=Error",
        "garbage\x01\xff", "jobname=a", "media=a\nmedia=b", "reply=OK\ntape_server=srv:2000:u",
        "reply=OK\ntape_server=  ", "\0reply=OK", "reply=O\0K", "\0" * 9999)),
    ("sessionID=1234\nreply=OK", 1, {"szSessionID": "1234"}),
    *(("reply=OK\n" + text, 1, fields) for text, fields in [
        ("tape_server=h:99999999:u:p", {"iPort": 7}), ("tape_server=" + "h" * 510 + ":1:u:p", {"iPort": 7}),
        ("sessionID=1\ntape=LBL\nsessionID=2", {"szSessionID": "1", "szTape": "old"})]),
    *((f"reply=OK\nsessionID{text}", 0, {"szSessionID": value}) for text, value in [
        ("=1234", "1234"), ("", "old"), ("=", "old"), ("=   ", ""), ("=   a b  ", "a b"),
        ("=a=b", "a=b"), ("=a\nsessionID=b\n sessionID=c\nSESSIONID=d\nsession=e", "b")]),
    *(("reply=OK\n" + text, 0, fields) for text, fields in [
        ("jobname=J\rdrive=SMS01\nformat=QAB", {"szJobName": "J", "szPath": "SMS01", "szInter": "QAB"}),
        ("savesetname=ABC@R1", {"szSavesetID": "ABC", "szName": "ABC", "szRestoreID": "R1"}),
        ("savesetname=A@B@C", {"szName": "A", "szRestoreID": "B@C"}),
        ("savesetname=@R", {"szSavesetID": "", "szName": "", "szRestoreID": "R"}),
        ("savesetname=ABC", {"szSavesetID": "ABC", "szRestoreID": ""}),
        ("tape=LBL:17:65536", {"szTape": "LBL", "ulTapeID": 17, "iTCPBufsiz": 65536}),
        ("tape=LBL:17", {"ulTapeID": 17, "iTCPBufsiz": 5}), ("segment=42x", {"ulSegmentNum": 42}),
        ("tape=:", {"szTape": "", "ulTapeID": 0}), ("logfile=a.log", {"szLogFile": "a.log"}),
        ("verbose=3", {"ucXBSATraceLevel": 67}), ("verbose=0", {"ucXBSATraceLevel": 64}),
        ("tape_server=srv:2000:sms:pw", {"szHostName": "srv", "iPort": 2000, "szUser": "sms",
                                         "szPass": "pw"})]),
    # A value of 5,000 bytes is cut to 512 bytes, then to the field's size.
    *((f"reply=OK\n{key}=" + "v" * 5000, 0, {name: "v" * size, "iOpenJobStarted": 0})
      for key, name, size in (("jobname", "szJobName", 255), ("drive", "szPath", 511),
          ("format", "szInter", 511), ("logfile", "szLogFile", 511), ("sessionID", "szSessionID", 255),
          ("savesetname", "szSavesetID", 255))), fields={})
SECURE, LONG = "KORVA_SECURE_AUTHENTICATION", "h" * 4095
# Omitted fields of a rejected one may be anything.
SPECS = rows("spec code",
    *((spec, 0) for spec in ("srv:2000:", "srv:2000:u", "srv:2000:sms", ":2000:u:p", "h:1:u:p:", "h:1:u:p:x",
                             "h:12345678:u:p", LONG + "h", f"h:1:{LONG}h:p", f"h:1:u:{LONG}h")),
    *((spec, 0, "old", "old", "old", "old") for spec in ("", "   ")),
    *((f"srv{rest}", 1, "srv", "11001", SECURE, "") for rest in ("", ":", "::sms:")),
    (LONG, 1, LONG, "11001", SECURE, ""), ("srv:2000", 1, "srv", "2000", SECURE, ""),
    ("srv:1234567:u:", 1, "srv", "1234567", "u", ""), ("srv:2000::p", 1, "srv", "2000", SECURE, "p"),
    ("srv:2000:sms:pw", 1, "srv", "2000", "sms", "pw"), host=None, port=None, user=None, password=None)


def field(x, name):
    records = x.state.sCOM, x.state.sObject.sSMS, x.state
    value = getattr(next(record for record in records if hasattr(record, name)), name)
    return value.decode("latin-1") if isinstance(value, bytes) else value


def parse(x, answer, names):
    com, sms = x.state.sCOM, x.state.sObject.sSMS
    for record in (com, sms):
        c.memset(c.byref(record), 0, c.sizeof(record))
    com.szSessionID = com.szSavesetID = com.szRestoreID = com.szJobName = b"old"
    sms.szTape = sms.szName = b"old"
    sms.ulTapeID, sms.iTCPBufsiz, sms.iPort = 9, 5, 7
    x.state.szLogFile = b""
    x.BSASetTrace(x.sink, None, 2)
    code = x.parse_com_answer(c.create_string_buffer(answer.encode("latin-1")), len(answer))
    return code, {name: field(x, name) for name in names}


class Answers(unittest.TestCase):
    def test_answers(self):
        got = run(in_turn, parse, [(row.answer, list(row.fields)) for row in ANSWERS]).value
        for (answer, code, fields), (value, trace) in zip(ANSWERS, got):
            with self.subTest(answer[:60]):
                self.assertEqual(value, (code, fields))
                silent = code == 0 or re.search("^reply=Error|tape[_=]", answer)
                lines = [bool(traced(trace, f"parse_com_answer: {line}")) for line in (
                    "Invalid reply format.", "ERROR MESSAGE: [no tape]", "Value too long, cut to ")]
                cut = 512 < len(answer) < 9999
                self.assertEqual(lines, [not silent, answer[:7] == "message", cut])

    def test_host_specs(self):
        def split(x, spec):
            buffers = [c.create_string_buffer(b"old", size) for size in (4096, 8, 4096, 4096)]
            code = x.ParseCLIHostSpec(c.create_string_buffer(spec.encode()), *buffers)
            return (code, *(text.value.decode() for text in buffers))
        for row, (got, _) in zip(SPECS, run(in_turn, split, [row[:1] for row in SPECS]).value):
            with self.subTest(row.spec[:40]):
                self.assertEqual(got, row[1:] if row.host else (row.code, *got[1:]))

    def test_no_password(self):
        """No level, line, dump or destination shows a password; they show the text before it."""
        def ask(x, level):
            x.BSASetTrace(x.sink, b"./xbsa.log", level)
            return x.com_intf(6, c.byref(x.state.sCOM)), x.last_error()
        secret = "gehe:im"
        for answer, shown in ((f"reply=OK\ntape_server=127.0.0.1:1:user:{secret}\n", "127.0.0.1:1:user:"),
                              (f" TAPE_SERVER = a:b:c:{secret}\nreply=OK\n", "SERVER = a:b:c:"),
                              (f"message=no tape_server=h:1:u:{secret}\nreply=ERROR\n", "r=h:1:u:"),
                              (f"reply=OK\ntape_server=:::{secret}:x\rjobname=j\n", "server=:::")):
            Utility(self, {"bare": answer.encode()})
            for level in (65, 66, 67):
                with self.subTest(answer, level=level):
                    got = run(ask, level, level=None)
                    text = "\n".join(got.log + got.trace + [got.value[1]])
                    dumped = re.findall(r"Dumping memory: \[((?:[0-9A-F]{2} )+)", text)
                    raw = bytes.fromhex("".join(dumped)).decode()
                    self.assertFalse(re.search("gehe|im:x", raw + text))
                    self.assertEqual(f"{shown}****" in raw, level > 65)
                    self.assertEqual(re.findall(r"Parsing line: \[.*" + re.escape(shown) + r"(.*)\]",
                                                text), ["********"] * (level > 65))


# Functions of numbers, and their texts from -1 on; None where there is none.
TEXTS = {"qab_bsacopytype": "- - ANY ARCHIVE BACKUP - -", "qab_bsaobjecttype": "- - ANY FILE DIRECTORY OTHER -",
         "qab_bsaobjectstatus": "- - ANY MOST_RECENT NOT_MOST_RECENT -",
         "com_task_keyword": "UNKNOWN UNKNOWN COM_OPEN_WRITE COM_OPEN_READ COM_CLOSE_WRITE "
                             "COM_CLOSE_READ COM_INFO COM_REMOVE UNKNOWN",
         "com_step_keyword": "UNKNOWN COM_STEP_INIT COM_STEP_OPEN_SESSION COM_STEP_OPEN_JOB "
                             "COM_STEP_CLOSE_JOB COM_STEP_CLOSE_SESSION UNKNOWN"}
# The dumped fields of a descriptor, in order; "-" is empty.
DUMP = ("0 user=u:pass=******** app obj /data 1 2 3 4 5 6 7 8 9 3 11 12 0 0 - - 0 0 - 2 2 "
        + "R" * 31 + " " + "D" * 100 + " -")


ASKED = {"match": b"reply=OK\nsavesetname=4711@R1\n", "none": b"reply=OK\n", "silent": b"",
         "no": b"message=no\nreply=ERROR\n", "empty": b"reply=OK\nsavesetname= \n"}


def query(x, actions, utility):
    """Makes calls, changes the utility's answers, and writes into the record as a host may."""
    start(x)
    x.mine = own, mine = (Descriptor * 128)(), c.create_string_buffer(3 * 1536)
    asked, found = Query(name=Name(b"sp%", b"/q"), copyType=3, objectType=1, objectStatus=2), []
    for action in actions.split():
        copy = descriptor(b"untouched", copy_type=2)
        if action in ASKED:
            utility.answer("-q", ASKED[action])
        elif action == "dead":
            os.chmod(utility.path, 0)
        elif action in ("begin", "commit"):
            call(x, action)
        elif action.startswith("index="):
            x.state.iQueryIndex = int(action[6:])
        elif action.startswith("own="):  # the caller's own, as is the trace buffer: freeing it would crash
            x.state.cpTraceBuffer = c.addressof(mine) + 1536
            for number in range(*map(int, action[4:].split("-"))):
                own[number].copyId.right = number
                x.state.spQueryResult[number] = c.addressof(own[number])
        else:
            given = [c.byref(asked)] * (action == "query") + [c.byref(copy)]
            code = (x.BSAGetNextQueryObject, x.BSAQueryObject)[len(given) - 1](x.handle, *given)
            row = copy.copyId.right, copy.name.space, copy.copyType
            found.append(str({(0, b"untouched", 2): code, (4711, b"sp%", 3): "found"}.get(row, row[0])))
    return " ".join(found), x.last_error() != ""


# The results of the calls in both modes; a 3 leaves a last message.
QUERIES = rows("actions result",
    ("match begin query next", "found 18"), ("next", "5"), ("match begin query query", "found 5"),
    ("match begin query own=1-3 next next next", "found 1 2 18"),
    *((f"match begin query commit {answer} begin query next", f"found {code} 18") for answer, code in (
        ("none", "17"), ("empty", "17"), ("no", "3"), ("silent", "<17|3>"), ("dead", "<17|3>"))),
    ("match begin query own=1-3 commit begin query next", "found found 18"),
    ("match begin query own=1-3 index=0 next commit begin query next", "found 18 found 18"),
    ("match begin query own=1-3 index=2 commit no begin query own=1-3 index=0 next", "found 3 18"),
    ("match begin query own=0-1 index=0 commit begin query next", "found found 18"),
    *((f"match begin query own=1-128 index={index} next", "found 18") for index in (-1, 127, 1 << 30)),
    ("match begin query own=1-128" + " next" * 127, f"found {' '.join(map(str, range(1, 127)))} 18"))


class Queries(unittest.TestCase):
    def test_queries(self):
        for env, row in both_modes(QUERIES):
            with self.subTest(row.actions, env=env):
                utility = Utility(self)
                got = run(query, row.actions, utility, env=env)
                self.assertEqual((*got.value, got.mask), (row.result, row.result.endswith(" 3 18"), NO_MASK))
                self.assertLessEqual(set(utility.arguments()),
                                     {"-q -C srv -I informix -j job -s NULL -- sp%@/q"})

    def test_texts(self):
        self.assertEqual(run(lambda x: {name: " ".join((getattr(x, name)(number - 1) or b"-").decode()
                           for number in range(len(texts.split())))
            for name, texts in TEXTS.items()}).value, TEXTS)

    def test_dump(self):
        def dump(x, level):
            x.BSASetTrace(x.sink, None, level)
            made = descriptor(owner=b"user=u:pass=geheim", copy_type=3)
            made.owner.app, made.objectDescription, made.rsv4 = b"app", b"D" * 100, b"R" * 31
            made.createTime = type(made.createTime)(*range(1, 10))
            made.copyId.left, made.copyId.right = 11, 12
            x.qab_dumpobject(c.byref(made))
            x.qab_dumpobject(None)
        self.assertEqual(run(dump, 1).trace, [])
        values = [line.partition(":")[2].strip() or "-" for line in run(dump, 2).trace[2:]]
        self.assertEqual(" ".join(values), DUMP)


def session(x, actions, utility):
    """Makes calls, changes the utility's answers, and reads the job's names; returns all results."""
    start(x)
    told, refusal = "", b"message=no\nreply=ERROR\n"
    changes = {"refuse": ("open", refusal), "deny": ("closejob", refusal),
               "half": ("open", b"reply=OK\nsessionID=S2\ntape=LBL\n"),
               "nameless": ("openjob", b"reply=OK\nsegment=5\n")}
    for action in actions.split():
        if action.startswith("mute-") or action in changes:
            utility.answer(*changes.get(action, (action[5:], b"")))
        elif action in ("lose", "find"):
            os.rename(*[INI, INI + ".lost"][::1 if action == "lose" else -1])
        elif action in ("store", "restore"):
            codes, data = (x.store(), b"") if action == "store" else x.restore(copy_id=4711)
            told += " " + "".join(map(str, codes)) + data.decode() + " "
        elif action == "names":
            told += " " + "/".join(str(field(x, name)) for name in STALE)
        else:
            told += str(call(x, action))
    return told.replace("  ", " ").strip()


def shortened(calls):
    """The verb, saveset and status of each run."""
    options = [dict(zip(words, words[1:])) for words, *_ in calls]
    return ", ".join(" ".join(filter(None, map(row.get, ("-b", "-r", "-s", "-i")))) for row in options)


OPENED, ENDED = "open, openjob:S1 TIME, ", "closejob:S1 ABC@R1 {0}, close:S1 {0}"
GOOD, READ = OPENED + ENDED, "open, openjob:S1 4711, " + ENDED
WELL, ONCE = GOOD.format(0), "(, close:S1 3)?"  # the session's close, after the job was closed
STOR, RETR = "STOR ABC:QAB:none:17:LBL:64", "RETR ABC:0:0:17:5:none"
NAMELESS = STOR.replace("ABC", "")
STALE = ["szName", "szSessionID", "szRestoreID", "iOpenJobStarted"]
# Results of the calls, runs of the utility and transfers are patterns for both modes. The odd thing is
# in the actions, in the server's script, or in the answer to openjob.
SESSIONS = rows("actions result runs heard",
    ("store names", "000 ABC/S1/R1/<1|.>", WELL, STOR),
    ("store restore", "000 000hello", f"{WELL}, {READ.format(0)}", f"{STOR}, {RETR}"),
    dict(actions="store", job={"savesetname": None}, result="000", runs=WELL.replace("ABC@R1", "TIME"),
         heard=STOR.replace("ABC", "TIME")),
    dict(actions="restore", job={"savesetname": None, "drive": "/d"}, result="000",
         runs=READ.format(0).replace("ABC@R1", "<-I|4711>"), heard="RETR 4711"),
    dict(actions="store nameless restore", job={"drive": "/d"}, result="000 000",
         runs=f"{WELL}, {READ.format(0).replace('ABC@R1', '<ABC|4711>')}", heard="STOR ABC, RETR 4711"),
    # closing the job did not fail
    dict(actions="store", server={"END": ["426 cut"]}, result="00<0|3>", runs=GOOD.format(3), heard=STOR),
    *((f"begin create block {odd} end commit", f"000{code}<0|3>0", GOOD.format(status), STOR)
      for odd, code, status in (("fault", 3, 3), ("send-null", 22, "<0|3>"), ("send!", 6, "<0|3>"))),
    dict(actions="restore", server={"DATA": ["reset_data"]}, result="03<0|3>",
         runs=READ.format("<0|3>"), heard=RETR),
    dict(actions="restore", server={"DATA": ["begin", "reset_data"]}, result="03<0|3>hello",
         runs=READ.format("<0|2>"), heard=RETR),
    ("mute-closejob store restore", "00<0|3> 00<0|3>hello",
     f"{WELL[:-12]}, {READ.format(0)[:-12]}", f"{STOR}, {RETR}"),
    ("deny store", "003", WELL[:-12], STOR),  # above no answer to closing, here a refusal
    ("refuse restore", "3", "open", ""),  # no session, or no job
    *((f"store {odd} begin create end commit names", f"000 03<0|3>0 /<{left}|>//0",
       f"{WELL}, open, close:<{left}|> 3", STOR) for odd, left in (("refuse", "S1"), ("half", "S2"))),
    ("store mute-open store", "000 <000|3>", WELL + ", open<, close:S1 0|>", f"{STOR}<, {NAMELESS}|>"),
    ("store mute-openjob store", "000 <000|3>", WELL + ", open, openjob.*", f"{STOR}<, .*|>"),
    ("store lose store", "000 003", WELL, f"{STOR}, {NAMELESS}"),
    ("store lose begin create block find end commit", "000 000<0|3>0",
     WELL + ", close:S1 <0|.>", f"{STOR}, {NAMELESS}"),
    dict(actions="begin create end commit", server={"CWD": ["550 no"]}, result="03<0|3>0",
         runs=f"{GOOD.format(3)}<, {ENDED.format(3)}|{ONCE}>", heard=""),
    ("begin create block end end commit", "0000<0|3>0", f"{WELL}<, {ENDED.format(3)}|{ONCE}>", STOR),
    *((f"store begin {odd} names", f"000 0{code} ABC/S1/R1/0", WELL, STOR)  # forgets the job
      for odd, code in (("create!", 6), ("create-noname", 22), ("get!", 6))),
    ("begin create block create end commit", "000500", OPENED + "close:S1 0", STOR),
    ("begin create block commit end", "0000<0|3>", OPENED[:-2], STOR), server={}, job={})
HOSTS = f"""127.0.0.9 official.korva.test reverse.korva.test
127.0.0.1 one.korva.test one
127.0.0.2 reverse.korva.test
127.0.0.8 {".".join(["label"] * 30)} short.korva.test
"""


class Sessions(unittest.TestCase):
    def put_in_etc(self, name, text):
        self.assertTrue(os.path.ismount("/etc"))
        os.rename(f"/etc/{name}", f"/etc/{name}.kept")
        self.addCleanup(os.replace, f"/etc/{name}.kept", f"/etc/{name}")
        write_plain(f"/etc/{name}", text)

    def test_sessions(self):
        for env, row in both_modes(SESSIONS):
            with self.subTest(row, env=env):
                server = Server(row.server, objects={RETR[5:]: b"hello"})
                utility = Utility(self, answers(server.port, **row.job))
                told = run(session, row.actions, utility, server=server, env=env).value
                sent = ", ".join(line for line in sum(server.heard, []) if line[2:4] in ("OR", "TR"))
                for got, want in zip((told, shortened(utility.calls()), sent), row[1:]):
                    self.assertRegex(re.sub(r"\b\d{10}\b", "TIME", got), f"^{want}$")
                self.assertEqual({left for _, _, left in utility.calls()}, {"0 1 2"})

    def test_no_ini_file(self):
        """A job that never opened is not a success, and does not hide why the server refused the object."""
        def store(x, port):
            x.init(b"BSA_SERVICE_HOST=127.0.0.1:%d" % port, owner=b"INFORMIX")
            return x.store(end=False), x.last_error().strip(), x.BSAEndData(x.handle)
        Utility(self)
        os.unlink(INI)
        server = Server()
        got = run(store, server.port, server=server)
        self.assertEqual((got.value, traced(got, "BSAEndData: Return CODE: ")), (([0, 0], "", 3), ["1 "]))
        self.assertEqual(run(store, server.port).value, ([3], "Connection refused connect() failed.", 3))

    def test_identity(self):
        def make(x, address, user_room, room):
            texts = user, word = [c.create_string_buffer(b"?" * 4095) for _ in range(2)]
            with socket.create_server(("127.0.0.1", 0)) as listener, socket.create_connection(
                    listener.getsockname(), 10, (address, 0)) as connection:
                code = x.make_KORVA_authentication(
                    connection.fileno(), user, c.byref(c.c_uint(user_room)), word, c.byref(c.c_uint(room)))
            return (code, *(text.value.rstrip(b"?").decode() for text in texts), b"?" not in word.value)

        def log_in(actions):
            server = Server()
            utility = Utility(self, answers(server.port, tape_server=f"127.0.0.1:{server.port}"))
            return run(session, actions, utility, server=server, env=STRICT).value, server.heard[0]
        one, two = (f"{pwd.getpwuid(os.getuid()).pw_name}@{host}.korva.test" for host in ("one", "official"))
        failed = "make_KORVA_authentication: gethostbyaddr() function failed with error code: "
        self.put_in_etc("hosts", HOSTS)
        self.put_in_etc("nsswitch.conf", "passwd: files\nhosts: files\n")
        for address, user_room, room, want in (
                ("127.0.0.1", 2, 99, (-1, "", "")), ("127.0.0.1", 3, len(one), (0, "sms", one)),
                ("127.0.0.1", 4, len(one) - 1, (-1, "sms", "")),
                ("127.0.0.2", 4096, 4096, (0, "sms", two)),
                *((address, 4096, 4096, (-1, "sms", "")) for address in ("127.0.0.8", "127.0.0.4"))):
            with self.subTest(address, room=room):
                got = run(make, address, user_room, room)
                self.assertEqual(got.value, (*want, want[0] == 0 and room > len(one)))
                self.assertEqual(len(traced(got, failed)), address == "127.0.0.4")
        codes, heard = log_in("store")
        self.assertEqual((codes, heard[:2]), ("000", ["USER sms", "PASS " + one]))
        self.put_in_etc("passwd", "other:x:4242:4242::/:/bin/sh\n")
        self.assertEqual(run(make, "127.0.0.1", 3, 99).value[:3], (-1, "sms", ""))
        self.assertEqual(log_in("begin create end"), ("033", ["QUIT"]))
