#!/usr/bin/python3
"""Adds up what test runs have left behind.

    test_report.py add TOTALS NAME CTEST_XML [RESULTS_DIR]
        Adds the results in a file of `ctest --output-junit` to the file TOTALS. A test of ctest with
        a file of its own below RESULTS_DIR (NAME.xml) counts as the tests in that file.
    test_report.py fail TOTALS NAME
        Adds one failure: a step that could not even run its tests.
    test_report.py show TOTALS
        Prints the failures, the skipped tests with their reasons, and as its last line
        "N passed, N failed, N skipped". Exit code: 1 when something failed or nothing passed.
"""

import json
import re
import sys
import xml.etree.ElementTree as ElementTree
from pathlib import Path


def load(path):
    path = Path(path)
    if not path.exists():
        return {"passed": 0, "failed": [], "skipped": []}
    return json.loads(path.read_text(encoding="utf-8"))


def save(path, totals):
    Path(path).write_text(json.dumps(totals), encoding="utf-8")


def one_line(text):
    return " ".join(text.split())


def gtest_reason(output):
    """What GTEST_SKIP() said: the lines after "FILE:LINE: Skipped"."""
    found = re.search(r":\d+: Skipped\n(.*?)\n*\[\s+SKIPPED", output, re.DOTALL)
    if found and found.group(1).strip():
        return one_line(found.group(1))
    found = re.search(r"^skipped: (.*)$", output, re.MULTILINE)
    return one_line(found.group(1)) if found else ""


def pytest_cases(path):
    """(passed, failed names, skipped [name, reason]) of one pytest file; None when unreadable."""
    try:
        root = ElementTree.parse(path).getroot()
    except (OSError, ElementTree.ParseError):
        return None
    passed, failed, skipped = 0, [], []
    for case in root.iter("testcase"):
        name = f"{case.get('classname', '').split('.')[-1]}::{case.get('name')}"
        skip = case.find("skipped")
        if case.find("failure") is not None or case.find("error") is not None:
            failed.append(name)
        elif skip is not None:
            skipped.append([name, one_line(skip.get("message") or "")])
        else:
            passed += 1
    return passed, failed, skipped


def add(totals, step, file, results=None):
    try:
        cases = list(ElementTree.parse(file).getroot().iter("testcase"))
    except (OSError, ElementTree.ParseError) as error:
        totals["failed"].append(f"{step}: no results ({error})")
        return
    if not cases:
        totals["failed"].append(f"{step}: no tests were run")
    for case in cases:
        name = f"{step}: {case.get('name')}"
        status = case.get("status")
        inner = None
        if results:
            inner = pytest_cases(Path(results) / f"{case.get('name')}.xml")
        if inner:
            totals["passed"] += inner[0]
            totals["failed"] += [f"{step}: {failure}" for failure in inner[1]]
            totals["skipped"] += [[f"{step}: {test}", reason] for test, reason in inner[2]]
            if status == "fail" and not inner[1]:
                totals["failed"].append(name)
        elif status == "run":
            totals["passed"] += 1
        elif status == "fail":
            totals["failed"].append(name)
        else:
            output = case.findtext("system-out") or ""
            skip = case.find("skipped")
            reason = gtest_reason(output) or (skip.get("message") if skip is not None else "")
            totals["skipped"].append([name, reason or status or ""])


def show(totals):
    for title, lines in (
            ("Failed:", totals["failed"]),
            ("Skipped:", [f"{name}: {reason}" for name, reason in totals["skipped"]])):
        if lines:
            print(title)
            for line in lines:
                print("  " + line)
    print(f"{totals['passed']} passed, {len(totals['failed'])} failed, "
          f"{len(totals['skipped'])} skipped")
    return 1 if totals["failed"] or not totals["passed"] else 0


def main(arguments):
    match arguments:
        case ["add", path, name, file, *results] if len(results) <= 1:
            totals = load(path)
            add(totals, name, file, *results)
            save(path, totals)
            return 0
        case ["fail", path, name]:
            totals = load(path)
            totals["failed"].append(name)
            save(path, totals)
            return 0
        case ["show", path]:
            return show(load(path))
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
