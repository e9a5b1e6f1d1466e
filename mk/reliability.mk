# SPDX-License-Identifier: Apache-2.0
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

.PHONY: check-asan check-tsan fuzz fuzz-smoke fuzz-build fuzz-seconds model

# The log checker against this many random sessions of the simulation (the
# suite runs 300).
MODEL_SESSIONS ?= 5000

# $(call SANITIZED,directory,sanitizer,environment)
SANITIZED = $(call QUIETLY,$(1)/configure.log) $(CMAKE) -S . -B $(1) $(SAN_CMAKE_FLAGS) \
		-DPOSTPROC_SANITIZE=$(2) && \
	$(call QUIETLY,$(1)/build.log) $(CMAKE) --build $(1) -j$(SAN_JOBS) && \
	cd $(1) && $(call QUIETLY,$(CURDIR)/$(1)/ctest.log) env $(call SAN_LIBRARY_PATH,$(1)) $(3) \
		ctest --output-on-failure -j$(SAN_JOBS) && \
	tail -n 3 $(CURDIR)/$(1)/ctest.log | head -n 1

check-asan: deps
	$(call SANITIZED,build-asan,address,$(ASAN_ENV))
	echo "check-asan: the suite passed under AddressSanitizer with UBSan"

check-tsan: deps
	$(call SANITIZED,build-tsan,thread,$(TSAN_ENV))
	echo "check-tsan: the suite passed under ThreadSanitizer"

fuzz-build: deps
	./tools/ensure-packages $(FUZZ_PACKAGES)
	$(call QUIETLY,$(FUZZ_DIR)/configure.log) $(CMAKE) -S . -B $(FUZZ_DIR) \
		-DCMAKE_CXX_COMPILER=clang++-14 -DPOSTPROC_SANITIZE=address -DPOSTPROC_BUILD_FUZZ=ON \
		-DPOSTPROC_BUILD_TESTS=OFF $(SAN_CMAKE_FLAGS)
	$(call QUIETLY,$(FUZZ_DIR)/build.log) $(CMAKE) --build $(FUZZ_DIR) -j$(SAN_JOBS) \
		--target postproc_fuzz logcheck_fuzz

# Each target for FUZZ_SECONDS; new inputs go to the build directory, the
# committed seeds stay as they are.
fuzz-seconds:
	case "$(FUZZ_SECONDS)" in ''|*[!0-9]*|0) \
		echo "FUZZ_SECONDS must be a whole number of seconds above 0, not \"$(FUZZ_SECONDS)\""; \
		exit 2;; esac

model: build
	LOGCHECK_MODEL_SESSIONS=$(MODEL_SESSIONS) $(BUILD_DIR)/bin/logcheck_model_test \
		--gtest_brief=1 >$(BUILD_DIR)/model.log 2>&1 || { cat $(BUILD_DIR)/model.log; exit 1; }
	sed -n 's/^model: /model: /p' $(BUILD_DIR)/model.log

fuzz: fuzz-seconds fuzz-build model
	./tools/run-fuzzer $(FUZZ_DIR) postproc_fuzz fuzz/corpus $(FUZZ_SECONDS) 512
	./tools/run-fuzzer $(FUZZ_DIR) logcheck_fuzz fuzz/logcheck-corpus $(FUZZ_SECONDS) 16384

# The record for 40 s, the log checker for 20 s.
fuzz-smoke: fuzz-build
	./tools/run-fuzzer $(FUZZ_DIR) postproc_fuzz fuzz/corpus 40 512
	./tools/run-fuzzer $(FUZZ_DIR) logcheck_fuzz fuzz/logcheck-corpus 20 16384
	echo "fuzz-smoke: no finding"
