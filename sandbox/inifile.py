"""Puts the INI file where the client library looks for it: in /etc, or in a private /etc."""

import contextlib
import os
import shutil
import subprocess

import private

INI = "/etc/korva2000.ini"
SAVED = INI + ".saved"
MARK = "Written by the KORVA sandbox"  # the library ignores a line without "="

# A private mount namespace gets a new /etc: a small file system with a copy of the real one and the
# INI file. It is a copy, not a link or mount: a command that deletes the sandbox's folder, or
# writes to /etc, must not reach the real one. Files that the account cannot read are omitted.
PRIVATE_ETC = """
new=$1 ini=$2; shift 2
mount -n -t tmpfs -o mode=755 sandbox "$new"
cp -a /etc/. "$new/" 2>/dev/null || true
rm -f "$new/korva2000.ini"
cp "$ini" "$new/korva2000.ini"
chmod 644 "$new/korva2000.ini"
mount -n --move "$new" /etc
"""
DROP = 'exec setpriv --inh-caps=-all --ambient-caps=-all -- "$@"\n'


class NoNamespace(Exception):
    """This machine does not allow a private mount namespace; the text gives the reason."""


def text_for(folder):
    """The text of the INI file for a sandbox folder."""
    return f"{MARK}\nSM_BIN_KORVA={os.path.join(folder, 'bin')}\n"


def is_ours():
    """Whether the INI file in /etc is one that a sandbox wrote."""
    with open(INI, encoding="utf-8", errors="replace") as file:
        return file.readline().rstrip("\n") == MARK


def write(folder):
    """Write the INI file into /etc; one that is not ours is saved. Returns the undo command."""
    if os.path.lexists(INI) and not is_ours():
        if os.path.lexists(SAVED):
            raise OSError(f"{SAVED} already exists: it is a copy of an earlier {INI}")
        os.link(INI, SAVED)
    private.write(INI + ".new", text_for(folder))
    os.chmod(INI + ".new", 0o644)
    os.replace(INI + ".new", INI)
    return f"mv {SAVED} {INI}" if os.path.lexists(SAVED) else f"rm {INI}"


def undo():
    """Restore the earlier INI file, or remove ours."""
    if os.path.lexists(SAVED):
        os.replace(SAVED, INI)
    else:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(INI)


def namespace_command(folder, command):
    """The command line that runs a command in a namespace with the INI file in place."""
    unshare = ["unshare", "--mount", "--propagation", "private"]
    script = "set -e\n" + PRIVATE_ETC
    if os.geteuid() != 0:
        unshare += ["--user", "--map-current-user", "--keep-caps"]
        script += DROP
    else:
        script += 'exec "$@"\n'
    missing = [tool for tool in ("unshare", "mount", "setpriv") if shutil.which(tool) is None]
    if missing:
        raise NoNamespace(f"missing programs: {', '.join(missing)}")
    new, ini = os.path.join(folder, "etc"), os.path.join(folder, "korva2000.ini")
    os.makedirs(new, exist_ok=True)
    private.write(ini, text_for(folder))
    inside = ["--", "sh", "-c", script, "sandbox", new, ini]
    trial = subprocess.run(unshare + inside + ["true"], capture_output=True, text=True,
                           check=False)
    if trial.returncode != 0:
        raise NoNamespace(trial.stderr.strip())
    return unshare + inside + list(command)
