"""Tests of the Doxygen input filter: house_comments_test.py DOC_DIR [unittest options]."""

import sys
import unittest

sys.path.insert(0, sys.argv.pop(1))
from house_comments import filter_text  # noqa: E402

# name, header lines, {index: the line the filter gives}; every other line stays as it was.
CASES = [
    ("a // block above a declaration documents it",
     ["#pragma once", "int a;", "", "// Adds.", "// Twice.", "int add(int);"],
     {3: "/// Adds.", 4: "/// Twice."}),
    ("a comment before a blank line stays plain",
     ["int a;", "// Nothing below.", "", "int b;"], {}),
    ("a /* */ block above a C function documents it",
     ["int a;", "/* Frees", " * it. */", "void f(void);"], {1: "/** Frees"}),
    ("the first comment, before a blank line, documents the file",
     ["#ifndef X_H", "#define X_H", "/*", " * Rules.", " */", "", "int a;"],
     {2: "/** \\file src/x.h"}),
    ("a // first comment documents the file too",
     ["#pragma once", "// The records.", "", "int a;"], {1: "/// \\file src/x.h The records."}),
    ("a comment above several declarations documents each",
     ["class C {", "public:", "    // Moves.", "    C(C&&);", "    C& operator=(C&&);",
      "", "};"],
     {2: "    /// Moves.", 4: "    C& operator=(C&&); /**< Moves. */"}),
    ("a declaration over several lines is one",
     ["int a;", "// Reads.", "int read(int a,", "         int b);", "", "int c;"],
     {1: "/// Reads."}),
    ("a struct's comment documents the struct, not a group",
     ["int a;", "// A record.", "struct R {", "    // Its id.", "    int id;", "};"],
     {1: "/// A record.", 3: "    /// Its id."}),
    ("comments above access specifiers, braces and at the end of a line stay plain",
     ["class C {", "    int a;  // trailing", "    // Below is private.", "private:",
      "    int b;", "    // End.", "};"], {}),
    ("documentation blocks and code after a comment on its line are left alone",
     ["int a;", "/// Already.", "int b;", "/* x */ int c;", "int d;"], {}),
    ("rules and the notes below them stay plain",
     ["int a;", "/* ---- Files ---- */", "/* About files. */", "", "/* Opens. */",
      "int open(void);"], {4: "/** Opens. */"}),
]


class FilterTest(unittest.TestCase):
    def test_rewrites_comments_in_place(self):
        for name, lines, changed in CASES:
            with self.subTest(name):
                result = filter_text("\n".join(lines), "src/x.h").split("\n")
                documented = any("\\file" in line for line in result[:len(lines)])
                # Only the lines named change, and a file without a comment of its own is
                # marked as documented on a line of its own at the end.
                self.assertEqual(len(result), len(lines) + (0 if documented else 1))
                for index, line in enumerate(lines):
                    self.assertEqual(result[index], changed.get(index, line), f"line {index}")
                if not documented:
                    self.assertEqual(result[-1], "/** \\file src/x.h */")


if __name__ == "__main__":
    unittest.main()
