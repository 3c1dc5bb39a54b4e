"""What the Python package's timing scripts share: their common options, and the package and
library of this source tree put in reach of the script and of processes it starts."""

from __future__ import annotations

import argparse
import os
import sys
from pathlib import Path

PACKAGE = Path(__file__).resolve().parent.parent / "bindings" / "python"


def parse(description: str, folder: str, add_options) -> argparse.Namespace:
    """The options: `add_options(parser)`'s, --dir (default build-release/FOLDER) and
    --library. Then the package of this tree is importable here and in child processes, and
    the library given is the one they load."""
    parser = argparse.ArgumentParser(description=description)
    add_options(parser)
    parser.add_argument("--dir", type=Path, default=Path("build-release") / folder)
    parser.add_argument("--library", help="libkorvane-logging.so to use (else as installed)")
    options = parser.parse_args()
    if options.library:
        os.environ["KORVANE_LOGGING_LIBRARY"] = os.path.abspath(options.library)
    sys.path.insert(0, str(PACKAGE))
    os.environ["PYTHONPATH"] = os.pathsep.join(filter(None, [str(PACKAGE),
                                                             os.environ.get("PYTHONPATH")]))
    return options
