"""Writes the small files of the sandbox's folder, which are its account's alone."""

import os


def no_follow(path, flags):
    """An opener: for this account alone, and never through a link."""
    return os.open(path, flags | os.O_NOFOLLOW, 0o600)


def write(path, text):
    """Write a small file."""
    with open(path, "w", encoding="utf-8", opener=no_follow) as file:
        file.write(text)
