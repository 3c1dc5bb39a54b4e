#!/usr/bin/env python3
"""Doxygen input filter: reads the house's comments as documentation.

Our headers document a declaration with a plain comment directly above it: a block of `//`
lines in C++, a `/* */` block above a C function. Doxygen reads only `///` and `/** */`, so this
filter rewrites the comments in place, and every line keeps its number (the line numbers of
Doxygen's warnings are those of the header):

- a comment block directly followed by code documents that code;
- a comment directly followed by several declarations, without a blank line or a comment
  between them, documents each of them: the later ones get its text at the end of their line;
- the first comment of a file, when a blank line follows it, documents the file;
- every other comment stays a plain comment: a rule `/* ---- Title ---- */`, a note before a
  blank line. A file without a comment of its own is marked as documented on a line added at its
  end, so that its free functions, types and macros appear in the reference.

Named member groups would give the rules of a C header a heading each, but Doxygen does not
report an undocumented member of a documented group, so the filter makes none.

Usage: house_comments.py FILE (Doxygen's INPUT_FILTER); the result goes to stdout.
"""

import re
import sys

LINE_COMMENT = re.compile(r"^(\s*)//(?![/!])")
BLOCK_START = re.compile(r"^(\s*)/\*(?![*!])")
END_OF_RUN = re.compile(r"^\s*(public:|private:|protected:|}|#endif)")


def comment_end(lines, start):
    """The index after the comment block that starts at `start`, or None if none starts there.
    A block is a run of `//` lines or one `/* */` comment that its last line ends with."""
    if LINE_COMMENT.match(lines[start]):
        end = start
        while end < len(lines) and LINE_COMMENT.match(lines[end]):
            end += 1
        return end
    if not BLOCK_START.match(lines[start]):
        return None
    end, text = start, lines[start][lines[start].index("/*") + 2:]
    while "*/" not in text:
        end += 1
        if end == len(lines):
            return None
        text = lines[end]
    return end + 1 if lines[end].rstrip().endswith("*/") else None


def is_code(line):
    stripped = line.strip()
    return stripped != "" and not stripped.startswith(("//", "/*")) and not END_OF_RUN.match(line)


def declaration_run(lines, start):
    """The index after the code that starts at `start` (up to a blank line, a comment or the end
    of a scope) and the indexes of the lines that end its declarations (in `;`); none when it
    opens a scope of its own, as a class or a struct does."""
    end = start
    while end < len(lines) and is_code(lines[end]):
        end += 1
    code = [re.sub(r"//.*$", "", line).rstrip() for line in lines[start:end]]
    if sum(line.count("{") - line.count("}") for line in code) != 0:
        return end, []
    return end, [start + offset for offset, line in enumerate(code) if line.endswith(";")]


def comment_text(lines, start, end):
    """The words of the comment block at `start`..`end`, on one line."""
    words = []
    for line in lines[start:end]:
        line = re.sub(r"^\s*(?://+|/\*+|\*(?!/))", "", line)
        words.append(line.replace("*/", ""))
    return " ".join(" ".join(words).split())


def document(lines, start, end, command=""):
    """Turns the comment block at `start`..`end` into a documentation block."""
    if LINE_COMMENT.match(lines[start]):
        for index in range(start, end):
            lines[index] = LINE_COMMENT.sub(r"\1///", lines[index], count=1)
        if command:
            lines[start] = lines[start].replace("///", "/// " + command, 1)
    else:
        opening = "/**" + (" " + command if command else "")
        lines[start] = BLOCK_START.sub(lambda match: match.group(1) + opening, lines[start],
                                       count=1)


def filter_text(text, path):
    lines = text.split("\n")
    seen_code = file_documented = False
    index = 0
    while index < len(lines):
        end = comment_end(lines, index)
        if end is None:
            stripped = lines[index].strip()
            seen_code = seen_code or (stripped != "" and not stripped.startswith("#"))
            index += 1
            continue
        follows = lines[end] if end < len(lines) else ""
        if not seen_code and not file_documented and follows.strip() == "":
            document(lines, index, end, "\\file " + path)
            file_documented = True
        elif is_code(follows):
            text = comment_text(lines, index, end)
            document(lines, index, end)
            run_end, declaration_ends = declaration_run(lines, end)
            if not follows.lstrip().startswith("#"):
                for later in declaration_ends[1:]:
                    lines[later] += f" /**< {text} */"
            seen_code = True
            end = run_end
        index = end
    if not file_documented:
        lines.append("/** \\file " + path + " */")
    return "\n".join(lines)


def main():
    with open(sys.argv[1], encoding="utf-8") as source:
        sys.stdout.write(filter_text(source.read(), sys.argv[1]))


if __name__ == "__main__":
    main()
