# The entry point for developers, users and CI. `make help` lists the targets.
SHELL := /bin/bash
PRESET ?= release
BUILD := build/$(PRESET)
export ZEB_BUILD := $(CURDIR)/$(BUILD)
export ZEB_TEST_RESULTS := $(CURDIR)/build/results
JOBS ?= $(shell nproc)
SECONDS ?= 60
MINUTES ?= 10
SEED ?= 1
ROUNDS ?= 7
ON ?= sim
PREFIX ?=

.PHONY: bench chaos deb deb-test docs explore fuzz help setup build demo check lint unit asan tsan integration integration-sim conformance demo-lab python install clean

help: ## print this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / {printf "make %-12s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

setup: ## install what developers need, compilers, tests and lab (as root), or name the packages that are missing
	@scripts/setup

build: setup ## configure and build everything (PRESET=release, debug, asan or tsan)
	@cmake --preset $(PRESET) >build/configure-$(PRESET).log 2>&1 || { cat build/configure-$(PRESET).log; exit 1; }
	@cmake --build $(BUILD) -j$(JOBS) -- --no-print-directory >build/build-$(PRESET).log 2>&1 || { cat build/build-$(PRESET).log; exit 1; }
	@echo "built in $(BUILD)"

demo: export ZEB_BUILD := $(CURDIR)/build/demo
demo: export ZEB_CTL := $(or $(wildcard $(CURDIR)/$(BUILD)/tools/zebctl),$(CURDIR)/build/demo/tools/zebctl)
demo: ## run two servers and a client on three nodes, and print what they do (builds only what that needs)
	@scripts/setup demo
	@echo "building the library, the simulator, the examples and zebctl in build/demo"
	@cmake -S . -B build/demo -DZEB_ZEBD=OFF -DZEB_TOOLS=$(if $(findstring build/demo/,$(ZEB_CTL)),ON,OFF) >build/configure-demo.log 2>&1 || { cat build/configure-demo.log; exit 1; }
	@cmake --build build/demo -j$(JOBS) >build/build-demo.log 2>&1 || { cat build/build-demo.log; exit 1; }
	@examples/demo/run

demo-lab: build ## run the demo on a real kernel, in the lab
	@examples/demo/run lab

check: setup ## build, lint and run all tests; the last line is "N passed, M failed"
	@scripts/check

lint: setup ## check formatting, clang-tidy, thread-safety annotations and the project's own rules
	@scripts/lint

unit: build ## run unit, wire and ABI tests
	@scripts/ctest

asan: ## run unit tests under AddressSanitizer and UBSan
	@$(MAKE) --no-print-directory unit PRESET=asan

tsan: ## run unit tests under ThreadSanitizer
	@$(MAKE) --no-print-directory unit PRESET=tsan

integration: build ## run integration tests, which are real processes, on a real kernel's TIPC, in the lab
	@tests/integration/run lab

integration-sim: build ## run integration tests on the simulator (PRESET=release, asan or tsan)
	@tests/integration/run sim

conformance: build ## check on plain sockets that the simulator behaves like the kernel's TIPC
	@tests/conformance/run sim
	@tests/conformance/run lab

fuzz: setup ## fuzz each target for SECONDS=n (60), two at a time; findings go to build/fuzz/findings
	@$(MAKE) --no-print-directory build PRESET=fuzz
	@scripts/fuzz run $(SECONDS)

chaos: build ## run processes under random faults for MINUTES=n (10) with SEED=s (1), ON=sim, lab or wire
	@tests/chaos/run $(ON) $$(($(MINUTES) * 60)) $(SEED)

explore: build ## run the handshake's core on a model of TIPC, at random for SECONDS=n (60) with SEED=s (1), and exhaustively
	@$(BUILD)/tests/explore/zeb_explore --mode all --seconds $(SECONDS) --seed $(SEED) --depth 9 --faults 1

docs: ## draw docs/*.svg from docs/*.dot, the handshake's and the floors' text made anew, and make the reference in HTML
	@scripts/setup docs
	@cmake --preset release >build/configure-release.log 2>&1 || { cat build/configure-release.log; exit 1; }
	@cmake --build build/release -j$(JOBS) --target zeb_handshake_dot -- --no-print-directory >build/build-docs.log 2>&1 || { cat build/build-docs.log; exit 1; }
	@build/release/tests/support/zeb_handshake_dot >docs/handshake.dot
	@scripts/floors --dot >docs/floors.dot
	@set -e; for text in docs/*.dot; do dot -Tsvg $$text >build/drawn.svg; \
		{ cat build/drawn.svg; echo "<!-- of $$(sha256sum <$$text | cut -c1-64) -->"; } >$${text%.dot}.svg; echo "drawn: $${text%.dot}.svg"; done
	@packaging/reference/make_html

bench: ## compare with raw TIPC, libzmq and nng (ROUNDS=7), in the lab and on the simulator; tables and plots go to bench/results
	@scripts/setup bench
	@$(MAKE) --no-print-directory build PRESET=release
	@bench/run all $(ROUNDS)

deb: ## build Debian packages from the tree, with lintian, into build/deb
	@scripts/setup deb
	@packaging/make_deb

deb-test: deb ## install these packages into a fresh root, run a program there, and remove them again (as root)
	@packaging/test_deb

python: build ## build the wheels of both Python packages, zeb and the simulator's, in build/python
	@rm -rf build/python && mkdir -p build/python
	@set -e; for package in bindings/python sim/testing/python; do cp -rL $$package build/python/source; \
		/usr/bin/python3 -m build --wheel --no-isolation --outdir build/python build/python/source >build/python/log 2>&1 || { cat build/python/log; exit 1; }; \
		rm -rf build/python/source; done; ls build/python/*.whl

install: build ## install to PREFIX=/where (/usr/local), below DESTDIR if that is set
	@cmake --install $(BUILD) $(if $(PREFIX),--prefix "$(PREFIX)")

clean: ## remove all build output
	@rm -rf build
