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

# The presets for another Qt or another architecture need their own packages.
DEPS_OPTIONS = $(if $(filter qt6,$(PRESET)),--qt6) $(if $(filter arm64,$(PRESET)),--arm64)

deps:
	@./scripts/install-deps $(DEPS_OPTIONS)

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

# Debian packages from the build of PRESET, in build/<preset>/: from a Qt 5 build (dev, ci)
# qml-module-tarvix-worksurface_<version>_amd64.deb and worksurface-tool_<version>_amd64.deb,
# from PRESET=qt6 qml6-module-tarvix-worksurface_<version>_amd64.deb, from PRESET=arm64 the
# Qt 5 ones for arm64.
package: build
	cd build/$(PRESET) && cpack -G DEB

# Makes the Qt 5 packages of PRESET and the Qt 6 module's package (preset qt6), checks them
# with lintian, installs all of them on this machine, uses each module from its Qt's QML
# directory and the tool from /usr/bin, and removes them. Needs root or sudo.
package-test: package
	@./scripts/install-deps --package
	$(MAKE) package PRESET=qt6
	./scripts/test-package build/$(PRESET) build/qt6

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
