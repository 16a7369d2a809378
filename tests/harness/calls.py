"""The library's calls by name, with good and bad arguments."""
import ctypes as c
import mmap

from xbsa import Block, Descriptor, Owner, Query, Uint64, Version, descriptor

# The calls, where h is the handle (wrong with "!"); create and get reach no server by default.
CALLS = {"init": lambda x, h: x.init(), "init-v2": lambda x, h: x.init(b"BSA_API_VERSION=2.0"),
    "init-nohandle": lambda x, h: x.BSAInit(None, None, c.byref(Owner(b"PLAIN")), None),
    "init-noowner": lambda x, h: x.BSAInit(c.byref(x.handle), None, None, None),
    "init-noenv": lambda x, h: x.BSAInit(c.byref(x.handle), None, c.byref(Owner(b"PLAIN")), None),
    "begin": lambda x, h: x.BSABeginTxn(h), "commit": lambda x, h: x.BSAEndTxn(h, 1),
    "abort": lambda x, h: x.BSAEndTxn(h, 2), "terminate": lambda x, h: x.BSATerminate(h),
    "create": lambda x, h: x.BSACreateObject(h, c.byref(descriptor()), None),
    "create-noname": lambda x, h: x.BSACreateObject(h, c.byref(descriptor(name=b"")), None),
    "create-any": lambda x, h: x.BSACreateObject(h, c.byref(descriptor(copy_type=1)), None),
    "get": lambda x, h: x.BSAGetObject(h, c.byref(descriptor()), None),
    "send": lambda x, h: x.BSASendData(h, c.byref(Block(0, 7, None))),
    "send-null": lambda x, h: x.BSASendData(h, None),
    "send-nobuffer": lambda x, h: x.BSASendData(h, c.byref(Block(5, 5, None))),
    "read": lambda x, h: x.BSAGetData(h, c.byref(Block(0, 7, None))),
    "read-null": lambda x, h: x.BSAGetData(h, None),
    "read-nobuffer": lambda x, h: x.BSAGetData(h, c.byref(Block(5, 5, None))),
    "end": lambda x, h: x.BSAEndData(h), "block": lambda x, h: x.send(b"hello"),
    "fault": lambda x, h: x.BSASendData(h, c.byref(Block(100, 0, unreadable_page()))),
    "take": lambda x, h: x.take(9)[0],
    "query": lambda x, h: x.BSAQueryObject(h, c.byref(Query()), c.byref(Descriptor())),
    "query-null": lambda x, h: x.BSAQueryObject(h, None, c.byref(Descriptor())),
    "query-noobject": lambda x, h: x.BSAQueryObject(h, c.byref(Query()), None),
    "next": lambda x, h: x.BSAGetNextQueryObject(h, c.byref(Descriptor())),
    "next-null": lambda x, h: x.BSAGetNextQueryObject(h, None),
    "version": lambda x, h: x.BSAQueryApiVersion(c.byref(Version())),
    "version-null": lambda x, h: x.BSAQueryApiVersion(None),
    "provider-null": lambda x, h: x.BSAQueryServiceProvider(None, None, None),
    "error-null": lambda x, h: x.BSAGetLastError(c.byref(c.c_uint(9)), None),
    "error-nosize": lambda x, h: x.BSAGetLastError(None, c.create_string_buffer(9)),
    "delete": lambda x, h: x.BSADeleteObject(h, Uint64(0, 1))}


def unreadable_page():
    libc = c.CDLL(None)
    libc.mmap.restype, libc.mmap.argtypes = c.c_void_p, [c.c_void_p, c.c_size_t] + [c.c_int] * 4
    return libc.mmap(None, mmap.PAGESIZE, 0, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS, -1, 0)


def call(x, name):
    return CALLS[name.rstrip("!")](x, x.handle.value + name.endswith("!"))
