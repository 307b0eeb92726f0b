#!/usr/bin/python3
"""Compiles every header of src/ alone, with the compiler named by $CXX (g++ when unset)."""

import concurrent.futures
import os
import subprocess
import sys

sys.dont_write_bytecode = True
from sources import ROOT, cpp_files, report  # noqa: E402

# Headers that need the development files of these libraries, by the folder they lie in.
LIBRARIES = {"mount": ("fuse3",), "replica": ("sqlite3",)}
# Written for another platform's compiler.
FOREIGN = {"macos"}


def library_flags(layers):
    wanted = [library for layer in sorted(layers) for library in LIBRARIES.get(layer, ())]
    if not wanted:
        return []
    found = subprocess.run(["pkg-config", "--cflags", *wanted], capture_output=True, text=True,
                           check=True)
    return found.stdout.split()


def compile_alone(header, flags):
    # The header is included, not compiled itself: #pragma once in a main file is a warning.
    name = header.relative_to(ROOT / "src").as_posix()
    result = subprocess.run(
        [os.environ.get("CXX", "g++"), "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Werror",
         "-Wno-missing-field-initializers", *flags, "-I", str(ROOT / "src"), "-x", "c++", "-"],
        input=f'#include "{name}"\n', capture_output=True, text=True, check=False)
    if result.returncode == 0:
        return None
    return f"src/{name} does not compile alone:\n{result.stderr[:2000]}"


def main():
    headers = [path for path in cpp_files(("src",)) if path.suffix == ".h"]
    headers = [path for path in headers
               if path.relative_to(ROOT / "src").parts[0] not in FOREIGN]
    if not headers:
        return report(["no headers were found"])
    flags = library_flags({path.relative_to(ROOT / "src").parts[0] for path in headers})
    with concurrent.futures.ThreadPoolExecutor(max_workers=os.cpu_count()) as pool:
        problems = [problem for problem in pool.map(lambda path: compile_alone(path, flags), headers)
                    if problem]
    print(f"{len(headers)} headers")
    return report(problems)


if __name__ == "__main__":
    sys.exit(main())
