#!/usr/bin/env python3
"""Doxygen input filter: reads the house's comments as documentation.

Our headers document a declaration with a plain comment directly above it: a block of `//`
lines in C++, a `/* */` block above a C function. Doxygen reads only `///` and `/** */`, so this
filter rewrites the comments in place, never adding or removing a line (the line numbers of
Doxygen's warnings stay those of the header):

- a comment block directly followed by code documents that code;
- a comment directly followed by several declarations, without a blank line or a comment
  between them, documents each of them (an unnamed member group, with DISTRIBUTE_GROUP_DOC);
- a rule `/* ---- Title ---- */` starts a named group of the declarations up to the next rule,
  and a comment right below the rule, before a blank line, describes the group; groups do not
  nest, so inside one a comment documents only the declaration below it;
- the first comment of a file, when a blank line follows it, documents the file;
- every other comment stays a plain comment. Every file is marked as documented, so that its
  free functions, types and macros appear in the reference.

Usage: house_comments.py FILE (Doxygen's INPUT_FILTER); the result goes to stdout.
"""

import re
import sys

LINE_COMMENT = re.compile(r"^(\s*)//(?![/!])")
BLOCK_START = re.compile(r"^(\s*)/\*(?![*!])")
RULE = re.compile(r"^/\* -{2,} (.*?) -{2,} \*/\s*$")
END_OF_RUN = re.compile(r"^\s*(public:|private:|protected:|}|#endif)")
SCOPE_END = re.compile(r"^}")
OPEN, CLOSE = "/**@{*/", "/**@}*/"


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
    return line.strip() != "" and not END_OF_RUN.match(line)


def declaration_run(lines, start):
    """The index after the code that starts at `start` (up to a blank line, a comment or the end
    of a scope) and how many declarations (lines ending in `;`) it holds; none when it opens a
    scope of its own, as a class or a struct does."""
    end = start
    while end < len(lines) and is_code(lines[end]) and comment_end(lines, end) is None:
        end += 1
    code = [re.sub(r"//.*$", "", line).rstrip() for line in lines[start:end]]
    if sum(line.count("{") - line.count("}") for line in code) != 0:
        return end, 0
    return end, sum(1 for line in code if line.endswith(";"))


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


def prefix(line, text):
    return re.sub(r"^(\s*)", lambda match: match.group(1) + text + " ", line, count=1)


class Filter:
    def __init__(self, text, path):
        self.lines = text.split("\n")
        self.path = path
        self.seen_code = False
        self.file_documented = False
        self.group_open = False
        self.last_code = None  # the last line of code inside the open named group

    def close_group(self):
        if self.group_open and self.last_code is not None:
            self.lines[self.last_code] += " " + CLOSE
        elif self.group_open:
            self.lines[self.group_start] += " " + CLOSE
        self.group_open = False
        self.last_code = None

    def open_group(self, index):
        """A rule at `index`: names a group, which a comment directly below it describes."""
        self.close_group()
        title = RULE.match(self.lines[index]).group(1)
        after = index + 1
        intro_end = comment_end(self.lines, after) if after < len(self.lines) else None
        follows = self.lines[intro_end] if intro_end is not None and intro_end < len(
            self.lines) else ""
        if intro_end is not None and follows.strip() == "":
            # The rule opens the block, the comment below it becomes the block's text.
            self.lines[index] = f"/** \\name {title}"
            if LINE_COMMENT.match(self.lines[after]):
                for line in range(after, intro_end):
                    self.lines[line] = LINE_COMMENT.sub(r"\1 *", self.lines[line], count=1)
                self.lines[intro_end - 1] += " */ " + OPEN
            else:
                self.lines[after] = BLOCK_START.sub(r"\1  ", self.lines[after], count=1)
                self.lines[intro_end - 1] += " " + OPEN
            next_index = intro_end
        else:
            self.lines[index] = f"/** \\name {title} */ {OPEN}"
            next_index = after
        self.group_open = True
        self.group_start = next_index - 1
        return next_index

    def comment(self, index, end):
        lines = self.lines
        follows = lines[end] if end < len(lines) else ""
        if not self.seen_code and not self.file_documented and follows.strip() == "":
            document(lines, index, end, "\\file " + self.path)
            self.file_documented = True
            return end
        if not is_code(follows):
            return end
        document(lines, index, end)
        run_end, declarations = declaration_run(lines, end)
        if declarations > 1 and not self.group_open and not follows.lstrip().startswith("#"):
            lines[index] = prefix(lines[index], OPEN)
            lines[run_end - 1] += " " + CLOSE
        self.note_code(end, run_end)
        return max(end, run_end)

    def note_code(self, start, end):
        for index in range(start, end):
            stripped = self.lines[index].strip()
            if stripped and not stripped.startswith("#"):
                self.seen_code = True
                self.last_code = index if self.group_open else self.last_code

    def run(self):
        index = 0
        while index < len(self.lines):
            line = self.lines[index]
            if RULE.match(line):
                index = self.open_group(index)
                continue
            end = comment_end(self.lines, index)
            if end is not None:
                index = self.comment(index, end)
                continue
            if SCOPE_END.match(line):
                self.close_group()
            if not line.strip().startswith(("#pragma", "#ifndef", "#define")):
                self.note_code(index, index + 1)
            index += 1
        self.close_group()
        if not self.file_documented:
            self.lines.append("/** \\file " + self.path + " */")
        return "\n".join(self.lines)


def filter_text(text, path):
    return Filter(text, path).run()


def main():
    with open(sys.argv[1], encoding="utf-8") as source:
        sys.stdout.write(filter_text(source.read(), sys.argv[1]))


if __name__ == "__main__":
    main()
