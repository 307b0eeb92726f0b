#!/usr/bin/python3
"""Writes the manual page and the shells' completions from what the command says of itself.

    make_documents.py KESTROWAN DIRECTORY

KESTROWAN is the program, whose options are asked for; DIRECTORY gets kestrowan.1.gz, kestrowan.bash
and _kestrowan. The same program gives the same bytes.
"""

import gzip
import json
import subprocess
import sys
from pathlib import Path

FILES = {"DIR": "directory", "MOUNTPOINT": "directory", "FILE": "file"}
# Commands whose PATH is one of the file system; other commands mean the server's.
LOCAL_PATHS = {"evict", "pin", "unpin", "retry", "discard", "history",
               "restore"}

DESCRIPTION = """\
The host application serves the user's storage on this machine, over HTTPS on 127.0.0.1, and says in
the bridge file how to reach it. This command works with that storage: directly, keeping nothing, or
as a folder (\\fBmount\\fR) in which any program can work.

A mount keeps what was listed and read, and every change until the server has it. Without the server
it goes on with what is here; changes are sent when the server is back, also after the program or the
machine died. When both sides have changed a file, the server's version keeps the name, and the
version from here lies beside it as "name (conflict DATE TIME HOST).ext". The attribute
user.kestrowan.conflict of both names the other one. What leaves a file here, replaced or removed, stays
in a history for a week (\\fBhistory\\fR, \\fBrestore\\fR).

What a mount keeps is the state of a domain, and belongs to one container. Two containers have two
domains without more ado. A state is never used with another container: what waits in it would be sent
to another server.
"""

LOCAL_NAMES = (".~lock.*#", ".*.sw?", "4913", ".goutputstream-*", ".nfs*", ".fuse_hidden*", "._*",
               ".DS_Store", "~$*", "*.part", "*.crdownload")

ENVIRONMENT = (
    ("KESTROWAN_CONTAINER", "the directory with the bridge file, unless \\fB--container\\fR names it"),
    ("XDG_DATA_HOME", "where that directory is looked for otherwise; ~/.local/share when unset"),
    ("XDG_STATE_HOME", "where mounts keep their state; ~/.local/state when unset"),
    ("XDG_RUNTIME_DIR", "where mounts have their control sockets; with the state when unset"),
    ("NOTIFY_SOCKET", "set by a service manager that wants to know when a mount is ready"),
    ("Others", "are taken away before a library could read them, but for HOME, PATH, TMPDIR and TZ"),
)

FILES_USED = (
    ("fp-webdav.json", "the bridge file, in the container directory. It and the directory must "
     "belong to the user, the file may be no symbolic link, and only the user may write to either. "
     "Every folder on the way must belong to the user or to root, and others may not write in it "
     "unless it has the sticky bit. Otherwise no command uses the file."),
    ("$XDG_STATE_HOME/kestrowan/DOMAIN/", "what a mount keeps: the replica, the downloaded files, "
     "the file \"log\" of a mount in the background"),
    ("$XDG_STATE_HOME/kestrowan/DOMAIN/container", "which container the state was made for; it is "
     "used with no other one, unless \\fB--move-here\\fR says that the storage has moved"),
    ("$XDG_CONFIG_HOME/kestrowan/service.conf", "MOUNTPOINT= and OPTIONS= for the service "
     "kestrowan.service, which \"systemctl --user enable --now kestrowan\" switches on"),
)


def described(program):
    done = subprocess.run([program, "__describe"], check=True, capture_output=True)
    return json.loads(done.stdout)


def options(form):
    return [option for option in form["options"] if not option["positional"]]


def operands(form):
    return [option for option in form["options"] if option["positional"]]


# ---- manual --------------------------------------------------------------------------------------


def roff(text):
    """`text` as it is, for the formatter."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("~", "\\(ti")
    return "\n".join("\\&" + line if line.startswith(".") else line for line in text.split("\n"))


def prose(text):
    """The same for text with the formatter's own marks for bold and plain."""
    parts = text.split("\\f")
    return roff(parts[0]) + "".join("\\f" + part[0] + roff(part[1:]) for part in parts[1:])


def operand_text(option):
    name = f"\\fI{roff(option['value'])}\\fR"
    return name if option["required"] else f"[{name}]"


def synopsis(name, form):
    words = [f"\\fB{roff(name)}\\fR"]
    if any("--help" not in option["names"] for option in options(form)):
        words.append("[\\fIOPTION\\fR]\\&...")
    return " ".join(words + [operand_text(option) for option in operands(form)])


