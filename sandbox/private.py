"""Protects the sandbox's folder from other accounts.

The folder contains passwords, objects and the utility that a backup runs. An account that can write
there, or that created it, could have placed a link where we are going to write a file.
"""

import os
import pwd
import stat

WRITABLE = stat.S_IWGRP | stat.S_IWOTH


def name_of(account):
    """The name of an account, or its number."""
    try:
        return pwd.getpwuid(account).pw_name
    except KeyError:
        return f"number {account}"


def refuse(path, reason, hint):
    """Stop before anything is written."""
    raise OSError(f"{path} {reason}\nhint: {hint}")


def check_way(path, trusted):
    """Refuse a folder that another account could replace."""
    while path != os.path.dirname(path):
        path = os.path.dirname(path)
        status = os.stat(path)
        if status.st_uid not in trusted:
            refuse(path, f"belongs to {name_of(status.st_uid)}, who could replace the folder",
                   "choose a folder elsewhere, or run the sandbox as that account")
        if status.st_mode & stat.S_IWOTH and not status.st_mode & stat.S_ISVTX:
            refuse(path, "can be written by every account", "choose a folder elsewhere")


def check_entry(path, owners):
    """Refuse what another account created or may change, and every link."""
    status = os.lstat(path)
    if status.st_uid not in owners:
        refuse(path, f"belongs to {name_of(status.st_uid)}",
               "choose a new folder, or run the sandbox as that account")
    if stat.S_ISLNK(status.st_mode) or stat.S_ISREG(status.st_mode) and status.st_nlink > 1:
        refuse(path, "is a link", "choose a new folder")
    if status.st_mode & WRITABLE:
        refuse(path, "can be written by other accounts", f"chmod go-w {path}")


def check(folder):
    """Refuse a folder that another account can change, directly or through a parent."""
    path, own = os.path.realpath(folder), os.geteuid()
    trusted = {own, os.stat(os.sep).st_uid}  # the owner of "/" can do everything anyway
    check_way(path, trusted)
    check_entry(path, {own})
    for name in os.listdir(path):
        check_entry(os.path.join(path, name), trusted)


def no_follow(path, flags):
    """An opener: for this account alone, and never through a link."""
    return os.open(path, flags | os.O_NOFOLLOW, 0o600)


def write(path, text):
    """Write a small file."""
    with open(path, "w", encoding="utf-8", opener=no_follow) as file:
        file.write(text)
