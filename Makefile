# Thin wrapper around CMake: `make` builds, `make test` builds and runs every
# test, `make demo` builds and runs the restore of the bundled sample tape,
# `make bench` measures the restore and point reads against key-value stores
# (bench/run.sh; not part of `make test`), `make install PREFIX=...`
# installs the programs and man pages (default /usr/local) and
# `make uninstall PREFIX=...` removes them again.
BUILD ?= build
JOBS ?= 2
PREFIX ?= /usr/local

.PHONY: all build test demo bench clean install uninstall

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

install: build
	cmake --install $(BUILD) --prefix "$(PREFIX)"

# Removes what an install into PREFIX put there: the same install into a
# scratch folder lists the files.
uninstall: build
	rm -rf $(BUILD)/uninstall-list
	cmake --install $(BUILD) --prefix $(BUILD)/uninstall-list > /dev/null
	cd $(BUILD)/uninstall-list && find . ! -type d | sed 's|^\./||' | \
	  while IFS= read -r f; do rm -f "$(PREFIX)/$$f"; done
	rm -rf $(BUILD)/uninstall-list

clean:
	rm -rf $(BUILD)
