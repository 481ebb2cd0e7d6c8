# The two everyday commands: `make demo` and `make test`.
MAKEFLAGS += --no-print-directory
BUILD ?= build
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: deps configure build quiet-build test demo bench clean

deps:
	@./scripts/install-deps.sh

configure: deps
	@cmake -S . -B $(BUILD) --log-level=WARNING $(CMAKE_FLAGS) > /dev/null

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# The demo shows the run, not the compiler: the build's lines go to a log,
# shown only when the build fails.
quiet-build: configure
	@echo "building into $(BUILD)/ (log: $(BUILD)/build.log)"
	@cmake --build $(BUILD) -j $(JOBS) > $(BUILD)/build.log 2>&1 || { cat $(BUILD)/build.log; exit 1; }

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: quiet-build
	@./scripts/demo.sh $(BUILD)

bench: build
	./scripts/bench.sh $(BUILD)

clean:
	rm -rf $(BUILD)