def option_lines(form):
    lines = []
    for option in options(form) + operands(form):
        if "--help" in option["names"] and form["name"] != "kestrowan":
            continue
        value = f" \\fI{roff(option['value'])}\\fR" if option["value"] and option["names"] else ""
        term = ", ".join(f"\\fB{roff(name)}\\fR{value}" for name in option["names"])
        text = roff(option["text"])
        if option["default"]:
            text += f" (default: {roff(option['default'])})"
        lines += [".TP", term or f"\\fI{roff(option['value'])}\\fR", text]
    return lines


def command_lines(command):
    lines = [f".SS {synopsis('kestrowan ' + command['name'], command)}",
             roff(command["summary"][0].upper() + command["summary"][1:]) + "."]
    lines += option_lines(command)
    heading, _, examples = command["footer"].partition(":\n")
    if examples:
        lines += [".PP", heading + ":", ".PP", ".nf", ".RS", roff(examples.replace("  ", "")), ".RE",
                  ".fi"]
    return lines


def definitions(pairs):
    lines = []
    for term, text in pairs:
        lines += [".TP", f"\\fB{roff(term)}\\fR", prose(text)]
    return lines


def manual(form):
    lines = [f'.TH KESTROWAN 1 "" "kestrowan {form["version"]}" "User Commands"', ".SH NAME",
             "kestrowan \\- work with the storage that the host application serves", ".SH SYNOPSIS",
             "\\fBkestrowan\\fR [\\fIOPTION\\fR]\\&... \\fICOMMAND\\fR [\\fIARGUMENT\\fR]\\&...",
             ".SH DESCRIPTION", prose(DESCRIPTION).replace("\n\n", "\n.PP\n").rstrip(),
             ".SH OPTIONS"]
    lines += option_lines(form)
    lines.append(".SH COMMANDS")
    for command in form["commands"]:
        lines += command_lines(command)
    lines += [".SH NAMES THAT STAY HERE",
              "Files with these names are lock, swap and temporary files of programs. A mount keeps "
              "them here and never sends them:",
              ".PP", ".RS", ", ".join(roff(name) for name in LOCAL_NAMES) + ".", ".RE", ".PP",
              "Renamed to another name, a file that stayed here is sent. \\&.Trash and "
              "\\&.Trash\\-* cannot be made, so that file managers offer to delete for good. With "
              "\\fB\\-\\-no\\-local\\-names\\fR all of these are names like any other.",
              ".SH EXIT STATUS"]
    for code in form["exitCodes"]:
        lines += [".TP", f"\\fB{code['code']}\\fR", roff(code["text"])]
    lines += [".SH ENVIRONMENT", *definitions(ENVIRONMENT), ".SH FILES", *definitions(FILES_USED),
              ".SH SEE ALSO", "\\fBfusermount3\\fR(1), \\fBsystemctl\\fR(1)"]
    return "\n".join(lines) + "\n"


# ---- completions ---------------------------------------------------------------------------------


def choices(option):
    """The values that an option takes, when they are told."""
    value = option["value"] or ""
    return value.split("|") if "|" in value else []


def kind_of_files(command, option):
    if option["value"] == "PATH" and command in LOCAL_PATHS:
        return "file"
    return FILES.get(option["value"])


def quoted(text):
    return "'" + text.replace("'", "'\\''") + "'"


BASH = """\
# Completion of kestrowan for bash.

_kestrowan() {{
  local current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD-1]}}
  local command= word i operands=0
  COMPREPLY=()
  # The "=" between an option and its value is a word of its own.
  for ((i = 1; i < COMP_CWORD; i++)); do
    word=${{COMP_WORDS[i]}}
    case $command:$word in
      {flags_with_value})
        [[ ${{COMP_WORDS[i+1]}} == "=" ]] && ((i++))
        ((i++)) ;;
      *:-*) ;;
      :*) command=$word ;;
      *) ((operands++)) ;;
    esac
  done
  if [[ $current == "=" ]]; then
    current=
  elif [[ $previous == "=" ]]; then
    previous=${{COMP_WORDS[COMP_CWORD-2]}}
  fi
  case $command:$previous in
{values}
  esac
  case $command in
{words}
  esac
}}
complete -F _kestrowan kestrowan
"""


def bash_words(words):
    return f"COMPREPLY=($(compgen -W '{' '.join(words)}' -- \"$current\"))"


def bash_files(kind):
    flag = "-d" if kind == "directory" else "-f"
    return ["compopt -o filenames", f"mapfile -t COMPREPLY < <(compgen {flag} -- \"$current\")"]


