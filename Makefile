# Entry points; everything else is CMake. `make test` and `make demo` work on a fresh
# Debian machine: they install what is missing first.
BUILD    ?= build
TYPE     ?= RelWithDebInfo
SANITIZE ?= OFF
JOBS     ?= $(shell nproc)
CMAKE_ARGS ?=
# VELD_WERROR: set by the targets below that developers and CI use; empty keeps what the
# build directory has (so `make demo` after `make test` rebuilds nothing).
WERROR   ?=

.PHONY: all deps configure build test demo bench asan-test release-build install install-check package fuzz format check-format clean

all: build

deps:
	@./scripts/install-deps

configure: deps
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=$(TYPE) -DVELD_SANITIZE=$(SANITIZE) \
	   $(if $(WERROR),-DVELD_WERROR=$(WERROR)) $(CMAKE_ARGS) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: WERROR = ON
test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS) --timeout 600

demo: build
	@./scripts/demo $(BUILD)

bench: build
	@./scripts/bench $(BUILD)

asan-test:
	@$(MAKE) --no-print-directory test BUILD=build-asan SANITIZE=ON TYPE=Debug CMAKE_ARGS=-DVELD_BENCH=OFF

# The library and the program as a user builds them (Release, -O3), warnings as errors;
# no tests or benchmarks, installed under /usr. `make install` and `make package` use it.
RELEASE_BUILD ?= build-release
release-build: deps
	@cmake -S . -B $(RELEASE_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DVELD_WERROR=ON \
	   -DVELD_TESTS=OFF -DVELD_BENCH=OFF -DCMAKE_INSTALL_PREFIX=/usr $(CMAKE_ARGS) >/dev/null
	@cmake --build $(RELEASE_BUILD) -j $(JOBS)

# Installs into /usr, or into $(DESTDIR)/usr (`cmake --install build-release --prefix DIR`
# installs elsewhere).
install: release-build
	@DESTDIR=$(DESTDIR) cmake --install $(RELEASE_BUILD)

# Installs into a scratch prefix and builds examples/consumer against it.
install-check: release-build
	@./scripts/check-install $(RELEASE_BUILD)

# The Debian package (CPack): $(RELEASE_BUILD)/veld_<version>_<arch>.deb.
package: release-build
	@cd $(RELEASE_BUILD) && cpack -G DEB

# A random campaign of every fuzz target, FUZZ_SECONDS each (CI runs a short, fixed one).
FUZZ_SECONDS ?= 600
fuzz: deps
	@./scripts/fuzz campaign $(FUZZ_SECONDS)

format:
	@git ls-files '*.cc' '*.h' | xargs clang-format -i

check-format:
	@git ls-files '*.cc' '*.h' | xargs clang-format --dry-run --Werror

clean:
	@rm -rf build build-asan build-fuzz build-release
