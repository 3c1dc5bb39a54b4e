# The two commands a new user needs: `make demo` and `make test`. Each installs what is missing.
JOBS ?= $(shell nproc)
WERROR ?= OFF
CMAKE_FLAGS ?=

.PHONY: all deps build demo test test-asan test-tsan debug release asan tsan bench crash-test clean

all: build

deps:
	@scripts/install-deps

build-%/CMakeCache.txt:
	cmake -S . -B build-$* $(CMAKE_FLAGS) -DKORVANE_WERROR=$(WERROR) $(BUILD_$*_FLAGS)

BUILD_debug_FLAGS = -DCMAKE_BUILD_TYPE=Debug
BUILD_release_FLAGS = -DCMAKE_BUILD_TYPE=Release
BUILD_asan_FLAGS = -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=address -DKORVANE_BUILD_BENCH=OFF
BUILD_tsan_FLAGS = -DCMAKE_BUILD_TYPE=Debug -DKORVANE_SANITIZE=thread -DKORVANE_BUILD_BENCH=OFF

debug release asan tsan: %: deps build-%/CMakeCache.txt
	cmake -S . -B build-$* -DKORVANE_WERROR=$(WERROR)
	cmake --build build-$* -j $(JOBS)

build: debug

test: debug
	cd build-debug && ctest --output-on-failure -j $(JOBS)

test-asan: asan
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j $(JOBS)

test-tsan: tsan
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS)

demo: release
	rm -rf build-release/demo
	build-release/tools/korvane-log/korvane-log demo build-release/demo

bench: release
	@for b in build-release/bench/*-bench; do [ -x "$$b" ] && "$$b"; done

clean:
	rm -rf build-debug build-release build-asan build-tsan

# Kills a recorder 200 times per configuration and reports what the files still hold.
crash-test: release
	build-release/tests/crash/crash-test --runs 200
