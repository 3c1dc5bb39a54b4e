"""Tests of `make docs`'s gate: reference_test.py DOXYGEN DOXYFILE DOC_DIR [unittest options].

Runs doc/build_reference.py with the project's Doxyfile over small headers in the house's style,
staged as `cmake --install` would stage them, and checks what it accepts and how it names a
declaration that lacks a comment."""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

DOXYGEN, DOXYFILE, DOC_DIR = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)

WIDGET = """#pragma once

namespace Demo {

// A widget of the test.
class Widget {
public:
    // Made empty; moved, never copied.
    Widget();
    Widget(Widget&&) noexcept;
    Widget(const Widget&) = delete;

    // The size, in cells.
    int size() const;
@EXTRA@
};

}  // namespace Demo
"""

FLAT = """#ifndef DEMO_FLAT_H
#define DEMO_FLAT_H

/*
 * The flat interface of the test.
 */

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Widgets --------------------------------------------------------------------------- */
/* Every widget is a handle. */

/* Makes a widget. */
void* DemoWidget_Create(void);
@EXTRA@
#ifdef __cplusplus
}
#endif

#endif
"""

# header, the text put in for @EXTRA@, what the gate must say about it (None: nothing)
CASES = [
    ("Widget.h", "", None),
    ("Widget.h", "\n    void resize(int cells);",
     "the function resize(int cells) of class Demo::Widget has no comment above it"),
    ("Widget.h", "\n    // Grows and shrinks.\n    void grow();\n    void shrink();", None),
    ("Flat.h", "\n/* Frees a widget. */\nvoid DemoWidget_Destroy(void* widget);", None),
    ("Flat.h", "\nvoid DemoWidget_Destroy(void* widget);",
     "the function DemoWidget_Destroy(void *widget) of file Flat.h has no comment above it"),
    ("Flat.h", "\n/* Shows and hides. */\nvoid DemoWidget_Show(void);\nvoid DemoWidget_Hide(void);",
     None),
    ("Flat.h", "\n/* Shows. */\nvoid DemoWidget_Show(void);\n\nvoid DemoWidget_Hide(void);",
     "the function DemoWidget_Hide(void) of file Flat.h has no comment above it"),
]


def build(folder, name, extra):
    """Stages one header as an installed one beside its source, and runs the gate on it."""
    text = (WIDGET if name == "Widget.h" else FLAT).replace("@EXTRA@", extra)
    source = folder / "src" / "demo" / name
    staged = folder / "reference" / "headers" / "include" / "demo" / name
    for path in (source, staged):
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)
    doxyfile = folder / "Doxyfile"
    doxyfile.write_text(Path(DOXYFILE).read_text() + f"""
OUTPUT_DIRECTORY = {folder / "reference"}
INPUT = {staged.parent.parent}
USE_MDFILE_AS_MAINPAGE =
WARN_LOGFILE = {folder / "reference" / "warnings.log"}
STRIP_FROM_PATH = {staged.parent.parent}
""")
    result = subprocess.run(
        [sys.executable, str(Path(DOC_DIR) / "build_reference.py"), DOXYGEN, str(doxyfile),
         str(folder / "reference"), str(folder)], capture_output=True, text=True, timeout=100)
    return text, result


class ReferenceGateTest(unittest.TestCase):
    def test_names_each_declaration_without_a_comment(self):
        for name, extra, complaint in CASES:
            with self.subTest(name=name, extra=extra), tempfile.TemporaryDirectory() as folder:
                text, result = build(Path(folder), name, extra)
                if complaint is None:
                    self.assertEqual(result.returncode, 0, result.stderr)
                    self.assertEqual(result.stderr, "")
                    continue
                self.assertEqual(result.returncode, 1)
                declaration = extra.splitlines()[-1].strip()
                line = text.splitlines().index(extra.splitlines()[-1]) + 1
                expected = f"src/demo/{name}:{line}: {complaint}"
                self.assertEqual(result.stderr.splitlines()[0], expected, declaration)
                self.assertRegex(result.stderr, r"has 1 problem\(s\)")

    def test_documents_what_the_comments_say(self):
        with tempfile.TemporaryDirectory() as folder:
            _, result = build(Path(folder), "Flat.h", "")
            self.assertEqual(result.returncode, 0, result.stderr)
            page = (Path(folder) / "reference" / "html" / "Flat_8h.html").read_text()
        text = re.sub(r"<[^>]+>", "", page)
        for expected in ("The flat interface of the test.", "Makes a widget."):
            self.assertIn(expected, text)
        # Rules and the notes below them are for readers of the header.
        self.assertNotIn("----", text)
        self.assertNotIn("Every widget is a handle.", text)


if __name__ == "__main__":
    unittest.main()
