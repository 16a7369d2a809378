#!/usr/bin/env python3
"""Prints docs/messages.md from the knowledge base of xbsactl explain."""
import json
import os

BASE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "xbsactl", "explain", "messages.json")
HEAD = """# Return codes and messages

Made by `tools/messages.py`; `xbsactl explain TEXT` finds a row from a number, part of a message, a step
of a check, or a whole line of a log. `...` is what differs from case to case. After a failure
the call returns 3, unless the row has another code.
"""
TABLE = "| text | what it means | usual cause | what to do |\n|---|---|---|---|"

print(HEAD, end="")
with open(BASE, encoding="utf-8") as file:
    for section in json.load(file):
        print(f"\n## {section['title']}\n\n{TABLE}")
        for row in section["rows"]:
            texts = "<br>".join(f"`{text}`" for text in row["texts"])
            print(f"| {texts} | {row['meaning']} | {row['cause']} | {row['remedy'].replace('{ports}', '')} |")
