# The workstation entry points: `make run` shows one boot of a simulated phone after a kernel
# panic, `make test` runs every test. Both install missing Debian packages first.
BUILD ?= build
CMAKE_FLAGS ?=
ifeq ($(SANITIZE),1)
BUILD := build-sanitize
CMAKE_FLAGS += -DSANITIZE=ON
endif
DEVSIM := devsim/zq-devsim
PHONE := $(BUILD)/phone
JOBS ?= $(shell nproc)
MAKEFLAGS += --no-print-directory

.PHONY: all deps build test run clean format tidy

all: build

deps:
	@scripts/install-deps

build: deps
	@cmake -S . -B $(BUILD) $(CMAKE_FLAGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

run: build
	@ZQ_MRDUMP_COLLECT=$(BUILD)/zq_mrdump_collect $(DEVSIM) init $(PHONE) --force
	@$(DEVSIM) panic $(PHONE) --dumping 20
	@ZQ_MRDUMP_COLLECT=$(BUILD)/zq_mrdump_collect $(DEVSIM) boot $(PHONE) --faketime x100
	@$(DEVSIM) logcat $(PHONE)
	@$(DEVSIM) getprop $(PHONE)
	@$(DEVSIM) tree $(PHONE)

format:
	@clang-format -i zq_mrdump/*.cpp zq_mrdump/*.h host/*.cpp host/*.h host/include/sys/*.h tests/*.cpp tests/*.h

tidy: build
	@clang-tidy -p $(BUILD) --quiet zq_mrdump/*.cpp host/*.cpp

clean:
	@rm -rf build build-sanitize
