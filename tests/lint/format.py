#!/usr/bin/python3
"""Checks the layout of the C++ files against .clang-format."""

import shutil
import subprocess
import sys

sys.dont_write_bytecode = True
from sources import ROOT, cpp_files  # noqa: E402

SKIPPED = 77


def main():
    formatter = shutil.which("clang-format-14")
    if not formatter:
        print("skipped: clang-format-14 is not installed")
        return SKIPPED
    files = [str(path) for path in cpp_files()]
    if not files:
        print("no files were found")
        return 1
    result = subprocess.run([formatter, "--dry-run", "-Werror", "--style=file", *files], cwd=ROOT,
                            capture_output=True, text=True, check=False)
    print(result.stderr[-20000:] or f"{len(files)} files")
    return 1 if result.returncode else 0


if __name__ == "__main__":
    sys.exit(main())
