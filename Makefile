# The entry point. Every target installs the Debian packages it needs, builds what it needs and then does its work; on a fresh Debian 12,
# as root or with sudo, nothing else has to be set up first.

SHELL := /bin/bash
.DEFAULT_GOAL := help
.SUFFIXES:

# Which build `make build`, `make test`, `make run` and `make demo` use: release, dev, asan, tsan or clang.
PRESET ?= release
# Passed on to ctest, for example: make test ARGS="-R barrier"
ARGS ?=
# Which end-to-end tests `make kernels` runs
export TESTS ?= dataplane packets
JOBS := $(shell nproc)

bin = build/$(1)/bin
packages = @tools/make/install-packages $(1)
# Configures the preset if that was never done, then builds the targets of $(2), or everything.
build = $(if $(wildcard build/$(1)/build.ninja),,cmake --preset $(1) &&) cmake --build --preset $(1) $(if $(2),--target $(2))
ctest = ctest --preset $(1) -j$(JOBS) $(ARGS)

programs := ssc_kelim kelimctl kelim-programmer
sources = $(shell git ls-files '*.cpp' '*.h')

.PHONY: help
help: ## this list
	@echo "Start with make demo. Targets:"
	@sed -nE 's/^([a-z0-9-]+):.*## (.*)/  \1\t\2/p' Makefile | expand -t 18
	@echo "PRESET=release|dev|asan|tsan|clang chooses the build, ARGS=... is handed to ctest (make test ARGS=\"-R barrier\")."

.PHONY: demo
demo: ## shows the daemon at work with a real OpenFlow client, and checks what it shows
	$(call packages)
	$(call build,$(PRESET),$(programs))
	@tools/demo/demo $(call bin,$(PRESET))

.PHONY: demo-packets
demo-packets: ## shows flows and meters at work on real packets between two hosts in network namespaces (needs root)
	$(call packages)
	$(call build,$(PRESET),$(programs))
	@tools/demo/packets $(call bin,$(PRESET))

.PHONY: test
test: ## builds and runs every test
	$(call packages)
	$(call build,$(PRESET))
	$(call ctest,$(PRESET))

.PHONY: run
run: ## runs the daemon in the foreground on 127.0.0.1:6653
	$(call packages)
	$(call build,$(PRESET),$(programs))
	@tools/demo/run $(call bin,$(PRESET))

.PHONY: run-redis
run-redis: ## the same with Redis as the object database and the programming service as a separate process
	$(call packages)
	$(call build,$(PRESET),$(programs))
	@tools/demo/run $(call bin,$(PRESET)) --redis

.PHONY: build
build: ## builds everything
	$(call packages)
	$(call build,$(PRESET))

# Where `make install` puts things. DESTDIR is put in front of every path, and CONF_DIR holds kelim/host.toml whatever the prefix.
PREFIX ?= /usr/local
CONF_DIR ?= /etc

.PHONY: install
install: ## builds and installs programs, units, manual pages and configuration (PREFIX=/usr/local CONF_DIR=/etc DESTDIR=)
	$(call packages)
	@cmake --preset release -D KELIM_CONF_DIR=$(CONF_DIR) >/dev/null
	$(call build,release,$(programs) kelim_generated)
	DESTDIR=$(DESTDIR) cmake --install build/release --prefix $(PREFIX)

.PHONY: deb
deb: ## builds the Debian packages into build/deb
	$(call packages,deb)
	@tools/make/deb

.PHONY: check-deb
check-deb: ## tries these packages in a bare Debian 12: install, run, upgrade, remove, purge (needs root and a Debian mirror)
	$(call packages,deb check-deb)
	@tools/make/deb
	@tools/make/check-deb

.PHONY: arm64
arm64: ## builds for 64-bit ARM into build/arm64 and runs all tests but e2e under QEMU
	$(call packages,arm64)
	@tools/make/arm64-sysroot
	@echo "Building for 64-bit ARM; then its tests, under QEMU"
	$(call build,arm64)
	$(call ctest,arm64)

.PHONY: kernels
kernels: ## the data plane's tests on Debian 12's own kernel, amd64 and arm64, under QEMU (TESTS=dataplane)
	$(call packages,arm64 kernels)
	@tools/make/arm64-sysroot
	$(call build,release,$(programs))
	$(call build,arm64,$(programs))
	@tools/kernels/kernels amd64=$(call bin,release) arm64=$(call bin,arm64)

.PHONY: deb-arm64
deb-arm64: ## builds the Debian packages for 64-bit ARM into build/deb-arm64
	$(call packages,arm64 deb)
	@tools/make/arm64-sysroot
	@tools/make/deb arm64

.PHONY: asan
asan: ## every test under the address and undefined-behaviour sanitizers
	@$(MAKE) --no-print-directory test PRESET=asan

.PHONY: tsan
tsan: ## every test under the thread sanitizer
	@$(MAKE) --no-print-directory test PRESET=tsan

.PHONY: fuzz
fuzz: ## builds the fuzz targets with clang and runs each for a minute
	$(call packages,fuzz)
	$(call build,fuzz)
	@for target in $(call bin,fuzz)/*_fuzz; do echo "== $$target"; $$target -max_total_time=60 || exit 1; done

.PHONY: soak
soak: ## an hour under changing load: nothing may be lost, no memory leaked (ARGS="--redis --minutes 20")
	$(call packages)
	$(call build,$(PRESET),$(programs))
	@tools/soak/soak $(call bin,$(PRESET)) $(ARGS)

.PHONY: bench
bench: ## the benchmarks
	$(call packages)
	$(call build,release)
	@for program in $(call bin,release)/*_bench; do echo "== $$program"; $$program || exit 1; done

.PHONY: bench-compare
bench-compare: ## compares the daemon with Open vSwitch, and the path over Redis with Redis itself (ARGS=--quick: some minutes)
	$(call packages,bench-compare)
	$(call build,release,$(programs) of_load loop_probe redis_load)
	@bench/compare.py $(call bin,release) $(ARGS)

.PHONY: bench-planes
bench-planes: ## compares the data plane with Open vSwitch's user-space data path and a Linux bridge (needs root; ARGS=--quick)
	$(call packages,bench-compare)
	$(call build,release,$(programs) of_load packet_load)
	@bench/planes.py $(call bin,release) $(ARGS)

.PHONY: format
format: ## formats the C++ sources in place
	$(call packages,format)
	@clang-format -i $(sources)

.PHONY: clang
clang: ## builds the programs with clang, for its warnings and its analysis of locks
	$(call packages)
	$(call build,clang,$(programs))

.PHONY: tidy
tidy: ## checks the C++ sources with clang-tidy and clang-format
	$(call packages,format tidy)
	$(call build,clang,$(programs))
	@clang-format --dry-run -Werror $(sources)
	@tools/make/tidy build/clang '(app|header|lib|platform|services|tools)/'

.PHONY: packages
packages: ## only installs the Debian packages
	$(call packages)

.PHONY: clean
clean: ## removes everything built
	rm -rf build
