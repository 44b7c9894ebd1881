# The commands of the house; each is a thin front for the CMake presets.
PREFIX ?= /usr/local
SANITIZERS ?= asan tsan
FUZZ_SECONDS ?= 60
STRESS_SECONDS ?= 600
JOBS ?= $(shell nproc)

.PHONY: help setup build test stress sanitize lint format bench fuzz demo install package clean

help:
	@echo "make demo      a simulated device, a session and a live view of its tags"
	@echo "make test      sets up what is missing, builds, runs all tests"
	@echo "make stress    writers and readers on one table, STRESS_SECONDS=$(STRESS_SECONDS)"
	@echo "make sanitize  all tests under ASan+UBSan and under TSan"
	@echo "make lint      format and clang-tidy"
	@echo "make bench     ratios against the peers"
	@echo "make fuzz      libFuzzer targets, FUZZ_SECONDS=$(FUZZ_SECONDS) each"
	@echo "make install   to PREFIX=$(PREFIX)"
	@echo "make package   a Debian package in build/package"

setup:
	scripts/setup

build/%/CMakeCache.txt: CMakePresets.json | setup
	cmake --preset $*

build: build/dev/CMakeCache.txt
	cmake --build --preset dev

test: build
	ctest --preset dev -j $(JOBS)

stress: build
	KVL_TORN_SECONDS=$(STRESS_SECONDS) build/dev/tests/store/store_test \
	  --gtest_filter='CTableProcesses.*'

sanitize: setup
	for preset in $(SANITIZERS); do \
	  cmake --preset $$preset && cmake --build --preset $$preset && \
	  ctest --preset $$preset -j $(JOBS) || exit 1; \
	done

lint: build/clang/CMakeCache.txt
	scripts/lint

format:
	git ls-files '*.h' '*.cpp' '*.c' | xargs clang-format -i

bench:
	scripts/setup --bench
	cmake --preset release
	cmake --build --preset release
	scripts/bench build/release

fuzz:
	scripts/setup --fuzz
	cmake --preset fuzz
	cmake --build --preset fuzz
	scripts/fuzz build/fuzz $(FUZZ_SECONDS)

demo: setup
	cmake --preset release -DKVL_BUILD_BENCH=OFF
	cmake --build --preset release
	scripts/demo build/release

install: setup
	cmake --preset release -DKVL_BUILD_BENCH=OFF
	cmake --build --preset release --target kvl_command kvl_reference
	cmake --install build/release --prefix $(PREFIX)

package: setup
	cmake --preset release -DKVL_BUILD_BENCH=OFF
	cmake --build --preset release --target kvl_command kvl_reference
	cpack --config build/release/CPackConfig.cmake -B build/package

clean:
	rm -rf build
