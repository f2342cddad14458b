#!/usr/bin/python3
"""Checks that every #include "folder/..." under src/ keeps to the allowed
layering (src/layers.txt): calls go downwards only.

    check_layers.py [SRC_DIR]      exit 0 when every edge is allowed; else
                                   prints each forbidden include and exits 1
"""
import os
import re
import sys

INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"', re.M)


def load_table(src):
    table = {}
    with open(os.path.join(src, "layers.txt")) as f:
        for line in f:
            line = line.split("#", 1)[0].strip()
            if not line:
                continue
            folder, _, allowed = line.partition(":")
            table[folder.strip()] = set(allowed.split())
    return table


def forbidden_includes(src):
    """(file, line number, included path) of every include the table does
    not allow, and of every file in a folder the table does not know."""
    table = load_table(src)
    bad = []
    for folder in sorted(os.listdir(src)):
        path = os.path.join(src, folder)
        if not os.path.isdir(path):
            continue
        for root, _, files in os.walk(path):
            for name in sorted(files):
                if not name.endswith((".cpp", ".h", ".c")):
                    continue
                full = os.path.join(root, name)
                rel = os.path.relpath(full, src)
                with open(full, encoding="utf-8", errors="replace") as f:
                    text = f.read()
                if folder not in table:
                    bad.append((rel, 0, "(folder %r is not in layers.txt)" % folder))
                    continue
                for m in INCLUDE.finditer(text):
                    target = m.group(1)
                    if "/" not in target:
                        continue  # a file of the same folder
                    to = target.split("/", 1)[0]
                    if to != folder and to not in table[folder]:
                        lineno = text.count("\n", 0, m.start()) + 1
                        bad.append((rel, lineno, target))
    return bad


def main(argv):
    src = argv[1] if len(argv) > 1 else os.path.join(
        os.path.dirname(os.path.abspath(__file__)), "..", "..", "src")
    bad = forbidden_includes(os.path.abspath(src))
    for rel, lineno, target in bad:
        print("%s:%d: includes %s, which its layer may not use" % (rel, lineno, target))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
