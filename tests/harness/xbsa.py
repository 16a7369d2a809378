"""Drives the built library as a database's backup tool does: one process for each scenario."""
import collections
import contextlib
import ctypes as c
import hashlib
import itertools
import os
import pathlib
import pickle
import re
import resource
import select
import shutil
import signal
import tempfile
import traceback

ROOT = os.path.abspath(__file__ + "/../../..")  # of the sources
LIBRARY = os.environ["XBSA_LIBRARY"]
SANITIZED = "libasan" in os.environ.get("LD_PRELOAD", "")
COUNTED = "XBSA_COVERAGE" in os.environ  # the library counts its executed lines
STRICT = {"KORVA_STRICT": "1"}
DEADLINE = 150  # seconds after which a scenario counts as hung

TraceSink = c.CFUNCTYPE(None, c.c_char_p)
TYPES = {"i": c.c_int, "I": c.c_uint, "H": c.c_ushort, "B": c.c_ubyte, "l": c.c_long,
         "L": c.c_ulong, "d": c.c_double, "p": c.c_void_p, "f": TraceSink}


def rows(columns, *cells, **defaults):
    """A table with named columns; the last cells of a row may be omitted or given by name."""
    row = collections.namedtuple("row", columns.split() + list(defaults), defaults=defaults.values())
    return [row(**cell) if isinstance(cell, dict) else row(*cell) for cell in cells]


def field_type(code):
    return TYPES[code] if code in TYPES else c.c_char * int(code[:-1])


def record(name, fields):
    members = [(field, field_type(code)) for field, code in re.findall(r"(\w+):(\w+)", fields)]
    TYPES[name] = type(name, (c.Structure,), {"_fields_": members})
    return TYPES[name]


record("Time", "sec:i min:i hour:i mday:i mon:i year:i wday:i yday:i isdst:i gmtoff:l zone:p")
Uint64 = record("Uint64", "left:I right:I")
Version = record("Version", "issue:H version:H level:H")
Owner = record("Owner", "bsa:64s app:64s")
Name = record("Name", "space:1024s path:1024s")
Block = record("Block", "bufferLen:H numBytes:H bufferPtr:p")
Descriptor = record("Descriptor", """rsv1:I owner:Owner name:Name createTime:Time copyType:i
    copyId:Uint64 restoreOrder:Uint64 rsv2:31s rsv3:31s estimatedSize:Uint64 resourceType:31s
    objectType:i objectStatus:i rsv4:31s objectDescription:100s objectInfo:256s""")
Query = record("Query", """owner:Owner name:Name rsv1:Time rsv2:Time rsv3:Time rsv4:Time
    copyType:i rsv5:31s rsv6:31s rsv7:31s objectType:i objectStatus:i rsv8:100s""")
record("Session", """lBSAHandle:l iLastCall:i szLastMessage:1536s iOpStatus:i dBytes:d SControl:i
    SData:i""")
record("Sms", """szHostName:4096s iPort:i szUser:4096s szPass:4096s szName:2048s szPath:4096s
    szTape:4096s szMode:4096s szTapeBlock:4096s szInfo:4096s szInter:4096s ulTapeID:L
    ulSegmentNum:L szTapeLabel:4096s iTCPBufsiz:i dSavesetOffset:d dLength:d iOpStatus:i""")
record("Object", "sBSA_Object:Descriptor sBSA_ObjectOwner:Owner sSMS:Sms")
record("Com", """szKORVAServer:128s szJobName:256s szKORVATapeServer:128s szDrive:8s szPool:256s
    szCOMTimeOut:8s szSessionID:256s szSavesetID:256s szRestoreID:256s iOpenJobStarted:i""")
TYPES["Results"] = c.c_void_p * 128
Global = record("Global", """sSession:Session sObject:Object sCOM:Com sQueryDescriptor:Query
    spQueryResult:Results iQueryIndex:i ulTimeOut:L ucXBSATraceLevel:B vpExternalTraceFunc:p
    iReadTraceEnvironment:i szLogFile:4096s hLogFile:i cpTraceBuffer:p iQAB:i""")

