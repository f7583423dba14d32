# The two commands of the README:
#   make run   installs what is missing, builds, starts the daemon on the
#              system clock with the example configuration
#   make test  installs what is missing, builds, runs every test
BUILD ?= build
JOBS ?= $(shell nproc)
DEPS = cmake g++ make pkg-config libopus-dev libasound2-dev libgtest-dev libgmock-dev \
       libbenchmark-dev iproute2

ARMHF_BUILD ?= build-armhf
ARMHF_DEPS = g++-arm-linux-gnueabihf qemu-user libopus-dev:armhf libasound2-dev:armhf libgtest-dev

.PHONY: all deps build run test bench package armhf-deps armhf armhf-test armhf-package clean

all: build

deps:
	@missing=""; for p in $(DEPS); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

run: build
	./$(BUILD)/pelod -p - -f examples/pelod.conf

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	for b in $(BUILD)/bench/*_bench; do $$b; done

package: build
	cd $(BUILD) && cpack

# The target board: armhf cross-build; its tests run under qemu-arm.
armhf-deps:
	@dpkg --print-foreign-architectures | grep -qx armhf || dpkg --add-architecture armhf
	@missing=""; for p in $(ARMHF_DEPS); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  apt-get update -qq || true; \
	  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi

armhf: armhf-deps
	cmake -S . -B $(ARMHF_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	cmake --build $(ARMHF_BUILD) -j $(JOBS)

armhf-test: armhf
	cd $(ARMHF_BUILD) && ctest --output-on-failure -j $(JOBS)

armhf-package: armhf
	cd $(ARMHF_BUILD) && cpack

clean:
	rm -rf $(BUILD) $(ARMHF_BUILD)
