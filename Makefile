# Entry points, all from a fresh clone:
#   make demo   builds everything, runs the memory demo, creates a sample
#               database and shows it with the kavodvdb inspector
#   make test   builds everything and runs every test
#   make bench-peers   installs SQLite and LMDB, builds everything and runs the
#                      record-store workload on the store and both of them
# Further variables: BUILD (build directory), CMAKE_FLAGS (extra cache settings),
# WORKLOAD_ARGS (bench_workload's options, e.g. --n 1000000 --json results.json).
BUILD ?= build
CMAKE_FLAGS ?=
WORKLOAD_ARGS ?=
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: demo test build bench bench-peers clean

build:
	@scripts/install-deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

# The sample database is made afresh each time: sample_database creates, never overwrites.
DEMO_DB = $(BUILD)/demo/sample.kdb
KAVODVDB = $(BUILD)/tools/kavodvdb

demo: build
	@echo "== Memory: handles made, filled, copied and freed through the MS functions"
	@$(BUILD)/examples/memory_demo
	@echo
	@echo "== A sample database made through the RM functions: $(DEMO_DB)"
	@rm -rf $(BUILD)/demo
	@mkdir -p $(BUILD)/demo
	@$(BUILD)/examples/sample_database $(DEMO_DB)
	@echo
	@echo "== kavodvdb info $(DEMO_DB)"
	@$(KAVODVDB) info $(DEMO_DB)
	@echo
	@echo "== kavodvdb ls $(DEMO_DB)"
	@$(KAVODVDB) ls $(DEMO_DB)
	@echo
	@echo "== kavodvdb verify $(DEMO_DB)"
	@$(KAVODVDB) verify $(DEMO_DB)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

bench: build
	@$(BUILD)/bench/bench_memory

# The peers are found when the build is configured, so they are installed first.
bench-peers:
	@scripts/install-deps bench
	@$(MAKE) --no-print-directory build
	@$(BUILD)/bench/bench_workload $(WORKLOAD_ARGS)

clean:
	rm -rf build build-*
