#!/usr/bin/env python3
"""Makes the manual pages and the completion of bash and zsh from what the programs print with --dump-options.

    manuals.py DIRECTORY DUMP.json...

Writes man/PROGRAM.1, bash/PROGRAM and zsh/_PROGRAM into DIRECTORY.
"""

import json
import os
import re
import sys

# In the value of an option, these words of --help name a file.
FILE_VALUES = re.compile(r"FILE|\.ini|DIRECTORY")


def walk(command, path=()):
    """The command and all its subcommands, each with the words that call it."""
    path += (command["name"],)
    yield path, command
    for below in command["commands"]:
        yield from walk(below, path)


def takes_program(command):
    return "-- PROGRAM" in command["footer"]


# ---- manual pages ----


def roff(text):
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\n".join("\\&" + line if line[:1] in (".", "'") else line for line in text.split("\n"))


def paragraph(text):
    return roff(text if text.endswith((".", ":", ")")) else text + ".")


def usage(path, command):
    words = [f"\\fB{roff(' '.join(path))}\\fR"]
    if any(option["names"] for option in command["options"]):
        words.append("[\\fIOPTIONS\\fR]")
    words += [f"[\\fI{roff(option['value'] or option['positional'])}\\fR]" + ("..." if option["repeats"] else "")
              for option in command["options"] if option["positional"]]
    if command["commands"]:
        words.append("\\fISUBCOMMAND\\fR")
    if takes_program(command):
        words.append("\\-\\- \\fIPROGRAM\\fR [\\fIARGUMENTS\\fR]")
    return " ".join(words)


def option_entry(option):
    names = ", ".join(f"\\fB{roff(name)}\\fR" for name in option["names"])
    value = f"\\fI{roff(option['value'])}\\fR" if option["value"] else ""
    lines = [".TP", " ".join(part for part in (names, value) if part), paragraph(option["help"])]
    if option["range"]:
        lines.append(f"It takes {roff(option['range'])}.")
    if option["default"]:
        lines.append(f"The default is {roff(option['default'])}.")
    if option["conditions"]:
        lines.append(paragraph(option["conditions"][0].upper() + option["conditions"][1:]))
    return lines


def footer_parts(command):
    """The last lines of --help, without the usage, which the synopsis shows: notes, and the table of exit statuses."""
    notes, statuses, in_table = [], [], False
    for line in command["footer"].split("\n"):
        status = re.match(r"  (\w+) +(\S.*)", line)
        if in_table and status:
            statuses.append(status.groups())
            continue
        in_table = line == "Exit status:"
        if line.strip() and not in_table and not line.startswith("Run it as:"):
            notes.append(line)
    return notes, statuses


def status_lines(tree):
    """EXIT STATUS: one table for the program, and one for each subcommand."""
    lines = [".SH EXIT STATUS"]
    for path, command in walk(tree):
        statuses = footer_parts(command)[1]
        if statuses and command is not tree:
            lines.append(f".SS {roff(' '.join(path))}")
        for status, meaning in statuses:
            lines += [".TP 6", f"\\fB{status}\\fR", paragraph(meaning)]
    return lines if len(lines) > 1 else []


def manual(tree):
    name = tree["name"]
    summary = tree["description"].rstrip(".")
    lines = [f'.TH {roff(name).upper()} 1 "" "VexoZceMd {tree["version"]}" "User Commands"',
             ".nh",  # a name of an option is searched as it is typed
             ".SH NAME",
             f"{roff(name)} \\- {roff(summary[0].lower() + summary[1:])}", ".SH SYNOPSIS"]
    commands = [(path, command) for path, command in walk(tree) if not command["commands"]]
    for number, (path, command) in enumerate(commands):
        lines += ([".br"] if number else []) + [usage(path, command)]
    notes = []
    lines += [".SH DESCRIPTION", paragraph(tree["description"]), ".SH OPTIONS"]
    for path, command in walk(tree):
        if command is not tree:
            lines += [f".SH {roff(' '.join(path)).upper()}", paragraph(command["description"])]
        for option in command["options"]:
            if command is tree or not {"--help", "--version"} & set(option["names"]):  # said once for all
                lines += option_entry(option)
        notes += footer_parts(command)[0]
    if notes:
        lines.append(".SH NOTES")
        lines += [line for text in dict.fromkeys(notes) for line in (roff(text), ".PP")][:-1]
    lines += status_lines(tree)
    others = [other for other in ("vexo", "vexo-cardtest", "vexo-simcard") if other != name]
    lines += [".SH SEE ALSO", ", ".join(f"\\fB{roff(other)}\\fR(1)" for other in others)]
    return "\n".join(lines) + "\n"


