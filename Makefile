# The two everyday commands: `make demo` and `make test`.
MAKEFLAGS += --no-print-directory
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps configure build test demo bench clean

deps:
	./scripts/install-deps.sh

configure: deps
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	./scripts/demo.sh $(BUILD)

bench: build
	./scripts/bench.sh $(BUILD)

clean:
	rm -rf $(BUILD)