# Result and arguments of the functions that take more than ints.
PROTOTYPES = """BSAInit:ipppp BSATerminate:il BSABeginTxn:il BSAEndTxn:ili BSACreateObject:ilpp
    BSASendData:ilp BSAEndData:il BSAGetObject:ilpp BSAGetData:ilp BSAGetLastError:ipp
    BSAQueryApiVersion:ip BSAQueryServiceProvider:ippp BSAGetEnvironment:ilpp BSAQueryObject:ilpp
    BSAGetNextQueryObject:ilp BSASetTrace:ippB xbsa_typeerr:s SysErrorTxt:s syserrtxt:s
    GetSockErrCode:L x_LTrim:s x_RTrim:s x_AllTrim:s strupr:s com_task_keyword:s com_step_keyword:s
    qab_bsacopytype:s qab_bsaobjecttype:s qab_bsaobjectstatus:s x_Malloc:p x_Free:ip
    x_TimerStop:ipp"""


class Library:
    def __init__(self, level):
        self._library = c.CDLL(LIBRARY, use_errno=True)
        for prototype in PROTOTYPES.split():
            name, code = prototype.split(":")
            function = getattr(self._library, name)
            function.restype = c.c_char_p if code[0] == "s" else field_type(code[0])
            if code[1:]:
                function.argtypes = [field_type(letter) for letter in code[1:]]
        self.state = Global.in_dll(self._library, "sGlobal")
        self.trace, self.handle = [], c.c_long()
        self.sink = TraceSink(lambda text: self.trace.append(text.decode("latin-1")))
        if level is not None:
            self.BSASetTrace(self.sink, None, level)

    def __getattr__(self, name):
        return getattr(self._library, name)

    def init(self, *environment, owner=b"PLAIN"):
        texts = (c.c_char_p * (len(environment) + 1))(*environment)
        return self.BSAInit(c.byref(self.handle), None, c.byref(Owner(owner)), texts)

    def start(self, server, *environment):
        host = b"BSA_SERVICE_HOST=127.0.0.1:%d" % server.port
        assert self.init(b"BSA_API_VERSION=1.0.1", host, *environment) == 0

    def send(self, data):
        text = c.create_string_buffer(data, len(data) or 1)
        return self.BSASendData(self.handle, c.byref(Block(len(data), 0, c.addressof(text))))

    def take(self, size):
        room = c.create_string_buffer(size)
        block = Block(size, size, c.addressof(room))
        return self.BSAGetData(self.handle, c.byref(block)), room.raw[:block.numBytes]

    def store(self, data=b"hello", end=True, **names):
        """One transaction: the codes of create, send and end of data; end=False leaves it open."""
        self.BSABeginTxn(self.handle)
        codes = [self.BSACreateObject(self.handle, c.byref(descriptor(**names)), None)]
        if codes == [0]:
            blocks = [data[i:i + 65535] for i in range(0, len(data), 65535)]
            codes.append(next((code for block in blocks if (code := self.send(block))), 0))
            codes += [self.BSAEndData(self.handle)] if end else []
        if end:
            self.BSAEndTxn(self.handle, 1)
        return codes

    def restore(self, **names):
        """The codes of get, the last read, and end of data; and the bytes."""
        self.BSABeginTxn(self.handle)
        codes, parts = [self.BSAGetObject(self.handle, c.byref(descriptor(**names)), None)], []
        if codes == [0]:
            while len(codes) == 1:
                code, part = self.take(65535)
                parts.append(part)
                codes += [code] * (code != 0 or len(part) < 65535)
            codes.append(self.BSAEndData(self.handle))
        self.BSAEndTxn(self.handle, 1)
        return codes, b"".join(parts)

    def last_error(self):
        text, size = c.create_string_buffer(1536), c.c_uint(1536)
        assert self.BSAGetLastError(c.byref(size), text) == 0
        assert size.value == len(text.value)
        return text.value.decode("latin-1")


def descriptor(name=b"obj", path=b"/data", owner=b"user=backup:pass=secret", copy_type=3, copy_id=0):
    made = Descriptor(owner=Owner(owner), copyType=copy_type, objectType=2, objectStatus=2)
    made.name, made.copyId.right = Name(name, path), copy_id
    return made


def pattern(size):
    return hashlib.shake_128(b"korva").digest(size)


def both_modes(table):
    """Each row after its mode's environment; of <default|strict> it keeps the part for the mode."""
    for row, strict in itertools.product(table, (0, 1)):
        yield {"KORVA_STRICT": str(strict)}, row._make(re.sub(
            r"<([^|>]*)\|([^>]*)>", lambda both: both[1 + strict], cell)  # pylint: disable=W0640
            if isinstance(cell, str) else cell for cell in row)


def resident_bytes():
    return int(read_text("/proc/self/statm").split()[1]) * resource.getpagesize()


def descriptors():
    """The open descriptors, without that of the listing itself."""
    listed = [int(name) for name in os.listdir("/proc/self/fd")]
    return sorted(number for number in listed if os.path.lexists(f"/proc/self/fd/{number}"))


