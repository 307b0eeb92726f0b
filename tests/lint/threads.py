#!/usr/bin/python3
"""Finds threads that are not made by `startThread`, which lets no exception out of them."""

import re
import sys

sys.dont_write_bytecode = True
from sources import ROOT, code_only, cpp_files, report  # noqa: E402

_MADE = re.compile(r"\bstd::(?:thread|jthread)\s*[({]|\bstd::async\b|\bpthread_create\b")
# The transfer thread blocks signals as it starts, and its top is `noexcept` with guards of its own.
_MAY = {"src/platform/base/Threads.cpp", "src/platform/linux/CurlEngine.cpp"}


def check(name, text):
    code = code_only(text)
    return [f"{name}:{code.count(chr(10), 0, match.start()) + 1}: a thread not made by startThread"
            for match in _MADE.finditer(code)]


def main():
    problems = []
    for path in cpp_files(("src",)):
        name = path.relative_to(ROOT).as_posix()
        if name not in _MAY:
            problems += check(name, path.read_text(encoding="utf-8"))
    return report(problems)


if __name__ == "__main__":
    sys.exit(main())
