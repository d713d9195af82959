# Entry points for people and CI. Every target first makes sure the Debian packages are
# there (scripts/install-deps does nothing when they are).
PRESET ?= dev
JOBS ?= $(shell nproc)
FUZZ_SECONDS ?= 60
FUZZ_JOBS ?= $(JOBS)
CMAKE ?= cmake
CTEST ?= ctest
SHELL := /bin/bash

.PHONY: all deps build build-no-tests test check demo sanitize tsan fuzz-smoke bench format format-check \
        clean test-qt6 test-arm64 package package-test

all: build

deps:
	@./scripts/install-deps

build: deps
	$(CMAKE) --preset $(PRESET)
	$(CMAKE) --build --preset $(PRESET) -j $(JOBS)

# The plugin and the demo alone, as a packager builds them: CMake must not ask for Qt Test
# or Qt Quick Test.
build-no-tests: deps
	$(CMAKE) --preset $(PRESET) -B build/no-tests -DTARVIX_BUILD_TESTS=OFF
	@if grep -E '^Qt5(Test|QuickTest)_DIR:' build/no-tests/CMakeCache.txt; then \
	    echo "build-no-tests: the build without tests looked for Qt Test"; exit 1; fi
	$(CMAKE) --build build/no-tests -j $(JOBS) --target tarvixworksurface worksurface-demo

test: build
	$(CTEST) --preset $(PRESET) -j $(JOBS)

# The inner loop: the plain Debug build (preset dev) and every unit and QML ctest once,
# without the second runs with the links on the surface thread (label linkthread), which
# make test still runs.
check: deps
	$(CMAKE) --preset dev
	$(CMAKE) --build --preset dev -j $(JOBS)
	$(CTEST) --preset dev -j $(JOBS) -LE '^linkthread$$'

# The demo window where there is a display; without one (ssh, CI) the walk-through on the
# offscreen platform, which checks every kind of control and saves a screenshot.
DEMO = build/$(PRESET)/examples/demo/worksurface-demo
DEMO_SCREENSHOT = build/$(PRESET)/demo-walkthrough.png
DEMO_ARGS ?=

demo: deps
	$(CMAKE) --preset $(PRESET)
	$(CMAKE) --build --preset $(PRESET) -j $(JOBS) --target worksurface-demo
	@if [ -n "$$DISPLAY" ] || [ -n "$$WAYLAND_DISPLAY" ]; then \
	    $(DEMO) $(DEMO_ARGS); \
	else \
	    echo "== no display: the walk-through on the offscreen platform"; \
	    QT_QPA_PLATFORM=offscreen $(DEMO) --walkthrough --screenshot $(DEMO_SCREENSHOT) $(DEMO_ARGS) \
	        && echo "== screenshot: $(DEMO_SCREENSHOT)"; \
	fi

sanitize:
	$(MAKE) test PRESET=asan

# The suite under ThreadSanitizer (data races and lock-order inversions); tests/tsan.supp
# names the Qt-internal reports only. See docs/threads.md.
tsan:
	$(MAKE) test PRESET=tsan

# The same sources against Qt 6 (preset qt6): every C++ test, the QML tests and the demo
# walk-through; the build generates the Qt 6 type description.
test-qt6:
	@./scripts/install-deps --qt6
	$(CMAKE) --preset qt6
	$(CMAKE) --build --preset qt6 -j $(JOBS)
	$(CTEST) --preset qt6 -j $(JOBS)

# Cross-built for aarch64 (preset arm64), every test run through qemu-aarch64 except those
# labelled not-emulated (see tests/CMakeLists.txt).
test-arm64:
	@./scripts/install-deps --arm64
	$(CMAKE) --preset arm64
	$(CMAKE) --build --preset arm64 -j $(JOBS)
	$(CTEST) --preset arm64 -j $(JOBS)

# Debian packages from the build of PRESET (amd64 from dev or ci, arm64 from arm64):
# build/<preset>/tarvixworksurface_<version>_<arch>.deb.
package: build
	cd build/$(PRESET) && cpack -G DEB

# Installs the amd64 package on this machine, runs the module and the tool from their
# installed places, removes the package.
package-test: package
	./scripts/test-package build/$(PRESET)

# Every fuzzer for FUZZ_SECONDS, FUZZ_JOBS at a time; logs in build/fuzz/<name>.log, corpora
# in build/fuzz/corpus/<name>.
fuzz-smoke: deps
	$(CMAKE) --preset fuzz
	$(CMAKE) --build --preset fuzz -j $(JOBS)
	@./scripts/fuzz-smoke $(FUZZ_SECONDS) $(FUZZ_JOBS)

bench: deps
	$(CMAKE) --preset bench
	$(CMAKE) --build --preset bench -j $(JOBS)
	@mkdir -p build/bench
	@set -e; for b in build/bench/bench/bench_*; do \
	    [ -f "$$b" ] && [ -x "$$b" ] || continue; \
	    name=$$(basename $$b); \
	    echo "== $$name"; \
	    QT_QPA_PLATFORM=offscreen $$b --benchmark_out=build/bench/$$name.json --benchmark_out_format=json; \
	done

FORMAT_FILES = $(shell git ls-files '*.cpp' '*.h')

format: deps
	clang-format -i $(FORMAT_FILES)

format-check: deps
	@clang-format --dry-run --Werror $(FORMAT_FILES) && echo "format-check: $(words $(FORMAT_FILES)) files clean"

clean:
	rm -rf build
