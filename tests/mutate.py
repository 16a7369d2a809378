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
TOOLS = re.compile(r"(asan\.)?(beyond|bench|check|format|frontdoor|fuzz|leaks|package|pages|tidy|"
                   "tool|tracelog|zsh).*")

# The likely test, which is asked first, what it is, the file in src/, the text in it, and what a
# hurried developer might have left there.
FAULTS = [
    ("calls.Calls.test_orders", "a begin forgets the calls before it", "api/BSABeginTxn.cpp",
     "iLastCall |= CALL_BEGIN_TXN", "iLastCall = CALL_BEGIN_TXN"),
    ("transfer.Broken.test_killed", "a host that dies ends its backup well",
     "util/text.cpp", "sReset = {1, 0}", "sReset = {0, 0}"),
    ("transfer.Transfers.test_completed_descriptor", "the copy id in the wrong half",
     "api/BSACreateObject.cpp", "spObject->copyId.right = ", "spObject->copyId.left = "),
    ("transfer.Broken.test_rejected_end", "SO_LINGER stays on at a good end", "api/BSAEndData.cpp",
     "sOrderly = {0, 0}", "sOrderly = {1, 0}"),
    ("transfer.Broken.test_failed_send", "a broken object ends well", "api/BSAEndData.cpp",
     " || sPrivate.iDataBroken != 0) return;", ") return;"),
    ("com.Sessions.test_sessions", "a failed send is forgotten by the status", "api/BSAEndData.cpp",
     "else if (sPrivate.iDataFailed == 0) sGlobal", "else sGlobal"),
    ("calls.Calls.test_orders", "the end of a transaction forgets one call only",
     "api/BSAEndTxn.cpp", "iLastCall = 0;", "iLastCall &= ~CALL_BEGIN_TXN;"),
    ("servers.Servers.test_vsftpd", "a second piece overwrites the first", "api/BSAGetData.cpp",
     "spBlock->bufferPtr + uiRead", "spBlock->bufferPtr"),
    ("helpers.Helpers.test_first_error_wins", "no room for the terminator",
     "api/BSAGetLastError.cpp", "uLength >= *sizePtr", "uLength > *sizePtr"),
    ("com.Queries.test_queries", "the end mark of the list handed out",
     "api/BSAGetNextQueryObject.cpp", "iIndex < XBSA_QUERY_RESULTS - 1",
     "iIndex < XBSA_QUERY_RESULTS"),
    ("com.Sessions.test_sessions", "the close names an earlier saveset", "api/BSAGetObject.cpp",
     "x_CopyText(sGlobal.sCOM.szSavesetID, sizeof sGlobal.sCOM.szSavesetID, spSMS->szName);", ""),
    ("calls.Calls.test_informix", "a name's beginning makes an Informix session", "api/BSAInit.cpp",
     "szInformix, sizeof szInformix)", "szInformix, sizeof szInformix - 1)"),
    ("com.Queries.test_queries", "an answer without a saveset is a match", "api/BSAQueryObject.cpp",
     "if (sGlobal.sCOM.szSavesetID[0] == '\\0') qab_ClearResults();", ""),
    ("transfer.Broken.test_server_resets", "a signal at a connection that broke",
     "api/BSASendData.cpp", "MSG_NOSIGNAL", "0"),
    ("calls.Calls.test_com_environment", "a value cut in place of refused", "api/environment.cpp",
     "strlen(cpValue) >= spVariable->uSize", "strlen(cpValue) > spVariable->uSize"),
    ("com.Sessions.test_sessions", "partly and failed exchanged", "api/object.cpp",
     "OP_STATUS_FAILED : OP_STATUS_PARTLY", "OP_STATUS_PARTLY : OP_STATUS_FAILED"),
    ("transfer.Broken.test_failed_send", "an object inherits that the one before it broke",
     "api/object.cpp", "    sPrivate.iDataBroken = 0;\n", ""),
    ("com.Sessions.test_sessions", "an open keeps an earlier restore id", "com/com_intf.cpp",
     "    spInput->szRestoreID[0] = '\\0';\n", ""),
    ("com.Sessions.test_sessions", "a refused session keeps an earlier one's id",
     "com/com_intf.cpp", "iStep <= COM_STEP_OPEN_SESSION", "iStep < COM_STEP_OPEN_SESSION"),
    ("com.Commands.test_lines", "drive and pool exchanged", "com/command.cpp",
     '" -m ", spInput->szPool', '" -m ", spInput->szDrive'),
    ("com.Answers.test_no_password", "a colon too far for the mask", "com/dump.cpp", "iColon < 3",
     "iColon < 4"),
    ("com.Runs.test_ini_capacity", "a byte less room than the path takes", "com/find.cpp",
     "uSize <= uLength + PATH_EXTRA", "uSize < uLength + PATH_EXTRA"),
    ("com.Answers.test_host_specs", "any user without a password becomes another",
     "com/hostspec.cpp", 'strcmp(cpUser, "sms") == 0 && cpPasswd',
     'strcmp(cpUser, "sms") == 0 || cpPasswd'),
    ("com.Commands.test_hostile", "a quote ends the quoting", "com/line.cpp",
     '        if (*cpText == \'\\\'\') com_AppendText(spLine, "\'\\\\\'");\n', ""),
    ("com.Answers.test_answers", "one line is a positive answer", "com/parse.cpp",
     "iReplyCheck > 1", "iReplyCheck > 0"),
    ("com.Runs.test_strict_mask", "the mask is not put back", "com/run.cpp",
     "    sigprocmask(SIG_SETMASK, &spRun->sOldSet, nullptr);\n", ""),
    ("helpers.Helpers.test_refused_commands", "the room for CR LF taken for the name",
     "session/commands.cpp", "< XBSA_REPLY_SIZE - LINE_END", "< XBSA_REPLY_SIZE"),
    ("calls.Calls.test_unreachable", "a refused connection's socket is lost", "session/connect.cpp",
     "    if (hSocket != -1) SOCKET_close(hSocket);\n", ""),
    ("com.Sessions.test_identity", "the password without its terminator", "session/identity.cpp",
     "*uipPasswordLen > uLength ? uLength + 1 : uLength", "uLength"),
    ("com.Sessions.test_sessions", "a refused folder is no hindrance", "session/open.cpp",
     'cpaCommands[spWork->iSlot], XBSA_REPLY_SIZE, "QUIT"',
     'cpaCommands[spWork->iSlot - 1], XBSA_REPLY_SIZE, "QUIT"'),
    ("transfer.Broken.test_timed_out", "a timed-out server is waited for", "session/peer.cpp",
     "iError == ETIMEDOUT || ", ""),
    ("transfer.Broken.test_abandoned", "an abandoned connection is lost", "session/record.cpp",
     "    if (*hpOwn != -1) SOCKET_close(*hpOwn);\n", ""),
    ("transfer.Transfers.test_stores", "a look at a reply takes its first byte", "stpc/accept.cpp",
     "MSG_PEEK | MSG_DONTWAIT", "MSG_DONTWAIT"),
    ("helpers.Helpers.test_lines", "the mask stays full after a line", "stpc/line.cpp",
     "    sigprocmask(SIG_SETMASK, &sOld, nullptr);\n", ""),
    ("torture.Torture.test_codes", "a refused listener is lost", "stpc/port.cpp",
     "    SOCKET_close(hListener);\n", ""),
    ("transfer.Broken.test_rejected_end", "the reserve socket is lost", "stpc/transfer.cpp",
     "    SOCKET_close(hSpare);\n", ""),
    ("trace.Lines.test_dump", "a tab rings through the dump", "trace/dump.cpp", "ucByte <= 10",
     "ucByte < 10"),
    ("trace.Lines.test_errno", "a trace line changes errno", "trace/trace.cpp",
     "int iError = errno;", "int iError = 0;"),
    ("helpers.Helpers.test_timer", "seconds counted as milliseconds", "util/memory.cpp",
     "(sNow.lSeconds - spStart->lSeconds) * 1000", "(sNow.lSeconds - spStart->lSeconds)"),
    ("com.Answers.test_host_specs", "a text that just does not fit", "util/text.cpp",
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
    """The name, the command and its environment of each test, the likely one first."""
    found = []
    if not os.path.exists(f"{tree}/build/{preset}"):
        ftpd = os.environ.get("XBSA_FTPD", os.path.expanduser("~/.cache/korva-xbsa/ftpd"))
        call(tree, "cmake", "--preset", preset, "-DXBSA_FTPD=" + ftpd)
        build(tree, preset)
    listed = subprocess.run(["ctest", "--preset", preset, "--show-only=json-v1"], cwd=tree,
                            stdout=subprocess.PIPE, check=True).stdout
    for test in json.loads(listed)["tests"]:
        if TOOLS.fullmatch(test["name"]):
            continue
        settings = {entry["name"]: entry["value"] for entry in test["properties"]}
        words = ["timeout", str(settings["TIMEOUT"]), "env", "-C", settings["WORKING_DIRECTORY"],
                 *settings.get("ENVIRONMENT", []), *test["command"]]
        found.append((test["name"], words))
        if f"test_{likely}".startswith(words[-1] + "."):
            found.insert(0, (likely, words[:-1] + [f"test_{likely}"]))
    return found


def plant(tree, file, old, new):
    with open(f"{ROOT}/src/{file}", encoding="utf-8") as source:
        text = source.read()
    if text.count(old) != 1:
        raise SystemExit(f"{file} holds {text.count(old)} times: {old}")
    with open(f"{tree}/src/{file}", "w", encoding="utf-8") as target:
        target.write(text.replace(old, new))


def first_to_notice(tree, sound, likely, file, old, new):
    """The name of the test, which must pass without the fault, or None."""
    for preset in "release", "asan":
        asked = tests(tree, preset, likely)
        plant(tree, file, old, new)
        build(tree, preset, "--target", "xbsa")
        found = next((test for test in asked if not call(tree, *test[1])), None)
        plant(tree, file, old, old)
        if found and found[0] not in sound:
            build(tree, preset, "--target", "xbsa")
            if not any(call(tree, *found[1]) for _ in "123"):
                raise SystemExit(f"{found[0]} fails without any fault, see {tree}/mutate.log")
        if found:
            return found[0]
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
