# SPDX-License-Identifier: Apache-2.0
# Performance: `make bench` times the record's per-request paths against the
# data-model floor and the platform calls alone (Google Benchmark, several
# repetitions, medians summarised at the end); `make bench-count` counts
# their instructions under callgrind, a figure that repeats exactly and can
# be compared across commits. Both build in their own directory.

BENCH_DIR ?= build-bench
BENCH_JOBS ?= 2
BENCH_PACKAGES := libbenchmark-dev valgrind
BENCH_CMAKE_FLAGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo
BENCH_ARGS ?= --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
	--benchmark_min_time=0.2
# A per-thread allocator cache large enough to hold every block freed in a
# lifecycle, so that the count does not depend on what ran before it; eager
# binding keeps symbol resolution out of the first calls.
BENCH_COUNT_ENV := GLIBC_TUNABLES=glibc.malloc.tcache_count=1000 LD_BIND_NOW=1
BENCH_CALLGRIND := $(BENCH_DIR)/callgrind

.PHONY: bench bench-count bench-build

bench-build:
	./tools/ensure-packages $(PACKAGES) $(BENCH_PACKAGES)
	$(call QUIETLY,$(BENCH_DIR)/configure.log) $(CMAKE) -S . -B $(BENCH_DIR) \
		$(BENCH_CMAKE_FLAGS) -DPOSTPROC_BUILD_BENCH=ON -DPOSTPROC_BUILD_TESTS=OFF \
		-DPOSTPROC_BUILD_DEMO=OFF
	$(call QUIETLY,$(BENCH_DIR)/build.log) $(CMAKE) --build $(BENCH_DIR) -j$(BENCH_JOBS) \
		--target postproc_bench postproc_count postproc_logcheck_bench

bench: bench-build
	$(BENCH_DIR)/bin/postproc_bench $(BENCH_ARGS)
	$(BENCH_DIR)/bin/postproc_logcheck_bench

# One dump per measured workload in $(BENCH_CALLGRIND), for callgrind_annotate.
bench-count: bench-build
	rm -rf $(BENCH_CALLGRIND) && mkdir -p $(BENCH_CALLGRIND)
	$(BENCH_COUNT_ENV) valgrind --tool=callgrind --collect-atstart=no \
		--callgrind-out-file=$(BENCH_CALLGRIND)/count.out \
		$(BENCH_DIR)/bin/postproc_count $(BENCH_CALLGRIND)/count.out \
		2>$(BENCH_CALLGRIND)/valgrind.log || { cat $(BENCH_CALLGRIND)/valgrind.log; exit 1; }
