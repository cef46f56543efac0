# Two entry points, both from a fresh clone:
#   make demo   builds everything and runs the example host program
#   make test   builds everything and runs every test
# Further variables: BUILD (build directory), CMAKE_FLAGS (extra cache settings).
BUILD ?= build
CMAKE_FLAGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: demo test build bench clean

build:
	@scripts/install-deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

demo: build
	@$(BUILD)/examples/memory_demo

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

bench: build
	@$(BUILD)/bench/bench_memory

clean:
	rm -rf build build-*
