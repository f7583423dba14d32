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

.PHONY: all deps build run test bench package armhf-deps armhf armhf-test armhf-package clean

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
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	for b in $(BUILD)/bench/*_bench; do $$b; done

package: build
	cd $(BUILD) && cpack

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

clean:
	rm -rf $(BUILD) $(ARMHF_BUILD)
