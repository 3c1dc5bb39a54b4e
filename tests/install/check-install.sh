#!/usr/bin/env bash
# Installs the build into a fresh prefix and builds consumers against it: through the CMake
# package, and through pkg-config in C++ and in C99 (the guide's C example). The installed
# headers must need neither SQLite nor zstd.
# Then the installed Python package records and reads a file with the prefix's library, found
# without LD_LIBRARY_PATH.
set -euo pipefail
build_dir=$1
consumer_dir=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" > /dev/null
if grep -rqE '#include <(sqlite3|zstd)\.h>' "$work/prefix/include"; then
  echo "installed headers include sqlite3.h or zstd.h" >&2
  exit 1
fi
libdir=$(dirname "$(find "$work/prefix" -name 'libkorvane-logging.so' | head -1)")
mkdir "$work/run"

cmake -S "$consumer_dir" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" > /dev/null
cmake --build "$work/cmake-build" > /dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake-build/consumer" "$work/run"

rm -rf "$work/run" && mkdir "$work/run"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 -o "$work/pkg-consumer" "$consumer_dir/consumer.cpp" \
    $(pkg-config --cflags --libs korvane-logging)
LD_LIBRARY_PATH="$libdir" "$work/pkg-consumer" "$work/run"
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror -o "$work/pkg-consumer-c" "$consumer_dir/../../../examples/guide.c" \
    $(pkg-config --cflags --libs korvane-logging)
LD_LIBRARY_PATH="$libdir" "$work/pkg-consumer-c" "$work/run" > /dev/null

package=$(find "$work/prefix" -path '*/korvane_logging/_installed.py')
[ -n "$package" ] || { echo "the Python package was not installed" >&2; exit 1; }
python=$(command -v python3)
env -u KORVANE_LOGGING_LIBRARY -u LD_LIBRARY_PATH PYTHONPATH="$(dirname "$(dirname "$package")")" \
    "$python" - "$work/prefix" "$work/run/python.log" <<'PYTHON'
import os
import sys

import korvane_logging as kl
from korvane_logging import _library

prefix, path = sys.argv[1:]
with kl.LogFile.create(path, "install-check", "1") as log:
    log.log(log.add_source("source", 1), 0, b"from the installed package")
with kl.LogFile.open(path) as log:
    assert log.read_entry(1).data == b"from the installed package"
loaded = _library.library()._name
assert os.path.realpath(loaded).startswith(os.path.realpath(prefix)), loaded
PYTHON
