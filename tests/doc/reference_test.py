"""Tests of `make docs`: reference_test.py DOXYGEN DOXYFILE DOC_DIR [unittest options].

Runs doc/build_reference.py, with the project's Doxyfile and comment filter, over a header in
the house's style, staged as `cmake --install` stages one beside its source."""

import re
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

DOXYGEN, DOXYFILE, DOC_DIR = sys.argv.pop(1), sys.argv.pop(1), sys.argv.pop(1)

HEADER = """#pragma once

/* The test's header. */

// A widget.
class Widget {
public:
    // Made empty; moved, never copied.
    Widget();
    Widget(Widget&&) noexcept;
    // A record.
    struct Cell {
        // Its id.
        int id;
    };
@CLASS@
};

/* ---- Widgets ------------------------------------------------------------------------------ */
/* A note for readers of the header. */

/* Makes a widget. */
Widget* makeWidget(void);
@FREE@
"""

# where the extra lines go, the lines, what the gate says of the last one (None: nothing)
CASES = [
    ("@FREE@", "", None),
    ("@CLASS@", "\n    void resize(int cells);",
     "the function resize(int cells) of class Widget has no comment above it"),
    ("@FREE@",
     "\n/* Frees and drops. */\nvoid freeWidget(Widget* w);\nvoid dropWidget(Widget* w);", None),
    ("@FREE@", "\nvoid freeWidget(Widget* w);",
     "the function freeWidget(Widget *w) of file Widget.h has no comment above it"),
]


class ReferenceTest(unittest.TestCase):
    def test_names_each_declaration_without_a_comment(self):
        for place, extra, complaint in CASES:
            with self.subTest(extra=extra), tempfile.TemporaryDirectory() as name:
                folder = Path(name)
                text = HEADER.replace(place, extra).replace("@CLASS@", "").replace("@FREE@", "")
                staged = folder / "reference" / "headers" / "include" / "demo" / "Widget.h"
                for path in (folder / "src" / "demo" / "Widget.h", staged):
                    path.parent.mkdir(parents=True, exist_ok=True)
                    path.write_text(text)
                doxyfile = folder / "Doxyfile"
                doxyfile.write_text(Path(DOXYFILE).read_text() + f"""
OUTPUT_DIRECTORY = {folder / "reference"}
INPUT = {staged.parent.parent}
STRIP_FROM_PATH = {staged.parent.parent}
USE_MDFILE_AS_MAINPAGE =
WARN_LOGFILE = {folder / "reference" / "warnings.log"}
""")
                result = subprocess.run(
                    [sys.executable, f"{DOC_DIR}/build_reference.py", DOXYGEN, doxyfile,
                     folder / "reference", folder], capture_output=True, text=True, timeout=100)
                if complaint:
                    line = text.splitlines().index(extra.splitlines()[-1]) + 1
                    self.assertEqual(result.returncode, 1)
                    self.assertEqual(result.stderr.splitlines()[0],
                                     f"src/demo/Widget.h:{line}: {complaint}")
                    continue
                self.assertEqual((result.returncode, result.stderr), (0, ""))
                page = (folder / "reference" / "html" / "Widget_8h.html").read_text()
                # The rule and the note below it are for readers of the header only.
                self.assertEqual([text in re.sub(r"<[^>]+>", "", page) for text in
                                  ("The test's header.", "Makes a widget.", "----", "A note")],
                                 [True, True, False, False])


if __name__ == "__main__":
    unittest.main()
