#!/usr/bin/env python3
"""Compares what programs say with --help with their manual pages and their completions for bash, zsh and fish.

    check_texts.py FOLDER PROGRAM...

FOLDER is the one of the build in which the texts were made. Each command and each option of each program has to be in
all four, and nothing that does not exist may be offered. bash is asked as it is typed to, so is fish where there is one;
the text for zsh is read, and compiled where there is a zsh.
"""
import gzip
import re
import shutil
import subprocess
import sys
from pathlib import Path

complaints = []


def check(condition, complaint):
    if not condition:
        complaints.append(complaint)


def output_of(*command, text=None):
    run = subprocess.run(command, capture_output=True, text=True, input=text)
    check(run.returncode == 0, f"{' '.join(map(str, command[:3]))}...: failed: {run.stderr}")
    return run.stdout


def commands_of(program, path=()):
    """Path of each command, with its own options and its subcommands, as its help has them."""
    text = output_of(program, *path, "--help")
    subcommands = re.search(r"^Subcommands:\n((?:  .*\n)*)", text, re.M)
    names = re.findall(r"^  ([\w-]+)", subcommands[1], re.M) if subcommands else []
    found = {path: (set(re.findall(r"^  (?:-\w,)?(--[\w-]+)", text, re.M)), set(names))}
    for name in names:
        found.update(commands_of(program, (*path, name)))
    return found


def check_manual(name, folder, commands):
    page = next(folder.glob(f"{name}.[1-8].gz"), None)
    if page is None:
        complaints.append(f"{name}: there is no manual page")
        return
    source = gzip.decompress(page.read_bytes()).decode().replace("\\-", "-").replace("\\fB", "").replace("\\fR", "")
    sections = dict(re.findall(rf"^\.SS {name} ([a-z -]*[a-z])[^\n]*\n(.*?)(?=^\.S[SH]|\Z)", source, re.M | re.S))
    check(set(sections) == {" ".join(path) for path, (_, below) in commands.items() if path and not below},
          f"{page.name}: has sections for {sorted(sections)}")
    for path, (options, below) in commands.items():
        place = sections.get(" ".join(path), source) if path and not below else source
        for option in options - ({"--help"} if path else set()):
            check(re.search(rf"(?<![\w-]){option}(?![\w-])", place), f"{page.name}: {' '.join(path)}: no {option}")


def offered_by_bash(name, completion, words):
    quoted = " ".join(f"'{word}'" for word in [name, *words])
    script = f"source {completion}; COMP_WORDS=({quoted}); COMP_CWORD={len(words)}; _{name}; printf '%s\\n' ${{COMPREPLY[@]}}"
    return set(output_of("bash", "-c", script).split())


def offered_by_fish(name, completion, words):
    script = f'source {completion}; complete -C"{name} {" ".join(words)}"'
    return {line.split("\t")[0] for line in output_of("fish", "--no-config", "-c", script).splitlines()}


def check_asked(shell, offered, name, completion, commands):
    top_options = commands[()][0]
    for path, (options, below) in commands.items():
        shown = f"{shell}: {name} {' '.join(path)}"
        check(offered(name, completion, [*path, "--"]) == options | top_options, f"{shown}: other options are offered")
        if below:
            words = {word for word in offered(name, completion, [*path, ""]) if not word.startswith("-")}
            check(words == below, f"{shown}: {sorted(words)} are offered")


def check_zsh(name, completion, commands):
    functions = dict(re.findall(r"^(_\w+)\(\)\n\{\n(.*?)^\}", completion.read_text(), re.M | re.S))
    top_options = commands[()][0]
    for path, (options, below) in commands.items():
        body = functions.get("_" + "_".join([name, *path]), "")
        check(set(re.findall(r"'(--[\w-]+)\[", body)) == options | top_options,
              f"zsh: {name} {' '.join(path)}: other options are offered")
        check(set(re.findall(r"^ {12}'([\w-]+):", body, re.M)) == below,
              f"zsh: {name} {' '.join(path)}: other commands are offered")
    if shutil.which("zsh"):
        output_of("zsh", "-n", completion)


def main():
    folder = Path(sys.argv[1])
    for program in sys.argv[2:]:
        name = Path(program).name
        commands = commands_of(program)
        check(len(commands) > 3, f"{name}: its help shows no commands")
        check_manual(name, folder, commands)
        check_asked("bash", offered_by_bash, name, folder / "bash" / name, commands)
        if shutil.which("fish"):
            check_asked("fish", offered_by_fish, name, folder / "fish" / f"{name}.fish", commands)
        check_zsh(name, folder / "zsh" / f"_{name}", commands)
        print(f"{name}: {len(commands) - 1} commands, {sum(len(options) for options, _ in commands.values())} options")
    print("\n".join(complaints))
    sys.exit(1 if complaints else 0)


main()
