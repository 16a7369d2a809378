#!/usr/bin/env python3
"""
On command, about an hour: do the tests that CI runs on the library notice small faults in it? Each
is planted in a copy of the tree. Numbers as arguments choose rows.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WANTED = 38
# The tools' own tests are not asked.
TOOLS = ("^(asan.)?(beyond|bench|check|format|frontdoor|fuzz|leaks|package|pages|tidy|tool|"
         "tracelog|zsh)")

# The likely test, which is asked first, the file in src/, the text in it, and what a hurried
# developer might have left there.
FAULTS = [
    ("calls", "api/BSABeginTxn.cpp", "iLastCall |= CALL_BEGIN_TXN", "iLastCall = CALL_BEGIN_TXN"),
    ("transfer_Broken", "util/text.cpp", "sReset = {1, 0}", "sReset = {0, 0}"),
    ("transfer_Transfers", "api/BSACreateObject.cpp", "spObject->copyId.right = ",
     "spObject->copyId.left = "),
    ("transfer_Broken", "api/BSAEndData.cpp", "sOrderly = {0, 0}", "sOrderly = {1, 0}"),
    ("transfer_Broken", "api/BSAEndData.cpp", "if (sPrivate.iDataBroken != 0)", "if (false)"),
    ("com.Sessions", "api/BSAEndData.cpp", "else if (sPrivate.iDataFailed == 0) sGlobal",
     "else sGlobal"),
    ("calls", "api/BSAEndTxn.cpp", "iLastCall = 0;", "iLastCall &= ~CALL_BEGIN_TXN;"),
    ("servers", "api/BSAGetData.cpp", "spBlock->bufferPtr + uiRead", "spBlock->bufferPtr"),
    ("helpers", "api/BSAGetLastError.cpp", "uLength >= *sizePtr", "uLength > *sizePtr"),
    ("com.Queries", "api/BSAGetNextQueryObject.cpp", "iIndex < XBSA_QUERY_RESULTS - 1",
     "iIndex < XBSA_QUERY_RESULTS"),
    ("com.Sessions", "api/BSAGetObject.cpp",
     "x_CopyText(sGlobal.sCOM.szSavesetID, sizeof sGlobal.sCOM.szSavesetID, spSMS->szName);", ""),
    ("calls", "api/BSAInit.cpp", "szInformix, sizeof szInformix)",
     "szInformix, sizeof szInformix - 1)"),
    ("com.Queries", "api/BSAQueryObject.cpp",
     "if (sGlobal.sCOM.szSavesetID[0] == '\\0') qab_ClearResults();", ""),
    ("transfer_Broken", "api/BSASendData.cpp", "MSG_NOSIGNAL", "0"),
    ("calls", "api/environment.cpp", "strlen(cpValue) >= spVariable->uSize",
     "strlen(cpValue) > spVariable->uSize"),
    ("com.Sessions", "api/object.cpp", "OP_STATUS_FAILED : OP_STATUS_PARTLY",
     "OP_STATUS_PARTLY : OP_STATUS_FAILED"),
    ("transfer_Broken", "api/object.cpp", "    sPrivate.iDataBroken = 0;\n", ""),
    ("com.Sessions", "com/com_intf.cpp", "    spInput->szRestoreID[0] = '\\0';\n", ""),
    ("com.Sessions", "com/com_intf.cpp", "iStep > COM_STEP_OPEN_SESSION",
     "iStep >= COM_STEP_OPEN_SESSION"),
    ("com.Commands", "com/command.cpp", '" -m ", spInput->szPool', '" -m ", spInput->szDrive'),
    ("com.Answers", "com/dump.cpp", "iColon < 3", "iColon < 4"),
    ("com.Runs", "com/find.cpp", "uSize <= uLength + PATH_EXTRA", "uSize < uLength + PATH_EXTRA"),
    ("com.Answers", "com/hostspec.cpp", 'strcmp(cpUser, "sms") == 0 && cpPasswd',
     'strcmp(cpUser, "sms") == 0 || cpPasswd'),
    ("com.Commands", "com/line.cpp",
     '        if (*cpText == \'\\\'\') com_AppendText(spLine, "\'\\\\\'");\n', ""),
    ("com.Answers", "com/parse.cpp", "iReplyCheck > 1", "iReplyCheck > 0"),
    ("com.Runs", "com/run.cpp", "    sigprocmask(SIG_SETMASK, &spRun->sOldSet, nullptr);\n", ""),
    ("helpers", "session/commands.cpp", "< XBSA_REPLY_SIZE - LINE_END", "< XBSA_REPLY_SIZE"),
    ("calls", "session/connect.cpp", "    if (hSocket != -1) SOCKET_close(hSocket);\n", ""),
    ("com.Sessions", "session/identity.cpp", "*uipPasswordLen > uLength ? uLength + 1 : uLength",
     "uLength"),
    ("torture", "session/open.cpp", 'cpaCommands[spWork->iSlot], XBSA_REPLY_SIZE, "QUIT"',
     'cpaCommands[spWork->iSlot - 1], XBSA_REPLY_SIZE, "QUIT"'),
    ("transfer_Broken", "session/peer.cpp", "iError == ETIMEDOUT || ", ""),
    ("transfer_Broken", "session/record.cpp", "    if (*hpOwn != -1) SOCKET_close(*hpOwn);\n",
     ""),
    ("transfer_Transfers", "stpc/accept.cpp", "MSG_PEEK | MSG_DONTWAIT", "MSG_DONTWAIT"),
    ("helpers", "stpc/line.cpp", "    sigprocmask(SIG_SETMASK, &sOld, nullptr);\n", ""),
    ("torture", "stpc/port.cpp", "    SOCKET_close(hListener);\n", ""),
    ("transfer_Broken", "stpc/transfer.cpp", "    SOCKET_close(hSpare);\n", ""),
    ("trace", "trace/dump.cpp", "ucByte <= 10", "ucByte < 10"),
    ("trace", "trace/trace.cpp", "int iError = errno;", "int iError = 0;"),
    ("helpers", "util/memory.cpp", "(sNow.lSeconds - spStart->lSeconds) * 1000",
     "(sNow.lSeconds - spStart->lSeconds)"),
    ("com.Answers", "util/text.cpp", "iCut = uLength >= uSize", "iCut = uLength > uSize"),
]


def call(tree, *words):
    """What it prints, and whether it ends well."""
    done = subprocess.run(words, cwd=tree, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          encoding="latin-1", check=False)
    with open(f"{tree}/mutate.log", "a", encoding="latin-1") as log:
        log.write(done.stdout)
    return done.stdout, done.returncode == 0


def build(tree, preset, *target):
    if not call(tree, "cmake", "--build", "--preset", preset, "-j2", *target)[1]:
        raise SystemExit(f"does not build, see {tree}/mutate.log")


def first_to_fail(tree, preset, *which):
    output, well = call(tree, "ctest", "--preset", preset, "--stop-on-failure", *which)
    return None if well else re.search(r"tests FAILED:\s+\d+ - (\S+)", output)[1]


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
        plant(tree, preset, file, old, new)
        found = (first_to_fail(tree, preset, "-R", f"^(asan.)?{likely}$")
                 or first_to_fail(tree, preset, "-E", TOOLS))
        plant(tree, preset, file, old, old)
        if found and found not in sound and first_to_fail(
                tree, preset, "-R", f"^{found}$", "--repeat", "until-pass:3"):
            raise SystemExit(f"{found} fails without any fault, see {tree}/mutate.log")
        if found:
            return found
    return None


def main(rows):
    tree, sound, missed = tempfile.mkdtemp(prefix="mutate"), set(), 0
    shutil.copytree(ROOT, tree, dirs_exist_ok=True, symlinks=True,
                    ignore=shutil.ignore_patterns("build", ".git", "__pycache__"))
    ftpd = os.environ.get("XBSA_FTPD", os.path.expanduser("~/.cache/korva-xbsa/ftpd"))
    for preset in "release", "asan":
        call(tree, "cmake", "--preset", preset, "-DXBSA_FTPD=" + ftpd)
        build(tree, preset)
    for row in rows:
        likely, file, old, new = FAULTS[row - 1]
        found = first_to_notice(tree, sound, likely, file, old, new)
        sound.add(found)
        missed += not found
        print(f"{row:2} {file}: {old.strip()} -> {new.strip()}: "
              f"{'noticed by ' + found if found else 'MISSED'}", flush=True)
    print(f"{len(rows) - missed} of {len(rows)} noticed")
    shutil.rmtree(tree)
    return missed > len(FAULTS) - WANTED


sys.exit(main([int(word) for word in sys.argv[1:]] or range(1, len(FAULTS) + 1)))
