#!/usr/bin/env python3
"""
On command, about an hour: do the tests that CI runs on the library notice small faults in it? Each
is planted in a copy of the tree. Numbers as arguments choose rows.
"""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WANTED = 38
# The tools' own tests are not asked.
TOOLS = re.compile(r"(asan\.)?(beyond|check|format|frontdoor|leaks|package|pages|tidy|tool|"
                   "tracelog|zsh).*")

# The test that is asked first, what it is, the file in src/, the text in it, and what a hurried
# developer might have left there.
FAULTS = [
    ("calls", "a begin forgets the calls before it", "api/BSABeginTxn.cpp",
     "iLastCall |= CALL_BEGIN_TXN", "iLastCall = CALL_BEGIN_TXN"),
    ("transfer_Broken", "a host that dies ends its backup well", "api/BSACreateObject.cpp",
     "sReset = {1, 0}", "sReset = {0, 0}"),
    ("transfer_Transfers", "the copy id in the wrong half", "api/BSACreateObject.cpp",
     "spObject->copyId.right = ", "spObject->copyId.left = "),
    ("transfer_Transfers", "SO_LINGER stays on at a good end", "api/BSAEndData.cpp",
     "sOrderly = {0, 0}", "sOrderly = {1, 0}"),
    ("transfer_Broken", "a broken object ends well", "api/BSAEndData.cpp", " || sPrivate.iDataBroken != 0) return;",
     ") return;"),
    ("com.Sessions", "a failed send is forgotten by the status", "api/BSAEndData.cpp",
     "else if (sPrivate.iDataFailed == 0) sGlobal", "else sGlobal"),
    ("calls", "the end of a transaction forgets one call only", "api/BSAEndTxn.cpp",
     "iLastCall = 0;", "iLastCall &= ~CALL_BEGIN_TXN;"),
    ("servers", "a second piece overwrites the first", "api/BSAGetData.cpp",
     "spBlock->bufferPtr + uRead", "spBlock->bufferPtr"),
    ("helpers", "no room for the terminator", "api/BSAGetLastError.cpp",
     "uLength >= *sizePtr", "uLength > *sizePtr"),
    ("com.Queries", "the end mark of the list handed out", "api/BSAGetNextQueryObject.cpp",
     "iIndex < XBSA_QUERY_RESULTS - 1", "iIndex < XBSA_QUERY_RESULTS"),
    ("com.Sessions", "the close names an earlier saveset", "api/BSAGetObject.cpp",
     "x_CopyText(sGlobal.sCOM.szSavesetID, sizeof sGlobal.sCOM.szSavesetID, spSMS->szName);", ""),
    ("calls", "a name's beginning makes an Informix session", "api/BSAInit.cpp",
     "szInformix, sizeof szInformix)", "szInformix, sizeof szInformix - 1)"),
    ("com.Queries", "an answer without a saveset is a match", "api/BSAQueryObject.cpp",
     "if (sGlobal.sCOM.szSavesetID[0] == '\\0') qab_ClearResults();", ""),
    ("transfer_Broken", "a signal at a connection that broke", "api/BSASendData.cpp", "MSG_NOSIGNAL", "0"),
    ("calls", "a value cut in place of refused", "api/environment.cpp",
     "strlen(cpValue) >= spVariable->uSize", "strlen(cpValue) > spVariable->uSize"),
    ("com.Sessions", "partly and failed exchanged", "api/object.cpp",
     "OP_STATUS_FAILED : OP_STATUS_PARTLY", "OP_STATUS_PARTLY : OP_STATUS_FAILED"),
    ("transfer_Broken", "an object inherits that the one before it broke", "api/object.cpp",
     "    sPrivate.iDataBroken = 0;\n", ""),
    ("com.Sessions", "an open keeps an earlier restore id", "com/com_intf.cpp",
     "    spInput->szRestoreID[0] = '\\0';\n", ""),
    ("com.Sessions", "a refused session keeps an earlier one's id", "com/com_intf.cpp",
     "iStep <= COM_STEP_OPEN_SESSION", "iStep < COM_STEP_OPEN_SESSION"),
    ("com.Commands", "drive and pool exchanged", "com/command.cpp",
     '" -m ", spInput->szPool', '" -m ", spInput->szDrive'),
    ("com.Answers", "a colon too far for the mask", "com/dump.cpp", "iColon < 3", "iColon < 4"),
    ("com.Runs", "a byte less room than the path takes", "com/find.cpp",
     "uSize <= uLength + PATH_EXTRA", "uSize < uLength + PATH_EXTRA"),
    ("com.Answers", "any user without a password becomes another", "com/hostspec.cpp",
     'strcmp(cpUser, "sms") == 0 && cpPasswd', 'strcmp(cpUser, "sms") == 0 || cpPasswd'),
    ("com.Commands", "a quote ends the quoting", "com/line.cpp",
     """        if (*cpText == '\\'') com_AppendText(spLine, "'\\\\'");\n""", ""),
    ("com.Answers", "one line is a positive answer", "com/parse.cpp", "iReplyCheck > 1", "iReplyCheck > 0"),
    ("com.Runs", "the mask is not put back", "com/run.cpp",
     "    sigprocmask(SIG_SETMASK, &spRun->sOldSet, nullptr);\n", ""),
    ("helpers", "the room for CR LF taken for the name", "session/commands.cpp",
     "iLength + LINE_END < XBSA_REPLY_SIZE", "iLength < XBSA_REPLY_SIZE"),
    ("calls", "a refused connection's socket is lost", "session/connect.cpp",
     "    if (hSocket != -1) SOCKET_close(hSocket);\n", ""),
    ("com.Sessions", "the password without its terminator", "session/identity.cpp",
     "*uipPasswordLen > uLength ? uLength + 1 : uLength", "uLength"),
    ("transfer_OddReplies", "a refused folder is no hindrance", "session/open.cpp",
     'cpaCommands[spWork->iSlot], XBSA_REPLY_SIZE, "QUIT"',
     'cpaCommands[spWork->iSlot - 1], XBSA_REPLY_SIZE, "QUIT"'),
    ("transfer_Broken", "a timed-out server is waited for", "session/peer.cpp", "iError == ETIMEDOUT || ", ""),
    ("transfer_Broken", "an abandoned connection is lost", "session/record.cpp",
     "    if (*hpOwn != -1) SOCKET_close(*hpOwn);\n", ""),
    ("transfer_Transfers", "a look at a reply takes its first byte", "stpc/accept.cpp",
     "MSG_PEEK | MSG_DONTWAIT", "MSG_DONTWAIT"),
    ("helpers", "the mask stays full after a line", "stpc/line.cpp",
     "    sigprocmask(SIG_SETMASK, &sOld, nullptr);\n", ""),
    ("transfer_OddReplies", "a refused listener is lost", "stpc/port.cpp",
     "    SOCKET_close(hListener);\n", ""),
    ("transfer_Broken", "the reserve socket is lost", "stpc/transfer.cpp", "    SOCKET_close(hSpare);\n", ""),
    ("trace", "a tab rings through the dump", "trace/dump.cpp", "ucByte <= 10", "ucByte < 10"),
    ("trace", "a trace line changes errno", "trace/trace.cpp", "    errno = iError;\n", ""),
    ("helpers", "seconds counted as milliseconds", "util/memory.cpp",
     "(sNow.lSeconds - spStart->lSeconds) * 1000", "(sNow.lSeconds - spStart->lSeconds)"),
    ("com.Answers", "a text that just does not fit", "util/text.cpp",
     "iCut = uLength >= uSize", "iCut = uLength > uSize"),
]


