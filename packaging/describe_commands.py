#!/usr/bin/env python3
"""Makes shell completions and the command part of a manual page from what a program says with --help.

    describe_commands.py bash|zsh|fish PROGRAM OUTPUT
    describe_commands.py man PROGRAM OUTPUT TEMPLATE

The program's commands, their options and arguments are read at build time: nobody has to write them down again, and
none can be forgotten. TEMPLATE is an scdoc page; its line %COMMANDS% is replaced by a section for each command, and
%OPTIONS% by the options before the command.
"""
import re
import subprocess
import sys
from pathlib import Path

COLUMN = 30  # where explanations begin; that of a longer left column stands in the next line


class Option:
    def __init__(self, names, value, help_text):
        self.names, self.value, self.help = names, value, help_text

    @property
    def long(self):
        return self.names[-1]

    @property
    def is_file(self):
        return self.value is not None and bool(re.search(r"\b(file|folder|output|dir|payload|root|daemon|loader|ks)\b", self.value + self.long, re.I))


class Command:
    """One command with its options; the program itself is the command with an empty path."""

    def __init__(self, path, help_text):
        self.path, self.help = path, help_text
        self.options, self.arguments, self.commands = [], [], []

    def all(self):
        yield self
        for command in self.commands:
            yield from command.all()


def sections_of(text):
    """Entries of each section of a help text as pairs of left and right column."""
    sections, entries = {}, None
    for line in text.splitlines():
        if re.match(r"\S", line):
            entries = sections.setdefault(line.rstrip(":"), []) if line.endswith(":") else None
        elif entries and line.startswith(" " * COLUMN):
            entries[-1] = ("".join(entries[-1]).strip(), line.strip())
        elif entries is not None and line.startswith("  "):
            entries.append((line[:COLUMN], line[COLUMN:]))
    return {title: [(left.strip(), right.strip()) for left, right in found] for title, found in sections.items()}


def value_of(words):
    """SLOT of "SLOT:1..232 REQUIRED"; what the parser calls TEXT or UINT has its meaning behind the colon."""
    kind = words.replace(" REQUIRED", "").replace(" ...", "").split("=")[0]
    name, _, limits = kind.partition(":")
    if name in ("TEXT", "UINT"):
        return limits.upper() if limits.isalpha() else "TEXT" if name == "TEXT" else "NUMBER"
    return name


def read_command(program, path, help_text):
    command = Command(path, help_text)
    help_run = subprocess.run([program, *path, "--help"], capture_output=True, text=True, check=True)
    sections = sections_of(help_run.stdout)
    for left, right in sections.get("Options", []):
        names, _, value = left.partition(" ")
        command.options.append(Option(names.split(","), value_of(value) if value else None, right))
    for left, right in sections.get("Positionals", []):
        command.arguments.append((left.split()[0], "REQUIRED" in left, "..." in left, right))
    for name, right in sections.get("Subcommands", []):
        command.commands.append(read_command(program, [*path, name], right))
    return command


def bash_completion(name, top):
    cases = []
    for command in top.all():
        words = [c.path[-1] for c in command.commands]
        words += [name for option in (*command.options, *(top.options if command.path else [])) for name in option.names
                  if name.startswith("--")]
        cases.append(f'    "{" ".join(command.path)}") words="{" ".join(dict.fromkeys(words))}" ;;')
    paths = [" ".join(c.path) for c in top.all() if c.path]
    files = sorted({o.long for c in top.all() for o in c.options if o.is_file})
    values = sorted({o.long for c in top.all() for o in c.options if o.value is not None and not o.is_file})
    lines = [
        f"# bash completion for {name}, made from its --help.",
        f"_{name}()",
        "{",
        '    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} path="" word words="" i',
        "    COMPREPLY=()",
        "    for ((i = 1; i < COMP_CWORD; i++)); do",
        '        word="${path:+$path }${COMP_WORDS[i]}"',
        '        case "$word" in',
        f'        {" | ".join(chr(34) + p + chr(34) for p in paths)}) path=$word ;;',
        "        esac",
        "    done",
        '    case "$previous" in',
    ]
    if files:
        lines.append(f"    {' | '.join(files)})")
        lines += ['        mapfile -t COMPREPLY < <(compgen -f -- "$current")', "        compopt -o filenames 2>/dev/null",
                  "        return ;;"]
    if values:
        lines.append(f"    {' | '.join(values)}) return ;;")
    lines += ["    esac", '    case "$path" in', *cases, "    esac",
              '    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")', "}",
              f"complete -o default -F _{name} {name}"]
    return "\n".join(lines) + "\n"


