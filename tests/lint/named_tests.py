#!/usr/bin/python3
"""Every test that docs/SECURITY.md names exists, and every claim there names one."""

import re
import sys

sys.dont_write_bytecode = True
import sources  # noqa: E402

DOCUMENT = "docs/SECURITY.md"
_UNIT = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+),\s*(\w+)\s*\)", re.MULTILINE)
_NAME = re.compile(r"`([^`]+)`")


def unit_tests(texts):
    """The names of the tests in these C++ sources, as Suite.Name."""
    return {f"{suite}.{name}" for text in texts for suite, name in _UNIT.findall(text)}


def exists(name, unit, read):
    """Whether there is a test of that name. `read` gives the text of a file of tests/, or None."""
    if "/" in name:
        path, _, function = name.partition("::")
        text = read(path + ".py")
        if text is None:
            return False
        wanted = rf"{re.escape(function)}\b" if function else "test_"
        return bool(re.search("^def " + wanted, text, re.MULTILINE))
    if name.endswith("*"):
        return any(one.startswith(name[:-1]) for one in unit)
    return name in unit


def check(text, unit, read):
    """The problems of the document `text`."""
    problems = []
    for number, line in enumerate(text.splitlines(), 1):
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if not line.startswith("|") or cells[0] == "claim" or set(cells[0]) == {"-"}:
            continue
        names = _NAME.findall(cells[-1])
        if len(cells) != 2 or not names:
            problems.append(f"{DOCUMENT}:{number}: a claim without a test")
        problems += [f"{DOCUMENT}:{number}: there is no test {name}" for name in names
                     if not exists(name, unit, read)]
    return problems


def _read(path):
    file = sources.ROOT / "tests" / path
    return file.read_text(encoding="utf-8") if file.is_file() else None


def main():
    unit = unit_tests(path.read_text(encoding="utf-8") for path in sources.cpp_files(("tests",)))
    text = (sources.ROOT / DOCUMENT).read_text(encoding="utf-8")
    return sources.report(check(text, unit, _read))


if __name__ == "__main__":
    sys.exit(main())
