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
	$(CMAKE) --build $(FUZZ_DIR) -j$(SAN_JOBS) --target postproc_fuzz logcheck_fuzz

# One target for a number of seconds: new inputs go to its build directory,
# the committed seeds stay as they are.
# $(call FUZZ_RUN,target,seeds,seconds,max_len)
FUZZ_RUN = mkdir -p $(FUZZ_DIR)/$(1)-corpus $(FUZZ_DIR)/artifacts && \
	$(FUZZ_ENV) $(FUZZ_DIR)/bin/$(1) -max_total_time=$(3) -timeout=10 -max_len=$(4) \
		-print_final_stats=1 -artifact_prefix=$(FUZZ_DIR)/artifacts/ $(FUZZ_DIR)/$(1)-corpus $(2)

fuzz: fuzz-build
	$(call FUZZ_RUN,postproc_fuzz,fuzz/corpus,$(FUZZ_SECONDS),512)
	$(call FUZZ_RUN,logcheck_fuzz,fuzz/logcheck-corpus,$(FUZZ_SECONDS),16384)

# The record for 40 s, the log checker for 20 s.
fuzz-smoke: fuzz-build
	$(call FUZZ_RUN,postproc_fuzz,fuzz/corpus,40,512)
	$(call FUZZ_RUN,logcheck_fuzz,fuzz/logcheck-corpus,20,16384)