def holds_journal(number):
    path = os.environ.get("KORVA_JOURNAL")
    return path and os.path.lexists(f"/proc/self/fd/{number}") and os.readlink(
        f"/proc/self/fd/{number}") == os.path.realpath(path)


def signal_mask():
    return re.search(r"SigBlk:\s+(\w+)", read_text("/proc/self/status"))[1]


def has_children():
    with contextlib.suppress(ChildProcessError):
        os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOHANG | os.WNOWAIT)
        return True
    return False


class Outcome:
    value = mask = error = left = None
    trace = ()

    def __init__(self, folder):
        if os.path.exists(folder + "/report"):
            vars(self).update(pickle.loads(read_bytes(folder + "/report")))
        self.stdout, self.stderr = read_text(folder + "/stdout"), read_text(folder + "/stderr")
        self.log = read_text(folder + "/xbsa.log").splitlines()


def make_folder(test):
    folder = tempfile.mkdtemp(prefix="xbsa")
    test.addCleanup(shutil.rmtree, folder)
    return folder


def write_plain(path, data, mode=0o644):
    pathlib.Path(path).write_bytes(data if isinstance(data, bytes) else data.encode())
    os.chmod(path, mode)


def read_bytes(path):
    return pathlib.Path(path).read_bytes()


def read_text(path):
    return read_bytes(path).decode("latin-1") if os.path.exists(path) else ""


def run(scenario, *args, server=None, level=2, env=None, killed=False, deadline=DEADLINE):
    """Runs scenario(library, *args) in a child while the server serves it, and returns the Outcome.
    Fails if the child hangs, crashes, raises, leaks a descriptor, leaves a child process or, except in
    Informix mode, changes the signal mask. With killed=True it must end by SIGKILL instead."""
    folder = tempfile.mkdtemp(prefix="xbsa")
    reader, writer = os.pipe()  # ends with the child
    child = os.fork()
    if child == 0:
        os.close(reader)
        _run_child(scenario, args, server, level, env or {}, folder)
    os.close(writer)
    try:
        if server:
            server.serve(reader)
        elif not select.select([reader], [], [], deadline)[0]:
            raise TimeoutError
    except Exception as error:
        os.kill(child, signal.SIGKILL)
        os.waitpid(child, 0)
        raise AssertionError(f"{scenario.__name__} hangs, its files are in {folder}") from error
    finally:
        os.close(reader)
        if server:
            server.forget()
    _, status = os.waitpid(child, 0)
    outcome = Outcome(folder)
    got = (os.waitstatus_to_exitcode(status), outcome.error, outcome.left)
    want = (-signal.SIGKILL, None, None) if killed else (0, None, {})
    if got != want or "Sanitizer" in outcome.stderr or "runtime error" in outcome.stderr:
        raise AssertionError(f"expected exit, error, left over: {want}\ngot: {got[0]} {got[1]} "
                             f"{got[2]}\nvalue: {str(outcome.value)[:2000]}\n{outcome.stderr}")
    shutil.rmtree(folder)
    return outcome


def run_started(scenario, *args, server, **options):
    def begun(x):
        x.start(server)
        return scenario(x, *args)
    return run(begun, server=server, **options)


def _run_child(scenario, args, server, level, env, folder):
    """Never returns. SIGPIPE has its default action, not Python's."""
    os.chdir(folder)
    for number, name in ((1, "stdout"), (2, "stderr")):
        os.dup2(os.open(name, os.O_CREAT | os.O_WRONLY | os.O_APPEND, 0o600), number)
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)
    os.environ.update(env)
    report = {}
    try:
        if server:
            server.forget()
        before, mask = set(descriptors()), signal_mask()
        library = Library(level)
        report.update(value=scenario(library, *args), trace=library.trace, mask=signal_mask())
        lost = {number for number in set(descriptors()) ^ before ^ ({library.state.hLogFile} - {0, -1})
                if not holds_journal(number)}
        changed = not library.state.iQAB and report["mask"] != mask
        left = {"fds": lost, "mask": changed, "children": has_children()}
        report["left"] = {key: value for key, value in left.items() if value}
        c.CDLL(None).fflush(None)
    except BaseException:
        report["error"] = traceback.format_exc()
    write_plain(os.path.join(folder, "report"), pickle.dumps(report))
    if COUNTED:
        c.CDLL(None).exit(0)  # writes the counters, which _exit does not
    os._exit(0)
