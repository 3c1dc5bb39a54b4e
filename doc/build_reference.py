#!/usr/bin/env python3
"""Runs Doxygen for the API reference and fails on any warning it gives.

Usage: build_reference.py DOXYGEN DOXYFILE REFERENCE_DIR SOURCE_DIR

The target `docs` first installs the public headers into REFERENCE_DIR/headers (`cmake
--install --component headers`), so the reference covers exactly what a user of the installed
library can include. A declaration without a comment is reported at its line in the source
tree, as `src/model/Records.h:28: the typedef ByteArray of namespace Korvane::Logging has no
comment above it`.
"""

import re
import shutil
import subprocess
import sys
from pathlib import Path

WARNING = re.compile(r"^(?P<file>/[^:]+):(?P<line>\d+): (?:warning|error): (?P<text>.*)$")
UNDOCUMENTED_MEMBER = re.compile(
    r"^Member (?P<name>.+?) \((?P<kind>[^()]+)\) of (?P<scope>.+?) is not documented\.$")
UNDOCUMENTED_COMPOUND = re.compile(r"^Compound (?P<name>.+?) is not documented\.$")


def source_of(staged, sources):
    """The header in the source tree that `staged` was installed from: same name, same bytes."""
    content = staged.read_bytes()
    for candidate in sources.get(staged.name, []):
        if candidate.read_bytes() == content:
            return candidate
    return staged


def explain(text):
    """A warning's text, said of the declaration when it is one without a comment."""
    member = UNDOCUMENTED_MEMBER.match(text)
    if member:
        return (f"the {member['kind']} {member['name']} of {member['scope']} has no comment "
                "above it")
    compound = UNDOCUMENTED_COMPOUND.match(text)
    if compound:
        return f"{compound['name']} has no comment above it"
    return text


def report(log_text, stage, source_dir):
    """The warnings of `log_text` as lines `path:line: what`, with paths into the source tree.
    Lines that continue a warning are kept with it; repeated warnings are given once."""
    sources = {}
    for header in Path(source_dir, "src").rglob("*.h"):
        sources.setdefault(header.name, []).append(header)
    found = []
    for line in log_text.splitlines():
        match = WARNING.match(line)
        if not match:
            if found and line.strip():
                found[-1] += "\n    " + line.strip()
            continue
        path = Path(match["file"])
        if Path(stage) in path.parents:
            path = source_of(path, sources)
        try:
            path = path.relative_to(source_dir)
        except ValueError:
            pass
        found.append(f"{path}:{match['line']}: {explain(match['text'])}")
    return list(dict.fromkeys(found))


def main():
    if len(sys.argv) != 5:
        raise SystemExit(__doc__)
    doxygen, doxyfile, reference, source_dir = sys.argv[1:]
    reference = Path(reference)
    stage = reference / "headers"
    log = reference / "warnings.log"
    log.unlink(missing_ok=True)
    shutil.rmtree(reference / "html", ignore_errors=True)
    subprocess.run([doxygen, doxyfile], check=True)
    problems = report(log.read_text() if log.exists() else "", stage, Path(source_dir).resolve())
    if problems:
        print("\n".join(problems), file=sys.stderr)
        print(f"The API reference has {len(problems)} problem(s).", file=sys.stderr)
        if any(problem.endswith(" has no comment above it") for problem in problems):
            print("Each public declaration needs a comment directly above it: // lines in C++, "
                  "/* */ in C.", file=sys.stderr)
        return 1
    print(f"API reference: {reference / 'html' / 'index.html'}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
