# kivd: make test | make run | make fuzz | make bench
# BUILD names the build folder (default build/); each build flavour gets a tree under it.
BUILD      ?= build
JOBS       ?= $(shell nproc)
FUZZ_SECONDS ?= 60
# The gtest executables run in a shuffled order; SEED=n replays the order of an earlier run.
ifndef SEED
SEED := $(shell expr $$(od -An -N2 -tu2 /dev/urandom) % 99999 + 1)
endif
PREFIX     := $(abspath $(BUILD))/wineprefix
WINESERVER := $(shell command -v wineserver 2>/dev/null || echo /usr/lib/wine/wineserver)
GENERATOR  := $(shell command -v ninja >/dev/null 2>&1 && echo Ninja || echo "Unix Makefiles")
CMAKE_ARGS := $(if $(CI),-DKIV_WERROR=ON)
export WINEPREFIX := $(PREFIX)
export WINEDEBUG  := -all
export WINEDLLOVERRIDES := mscoree,mshtml=

.PHONY: all setup build windows native fuzz-build bench-build test test-native test-windows \
        test-fuzz test-layers fuzz bench soak run kivctl dist clean

all: build

setup:
	@scripts/setup "$(PREFIX)"

# configure DIR FLAVOUR [extra cmake args] [cmake args for a new tree only]
# The toolchain file is read only when a tree is first configured; passed again, cmake
# would warn that it went unused.
define configure
	@cmake -S . -B $(BUILD)/$(1) -G "$(GENERATOR)" -DKIV_FLAVOUR=$(2) $(CMAKE_ARGS) $(3) \
	  $(if $(wildcard $(BUILD)/$(1)/CMakeCache.txt),,$(4)) >/dev/null
	@cmake --build $(BUILD)/$(1) -j $(JOBS)
endef

windows: setup
	$(call configure,windows,windows,-DCMAKE_BUILD_TYPE=RelWithDebInfo,-DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake)

native: setup
	$(call configure,native,native,-DCMAKE_BUILD_TYPE=Debug)

fuzz-build: setup
	$(call configure,fuzz,fuzz,-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DKIV_FUZZ_SECONDS=3)

bench-build: setup
	$(call configure,bench,bench,-DCMAKE_BUILD_TYPE=Release)

build: windows native

test: test-layers windows native fuzz-build
	@echo "== test order: gtest shuffled with seed $(SEED) (replay with: make test SEED=$(SEED))"
	@$(MAKE) --no-print-directory SEED=$(SEED) test-native test-windows test-fuzz

# Every include keeps to its layer; the checker is checked first on a made-up tree.
test-layers:
	@echo "== layering"
	@scripts/check-layers --self-test "$(abspath $(BUILD))/check-layers-selftest"
	@scripts/check-layers

# Wine hands the environment on to Windows processes, so both builds shuffle alike.
GTEST_ENV := GTEST_SHUFFLE=1 GTEST_RANDOM_SEED=$(SEED)

test-native:
	@echo "== native tests (ASan, UBSan), seed $(SEED)"
	@cd $(BUILD)/native && $(GTEST_ENV) ctest --output-on-failure -j $(JOBS)

# One wineserver for the whole run, so that each Windows process starts quickly. Wine's
# own background processes are started first, with their output on /dev/null: started by
# the first test instead, they would inherit ctest's output pipe and ctest would wait
# for them forever.
test-windows:
	@echo "== Windows tests (Wine), seed $(SEED)"
	@ulimit -n 4096 2>/dev/null || true; $(WINESERVER) -p; wine cmd /c exit </dev/null >/dev/null 2>&1; \
	 cd $(BUILD)/windows && $(GTEST_ENV) ctest --output-on-failure -j $(JOBS); rc=$$?; \
	 $(WINESERVER) -k 2>/dev/null; exit $$rc

test-fuzz:
	@echo "== fuzz smoke"
	@cd $(BUILD)/fuzz && ctest --output-on-failure -j $(JOBS)

