# The two commands of the README:
#   make run   installs what is missing, builds, starts the daemon on the
#              system clock with the example configuration
#   make test  installs what is missing, builds, runs every test
BUILD ?= build
JOBS ?= $(shell nproc)
DEPS = cmake g++ make pkg-config libopus-dev libasound2-dev libgtest-dev libgmock-dev \
       libbenchmark-dev iproute2

.PHONY: all deps build run test bench clean

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

clean:
	rm -rf $(BUILD)