def flags(form):
    return [name for option in options(form) for name in option["names"]]


def bash_patterns(name, command):
    """For each option that takes a value, and that option: what "COMMAND:OPTION" looks like."""
    for option in options(command):
        if option["value"]:
            yield " | ".join(f"{name or '*'}:{flag}" for flag in option["names"]), option


def bash_values(name, command):
    """What follows an option that takes a value."""
    for pattern, option in bash_patterns(name, command):
        kind = kind_of_files(name, option)
        body = ([bash_words(choices(option))] if choices(option)
                else bash_files(kind) if kind else [])
        yield from (f"    {pattern})", *(f"      {line}" for line in body), "      return ;;")


def bash_arguments(name, command, form):
    """What can stand elsewhere, once the command is known."""
    words = flags(command) + [flag for flag in flags(form) if flag not in flags(command)]
    body = []
    for position, option in enumerate(operands(command)):
        if kind := kind_of_files(name, option):
            body += [f"  {position})", *(f"    {line}" for line in bash_files(kind)), "    ;;"]
    if body:
        body = ["case $operands in", *body, "esac"]
    if not name:
        body = [bash_words([each["name"] for each in form["commands"]])]
    yield from (f"    {name or quoted('')})", "      if [[ $current == -* ]]; then",
                f"        {bash_words(words)}")
    if body:
        yield from ("      else", *(f"        {line}" for line in body))
    yield "      fi ;;"


def bash(form):
    commands = [("", form)] + [(command["name"], command) for command in form["commands"]]
    return BASH.format(
        flags_with_value=" | ".join(pattern for name, command in commands
                                    for pattern, _ in bash_patterns(name, command)),
        values="\n".join(line for name, command in commands for line in bash_values(name, command)),
        words="\n".join(line for name, command in commands
                        for line in bash_arguments(name, command, form)))


def zsh_text(text):
    return text.replace("[", "(").replace("]", ")").replace(":", "\\:")


def zsh_action(command, option):
    if choices(option):
        return f"({' '.join(choices(option))})"
    # No matches, rather than a message in the place of the options that match.
    return {"directory": "_directories", "file": "_files"}.get(kind_of_files(command, option), "()")


def zsh_options(name, form, without=()):
    for option in options(form):
        for flag in option["names"]:
            if flag in without:
                continue
            equals = "=" if option["value"] and flag.startswith("--") else ""
            argument = f"{flag}{equals}[{zsh_text(option['text'])}]"
            if option["value"]:
                argument += f":{zsh_text(option['value'])}:{zsh_action(name, option)}"
            yield quoted(argument)


def zsh_operands(name, form):
    for position, option in enumerate(operands(form), 1):
        colons = ":" if option["required"] else "::"
        yield quoted(f"{position}{colons}{option['value']}:{zsh_action(name, option)}")


def zsh(form):
    lines = ["#compdef kestrowan", "", "_kestrowan_commands() {", "  local -a commands=("]
    for command in form["commands"]:
        lines.append(f"    {quoted(command['name'] + ':' + command['summary'])}")
    lines += ["  )", "  _describe command commands", "}", "", "_kestrowan() {",
              "  local curcontext=$curcontext state line", "  local -A opt_args",
              "  _arguments -C \\"]
    lines += [f"    {argument} \\" for argument in zsh_options("", form)]
    lines += ["    '1:command:_kestrowan_commands' \\", "    '*::argument:->arguments'",
              "  [[ $state == arguments ]] || return", "  case $line[1] in"]
    for command in form["commands"]:
        lines.append(f"    {command['name']})")
        # The options before a command can be said after it as well.
        arguments = [*zsh_options(command["name"], command),
                     *zsh_options("", form, without=flags(command)),
                     *zsh_operands(command["name"], command)]
        lines.append("      _arguments \\")
        lines += [f"        {argument} \\" for argument in arguments[:-1]]
        lines.append(f"        {arguments[-1]} ;;")
    lines += ["  esac", "}", "", '_kestrowan "$@"', ""]
    return "\n".join(lines)


def main():
    if len(sys.argv) != 3:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    form = described(sys.argv[1])
    directory = Path(sys.argv[2])
    directory.mkdir(parents=True, exist_ok=True)
    page = gzip.compress(manual(form).encode("utf-8"), 9, mtime=0)
    (directory / "kestrowan.1.gz").write_bytes(page)
    (directory / "kestrowan.bash").write_text(bash(form), encoding="utf-8")
    (directory / "_kestrowan").write_text(zsh(form), encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
