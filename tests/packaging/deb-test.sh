#!/usr/bin/env bash
# Uses the Debian packages of `make deb` as a user would, on this machine: installs them with
# apt-get, builds a CMake project and a C program against korvane-logging-dev, runs
# `korvane-log demo`, imports the Python package with Debian's python3, opens the manual page,
# and removes them again, checking that none of their files stays behind.
#
# Usage: deb-test.sh PACKAGES_DIR CONSUMER_DIR (tests/install/consumer). Needs root or sudo.
set -euo pipefail
packages_dir=$(realpath "$1")
consumer_dir=$(realpath "$2")
names=(korvane-logging korvane-logging-dev python3-korvane-logging)
sudo=""
[ "$(id -u)" -ne 0 ] && sudo="sudo"

fail() {
  echo "deb-test: $*" >&2
  exit 1
}

for name in "${names[@]}"; do
  if dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q " installed"; then
    echo "deb-test: $name is installed already: it is replaced now and removed at the end"
  fi
done
debs=()
for name in "${names[@]}"; do
  deb=$(find "$packages_dir" -maxdepth 1 -name "${name}_*.deb" | head -1)
  [ -n "$deb" ] || fail "no ${name}_*.deb in $packages_dir (make deb)"
  debs+=("$deb")
done

# A copy installed under /usr/local by `cmake --install` would come first for Python.
if shadow=$(cd / && /usr/bin/python3 -I -c 'import korvane_logging as k; print(k.__file__)' \
              2>/dev/null); then
  fail "korvane_logging is importable already, from $shadow: remove it first"
fi

work=$(mktemp -d)
installed=0
remove_packages() {
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get remove --purge -y -qq "${names[@]}" \
    > "$work/remove.log" 2>&1 || { cat "$work/remove.log" >&2; return 1; }
}
# A failure anywhere still takes the packages off the machine.
trap 'status=$?; [ $installed -eq 1 ] && [ $status -ne 0 ] && remove_packages; rm -rf "$work"' \
  EXIT

echo "== apt-get install ${debs[*]##*/}"
$sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends \
  "${debs[@]}" > "$work/install.log" 2>&1 || { cat "$work/install.log" >&2; exit 1; }
installed=1
for name in "${names[@]}"; do
  dpkg -L "$name" | while read -r path; do [ -d "$path" ] || echo "$path"; done
done > "$work/files"

echo "== a CMake project against korvane-logging-dev"
mkdir "$work/run"
# A copy installed under /usr/local would come first; the package's is the one to find.
cmake -S "$consumer_dir" -B "$work/cmake-build" -DCMAKE_IGNORE_PREFIX_PATH=/usr/local \
  > "$work/cmake.log" 2>&1 \
  || { cat "$work/cmake.log" >&2; exit 1; }
found=$(sed -n 's/^KorvaneLogging_DIR:PATH=//p' "$work/cmake-build/CMakeCache.txt")
[ "$found" = /usr/lib/cmake/KorvaneLogging ] || fail "CMake found the package in '$found'"
cmake --build "$work/cmake-build" > "$work/build.log" 2>&1 \
  || { cat "$work/build.log" >&2; exit 1; }
env -u LD_LIBRARY_PATH "$work/cmake-build/consumer" "$work/run"

echo "== a C99 program through pkg-config"
# The system's folders only, not /usr/local's.
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
export PKG_CONFIG_LIBDIR="/usr/lib/$multiarch/pkgconfig:/usr/lib/pkgconfig:/usr/share/pkgconfig"
[ "$(realpath "$(pkg-config --variable=includedir korvane-logging)")" = /usr/include ] \
  || fail "pkg-config does not point at /usr/include"
# The C example of the API reference's guide: records and reads back through the flat interface.
# shellcheck disable=SC2046
cc -std=c99 -Wall -Werror -o "$work/consumer-c" "$consumer_dir/../../../examples/guide.c" \
  $(pkg-config --cflags --libs korvane-logging)
env -u LD_LIBRARY_PATH "$work/consumer-c" "$work/run"

echo "== korvane-log demo"
[ "$(command -v korvane-log)" = /usr/bin/korvane-log ] || fail "korvane-log is not /usr/bin's"
korvane-log demo "$work/demo" > "$work/demo.log" 2>&1 || { cat "$work/demo.log" >&2; exit 1; }
korvane-log check "$work/demo/drive.kvlog"

echo "== import korvane_logging with /usr/bin/python3"
(cd "$work" && env -u PYTHONPATH -u KORVANE_LOGGING_LIBRARY -u LD_LIBRARY_PATH \
  /usr/bin/python3 -I - "$work/run/python.log" <<'PYTHON'
import sys

import korvane_logging as kl
from korvane_logging import _library

with kl.LogFile.create(sys.argv[1], "deb-test", "1") as log:
    log.log(log.add_source("source", 1), 0, b"from the Debian package")
with kl.LogFile.open(sys.argv[1]) as log:
    assert log.read_entry(1).data == b"from the Debian package"
assert kl.__file__.startswith("/usr/lib/python3/dist-packages/"), kl.__file__
assert _library.library()._name == "/usr/lib/libkorvane-logging.so.1", _library.library()._name
print("korvane_logging", kl.__version__, "from", kl.__file__)
PYTHON
)

echo "== man korvane-log"
[ "$(man -w korvane-log)" = /usr/share/man/man1/korvane-log.1.gz ] || fail "man -w korvane-log"
MANWIDTH=120 man -P cat korvane-log > "$work/man.txt" 2> "$work/man.err"
if [ -s "$work/man.err" ]; then
  cat "$work/man.err" >&2
  fail "man korvane-log complained"
fi
verbs=$(korvane-log --help | sed -n '/^\(Subcommands\|Verbs\):$/,/^$/s/^  \([a-z-]*\) .*/\1/p')
[ -n "$verbs" ] || fail "no verbs in korvane-log --help"
for verb in $verbs; do
  grep -qx "   $verb" "$work/man.txt" || fail "man korvane-log has no section for '$verb'"
done
echo "every verb of korvane-log --help has its section:" $verbs

echo "== apt-get remove --purge"
remove_packages
installed=0
while read -r path; do
  if [ -e "$path" ] || [ -L "$path" ]; then
    fail "$path stayed after the removal"
  fi
done < "$work/files"
if [ -e /usr/lib/python3/dist-packages/korvane_logging ]; then
  fail "the Python package's folder stayed"
fi
echo "deb-test: the packages installed, worked and went without a trace"
