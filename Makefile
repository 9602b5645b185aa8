# Thin wrapper over the CMake presets.
#   make            build (preset "default")
#   make test       build and run every test
#   make bench      build and run the benchmarks (short runs; FLOWS=10000 for the full flow burst)
#   make demo       build and run the demonstration: multicast forwarded between namespaces
#   make demo-mfib  the MFIB demonstration: tables and best routes, no root needed
#   make lint       clang-format and clang-tidy over the sources
#   make deb        Debian packages of the built tree, in build/<preset>/deb
#   make PRESET=asan test
PRESET ?= default
BUILD  := build/$(PRESET)
# One compile job per core (Ninja's own default is cores + 2); JOBS=1 for a
# machine short of memory.
JOBS   ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all deps configure build test bench demo demo-mfib lint deb clean

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	@ctest --preset $(PRESET)

# The flow-burst baseline (smcroute) is installed here only: make test does
# not need it, and without it the bench runs the agent alone.
bench: build
	@cmake --build --preset $(PRESET) -j $(JOBS) --target benches
	@scripts/install-deps bench || echo "make bench: smcroute not installed; the flow-burst baseline is skipped" >&2
	@scripts/run-bench $(BUILD)

# Each demonstration builds only its own programs and the tools its README
# section shows. Where network namespaces cannot be made the routing demo
# falls back to the MFIB demo, which it builds then.
demo: configure
	@cmake --build --preset $(PRESET) -j $(JOBS) --target mroute-agent mroute-static mcast-probe
	@scripts/demo-mroute $(BUILD)

demo-mfib: configure
	@cmake --build --preset $(PRESET) -j $(JOBS) --target mfib-demo vornctl brisklog-cat
	@scripts/demo $(BUILD)

# clang-tidy reads a compile database of the sources themselves, which a
# unity build does not have: lint configures a tree of its own (no build).
lint: deps
	@cmake --preset $(PRESET) -B $(BUILD)-lint -DMROUTE_UNITY_BUILD=OFF >/dev/null
	@scripts/install-deps lint
	@scripts/lint $(BUILD)-lint

# The packages are made from the built tree (no second build), the same way
# the package test makes them.
deb: build
	@rm -f $(BUILD)/deb/*.deb
	@scripts/build-deb $(BUILD) $(BUILD)/deb

clean:
	rm -rf build
