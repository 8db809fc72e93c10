# Entry points: `make test` (install what is missing, configure, build, run
# the test suite), `make bench`, `make asan` (tests under Address and
# UndefinedBehavior sanitizers), `make docs` (API reference). Build trees
# live in build/ and build-asan/.
BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
CMAKE_ARGS ?=

.PHONY: all deps configure build test bench asan docs clean

all: build

deps:
	@./scripts/install-deps.sh || echo "warning: could not install every dependency; the configure step says what is missing"

configure: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD)/bench_*; do [ -x "$$b" ] && { echo "== $$b"; "$$b"; }; done

asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZOT_SANITIZE=ON -DZOT_BUILD_BENCH=OFF $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ctest --output-on-failure -j $(JOBS)

# API reference (Doxygen, warning-free: any warning fails the target).
docs:
	@command -v doxygen >/dev/null || ./scripts/install-deps.sh doxygen
	mkdir -p $(BUILD)/docs
	ZOT_DOCS_OUT=$(BUILD)/docs doxygen docs/Doxyfile
	@echo "API reference: $(BUILD)/docs/html/index.html"

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
