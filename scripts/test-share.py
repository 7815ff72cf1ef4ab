#!/usr/bin/env python3
"""Prints how much of the project's code is tests: lines that are neither
blank nor comments, for C/C++ and over every language (C/C++, Python, shell,
CMake), from the files git knows.

Tests are everything under tests/ and fuzz/, and the harness that runs tests
(tools/winebox.py, tools/png.py, scripts/lint-differential.sh). The tools that
measure the tests rather than test the product (the fault catalogue
scripts/faults.py and this script) are counted as code, like the benchmarks; a
second line gives the shares with them counted as tests too.
"""
import os
import re
import subprocess
import sys

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
HARNESS = {"tools/winebox.py", "tools/png.py", "scripts/lint-differential.sh"}
MEASURING = {"scripts/faults.py", "scripts/test-share.py"}


def language(path):
    name = os.path.basename(path)
    if name.endswith((".cpp", ".h", ".c", ".cc", ".hpp")):
        return "C/C++"
    if name.endswith(".py"):
        return "Python"
    if name == "CMakeLists.txt" or name.endswith(".cmake"):
        return "CMake"
    if name.endswith(".sh"):
        return "shell"
    if "." not in name and path.startswith(("scripts/", ".ci/")):
        # A script without an extension: its first line names the language.
        with open(os.path.join(REPO, path), "rb") as f:
            first = f.readline()
        return "Python" if b"python" in first else "shell" if first.startswith(b"#!") else None
    return None


def counted_lines(path, lang):
    with open(os.path.join(REPO, path), encoding="utf-8", errors="replace") as f:
        text = f.read()
    if lang == "C/C++":
        text = re.sub(r"/\*.*?\*/", lambda m: "\n" * m.group(0).count("\n"), text, flags=re.S)
        lines = [re.sub(r"^\s*//.*$", "", line) for line in text.splitlines()]
    else:
        lines = [re.sub(r"^\s*#.*$", "", line) for line in text.splitlines()]
    return sum(1 for line in lines if line.strip())


def shares(totals):
    cpp_test = totals.get(("C/C++", True), 0)
    cpp_all = sum(v for (lang, _), v in totals.items() if lang == "C/C++")
    all_test = sum(v for (_, test), v in totals.items() if test)
    all_lines = sum(totals.values())
    return ("C/C++ %d of %d lines (%.1f %%); every language %d of %d lines (%.1f %%)"
            % (cpp_test, cpp_all, 100.0 * cpp_test / cpp_all, all_test, all_lines, 100.0 * all_test / all_lines))


def main():
    files = subprocess.run(["git", "-C", REPO, "ls-files"], stdout=subprocess.PIPE, check=True,
                           text=True).stdout.split()
    totals = {}  # (language, is_test) -> lines
    measuring = {}  # the same, with the measuring tools counted as tests
    for path in files:
        lang = language(path)
        if lang is None or not os.path.isfile(os.path.join(REPO, path)):
            continue
        test = path.startswith(("tests/", "fuzz/")) or path in HARNESS
        lines = counted_lines(path, lang)
        totals[(lang, test)] = totals.get((lang, test), 0) + lines
        key = (lang, test or path in MEASURING)
        measuring[key] = measuring.get(key, 0) + lines
    print("test share: " + shares(totals))
    print("  with the fault catalogue and this script as tests: " + shares(measuring))
    if "-v" in sys.argv:
        for (lang, test), lines in sorted(totals.items()):
            print("  %-7s %-5s %6d" % (lang, "tests" if test else "code", lines))
    return 0


if __name__ == "__main__":
    sys.exit(main())
