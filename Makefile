# The two commands of the README:
#   make run   installs what is missing, builds, starts the daemon on the
#              system clock with the example configuration
#   make test  installs what is missing, builds, runs every test
BUILD ?= build
JOBS ?= $(shell nproc)
DEPS = cmake g++ make pkg-config libopus-dev libasound2-dev libgtest-dev libgmock-dev \
       libbenchmark-dev iproute2 gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good ffmpeg man-db

ARMHF_BUILD ?= build-armhf
ARMHF_DEPS = g++-arm-linux-gnueabihf qemu-user libopus-dev:armhf libasound2-dev:armhf libgtest-dev

.PHONY: all deps build run test bench package format lint armhf-deps armhf armhf-test armhf-package san-test fuzz soak clean

all: build

# Installs what is missing of the packages $(1). A package counts as
# installed in the native architecture (once armhf is added, a plain name
# can be ambiguous); a failing index (such as a foreign architecture's) does
# not stop the install.
define install_missing
	@arch=$$(dpkg --print-architecture); missing=""; for p in $(1); do \
	  dpkg -s $$p >/dev/null 2>&1 || dpkg -s $$p:$$arch >/dev/null 2>&1 || missing="$$missing $$p"; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq || true; \
	  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi
endef

deps:
	$(call install_missing,$(DEPS))

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

# The configuration is checked first (errors stop here), then a test tone
# goes to the example's unicast crosspoint, so the report
# (/tmp/pelod.stat) shows a level on that flow and on the "spk" mix.
run: build
	@./$(BUILD)/pelod-check examples/pelod.conf || [ $$? -eq 1 ]
	@./$(BUILD)/pelod -p - -f examples/pelod.conf & pelod=$$!; \
	(sleep 1; exec ./$(BUILD)/pelod-tone -q -f 440 -l -12 127.0.0.1:5004) & tone=$$!; \
	trap 'kill $$pelod $$tone 2>/dev/null' INT TERM; \
	echo "pelod-tone: 440 Hz at -12 dBFS to 127.0.0.1:5004; report: /tmp/pelod.stat (watch -n1 cat /tmp/pelod.stat)"; \
	wait $$pelod; kill $$tone 2>/dev/null; wait

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) -LE soak

# The daemon under reloads and hostile traffic for SOAK_SECONDS (hours by
# hand: make soak SOAK_SECONDS=14400).
SOAK_SECONDS ?= 150
soak: build
	cd $(BUILD) && PELOD_SOAK_SECONDS=$(SOAK_SECONDS) ctest -L soak -V --timeout $$(($(SOAK_SECONDS) + 120)) \
	  >soak.log 2>&1; s=$$?; grep -E 'soak: |tests passed|tests failed' soak.log; \
	  [ $$s -eq 0 ] || tail -n 80 soak.log; exit $$s

bench: build
	for b in $(BUILD)/bench/*_bench; do $$b; done

package: build
	cd $(BUILD) && cpack

# Style: `make format` rewrites, and `make lint` checks, only the C++ files
# that differ from FORMAT_BASE (main), so a change never reformats code it
# does not touch; FORMAT_FILES="$$(git ls-files '*.cpp' '*.h')" takes all.
# `make lint` also runs clang-tidy (.clang-tidy) over the daemon and tools.
LINT_DEPS = clang-format-14 clang-tidy-14
FORMAT_BASE ?= main
FORMAT_FILES ?= $(shell git diff --name-only --diff-filter=d $$(git merge-base HEAD $(FORMAT_BASE) 2>/dev/null || echo HEAD) -- \
	'src/*.cpp' 'src/*.h' 'tools/*.cpp' 'tests/*.cpp' 'tests/*.h' 'bench/*.cpp' 'bench/*.h' 2>/dev/null)
TIDY_FILES ?= $(shell git ls-files 'src/*.cpp' 'tools/*.cpp')

format:
	$(call install_missing,$(LINT_DEPS))
	$(if $(strip $(FORMAT_FILES)),clang-format-14 -i $(FORMAT_FILES),@echo "format: no changed files")

lint: deps
	$(call install_missing,$(LINT_DEPS))
	$(if $(strip $(FORMAT_FILES)),clang-format-14 --dry-run --Werror $(FORMAT_FILES))
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_EXPORT_COMPILE_COMMANDS=ON >/dev/null
	run-clang-tidy-14 -quiet -p $(BUILD) -j $(JOBS) $(TIDY_FILES)

# The target board: armhf cross-build; its tests run under qemu-arm.
armhf-deps:
	@dpkg --print-foreign-architectures | grep -qx armhf || dpkg --add-architecture armhf
	$(call install_missing,$(ARMHF_DEPS))

armhf: armhf-deps
	cmake -S . -B $(ARMHF_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(ARMHF_BUILD) -j $(JOBS)

armhf-test: armhf
	cd $(ARMHF_BUILD) && ctest --output-on-failure -j $(JOBS)

armhf-package: armhf
	cd $(ARMHF_BUILD) && cpack

# The whole suite under AddressSanitizer and UBSan, as a Debug build (so
# the real-time context checks are on too).
SAN_BUILD ?= build-san
SAN_CC ?= gcc
SAN_CXX ?= g++
san-test: deps
	CC=$(SAN_CC) CXX=$(SAN_CXX) cmake -S . -B $(SAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DPELOD_ASAN=ON \
	  -DPELOD_BENCH=OFF >/dev/null
	cmake --build $(SAN_BUILD) -j $(JOBS)
	cd $(SAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS) -LE soak

# libFuzzer targets (clang) under ASan and UBSan, FUZZ_SECONDS each, seeded
# with valid datagrams and the example configuration; a finding fails.
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 30
FUZZ_DEPS = clang libclang-rt-14-dev
fuzz: deps
	$(call install_missing,$(FUZZ_DEPS))
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPELOD_FUZZ=ON \
	  -DPELOD_TESTS=OFF -DPELOD_BENCH=OFF >/dev/null
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target recv_fuzz config_fuzz
	rm -rf $(FUZZ_BUILD)/corpus && mkdir -p $(FUZZ_BUILD)/corpus/recv $(FUZZ_BUILD)/corpus/config
	PELOD_FUZZ_SEEDS=$(FUZZ_BUILD)/corpus/recv $(FUZZ_BUILD)/tests/fuzz/recv_fuzz
	cp examples/pelod.conf $(FUZZ_BUILD)/corpus/config/
	for t in recv config; do \
	  $(FUZZ_BUILD)/tests/fuzz/$${t}_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=4096 -print_final_stats=1 \
	    -artifact_prefix=$(FUZZ_BUILD)/$${t}- $(FUZZ_BUILD)/corpus/$$t 2>$(FUZZ_BUILD)/$$t.log \
	    || { tail -n 60 $(FUZZ_BUILD)/$$t.log; exit 1; }; \
	  grep -E '^(stat::number_of_executed_units|#[0-9]+.*DONE)' $(FUZZ_BUILD)/$$t.log | sed "s/^/$$t: /"; \
	done

clean:
	rm -rf $(BUILD) $(ARMHF_BUILD) $(SAN_BUILD) $(FUZZ_BUILD)
