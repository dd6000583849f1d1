# Short names for the usual work. `make run` and `make check` stand on a bare Debian 12 as root; the others expect that
# `make install-deps` has been run once.
BUILD = cmake --build build/$(1)
CONFIGURE = cmake --preset $(1) >/dev/null
PRESET ?= release

.PHONY: help build run check check-device check-asan bench fuzz kernel install-deps clean format tidy

# Packages come before the build that needs them, also with -j.
.NOTPARALLEL:

help:
	@sed -n 's/^## //p' Makefile

## make run           install, build, boot an edge device, commit two VPNs, report; on a terminal: the operator's CLI
run: install-deps build
	@lab/device --config lab/samples/two-vpns.cfg -- $(CURDIR)/lab/report --then-cli

## make check         build, then unit tests, component cases, fuzz corpora and a short set of device cases
check: install-deps build
	@scripts/check $(PRESET) units harness oracle-harness random-harness replay-harness launcher topology component oracle replay random pair device-short

## make check-device  all device cases
check-device: build
	@scripts/check $(PRESET) launcher topology pair device oracle-long replay-long random-long

## make check-asan    the tests of `make check` with address and undefined-behaviour sanitizers
check-asan:
	@$(MAKE) --no-print-directory PRESET=asan build
	@scripts/check asan units launcher topology component oracle replay random device-short

## make bench         benchmarks, as tables; BENCH_OPTIONS go to each in-process one
bench:
	@$(MAKE) --no-print-directory PRESET=bench build
	@for program in build/bench/bin/bench_*; do $$program $(BENCH_OPTIONS) || exit; done
	@taskset -c 0 lab/device --build build/bench --kernel host -- $(CURDIR)/build/bench/bin/commit_latency
	@taskset -c 0 lab/device --build build/bench --kernel host --timeout 0 -- $(CURDIR)/build/bench/bin/validation_cost
	@taskset -c 0 lab/device --build build/bench --kernel host --timeout 0 -- $(CURDIR)/build/bench/bin/routing_messages
	@taskset -c 0 build/bench/bin/agent_scale
	@bench/network_commands --build build/bench

## make fuzz          run each fuzzer for FUZZ_SECONDS (60); needs `scripts/install-deps fuzz`
fuzz:
	@$(MAKE) --no-print-directory PRESET=fuzz build
	@scripts/fuzz build/fuzz $${FUZZ_SECONDS:-60}

## make build         build with PRESET: release (default), debug, asan, bench, fuzz
build:
	@$(call CONFIGURE,$(PRESET))
	@$(call BUILD,$(PRESET))

## make kernel        build the fast user-mode kernel into the cache (7 min, needs the network once)
kernel:
	@lab/build-kernel

## make install-deps  install the Debian packages that are missing
install-deps:
	@scripts/install-deps

## make format, tidy  clang-format in place; clang-tidy over all sources (both need `scripts/install-deps fuzz`)
format:
	@git ls-files '*.cc' '*.h' | xargs clang-format -i

tidy:
	@$(call CONFIGURE,debug)
	@git ls-files '*.cc' | xargs -P"$$(nproc)" -n4 clang-tidy --quiet -p build/debug

## make clean         remove all builds
clean:
	rm -rf build
