# Reliability: the whole suite under AddressSanitizer with
# UndefinedBehaviorSanitizer and under ThreadSanitizer, each in its own build
# directory, and the libFuzzer target (clang). Lean builds: -O1, no demo, no
# benchmarks.

SAN_JOBS ?= 2
# The sanitizer runtimes intercept dlopen and call it from their own library,
# whose run path does not reach the build's lib dir: the record's dlopen of
# the IQ buffer manager then needs the search path.
SAN_LIBRARY_PATH = LD_LIBRARY_PATH=$(CURDIR)/$(1)/lib
SAN_CMAKE_FLAGS := -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -g" \
	-DPOSTPROC_BUILD_DEMO=OFF -DPOSTPROC_BUILD_BENCH=OFF
ASAN_ENV := ASAN_OPTIONS=detect_leaks=1:check_initialization_order=1:strict_init_order=1 \
	UBSAN_OPTIONS=print_stacktrace=1
TSAN_ENV := TSAN_OPTIONS="suppressions=$(CURDIR)/tests/tsan-suppressions.txt halt_on_error=1 second_deadlock_stack=1"

FUZZ_PACKAGES := clang-14 libclang-rt-14-dev
FUZZ_DIR := build-fuzz
FUZZ_SECONDS ?= 600
FUZZ_ENV := ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1

.PHONY: check-asan check-tsan fuzz fuzz-smoke fuzz-build

check-asan: deps
	$(CMAKE) -S . -B build-asan $(SAN_CMAKE_FLAGS) -DPOSTPROC_SANITIZE=address
	$(CMAKE) --build build-asan -j$(SAN_JOBS)
	cd build-asan && $(call SAN_LIBRARY_PATH,build-asan) $(ASAN_ENV) ctest --output-on-failure -j$(SAN_JOBS)

check-tsan: deps
	$(CMAKE) -S . -B build-tsan $(SAN_CMAKE_FLAGS) -DPOSTPROC_SANITIZE=thread
	$(CMAKE) --build build-tsan -j$(SAN_JOBS)
	cd build-tsan && $(call SAN_LIBRARY_PATH,build-tsan) $(TSAN_ENV) ctest --output-on-failure -j$(SAN_JOBS)

fuzz-build: deps
	@./tools/ensure-packages $(FUZZ_PACKAGES)
	$(CMAKE) -S . -B $(FUZZ_DIR) -DCMAKE_CXX_COMPILER=clang++-14 -DPOSTPROC_SANITIZE=address \
		-DPOSTPROC_BUILD_FUZZ=ON -DPOSTPROC_BUILD_TESTS=OFF $(SAN_CMAKE_FLAGS)
	$(CMAKE) --build $(FUZZ_DIR) -j$(SAN_JOBS) --target postproc_fuzz

# New inputs go to the first directory; the committed seeds stay as they are.
fuzz: fuzz-build
	mkdir -p $(FUZZ_DIR)/corpus $(FUZZ_DIR)/artifacts
	$(FUZZ_ENV) $(FUZZ_DIR)/bin/postproc_fuzz -max_total_time=$(FUZZ_SECONDS) -timeout=10 \
		-max_len=512 -print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/artifacts/ \
		$(FUZZ_DIR)/corpus fuzz/corpus

fuzz-smoke:
	$(MAKE) fuzz FUZZ_SECONDS=60