# Each target for FUZZ_SECONDS, growing its corpus under $(BUILD)/fuzz/corpus from the
# seeds in fuzz/corpus. A crash fails the target (all targets still run) and its input
# stays in $(BUILD)/fuzz/crashes.
fuzz: fuzz-build
	@rc=0; for t in $(BUILD)/fuzz/fuzz/fuzz_*; do \
	  [ -x "$$t" ] || continue; name=$$(basename $$t); short=$${name#fuzz_}; \
	  out=$(BUILD)/fuzz/corpus/$$short; crashes=$(BUILD)/fuzz/crashes; log=$(BUILD)/fuzz/$$name.log; \
	  mkdir -p $$out $$crashes; \
	  echo "== $$name ($(FUZZ_SECONDS) s)"; \
	  seeds=""; [ -d fuzz/corpus/$$short ] && seeds=fuzz/corpus/$$short; \
	  if $$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 -artifact_prefix=$$crashes/$$short- \
	       $$out $$seeds >$$log 2>&1; then tail -n 12 $$log; \
	  else tail -n 40 $$log; echo "== $$name FAILED: input kept in $$crashes (full output: $$log)"; rc=1; fi; \
	done; exit $$rc

# Native benchmarks, then the Windows ones (bench_*.exe under build/windows/bench) under
# one wineserver.
bench: bench-build windows
	@set -e; for b in $(BUILD)/bench/bench/bench_*; do \
	  [ -x "$$b" ] || continue; echo "== $$(basename $$b)"; $$b; done
	@ulimit -n 8192 2>/dev/null || true; $(WINESERVER) -p; \
	 for b in $(BUILD)/windows/bench/bench_*.exe; do \
	  [ -f "$$b" ] || continue; echo "== $$(basename $$b)"; scripts/wine-run $$b || exit 1; done; \
	 $(WINESERVER) -k 2>/dev/null; true

# The reliability runs at full size (10,000 connections, 10,000 control lines), then the
# summary table their tests print.
SOAK_N  ?= 10000
STORM_N ?= 10000
soak: windows
	@ulimit -n 4096 2>/dev/null || true; $(WINESERVER) -p; wine cmd /c exit </dev/null >/dev/null 2>&1; \
	 log=$(BUILD)/windows/soak.log; \
	 KIVD_SOAK_N=$(SOAK_N) KIVD_STORM_N=$(STORM_N) scripts/wine-run \
	   $(BUILD)/windows/tests/reliability/test_reliability.exe --gtest_brief=1 >$$log 2>&1; rc=$$?; \
	 $(WINESERVER) -k 2>/dev/null; grep -v '^|' $$log; \
	 echo "== reliability runs (full size)"; grep '^|' $$log; exit $$rc

# make run: kivd.exe in console mode in the foreground with a demo configuration in the
# project's Wine prefix: the echo agent on a free loopback port ("auto": started for the
# first connection) and on a second one ("on": started at once). Ctrl-C sends
# "quit -Q", so kivd shuts its agents down before it ends (kivd runs in a session of its
# own: Wine would end it on the terminal's interrupt before it could clean up). After
# `kivctl restart` the successor serves in the same console, and make run waits for it.
WIN        := $(BUILD)/windows
KIVD_EXE   := $(WIN)/service/kivd.exe
KIVCTL_EXE := $(WIN)/tools/kivctl/kivctl.exe
ECHO_AGENT ?= $(WIN)/agent/echo-agent.exe
DEMO_KEY   := HKLM\\SOFTWARE\\Orvane\\Agents

run: SHELL := /bin/bash
run: windows
	@set -e; ulimit -n 4096 2>/dev/null || true; \
	 free_port() { p=$$1; while (exec 3<>/dev/tcp/127.0.0.1/$$p) 2>/dev/null; do p=$$((p+1)); done; echo $$p; }; \
	 auto=$$(free_port 7007); on=$$(free_port $$((auto+1))); \
	 agent=$$(winepath -w "$(ECHO_AGENT)"); \
	 reg() { wine reg "$$@" >/dev/null 2>&1; }; \
	 reg delete "$(DEMO_KEY)" /f || true; \
	 reg add "$(DEMO_KEY)\\services\\echo" /v program /d "$$agent" /f; \
	 reg add "$(DEMO_KEY)\\services\\echo" /v description /d "echo demo" /f; \
	 reg add "$(DEMO_KEY)\\tcp\\s$$auto" /v start /d auto /f; \
	 reg add "$(DEMO_KEY)\\tcp\\s$$auto" /v service /d echo /f; \
	 reg add "$(DEMO_KEY)\\tcp\\s$$on" /v start /d on /f; \
	 reg add "$(DEMO_KEY)\\tcp\\s$$on" /v service /d echo /f; \
	 echo "== kivd in console mode (agent: $(ECHO_AGENT))"; \
	 echo "   connect:  nc 127.0.0.1 $$auto   (auto: the agent starts on the first connection)"; \
	 echo "             nc 127.0.0.1 $$on   (on: the agent runs already)"; \
	 echo "   commands: make kivctl ARGS=ls     (or: WINEPREFIX=$(PREFIX) wine $(KIVCTL_EXE) ls)"; \
	 echo "   stop:     Ctrl-C, or make kivctl ARGS='quit -Q'"; \
	 set +e; setsid wine $(KIVD_EXE) -D3 & pid=$$!; \
	 trap 'echo "== stopping kivd"; wine $(KIVCTL_EXE) quit -Q; wait $$pid' INT TERM; \
	 wait $$pid; \
	 while wine $(KIVCTL_EXE) info >/dev/null 2>&1; do \
	   echo "== kivd restarted (kivctl restart): its successor serves in this console"; \
	   trap 'echo "== stopping kivd"; wine $(KIVCTL_EXE) quit -Q' INT TERM; \
	   while wine $(KIVCTL_EXE) info >/dev/null 2>&1; do sleep 1; done; \
	 done; \
	 trap - INT TERM; wait $$pid 2>/dev/null; echo "== kivd ended"

# make kivctl ARGS="ls": one command to the running kivd (no ARGS: commands from stdin).
kivctl:
	@[ -f $(KIVCTL_EXE) ] || $(MAKE) --no-print-directory windows
	@wine $(KIVCTL_EXE) $(ARGS)

# make dist: the MSI (built with the Windows build from packaging/kivd.wxs) and a zip of
# the same files, under $(BUILD)/dist, named with the project's version (CMakeLists.txt).
VERSION  := $(shell grep -o 'kivd VERSION [0-9.]*' CMakeLists.txt | cut -d' ' -f3)
DIST     := $(BUILD)/dist
dist: windows
	@rm -rf $(DIST) && mkdir -p $(DIST)/kivd-$(VERSION)-x64/agent
	@cp $(WIN)/packaging/kivd-$(VERSION)-x64.msi $(DIST)/
	@cp $(KIVD_EXE) $(KIVCTL_EXE) $(WIN)/agent/echo-agent.exe $(WIN)/agent/kivexec.exe README.md $(DIST)/kivd-$(VERSION)-x64/
	@cp $(WIN)/agent/libkivagent.a agent/kivagent.h agent/README.md $(DIST)/kivd-$(VERSION)-x64/agent/
	@cd $(DIST) && zip -qr kivd-$(VERSION)-x64.zip kivd-$(VERSION)-x64
	@ls -l $(DIST)/kivd-$(VERSION)-x64.msi $(DIST)/kivd-$(VERSION)-x64.zip

clean:
	rm -rf $(BUILD)/windows $(BUILD)/native $(BUILD)/fuzz $(BUILD)/bench $(BUILD)/dist
