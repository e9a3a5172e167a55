# Wraps the CMake presets in the few commands a developer needs:
#   make demo   install missing Debian packages, build, run the example
#   make test   the same, then the whole test suite
# Other targets: asan-test, tsan-test, coverage, coverage-cases, fuzz-smoke, bench, install, clean.

# Debian packages the build needs. Add new build dependencies here (and find
# them in cmake/VelDependencies.cmake).
PACKAGES := cmake ninja-build g++ make pkg-config \
            libgtest-dev libgmock-dev libbenchmark-dev libpugixml-dev \
            clang libclang-rt-14-dev \
            libsqlite3-dev sqlite3 libcrypto++-dev libsoci-dev libcli11-dev \
            unixodbc-dev odbc-mdbtools postgresql \
            python3-olefile libgsf-1-dev \
            binutils-mingw-w64-x86-64 binutils-mingw-w64-i686 gcovr ccache

PREFIX ?= /usr/local
JOBS := 2
FUZZ_SECONDS ?= 30
BENCH_ARGS ?=

CMAKE ?= cmake
CTEST ?= ctest

export DEBIAN_FRONTEND := noninteractive

# Builds go through ccache when it is there. Paths under the project are
# hashed relative to it, so another clone of the tree (CI's) reuses what an
# earlier build compiled.
ifneq ($(shell command -v ccache 2>/dev/null),)
export CMAKE_CXX_COMPILER_LAUNCHER ?= ccache
export CMAKE_C_COMPILER_LAUNCHER ?= ccache
export CCACHE_BASEDIR ?= $(CURDIR)
export CCACHE_NOHASHDIR ?= 1
endif

.PHONY: all deps build demo test asan-test tsan-test coverage coverage-cases fuzz-smoke bench install clean

all: build

# Installs what is missing when running as root; otherwise prints the command
# to run and fails.
deps:
	@if ! command -v dpkg >/dev/null 2>&1; then \
	  echo "deps: not a Debian system; make sure these are installed: $(PACKAGES)"; \
	  exit 0; \
	fi; \
	missing=""; \
	for p in $(PACKAGES); do \
	  dpkg -s "$$p" 2>/dev/null | grep -q '^Status: install ok installed' || missing="$$missing $$p"; \
	done; \
	if [ -z "$$missing" ]; then exit 0; fi; \
	echo "deps: missing Debian packages:$$missing"; \
	if [ "$$(id -u)" = 0 ]; then \
	  apt-get update && apt-get install -y --no-install-recommends $$missing; \
	else \
	  echo "deps: run: sudo apt-get install -y --no-install-recommends$$missing"; \
	  exit 1; \
	fi

# configure PRESET BINARY_DIR: configures once; later builds re-run CMake
# themselves when CMakeLists or the source globs change. A tree left without
# build.ninja (failed or foreign configure) is configured afresh.
define configure
	@if [ ! -f "$(2)/build.ninja" ]; then \
	  fresh=""; [ -f "$(2)/CMakeCache.txt" ] && fresh="--fresh"; \
	  echo "$(CMAKE) --preset $(1) $$fresh"; $(CMAKE) --preset $(1) $$fresh; \
	fi
endef

build: deps
	$(call configure,default,build)
	$(CMAKE) --build build -j$(JOBS)

# Runs every example program, vel_demo first, then the others in name order.
demo: build
	@set -e; \
	if [ ! -x build/examples/vel_demo ]; then \
	  echo "demo: build/examples/vel_demo was not built (is there an examples/demo.cpp?)"; \
	  exit 1; \
	fi; \
	for e in build/examples/vel_demo $$(ls build/examples/vel_* | grep -v '/vel_demo$$' | sort); do \
	  [ -x "$$e" ] && [ -f "$$e" ] || continue; \
	  echo "== $$e"; "$$e"; \
	done

test: build
	$(CTEST) --preset default

asan-test: deps
	$(call configure,asan,build-asan)
	$(CMAKE) --build build-asan -j$(JOBS)
	$(CTEST) --preset asan

# Runs without address-space randomisation where possible: ThreadSanitizer
# refuses some randomised memory layouts of recent kernels.
tsan-test: deps
	$(call configure,tsan,build-tsan)
	$(CMAKE) --build build-tsan -j$(JOBS)
	@if setarch "$$(uname -m)" -R true 2>/dev/null; then \
	  echo "setarch $$(uname -m) -R $(CTEST) --preset tsan"; \
	  setarch "$$(uname -m)" -R $(CTEST) --preset tsan; \
	else \
	  echo "$(CTEST) --preset tsan"; \
	  $(CTEST) --preset tsan; \
	fi

# Line and branch coverage of src/ by the whole suite, in its own tree. Counts
# from an earlier run are cleared first; gcovr reads them once into a JSON
# tracefile, from which the per-file tables and the HTML report are made.
# Branches that only exist for exceptions the compiler might throw are left
# out: they would swamp the branches of the code itself.
COVERAGE_DIR := build-coverage/coverage
GCOVR_FILTER := --root . --filter 'src/'
coverage: deps
	$(call configure,coverage,build-coverage)
	$(CMAKE) --build build-coverage -j$(JOBS)
	find build-coverage -name '*.gcda' -delete
	$(CTEST) --preset coverage
	mkdir -p $(COVERAGE_DIR)
	gcovr $(GCOVR_FILTER) --object-directory build-coverage -j $(JOBS) \
	  --exclude-unreachable-branches --exclude-throw-branches \
	  --json $(COVERAGE_DIR)/coverage.json
	gcovr $(GCOVR_FILTER) -a $(COVERAGE_DIR)/coverage.json \
	  --txt $(COVERAGE_DIR)/lines.txt
	gcovr $(GCOVR_FILTER) -a $(COVERAGE_DIR)/coverage.json \
	  --branches --txt $(COVERAGE_DIR)/branches.txt
	gcovr $(GCOVR_FILTER) -a $(COVERAGE_DIR)/coverage.json \
	  --html-details $(COVERAGE_DIR)/index.html --print-summary
	@cat $(COVERAGE_DIR)/lines.txt $(COVERAGE_DIR)/branches.txt
	@echo "coverage: HTML report at $(COVERAGE_DIR)/index.html"

# Runs every test case alone in the coverage tree and lists, in
# $(COVERAGE_DIR)/cases.tsv, what of src/ each case is the only one to reach;
# summary.txt names the cases whose code the others reach too.
coverage-cases: deps
	$(call configure,coverage,build-coverage)
	$(CMAKE) --build build-coverage -j$(JOBS)
	python3 scripts/coverage-cases.py build-coverage $(COVERAGE_DIR) $(JOBS)

fuzz-smoke: deps
	$(call configure,fuzz,build-fuzz)
	$(CMAKE) --build build-fuzz -j$(JOBS)
	VEL_FUZZ_BUILD_DIR="$(CURDIR)/build-fuzz" fuzz/run-smoke.sh $(FUZZ_SECONDS)

bench: build
	@set -e; found=0; \
	for b in build/bench/bench_*; do \
	  [ -x "$$b" ] || continue; found=1; \
	  echo "== $$b"; "$$b" $(BENCH_ARGS); \
	done; \
	if [ $$found = 0 ]; then echo "bench: no benchmark programs built (bench/*.cpp)"; fi

install: build
	$(CMAKE) --install build --prefix "$(PREFIX)"
	@if [ "$$(id -u)" = 0 ] && command -v ldconfig >/dev/null 2>&1; then ldconfig; fi

clean:
	rm -rf build build-asan build-tsan build-fuzz build-coverage
