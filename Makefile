# Thin wrapper over the CMake presets.
#   make            build (preset "default")
#   make test       build and run every test
#   make bench      build and run the benchmarks (short runs)
#   make demo       build and run the demonstration
#   make PRESET=asan test
PRESET ?= default
BUILD  := build/$(PRESET)

.PHONY: all deps configure build test bench demo clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET)

test: build
	@ctest --preset $(PRESET)

bench: build
	@scripts/run-bench $(BUILD)

demo: build
	@if [ -x scripts/demo ]; then scripts/demo $(BUILD); \
	 else echo "make demo: no demonstration yet; it arrives with the MFIB tables" >&2; exit 1; fi

clean:
	rm -rf build
