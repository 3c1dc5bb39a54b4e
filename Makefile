# The two commands a new user needs: `make demo` and `make test`. Each installs what is missing.
JOBS ?= $(shell nproc)
WERROR ?= OFF
CMAKE_FLAGS ?=

.PHONY: all deps build demo test test-asan test-tsan test-pythons debug release asan tsan bench \
	bench-smoke crash-test clean docs deb deb-test

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

# The Python package installed with pip into a fresh environment of each Python 3.9 to 3.13 on
# the machine, and its tests run there.
test-pythons: debug
	bindings/python/test-pythons build-debug/src/libkorvane-logging.so

test-asan: asan
	cd build-asan && ASAN_OPTIONS=detect_leaks=1 ctest --output-on-failure -j $(JOBS)

test-tsan: tsan
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1 ctest --output-on-failure -j $(JOBS)

demo: release
	rm -rf build-release/demo
	build-release/tools/korvane-log/korvane-log demo build-release/demo

bench: release
	@for b in build-release/bench/*-bench; do [ -x "$$b" ] && "$$b"; done

bench-smoke: release
	@for b in build-release/bench/*-bench; do [ -x "$$b" ] && "$$b" --quick; done

# The page of `korvane-log view` on 10 million entries in headless Chromium (a few minutes).
.PHONY: view-bench
view-bench: release
	/usr/bin/python3 bench/view/view_bench.py build-release

clean:
	rm -rf build-debug build-release build-asan build-tsan

# The API reference (Doxygen) in build-release/doc/reference/html; fails on any warning.
docs: deps build-release/CMakeCache.txt
	cmake -S . -B build-release -DKORVANE_WERROR=$(WERROR)
	cmake --build build-release --target docs

# Debian packages of the Release build in build-release/packages, checked by lintian.
deb: release
	rm -rf build-release/packages
	cd build-release && cpack -G DEB
	lintian --fail-on error --suppress-tags initial-upload-closes-no-bugs build-release/packages/*.deb

# Installs the packages on this machine, uses them as a user would and removes them.
deb-test: deb
	tests/packaging/deb-test.sh build-release/packages tests/install/consumer

# Kills a recorder 200 times per configuration and reports what the files still hold.
crash-test: release
	build-release/tests/crash/crash-test --runs 200

# Fuzzing with clang's libFuzzer (Debian: clang, libclang-rt-14-dev), in build-fuzz. `make fuzz`
# runs each target for FUZZ_SECONDS; new inputs go to build-fuzz/corpus, findings to
# build-fuzz/findings. `make fuzz-smoke` replays the seed corpora, then fuzzes each target 30 s.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS = open_file damaged_log flat_calls

.PHONY: fuzz-build fuzz fuzz-smoke

fuzz-build: deps
	@command -v clang++ >/dev/null || { echo "fuzzing needs clang and libclang-rt-14-dev"; exit 1; }
	CC=clang CXX=clang++ cmake -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DKORVANE_FUZZ=ON -DKORVANE_SANITIZE=address -DKORVANE_WERROR=$(WERROR) \
		-DKORVANE_BUILD_TESTS=OFF -DKORVANE_BUILD_TOOLS=OFF -DKORVANE_BUILD_BENCH=OFF
	cmake --build build-fuzz -j $(JOBS)

fuzz-run-%:
	mkdir -p build-fuzz/corpus/$* build-fuzz/findings
	build-fuzz/fuzz/$* -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 \
		-artifact_prefix=build-fuzz/findings/$*- build-fuzz/corpus/$* fuzz/corpus/$*

fuzz: fuzz-build
	@for target in $(FUZZ_TARGETS); do \
		$(MAKE) --no-print-directory fuzz-run-$$target || exit 1; \
	done

fuzz-smoke: fuzz-build
	@for target in $(FUZZ_TARGETS); do \
		echo "== $$target: replaying fuzz/corpus/$$target"; \
		build-fuzz/fuzz/$$target fuzz/corpus/$$target/* > build-fuzz/replay-$$target.log 2>&1 \
			|| { cat build-fuzz/replay-$$target.log; exit 1; }; \
		$(MAKE) --no-print-directory fuzz-run-$$target FUZZ_SECONDS=30 || exit 1; \
	done