def call(tree, *words):
    """Whether it ends well."""
    with open(f"{tree}/mutate.log", "ab") as log:
        return subprocess.run(words, cwd=tree, stdout=log, stderr=log, check=False).returncode == 0


def build(tree, preset, *target):
    if not call(tree, "cmake", "--build", "--preset", preset, "-j2", *target):
        raise SystemExit(f"does not build, see {tree}/mutate.log")


def tests(tree, preset, likely):
    """The names in the order in which they are asked: as in CI, but for the likely one."""
    if not os.path.exists(f"{tree}/build/{preset}"):
        ftpd = os.environ.get("XBSA_FTPD", os.path.expanduser("~/.cache/korva-xbsa/ftpd"))
        call(tree, "cmake", "--preset", preset, "-DXBSA_FTPD=" + ftpd)
        build(tree, preset)
    listed = subprocess.run(["ctest", "--preset", preset, "--show-only=json-v1"], cwd=tree,
                            stdout=subprocess.PIPE, check=True).stdout
    names = [test["name"] for test in json.loads(listed)["tests"]]
    return sorted((name for name in names if not TOOLS.fullmatch(name)),
                  key=lambda name: not name.endswith(likely))


def passes(tree, preset, name):
    return call(tree, "ctest", "--preset", preset, "-R", f"^{re.escape(name)}$")


def plant(tree, preset, file, old, new):
    with open(f"{ROOT}/src/{file}", encoding="utf-8") as source:
        text = source.read()
    if text.count(old) != 1:
        raise SystemExit(f"{file} holds {text.count(old)} times: {old}")
    with open(f"{tree}/src/{file}", "w", encoding="utf-8") as target:
        target.write(text.replace(old, new))
    build(tree, preset, "--target", "xbsa")


def first_to_notice(tree, sound, likely, file, old, new):
    """The name of the test, which must pass without the fault, or None."""
    for preset in "release", "asan":
        names = tests(tree, preset, likely)
        plant(tree, preset, file, old, new)
        found = next((name for name in names if not passes(tree, preset, name)), None)
        plant(tree, preset, file, old, old)
        if found and found not in sound and not any(passes(tree, preset, found) for _ in "123"):
            raise SystemExit(f"{found} fails without any fault, see {tree}/mutate.log")
        if found:
            return found
    return None


def main(rows):
    tree, sound, missed = tempfile.mkdtemp(prefix="mutate"), set(), 0
    shutil.copytree(ROOT, tree, dirs_exist_ok=True, symlinks=True,
                    ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    for row in rows:
        likely, what, *fault = FAULTS[row - 1]
        found = first_to_notice(tree, sound, likely, *fault)
        sound.add(found)
        missed += not found
        print(f"{row:2} {fault[0]}: {what}: {'noticed by ' + found if found else 'MISSED'}",
              flush=True)
    print(f"{len(rows) - missed} of {len(rows)} noticed")
    shutil.rmtree(tree)
    return missed > len(FAULTS) - WANTED


sys.exit(main([int(word) for word in sys.argv[1:]] or range(1, len(FAULTS) + 1)))
