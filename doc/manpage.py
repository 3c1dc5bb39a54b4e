#!/usr/bin/env python3
"""Writes the manual page of korvane-log (section 1) from the tool's own help.

Usage: manpage.py TOOL OUTPUT.1 [OUTPUT.1.gz]

The page is made when the tool is built: the top-level --help gives the description and the list
of verbs, each `VERB --help` a verb's synopsis, arguments, options and notes, and each action of
a verb (`meta FILE set --help`) the same for the action. A verb or option added to the tool is in
the next page without anyone writing it. Only the exit codes are written here, as main.cpp
defines them. The .gz copy, for installation, has no time stamp, so builds are reproducible.
"""

import gzip
import re
import subprocess
import sys
from dataclasses import dataclass, field

SECTION_HEADING = re.compile(r"^([A-Z][A-Za-z ]*):$")
VERB_SECTIONS = ("Subcommands", "Verbs")
EXIT_CODES = (
    ("0", "Success."),
    ("1", "The work failed: a file is missing, is no log file or is damaged, an output exists, "
          "a write failed, or `check` found damage. One line on stderr names the file and the "
          "reason."),
    ("2", "The command line was wrong: an unknown verb or option, a missing or malformed "
          "argument."),
)


@dataclass
class Help:
    """One --help text, taken apart."""
    description: str = ""
    usage: str = ""
    sections: dict = field(default_factory=dict)  # heading -> [(name, description)]
    footer: str = ""


def description_column(lines):
    """The column where the descriptions of entries begin: CLI11 aligns them to the one of the
    help flag, which every help lists."""
    for line in lines:
        match = re.match(r"^  -h,--help(\s+)\S", line)
        if match:
            return match.end(1)
    return 30


def parse_help(text):
    lines = text.rstrip("\n").split("\n")
    column = description_column(lines)
    help_text = Help()
    section = None
    before_usage = []
    footer = []
    for line in lines:
        if not help_text.usage:
            if line.startswith("Usage: "):
                help_text.usage = line[len("Usage: "):].strip()
                help_text.description = " ".join(part for part in before_usage if part)
            else:
                before_usage.append(line.strip())
            continue
        heading = SECTION_HEADING.match(line)
        if heading:
            section = help_text.sections.setdefault(heading.group(1), [])
        elif line.strip() == "":
            section = None
        elif section is not None and line.startswith(" " * column):
            name, description = section[-1]
            section[-1] = (name, (description + " " + line.strip()).strip())
        elif section is not None and line.startswith("  "):
            name, description = line[:column].strip(), line[column:].strip()
            if len(line[:column].rstrip()) >= column - 1 and line[column - 1:column] != " ":
                # A long name: the description follows on a line of its own.
                name, description = line.strip(), ""
            section.append((name, description))
        else:
            footer.append(line.strip())
    help_text.footer = " ".join(footer)
    return help_text


def run_help(tool, arguments):
    result = subprocess.run([tool, *arguments, "--help"], capture_output=True, text=True,
                            check=False)
    if result.returncode != 0:
        raise SystemExit(f"{tool} {' '.join(arguments)} --help failed: {result.stderr.strip()}")
    return parse_help(result.stdout)


def roff_text(text):
    """Text for a roff text line: backslashes and minus signs escaped, no request at the start."""
    text = text.replace("\\", "\\e").replace("-", "\\-")
    return "\\&" + text if text.startswith((".", "'")) else text


def option_term(name):
    """`-n,--lines INT` as bold option names and an italic argument."""
    flags, _, argument = name.partition(" ")
    term = ", ".join(f"\\fB{roff_text(flag)}\\fR" for flag in flags.split(","))
    return term + (f" \\fI{roff_text(argument)}\\fR" if argument else "")


def argument_term(name):
    """`FILE TEXT REQUIRED`: the argument's name in italics and its kind."""
    words = name.split()
    kind = " ".join(word.lower() for word in words[1:] if word != "REQUIRED")
    required = "REQUIRED" in words[1:]
    term = f"\\fI{roff_text(words[0])}\\fR"
    notes = [note for note in (kind, "required" if required else "optional") if note]
    return term + " (" + ", ".join(notes) + ")"


def describe(lines, help_text, top_footer):
    """The body of a verb or action: description, arguments, options, its own notes."""
    lines.append(roff_text(help_text.description))
    for name, description in help_text.sections.get("Positionals", []):
        lines += [".TP", argument_term(name), roff_text(description)]
    for name, description in help_text.sections.get("Options", []):
        if name.startswith("-h,--help"):
            continue
        lines += [".TP", option_term(name), roff_text(description)]
    if help_text.footer and help_text.footer != top_footer:
        lines += [".PP", roff_text(help_text.footer)]


def verbs_of(help_text):
    for heading in VERB_SECTIONS:
        if heading in help_text.sections:
            return [name for name, _ in help_text.sections[heading]]
    return []


def required_positionals(help_text):
    return [name.split()[0] for name, _ in help_text.sections.get("Positionals", [])
            if "REQUIRED" in name.split()[1:]]


def version_of(tool):
    result = subprocess.run([tool, "--version"], capture_output=True, text=True, check=False)
    return result.stdout.strip()


def make_page(tool):
    top = run_help(tool, [])
    name = top.usage.split()[0]
    summary = top.description.rstrip(".")
    summary = summary[:1].lower() + summary[1:]
    lines = [
        f'.TH {roff_text(name.upper())} 1 "" "{roff_text(name)} {roff_text(version_of(tool))}" '
        '"User Commands"',
        ".SH NAME", f"{roff_text(name)} \\- {roff_text(summary)}",
        ".SH SYNOPSIS",
        f"\\fB{roff_text(name)}\\fR \\fIVERB\\fR [\\fIOPTIONS\\fR] [\\fIARGUMENTS\\fR]",
        ".br",
        f"\\fB{roff_text(name)}\\fR \\fB\\-\\-help\\fR | \\fB\\-\\-version\\fR",
        ".SH DESCRIPTION", roff_text(top.description), ".PP", roff_text(top.footer),
        ".SH OPTIONS",
    ]
    for option, description in top.sections.get("Options", []):
        lines += [".TP", option_term(option), roff_text(description)]
    lines.append(".SH VERBS")
    for verb in verbs_of(top):
        verb_help = run_help(tool, [verb])
        usage = verb_help.usage.replace(" [VERB]", "")
        lines += [f".SS {roff_text(verb)}", f"\\fB{roff_text(usage)}\\fR", ".br"]
        describe(lines, verb_help, top.footer)
        for action in verbs_of(verb_help):
            action_help = run_help(tool, [verb, *required_positionals(verb_help), action])
            tail = action_help.usage.split(f" {verb} {action}", 1)[-1]
            lines += [".PP", f"\\fB{roff_text(usage + ' ' + action + tail)}\\fR", ".RS"]
            describe(lines, action_help, top.footer)
            lines.append(".RE")
    lines.append(".SH EXIT STATUS")
    for code, meaning in EXIT_CODES:
        lines += [".TP", f"\\fB{code}\\fR", roff_text(meaning.replace("`", ""))]
    return "\n".join(lines) + "\n"


def main():
    if len(sys.argv) not in (3, 4):
        raise SystemExit(__doc__)
    page = make_page(sys.argv[1])
    with open(sys.argv[2], "w", encoding="utf-8") as output:
        output.write(page)
    if len(sys.argv) == 4:
        with open(sys.argv[3], "wb") as output:
            output.write(gzip.compress(page.encode(), compresslevel=9, mtime=0))


if __name__ == "__main__":
    main()