def zsh_text(text):
    return re.sub(r"([\[\]:\\'])", lambda found: "'\\''" if found[1] == "'" else "\\" + found[1], text)


def zsh_function(name, path):
    return "_" + "_".join([name, *path])


def zsh_completion(name, top):
    lines = [f"#compdef {name}", f"# zsh completion for {name}, made from its --help.", ""]
    for command in top.all():
        lines += [f"{zsh_function(name, command.path)}()", "{", "    local state line", "    _arguments -C \\"]
        for option in (*command.options, *([o for o in top.options if o.long != "--help"] if command.path else [])):
            action = "" if option.value is None else f":{option.value}:" + ("_files" if option.is_file else "")
            for one in option.names:
                lines.append(f"        '{one}[{zsh_text(option.help)}]{action}' \\")
        if not command.commands:
            lines += ["        '*:argument:_files'", "}", ""]
            continue
        lines += ["        '1:command:->command' \\", "        '*::argument:->argument'", '    case "$state" in',
                  "    command)", "        local -a commands=("]
        lines += [f"            '{c.path[-1]}:{zsh_text(c.help)}'" for c in command.commands]
        lines += ["        )", "        _describe command commands ;;", "    argument)", '        case "${line[1]}" in']
        lines += [f"        {c.path[-1]}) {zsh_function(name, c.path)} ;;" for c in command.commands]
        lines += ["        esac ;;", "    esac", "}", ""]
    lines.append(f'{zsh_function(name, [])} "$@"')
    return "\n".join(lines) + "\n"


def fish_text(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish_completion(name, top):
    lines = [f"# fish completion for {name}, made from its --help."]
    for command in top.all():
        seen = " ".join(f"__fish_seen_subcommand_from {word};" + " and" for word in command.path)
        condition = seen.removesuffix("; and")
        at_command = f"{seen} not __fish_seen_subcommand_from {' '.join(c.path[-1] for c in command.commands)}".strip()
        at_this = f" -n '{condition}'" if condition else ""
        for sub in command.commands:
            lines.append(f"complete -c {name} -f -n '{at_command}' -a {sub.path[-1]} -d {fish_text(sub.help)}")
        for option in command.options:
            names = "".join(f" -l {o[2:]}" if o.startswith("--") else f" -s {o[1:]}" for o in option.names)
            value = "" if option.value is None else " -r -F" if option.is_file else " -x"
            lines.append(f"complete -c {name}{at_this}{names}{value} -d {fish_text(option.help)}")
    return "\n".join(lines) + "\n"


def man_text(text):
    return re.sub(r"([\\_*<>\[\]])", r"\\\1", text)


def man_option(option):
    names = ", ".join(f"*{man_text(one)}*" for one in option.names)
    value = f" _{man_text(option.value)}_" if option.value else ""
    return f"{names}{value}\n\t{man_text(option.help)}.\n"


def man_commands(name, top):
    parts = []
    for command in top.all():
        if not command.path or command.commands:
            continue
        arguments = []
        for argument, required, many, _ in command.arguments:
            shown = argument + ("..." if many else "")
            arguments.append(shown if required else f"[{shown}]")
        parts.append(f"## {name} {' '.join(command.path)} {' '.join(arguments)}".rstrip() + "\n")
        parts.append(f"{man_text(command.help)}.\n")
        parts += [f"_{man_text(argument)}_\n\t{man_text(text)}.\n" for argument, _, _, text in command.arguments]
        parts += [man_option(o) for o in command.options if o.long != "--help"]
    return "\n".join(parts)


def man_page(name, top, template):
    text = template.read_text()
    text = text.replace("%OPTIONS%", "\n".join(man_option(option) for option in top.options).rstrip("\n"))
    return text.replace("%COMMANDS%", man_commands(name, top).rstrip("\n"))


def main():
    form, program, output = sys.argv[1:4]
    name = Path(program).name
    top = read_command(program, [], "")
    makers = {"bash": bash_completion, "zsh": zsh_completion, "fish": fish_completion}
    text = man_page(name, top, Path(sys.argv[4])) if form == "man" else makers[form](name, top)
    Path(output).write_text(text)


main()