# ---- completion ----


def words_of(command):
    names = [name for option in command["options"] for name in option["names"]]
    return names + [below["name"] for below in command["commands"]] + (["--"] if takes_program(command) else [])


def value_options(tree, of_files):
    return sorted({name for _, command in walk(tree) for option in command["options"] for name in option["names"]
                   if option["value"] and bool(FILE_VALUES.search(option["value"])) == of_files})


BASH = """# Completion of {name} for bash. Made from the options of {name} itself.
{function}() {{
    local word path={name} current=${{COMP_WORDS[COMP_CWORD]}} previous=${{COMP_WORDS[COMP_CWORD - 1]}}
    COMPREPLY=()
    local n
    for ((n = 1; n < COMP_CWORD; ++n)); do
        word=${{COMP_WORDS[n]}}
        if [ "$word" = -- ]; then
            if ((COMP_CWORD == n + 1)); then
                mapfile -t COMPREPLY < <(compgen -c -- "$current")
            else
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
            fi
            return
        fi
        case "$path $word" in
{paths}
        esac
    done
    case $previous in
{files}{values}    esac
    case $path in
{words}
    esac
}}
complete -o filenames -F {function} {name}
"""


def bash(tree):
    name = tree["name"]
    paths = [" ".join(path) for path, _ in walk(tree)]
    files, values = value_options(tree, True), value_options(tree, False)
    # A program without subcommands still needs a pattern; this one never matches.
    patterns = [f"            '{path}') path='{path}' ;;" for path in paths[1:]] or ["            '') ;;"]
    reply = 'mapfile -t COMPREPLY < <(compgen {} -- "$current")'
    words = []
    for path, command in walk(tree):
        files_too = " -f" if any(option["positional"] for option in command["options"]) else ""
        words.append(f"        '{' '.join(path)}') " + reply.format(f"-W '{' '.join(words_of(command))}'{files_too}") + " ;;")
    return BASH.format(
        name=name, function="_" + name.replace("-", "_"), paths="\n".join(patterns), words="\n".join(words),
        files=f"        {' | '.join(files)}) {reply.format('-f')} && return ;;\n" if files else "",
        values=f"        {' | '.join(values)}) return ;;\n" if values else "")


def zsh_text(text):
    return re.sub(r"([\[\]:\\])", r"\\\1", text).replace("'", "'\\''")


def zsh_option(option):
    action = "_files" if FILE_VALUES.search(option["value"]) else " "
    value = f":{zsh_text(option['value'])}:{action}" if option["value"] else ""
    star = "*" if option["repeats"] else ""
    if option["positional"]:
        return [f"'{star or ':'}:{zsh_text(option['value'] or option['positional'])}:{action}'"]
    return [f"'{star}{name}[{zsh_text(option['help'])}]{value}'" for name in option["names"]]


def zsh(tree):
    name = tree["name"]
    lines = [f"#compdef {name}", f"# Completion of {name} for zsh. Made from the options of {name} itself.", ""]
    for path, command in walk(tree):
        specs = [spec for option in command["options"] for spec in zsh_option(option)]
        lines.append(f"_{'_'.join(path).replace('-', '_')}() {{")
        if command["commands"]:
            described = " ".join(f"'{below['name']}:{zsh_text(below['description'])}'" for below in command["commands"])
            lines += ["    local line state", f"    local -a commands=({described})",
                      "    _arguments -C " + " ".join(specs) + " '1:subcommand:->command' '*::argument:->rest'",
                      "    case $state in", "        command) _describe subcommand commands ;;",
                      f"        rest) _{'_'.join(path).replace('-', '_')}_$line[1] ;;", "    esac"]
        elif takes_program(command):
            lines.append("    _arguments " + " ".join(specs) + " '*:::program:_normal'")
        else:
            lines.append("    _arguments " + " ".join(specs))
        lines += ["}", ""]
    lines.append(f"_{name.replace('-', '_')} \"$@\"")
    return "\n".join(lines) + "\n"


def write(directory, kind, name, text):
    os.makedirs(os.path.join(directory, kind), exist_ok=True)
    with open(os.path.join(directory, kind, name), "w", encoding="utf-8") as file:
        file.write(text)


def main():
    directory, *dumps = sys.argv[1:]
    for dump in dumps:
        with open(dump, encoding="utf-8") as file:
            tree = json.load(file)
        write(directory, "man", tree["name"] + ".1", manual(tree))
        write(directory, "bash", tree["name"], bash(tree))
        write(directory, "zsh", "_" + tree["name"], zsh(tree))


if __name__ == "__main__":
    main()
