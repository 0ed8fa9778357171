# Thin wrapper over CMake. `make test` and `make demo` work on a fresh Debian 12 machine.
BUILD     ?= build
JOBS      ?= $(shell nproc)
CMAKE_GEN := -G Ninja

.PHONY: all deps build test demo bench asan tsan stress fuzz format clean

all: build

deps:
	@bash scripts/install-deps.sh

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest -j $(JOBS) --output-on-failure -LE stress

# Installs and builds only what the tool needs (no test framework, no clang), in a build folder
# of its own, then plays the session with its defaults.
demo:
	@bash scripts/install-deps.sh --demo
	@[ -f build-demo/build.ninja ] || cmake -S . -B build-demo $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DJX_BUILD_TESTS=OFF -DJX_BUILD_EXAMPLES=OFF
	cmake --build build-demo -j $(JOBS) --target jxcache_tool
	build-demo/bin/jxcache simulate

bench:
	@bash scripts/install-deps.sh --bench
	cmake -S . -B build-bench $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Release -DJX_BUILD_BENCHMARKS=ON -DJX_BUILD_TESTS=OFF
	cmake --build build-bench -j $(JOBS)
	@if [ -x scripts/run-bench.sh ]; then bash scripts/run-bench.sh build-bench; else \
	for b in build-bench/bin/*_bench; do $$b; done; fi

# Every test under AddressSanitizer, UndefinedBehaviorSanitizer and LeakSanitizer: the unit and
# concurrency tests, the corpus replays, and the stress programs (bounded shorter here).
asan:
	@bash scripts/install-deps.sh --sanitizers
	CC=clang CXX=clang++ cmake -S . -B build-asan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=Debug -DJX_SANITIZE=address,undefined -DJX_BUILD_TOOLS=OFF
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ctest -j $(JOBS) --output-on-failure -L "unit|concurrency|stress"

tsan:
	@bash scripts/install-deps.sh --sanitizers
	CC=clang CXX=clang++ cmake -S . -B build-tsan $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DJX_SANITIZE=thread -DJX_BUILD_TOOLS=OFF
	cmake --build build-tsan -j $(JOBS) --target concurrency_tests stress_programs
	cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" ctest -j $(JOBS) --output-on-failure -L "concurrency|stress"

# Each program's last line holds its figures; ctest keeps them in its log, so show them here.
stress: build
	cd $(BUILD) && ctest -j 1 --output-on-failure -L stress
	@grep -hE "violations [0-9]+" $(BUILD)/Testing/Temporary/LastTest.log

# Each fuzz target runs for FUZZ_SECONDS on a copy of its seed corpus (fuzz/corpus/<target>);
# a crash leaves its input in build-fuzz/ and fails the run.
# FUZZ_BUILD_TYPE and FUZZ_LAYERS (the layers given coverage instrumentation, all by default)
# let CI build the targets mostly from what its ASan build compiled.
FUZZ_SECONDS ?= 20
FUZZ_BUILD_TYPE ?= RelWithDebInfo
FUZZ_LAYERS ?=
fuzz:
	@bash scripts/install-deps.sh --sanitizers
	CC=clang CXX=clang++ cmake -S . -B build-fuzz $(CMAKE_GEN) -DCMAKE_BUILD_TYPE=$(FUZZ_BUILD_TYPE) -DJX_BUILD_FUZZERS=ON -DJX_BUILD_TESTS=OFF -DJX_BUILD_TOOLS=OFF -DJX_SANITIZE=address,undefined $(if $(FUZZ_LAYERS),"-DJX_FUZZ_LAYERS=$(FUZZ_LAYERS)",-UJX_FUZZ_LAYERS)
	cmake --build build-fuzz -j $(JOBS) --target fuzzers
	@for t in $$(ls fuzz/corpus); do \
	  rm -rf build-fuzz/corpus/$$t && mkdir -p build-fuzz/corpus/$$t && cp fuzz/corpus/$$t/* build-fuzz/corpus/$$t/ && \
	  echo "fuzz: $$t for $(FUZZ_SECONDS) s" && \
	  if build-fuzz/bin/$$t -max_total_time=$(FUZZ_SECONDS) -print_final_stats=1 -artifact_prefix=build-fuzz/$$t- \
	       build-fuzz/corpus/$$t > build-fuzz/$$t.log 2>&1; then \
	    grep -E "stat::number_of_executed_units|stat::peak_rss_mb" build-fuzz/$$t.log | tr '\n' ' '; echo; \
	  else tail -n 40 build-fuzz/$$t.log; exit 1; fi; \
	done

format:
	@git ls-files '*.cpp' '*.h' '*.c' | xargs clang-format -i

clean:
	rm -rf build build-demo build-asan build-tsan build-bench build-fuzz build-shared build-subproject
