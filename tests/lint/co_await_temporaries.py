#!/usr/bin/python3
"""Finds aggregate temporaries and capturing lambdas written inside a co_await expression.

g++ 12 destroys them twice. They are named on the line before and moved in.
"""

import re
import sys

sys.dont_write_bytecode = True
from sources import ROOT, code_only, cpp_files, report  # noqa: E402

_CO_AWAIT = re.compile(r"(?<!operator )\bco_await\b")
_LAMBDA = re.compile(r"(?:^|[(,=\s{!&|?:])\[([^\[\]]*)\]\s*(?:<|\(|\{|mutable\b|->|noexcept\b)")
_BRACED = re.compile(r"(?:\b[A-Za-z_][\w:]*(?:<[^<>;]*>)?|[(,])\s*\{")
_OPENERS = {"(": ")", "[": "]", "{": "}"}


def expression_after(code, start):
    """The text from `start` to the end of the expression: a separator at its own depth."""
    depth = []
    for index in range(start, len(code)):
        character = code[index]
        if character in _OPENERS:
            depth.append(_OPENERS[character])
        elif character in ")]}":
            if not depth:
                return code[start:index]
            depth.pop()
        elif character == ";" and not depth:
            return code[start:index]
        elif character == "," and not depth:
            return code[start:index]
    return code[start:]


def without_lambda_bodies(expression):
    """What stands inside the body of a lambda is evaluated elsewhere."""
    kept = []
    index = 0
    for match in _LAMBDA.finditer(expression):
        if match.start() < index:
            continue
        brace = expression.find("{", match.end() - 1)
        if brace < 0:
            continue
        kept.append(expression[index:brace])
        depth = 0
        index = brace
        while index < len(expression):
            depth += {"{": 1, "}": -1}.get(expression[index], 0)
            index += 1
            if depth == 0:
                break
    return "".join(kept) + expression[index:]


def check(name, text):
    code = code_only(text)
    problems = []
    for match in _CO_AWAIT.finditer(code):
        expression = expression_after(code, match.end())
        where = f"{name}:{code.count(chr(10), 0, match.start()) + 1}: "
        if any(found.group(1).strip() for found in _LAMBDA.finditer(expression)):
            problems.append(where + "a capturing lambda inside a co_await expression")
        if _BRACED.search(without_lambda_bodies(expression)):
            problems.append(where + "a braced temporary inside a co_await expression")
    return problems


def main():
    problems = []
    for path in cpp_files():
        problems += check(path.relative_to(ROOT).as_posix(), path.read_text(encoding="utf-8"))
    return report(problems)


if __name__ == "__main__":
    sys.exit(main())
