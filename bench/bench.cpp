// SPDX-License-Identifier: Apache-2.0
// The record's workloads timed against the floor, side by side: each
// iteration runs one lifecycle through the record and one through the floor,
// in alternating order, timing only their steps in this thread's CPU time, so
// that both see the same machine load. Counters per lifecycle: lib_us,
// floor_us and x_floor (library / floor). make bench repeats each and
// reports medians.
#include <benchmark/benchmark.h>
#include <sim/journal.h>
#include <sim/kycam.h>
#include <time.h>

#include "workload.h"

namespace {

using namespace workload;

double threadSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// What one reading of the clock costs, taken off every timed lifecycle.
const double gClockCost = [] {
    const double start = threadSeconds();
    for (int i = 0; i < 999; ++i) {
        threadSeconds();
    }
    return (threadSeconds() - start) / 1000;
}();

// The CPU time of the measured steps of each lifecycle.
struct Stopwatch : Marks {
    double total = 0;
    double start = -1;
    void operator()(const char* step) override {
        if (step != nullptr && start < 0) {
            start = threadSeconds();
        } else if (step == nullptr) {
            total += threadSeconds() - start - gClockCost;
            start = -1;
        }
    }
};

// Arguments: cameras, result (0 same objects, 1 one replaced, 2 other
// cameras), 3A buffers (-1: one per camera), other records alive, logging
// (1: every line of every level to both sinks, formatted and dropped).
void BM_Request(benchmark::State& state) {
    Workload w;
    w.kind = state.range(0) == 0 ? Kind::Empty : Kind::Request;
    w.cameras = std::max<int>(1, static_cast<int>(state.range(0)));
    w.result = static_cast<Result>(state.range(1));
    w.buffers = static_cast<int>(state.range(2));
    w.others = static_cast<int>(state.range(3));
    sim::setJournalEnabled(false);
    sim::kycam::setLogOutput(false, nullptr);
    sim::kycam::setLogConfig(state.range(4) != 0 ? 0 : 7, state.range(4) != 0 ? 0xFFFFFFFF : 0, 1);
    Stopwatch library;
    Stopwatch floor;
    for (auto _ : state) {
        const bool libraryFirst = state.iterations() % 2 == 0;
        libraryFirst ? runLibrary(w, library) : runFloor(w, floor);
        settle();
        libraryFirst ? runFloor(w, floor) : runLibrary(w, library);
        settle();
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["lib_us"] = library.total / n * 1e6;
    state.counters["floor_us"] = floor.total / n * 1e6;
    state.counters["x_floor"] = library.total / floor.total;
    state.SetComplexityN(w.cameras);
}

// An empty record; requests of 1, 3 and 6 cameras, also with every line
// logged; results that replace an object or bring other cameras; how it grows
// with the debug buffers and the records alive. BM_Cameras: with the cameras.
BENCHMARK(BM_Request)
        ->ArgNames({"cameras", "result", "buffers", "others", "logging"})
        ->Args({0, 0, -1, 0, 0})
        ->ArgsProduct({{1, 3, 6}, {0}, {-1}, {0}, {0, 1}})
        ->ArgsProduct({{3}, {1, 2}, {-1}, {0}, {0}})
        ->ArgsProduct({{3}, {0}, {1, 4, 16, 64}, {0}, {0}})
        ->ArgsProduct({{3}, {0}, {-1}, {1, 10, 100, 1000}, {0}});
BENCHMARK(BM_Request)
        ->Name("BM_Cameras")
        ->ArgsProduct({{1, 2, 4, 8, 16}, {0}, {-1}, {0}, {0}})
        ->Complexity(benchmark::oN);

}  // namespace

BENCHMARK_MAIN();
