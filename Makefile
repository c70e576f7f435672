# A thin layer over CMake. `make run` and `make test` each do everything from a fresh machine:
# install what is missing, configure, build, then run the demo or the whole test suite.
JOBS ?= $(shell nproc)
BUILD ?= build
# Cache hits across clones of the repository: paths are hashed relative to the checkout.
export CCACHE_BASEDIR ?= $(CURDIR)
export CCACHE_NOHASHDIR ?= true

.PHONY: all deps build run test test-fast bench fuzz format clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	@scripts/configure.sh $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	@cmake --build $(BUILD) -j $(JOBS)

# Only what the demo runs: the library, zlkd, the tools and the examples.
run: deps
	@scripts/configure.sh $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	@cmake --build $(BUILD) -j $(JOBS) --target demo_programs
	@scripts/run-demo.sh $(BUILD)

# Plain build, then AddressSanitizer + UndefinedBehaviorSanitizer, then ThreadSanitizer on the
# concurrency tests, then a short fuzzing run of every decoder.
test: deps
	@scripts/test.sh

# The plain build's tests only.
test-fast: build
	@cd $(BUILD) && ctest -j $(JOBS) --output-on-failure

bench: build
	@scripts/run-bench.sh $(BUILD)

fuzz: deps
	@scripts/fuzz.sh

format:
	@git ls-files '*.cpp' '*.hpp' '*.h' '*.c' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-fuzz
