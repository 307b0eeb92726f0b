"""What the demonstrations have in common: steps that are shown, carried out and checked."""

import shlex
import subprocess
import sys

BOLD, PLAIN = ("\x1b[1m", "\x1b[0m") if sys.stdout.isatty() else ("", "")


class Tour:
    """Runs commands in view of whoever watches. `environment` is theirs, `local` their folder."""

    def __init__(self, program, tree, local, environment):
        self.program = program
        self.tree = tree
        self.local = local
        self.environment = environment

    @staticmethod
    def say(text):
        print(f"\n{BOLD}{text}{PLAIN}", flush=True)

    def run(self, *arguments, expected=0, quiet=False):
        """Runs the program in view, and gives what it printed on standard output."""
        return self.shell("kestrowan " + shlex.join(arguments), [self.program, *arguments],
                          expected=expected, quiet=quiet)

    def shell(self, shown, command, expected=0, quiet=False, limit=120):
        """Runs any command, shown as `shown`, for at most `limit` seconds."""
        print("$ " + shown, flush=True)
        done = subprocess.run(command, env=self.environment, cwd=self.local, timeout=limit,
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, check=False)
        text = done.stdout.decode("utf-8", "backslashreplace")
        if not quiet:
            sys.stdout.write(text)
            sys.stdout.flush()
        self.check(done.returncode == expected,
                   f"the exit code is {done.returncode}, not {expected}")
        return text

    @staticmethod
    def check(truth, complaint):
        if not truth:
            sys.stdout.flush()
            sys.exit(f"demo: FAILED: {complaint}")

    @staticmethod
    def verified(text):
        print(f"  → checked: {text}", flush=True)
