# Entry points; everything else is CMake. `make test` and `make demo` work on a fresh
# Debian machine: they install what is missing first.
BUILD    ?= build
TYPE     ?= RelWithDebInfo
SANITIZE ?= OFF
JOBS     ?= $(shell nproc)
CMAKE_ARGS ?=

.PHONY: all deps configure build test demo bench asan-test fuzz format check-format clean

all: build

deps:
	@./scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=$(TYPE) -DVELD_SANITIZE=$(SANITIZE) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

demo: build
	@./scripts/demo $(BUILD)

bench: build
	@./scripts/bench $(BUILD)

asan-test:
	@$(MAKE) --no-print-directory test BUILD=build-asan SANITIZE=ON TYPE=Debug CMAKE_ARGS=-DVELD_BENCH=OFF

# A random campaign of every fuzz target, FUZZ_SECONDS each (CI runs a short, fixed one).
FUZZ_SECONDS ?= 600
fuzz: deps
	@./scripts/fuzz campaign $(FUZZ_SECONDS)

format:
	@git ls-files '*.cc' '*.h' | xargs clang-format -i

check-format:
	@git ls-files '*.cc' '*.h' | xargs clang-format --dry-run --Werror

clean:
	@rm -rf build build-asan build-fuzz
