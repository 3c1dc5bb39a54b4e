#!/usr/bin/env bash
# Installs the build into a fresh prefix and builds a consumer against it twice: through the
# CMake package and through pkg-config. The installed headers must need neither SQLite nor zstd.
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
