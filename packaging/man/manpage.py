"""Makes a program's manual page of its --help, and of those of its subcommands: options are described once, in the program.

manpage.py PROGRAM VERSION DATE SECTIONS PAGE: writes PAGE. SECTIONS is a file of roff whose first line is the name
and what the program is in a few words; the rest, what no help says, follows the options.
"""
import os
import pathlib
import re
import subprocess
import sys

COLUMN = 24  # Where no entry begins any more: the text of the one above goes on.


def roff(text: str) -> str:
    """Text as roff prints it unchanged."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return re.sub(r"^([.'])", r"\\&\1", text)


class Help:
    """What a program says of itself: description, usage, sections of entries, closing words."""

    def __init__(self, words: list[str]) -> None:
        text = subprocess.run([*words, "--help"], check=True, stdout=subprocess.PIPE, stdin=subprocess.DEVNULL, text=True,
                              env={**os.environ, "LC_ALL": "C"}).stdout
        head, usage, body = re.split(r"^Usage: (.*)\n", text, maxsplit=1, flags=re.M)
        self.description = " ".join(head.split())
        self.usage = usage.strip()
        self.sections: dict[str, list[list[str]]] = {}
        self.closing = ""
        section, entries = "", []
        for line in body.splitlines():
            stripped = line.strip()
            indent = len(line) - len(line.lstrip())
            if not stripped:
                continue
            if group := re.match(r"\[Option Group: .*\]", stripped):
                section, entries = group.group(), []  # What is said of it applies to entries that follow.
            elif indent <= 2 and re.match(r"[A-Z]\w*:$", stripped):
                section = stripped[:-1]
                entries = self.sections.setdefault(section, [])
            elif indent == 0:
                self.closing += stripped + " "
            elif section.startswith("["):
                continue
            elif indent >= COLUMN and entries:
                entries[-1][1] += " " + stripped
            else:
                # The text begins behind two spaces or, next to a long name, at its column; a longer name has a line of its own.
                name, _, said = stripped.partition("  ")
                column = COLUMN + 4
                if not said and stripped[column - 1:column] == " ":
                    name, said = stripped[:column - 1], stripped[column:]
                entries.append([name, said.strip()])


def entry_name(name: str) -> str:
    """-o,--output FILE as a manual page has it: names bold, what is to be replaced in italics."""
    name = re.sub(r"=/\S*", "", name)  # A default that says where this program lies.
    name = re.sub(r":(POSITIVE|NONNEGATIVE)\b", "", name)
    name, _, default = name.partition("=")
    words = name.split()
    if not words[0].startswith("-"):
        return f"\\fI{roff(words[0])}\\fR" + (" ..." if "..." in words else "")
    shown = ", ".join(f"\\fB{roff(option)}\\fR" for option in words[0].split(","))
    for word in words[1:]:
        if word not in ("REQUIRED", "..."):
            word, _, choice = word.partition(":{")
            shown += f" \\fI{roff(word)}\\fR" + (f", one of {roff(choice[:-1].replace(',', ', '))}" if choice else "")
    return shown + (f" (default: {roff(default)})" if default else "")


def options(help_text: Help, without: str = " ") -> list[str]:
    """Positionals, then options but the one that begins so."""
    lines = []
    for section in ("Positionals", "Options"):
        for name, said in help_text.sections.get(section, []):
            if not name.startswith(without):
                lines += [".TP", entry_name(name), roff(said)]
    return lines


def main() -> None:
    program, version, date, sections, page = sys.argv[1:]
    name, _, rest = pathlib.Path(sections).read_text().partition("\n")
    title = name.split(" ")[0]
    top = Help([program])
    lines = [f'.\\" Made of "{title} --help".',
             f'.TH {title.upper()} 1 "{date}" "{title} {version}" "User Commands"',
             ".SH NAME", roff(name),
             ".SH SYNOPSIS", f".B {roff(title)}", roff(top.usage.removeprefix(title).strip()),
             ".SH DESCRIPTION", roff(top.description),
             ".SH OPTIONS", *options(top)]
    commands = top.sections.get("Subcommands", [])
    if commands:
        lines.append(".SH COMMANDS")
    for command, _ in commands:
        sub = Help([program, command])
        lines += [f".SS {roff(sub.usage)}", roff(sub.description) + ".", *options(sub, "-h,")]
        if sub.closing:
            lines += [".PP", roff(sub.closing.strip())]
    pathlib.Path(page).write_text("\n".join(lines) + "\n" + rest)


main()
