# Velm: build, test and demo entry points.
BUILD      ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
BENCH_BUILD ?= build-bench
FUZZ_SECONDS ?= 60
CMAKE_FLAGS ?=

.PHONY: all deps build test test-asan run fuzz bench install clean

all: build

deps:
	@scripts/install-deps

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_FLAGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD)

test: build
	cd $(BUILD) && ctest --output-on-failure -j2 --timeout 600

test-asan: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DVELM_SANITIZE=ON $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j2 --timeout 900

# Runs every libFuzzer target for FUZZ_SECONDS, growing its corpus in tests/fuzz/corpus/<name>/.
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DVELM_FUZZ=ON -DVELM_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD)
	@for f in $(FUZZ_BUILD)/bin/*_fuzz; do \
	  name=$$(basename $$f _fuzz); mkdir -p tests/fuzz/corpus/$$name; \
	  echo "== fuzzing $$name for $(FUZZ_SECONDS)s"; \
	  $$f -max_total_time=$(FUZZ_SECONDS) -max_len=65536 tests/fuzz/corpus/$$name || exit 1; \
	done

bench: deps
	cmake -S . -B $(BENCH_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Release -DSAN_BUILD_BENCHMARKS=ON -DVELM_BUILD_TESTS=OFF $(CMAKE_FLAGS)
	cmake --build $(BENCH_BUILD)
	@for b in $(BENCH_BUILD)/bin/*_bench; do echo "== $$b"; $$b || exit 1; done

run: build
	@scripts/demo $(BUILD)

install: build
	cmake --install $(BUILD) --prefix $(or $(PREFIX),/usr/local)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(BENCH_BUILD)
