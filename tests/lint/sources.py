"""Finding the project's C++ files, and reading them without comments and literals."""

import re
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
FOLDERS = ("src", "tests", "fuzz", "bench")
SUFFIXES = {".h", ".cpp", ".mm"}

_TOKENS = re.compile(
    r'//[^\n]*'
    r'|/\*.*?\*/'
    r'|R"(?P<mark>[^()\\\s]{0,16})\(.*?\)(?P=mark)"'
    r'|"(?:\\.|[^"\\\n])*"'
    r"|(?<![0-9a-zA-Z_])'(?:\\.|[^'\\\n])+'",
    re.DOTALL)
_INCLUDE = re.compile(r'^[ \t]*#[ \t]*(?:include|import)[ \t]*(?:<([^>]+)>|"([^"]+)")', re.MULTILINE)


def cpp_files(folders=FOLDERS):
    found = []
    for folder in folders:
        found += [path for path in (ROOT / folder).rglob("*")
                  if path.suffix in SUFFIXES and path.is_file()]
    return sorted(found)


def code_only(text):
    """`text` with comments and the insides of literals blanked; every offset and line stays."""
    def blank(match):
        token = match.group()
        blanks = re.sub(r"[^\n]", " ", token)
        if token[0] in "\"'":
            return token[0] + blanks[1:-1] + token[-1]
        return blanks
    return _TOKENS.sub(blank, text)


def without_comments(text):
    """`text` with comments blanked and literals kept."""
    def blank(match):
        token = match.group()
        return re.sub(r"[^\n]", " ", token) if token.startswith(("//", "/*")) else token
    return _TOKENS.sub(blank, text)


def includes(text):
    """(line number, header, in angle brackets) of each include directive."""
    for match in _INCLUDE.finditer(without_comments(text)):
        line = text.count("\n", 0, match.start()) + 1
        yield line, match.group(1) or match.group(2), match.group(1) is not None


def report(problems):
    """Prints the problems; the exit code of the check."""
    for problem in problems:
        print(problem)
    if problems:
        print(f"{len(problems)} problem(s)")
    return 1 if problems else 0
