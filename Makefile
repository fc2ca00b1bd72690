# The workstation entry points: `make run` shows one boot of a simulated phone after a kernel
# panic, `make test` runs every test. Both install missing Debian packages first.
BUILD ?= build
CMAKE_FLAGS ?=
ifeq ($(SANITIZE),1)
BUILD := build-sanitize
CMAKE_FLAGS += -DSANITIZE=ON
# libfaketime is preloaded ahead of the sanitizer runtime in the sandbox's time-shifted boots.
export ASAN_OPTIONS ?= verify_asan_link_order=0:detect_leaks=1
export UBSAN_OPTIONS ?= print_stacktrace=1:halt_on_error=1
endif
DEVSIM := devsim/zq-devsim
PHONE := $(BUILD)/phone
JOBS ?= $(shell nproc)
MAKEFLAGS += --no-print-directory

FUZZ_SECONDS ?= 60

BENCH_RUNS ?= 15

BP_FILES := zq_mrdump/Android.bp tests/Android.bp

.PHONY: all deps configure build test run fuzz bench clean format tidy

all: build

deps:
	@scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

# REPEAT=N runs the suite N times and stops at the first failure.
REPEAT ?= 1
test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --repeat until-fail:$(REPEAT)

# Seven panics in a row, a minute apart: the first dump still in progress at boot, the archive
# numbered, compressed on the next boot and rotated past its limit of five; then what zq-triage
# makes of the archives. Only the daemon and zq-triage are built.
run: configure
	@cmake --build $(BUILD) -j $(JOBS) --target zq_mrdump_collect zq-triage
	@$(DEVSIM) init $(PHONE) --force
	@for boot in 0 1 2 3 4 5 6; do \
	  $(DEVSIM) panic $(PHONE) --dumping $$((boot == 0 ? 20 : 0)) --kmsg-size 256 --db-size 512 \
	    --faketime "@2024-05-01 13:4$$boot:00" && \
	  ZQ_MRDUMP_COLLECT=$(BUILD)/zq_mrdump_collect \
	    $(DEVSIM) boot $(PHONE) --faketime "@2024-05-01 13:4$$boot:10 x100" >/dev/null || exit 1; \
	done
	@$(DEVSIM) logcat $(PHONE) --last
	@$(DEVSIM) getprop $(PHONE)
	@$(DEVSIM) tree $(PHONE) data/vendor/dump_collect mnt/vendor/zq_log
	@echo "run: the archives of $(PHONE)/mnt/vendor/zq_log, as zq-triage reads them:"
	@$(BUILD)/zq-triage $(PHONE)/mnt/vendor/zq_log

# Each fuzz target for FUZZ_SECONDS, built with clang, ASan and UBSan in build-fuzz.
fuzz:
	@scripts/install-deps --fuzz
	@CC=clang CXX=clang++ cmake -S . -B build-fuzz -DFUZZ=ON -DBUILD_TESTING=OFF >/dev/null
	@cmake --build build-fuzz -j $(JOBS)
	@scripts/run-fuzzers build-fuzz $(FUZZ_SECONDS)

# The daemon's cost on a realistic panic against the floor of its own commands, and what it costs a
# boot beside it with and without the service's priority options; zq-triage on a fleet's uploads
# against gzip on the same bytes; bench/RESULTS.md.
bench: build
	@scripts/install-deps --bench
	@bench/run-bench $(BUILD) $(BENCH_RUNS)
	@bench/run-triage bench $(BUILD)

format:
	@scripts/install-deps --lint
	@clang-format -i zq_mrdump/*.cpp zq_mrdump/*.h host/*.cpp host/*.h host/include/sys/*.h \
	  tests/*.cpp tests/*.h fuzz/*.cpp fuzz/*.h devsim/*.cpp bench/*.cpp triage/*.cpp triage/*.h

# The counts of warnings clang-tidy suppressed in system headers are left out. bpfmt is the
# formatter of AOSP's upload checks.
tidy: build
	@scripts/install-deps --lint
	@bash -o pipefail -c 'clang-tidy -p $(BUILD) --quiet zq_mrdump/*.cpp host/*.cpp triage/*.cpp \
	  2>&1 | { grep -v "warnings generated" || true; }'
	@echo "tidy: zq_mrdump/, host/ and triage/ are clean"
	@bpfmt -d $(BP_FILES) | { ! grep .; } || { echo "tidy: run bpfmt -w $(BP_FILES)"; exit 1; }
	@echo "tidy: $(BP_FILES) are bpfmt-clean"

clean:
	@rm -rf build build-sanitize build-fuzz
