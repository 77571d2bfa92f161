# Thin wrapper around CMake: `make` builds, `make test` builds and runs every
# test, `make demo` builds and runs the restore of the bundled sample tape,
# `make bench` measures the restore and point reads against key-value stores
# (bench/run.sh; not part of `make test`).
BUILD ?= build
JOBS ?= 2

.PHONY: all build test demo bench clean

all: build

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja

build: $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	bash sample/demo.sh $(BUILD)

bench: build
	bash bench/run.sh $(BUILD)

clean:
	rm -rf $(BUILD)
