// SPDX-License-Identifier: Apache-2.0
// Time of the record's per-request paths against the data-model floor and
// the platform calls alone, measured side by side in one process: each
// iteration runs a batch of lifecycles of every form in turn, so that the
// ratios see the same machine load. The forms are timed in this thread's CPU
// time, which other processes on the machine do not inflate. Counters per
// lifecycle:
//   lib_us, floor_us, plat_us   time of one lifecycle of each form
//   x_floor, x_plat             library / floor, library / platform
//   lib_allocs, floor_allocs    heap allocations beyond the platform's own
// The Time column covers the whole iteration (every form, a batch each).
#include <benchmark/benchmark.h>
#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/iqbm.h>
#include <sim/journal.h>
#include <sim/kycam.h>

#include <stdio.h>
#include <time.h>

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "probes.h"
#include "steps.h"
#include "workload.h"

namespace {

using namespace workload;
constexpr int kBatch = 16;

double threadSeconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// What reading the clock twice costs, taken off every timed batch.
double clockCost() {
    static const double cost = [] {
        constexpr int kReads = 1000;
        const double start = threadSeconds();
        for (int i = 0; i < kReads; ++i) {
            threadSeconds();
        }
        return (threadSeconds() - start) / kReads;
    }();
    return cost;
}

void loggingOff() {
    sim::kycam::setLogConfig(7, 0, 0);
}

// Every line of every level on both sinks, formatted and then dropped.
void loggingOn() {
    sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
}

template <class W>
void compare(benchmark::State& state, W& w) {
    double seconds[3] = {};
    long allocations[3] = {};
    int first = 0;
    for (auto _ : state) {
        for (int k = 0; k < 3; ++k) {
            const Form form = static_cast<Form>((first + k) % 3);
            const long before = probe::counts().allocations;
            const double start = threadSeconds();
            for (int b = 0; b < kBatch; ++b) {
                runForm(w, form, NoMark{});
            }
            seconds[static_cast<int>(form)] += threadSeconds() - start - clockCost();
            allocations[static_cast<int>(form)] += probe::counts().allocations - before;
        }
        first = (first + 1) % 3;
        settle();
    }
    const double lifecycles = static_cast<double>(state.iterations()) * kBatch;
    const double lib = seconds[0] / lifecycles;
    const double floor = seconds[1] / lifecycles;
    const double plat = seconds[2] / lifecycles;
    state.counters["lib_us"] = lib * 1e6;
    state.counters["floor_us"] = floor * 1e6;
    state.counters["plat_us"] = plat * 1e6;
    state.counters["x_floor"] = lib / floor;
    state.counters["x_plat"] = lib / plat;
    state.counters["lib_allocs"] =
            static_cast<double>(allocations[0] - allocations[2]) / lifecycles;
    state.counters["floor_allocs"] =
            static_cast<double>(allocations[1] - allocations[2]) / lifecycles;
}

void BM_EmptyRecord(benchmark::State& state) {
    auto w = emptyRecordWorkload();
    compare(state, w);
}

void BM_Request(benchmark::State& state) {
    Request rq(static_cast<int>(state.range(0)));
    auto w = requestWorkload(rq);
    compare(state, w);
}

void BM_RequestLogging(benchmark::State& state) {
    Request rq(static_cast<int>(state.range(0)));
    auto w = requestWorkload(rq);
    loggingOn();
    compare(state, w);
    loggingOff();
}

void BM_ReplaceOne(benchmark::State& state) {
    Request rq(static_cast<int>(state.range(0)), ResultKind::ReplaceOne);
    auto w = requestWorkload(rq);
    compare(state, w);
}

void BM_NewCameras(benchmark::State& state) {
    Request rq(static_cast<int>(state.range(0)), ResultKind::NewCameras);
    auto w = requestWorkload(rq);
    compare(state, w);
}

void BM_Offline(benchmark::State& state) {
    Request rq(static_cast<int>(state.range(0)));
    auto w = offlineWorkload(rq);
    compare(state, w);
}

template <Copy kCopy>
void BM_Copy(benchmark::State& state) {
    Request rq(static_cast<int>(state.range(0)));
    Sources sources(rq, kCopy);
    auto w = sources.workload();
    compare(state, w);
}

void BM_DebugBuffers(benchmark::State& state) {
    Request rq(3, ResultKind::SameObjects, static_cast<int>(state.range(0)));
    auto w = requestWorkload(rq);
    compare(state, w);
}

// A 3-camera request while other records live, each with private results
// for 3 cameras: no registration with the manager any more.
void BM_LiveRecords(benchmark::State& state) {
    Request others(3);
    std::vector<std::unique_ptr<QcomPostProcInfo>> live;
    for (int64_t i = 0; i < state.range(0); ++i) {
        live.push_back(std::make_unique<QcomPostProcInfo>());
        live.back()->createPrivResultMeta(others.ids, true, others.attributes);
    }
    Request rq(3);
    rq.firstRecord = false;
    auto w = requestWorkload(rq);
    compare(state, w);
    live.clear();
    settle();
}

void BM_ConstructDestroy(benchmark::State& state) {
    const size_t registersBefore = sim::iqbm::counters().registers;
    int64_t n = 0;
    for (auto _ : state) {
        QcomPostProcInfo record;
        benchmark::DoNotOptimize(&record);
        if ((++n & 4095) == 0 && state.thread_index() == 0) {
            sim::iqbm::clearBuffers();
        }
    }
    if (state.thread_index() == 0) {
        // Across all threads: the manager is only called at 0/1 transitions.
        state.counters["registers"] = benchmark::Counter(
                static_cast<double>(sim::iqbm::counters().registers - registersBefore) /
                static_cast<double>(state.iterations() * state.threads()));
    }
}

// One line under each sink setting and the bare format, in turn, so that
// the ratios see the same machine load; nanoseconds per line.
void BM_LogLine(benchmark::State& state) {
    constexpr int kLines = 64;
    struct Setting {
        const char* name;
        int32_t level;
        uint32_t groups;
        uint32_t mask;
        int lines;  // enough for the batch to outweigh reading the clock
    };
    const Setting settings[] = {{"disabled_ns", 7, 0, 0, kLines * 64},
                                {"android_ns", 0, 0xFFFFFFFF, 0, kLines},
                                {"logsystem_ns", 7, 0xFFFFFFFF, 1, kLines},
                                {"both_ns", 0, 0xFFFFFFFF, 1, kLines}};
    double seconds[5] = {};
    char text[1024];
    void* meta = &state;
    for (auto _ : state) {
        for (int k = 0; k < 4; ++k) {
            sim::kycam::setLogConfig(settings[k].level, settings[k].groups, settings[k].mask);
            const double start = threadSeconds();
            for (int i = 0; i < settings[k].lines; ++i) {
                createChiMetaLine(meta, 1, 7);
            }
            seconds[k] += threadSeconds() - start - clockCost();
        }
        const double start = threadSeconds();
        for (int i = 0; i < kLines; ++i) {
            benchmark::DoNotOptimize(createChiMetaText(text, sizeof(text), meta, 1, 7));
        }
        seconds[4] += threadSeconds() - start - clockCost();
    }
    loggingOff();
    const double iterations = static_cast<double>(state.iterations());
    for (int k = 0; k < 4; ++k) {
        state.counters[settings[k].name] = seconds[k] / (iterations * settings[k].lines) * 1e9;
    }
    state.counters["snprintf_ns"] = seconds[4] / (iterations * kLines) * 1e9;
}

BENCHMARK(BM_Request)->ArgName("cameras")->Arg(1)->Arg(3)->Arg(6);
BENCHMARK(BM_RequestLogging)->ArgName("cameras")->Arg(1)->Arg(3)->Arg(6);
BENCHMARK(BM_ReplaceOne)->ArgName("cameras")->Arg(3);
BENCHMARK(BM_NewCameras)->ArgName("cameras")->Arg(3);
BENCHMARK(BM_Offline)->ArgName("cameras")->Arg(1)->Arg(3)->Arg(6);
BENCHMARK_TEMPLATE(BM_Copy, Copy::Clone)->ArgName("cameras")->Arg(3);
BENCHMARK_TEMPLATE(BM_Copy, Copy::ShallowClone)->ArgName("cameras")->Arg(3);
BENCHMARK_TEMPLATE(BM_Copy, Copy::Reset)->ArgName("cameras")->Arg(3);
BENCHMARK(BM_EmptyRecord);
BENCHMARK(BM_ConstructDestroy)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_LogLine);
// How the costs grow.
BENCHMARK(BM_Request)->ArgName("cameras")->Arg(2)->Arg(4)->Arg(8)->Arg(16);
BENCHMARK(BM_DebugBuffers)->ArgName("buffers")->Arg(1)->Arg(4)->Arg(16)->Arg(64);
BENCHMARK(BM_LiveRecords)->ArgName("records")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

// ---------------------------------------------------------------------------
// Before the runs: the forms must agree on the platform calls, and the
// allocations per step are listed.

// Lists one workload; false if its forms disagree on the platform calls.
template <class W>
bool list(const char* name, W&& w) {
    const auto calls = platformCalls(w);
    const std::vector<Step> lib = ownAllocations(w, Form::Library);
    const std::vector<Step> floor = ownAllocations(w, Form::Floor);
    printf("  %-40s total %ld / %ld (%zu platform calls)\n   ", name, total(lib), total(floor),
           calls[0].size());
    for (size_t i = 0; i < lib.size(); ++i) {
        printf(" %s %ld/%ld%s", lib[i].name, lib[i].allocations, floor[i].allocations,
               i + 1 < lib.size() ? "," : "\n");
    }
    if (calls[0] != calls[1] || calls[0] != calls[2]) {
        printf("  %s: the forms make different platform calls\n", name);
        return false;
    }
    return true;
}

bool checkAndList() {
    printf("Heap allocations per step beyond the platform's own, library / floor:\n");
    bool ok = list("empty record", emptyRecordWorkload());
    const std::pair<const char*, int> requests[] = {
            {"request, 1 camera", 1}, {"request, 3 cameras", 3}, {"request, 6 cameras", 6}};
    for (const auto& r : requests) {
        Request rq(r.second);
        ok &= list(r.first, requestWorkload(rq));
    }
    {
        Request rq(3, ResultKind::ReplaceOne);
        ok &= list("result replaces one object, 3 cameras", requestWorkload(rq));
    }
    {
        Request rq(3, ResultKind::NewCameras);
        ok &= list("result brings new cameras, 3 cameras", requestWorkload(rq));
    }
    Request rq(3);
    ok &= list("offline path, 3 cameras", offlineWorkload(rq));
    const std::pair<const char*, Copy> copies[] = {
            {"clone(true), 3 cameras", Copy::Clone},
            {"shallowClone(true), 3 cameras", Copy::ShallowClone},
            {"reset, 3 cameras", Copy::Reset}};
    for (const auto& copy : copies) {
        Sources sources(rq, copy.second);
        ok &= list(copy.first, sources.workload());
    }
    settle();
    fflush(stdout);
    return ok;
}

// ---------------------------------------------------------------------------
// After the runs: one table of ratios from the medians (or the single runs).

class SummaryReporter : public benchmark::ConsoleReporter {
  public:
    void ReportRuns(const std::vector<Run>& reports) override {
        ConsoleReporter::ReportRuns(reports);
        for (const Run& run : reports) {
            const bool aggregate = run.run_type == Run::RT_Aggregate;
            if (aggregate && run.aggregate_name != "median") {
                continue;
            }
            if (!aggregate && run.repetitions > 1) {
                continue;
            }
            Row& row = rows_[run.run_name.str()];
            if (rows_order_.empty() || rows_order_.back() != run.run_name.str()) {
                rows_order_.push_back(run.run_name.str());
            }
            row.time = run.GetAdjustedCPUTime();
            row.realTime = run.GetAdjustedRealTime();
            row.unit = benchmark::GetTimeUnitString(run.time_unit);
            for (const auto& counter : run.counters) {
                row.counters[counter.first] = counter.second.value;
            }
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::ostream& out = GetOutputStream();
        char line[256];
        out << "\nSummary (medians): time per lifecycle, library against the floor and the "
               "platform calls alone\n";
        snprintf(line, sizeof(line), "%-44s %9s %9s %9s %8s %8s %11s\n", "benchmark", "lib us",
                 "floor us", "plat us", "lib/flr", "lib/plat", "allocs l/f");
        out << line;
        for (const std::string& name : rows_order_) {
            const Row& row = rows_.at(name);
            auto c = [&](const char* key) {
                auto found = row.counters.find(key);
                return found != row.counters.end() ? found->second : -1.0;
            };
            if (c("x_floor") < 0) {
                continue;
            }
            snprintf(line, sizeof(line), "%-44s %9.3f %9.3f %9.3f %8.3f %8.3f %5.1f/%-5.1f\n",
                     name.c_str(), c("lib_us"), c("floor_us"), c("plat_us"), c("x_floor"),
                     c("x_plat"), c("lib_allocs"), c("floor_allocs"));
            out << line;
        }
        out << "\nA record made and destroyed, wall time per record over all threads, and "
               "manager registrations per record\n";
        for (const std::string& name : rows_order_) {
            const Row& row = rows_.at(name);
            if (name.rfind("BM_ConstructDestroy", 0) == 0) {
                snprintf(line, sizeof(line), "%-44s %9.1f %s %8.2f\n", name.c_str(), row.realTime,
                         row.unit, row.counters.at("registers"));
                out << line;
            }
        }
        for (const std::string& name : rows_order_) {
            const Row& row = rows_.at(name);
            if (name != "BM_LogLine") {
                continue;
            }
            const double floorLine = row.counters.at("snprintf_ns");
            out << "\nOne log line (createChiMeta's), CPU time per line and against one bare "
                   "snprintf of the same text with its prefix\n";
            for (const char* key :
                 {"disabled_ns", "android_ns", "logsystem_ns", "both_ns", "snprintf_ns"}) {
                snprintf(line, sizeof(line), "%-44s %9.1f ns %8.3f\n", key, row.counters.at(key),
                         row.counters.at(key) / floorLine);
                out << line;
            }
        }
    }

  private:
    struct Row {
        double time = 0;
        double realTime = 0;
        const char* unit = "";
        std::map<std::string, double> counters;
    };
    std::map<std::string, Row> rows_;
    std::vector<std::string> rows_order_;
};

bool ledgerBalanced() {
    const sim::chi::Totals chi = sim::chi::totals();
    const sim::camera_metadata::Totals meta = sim::camera_metadata::totals();
    bool ok = QcomPostProcInfo::mSum == 0 && chi.alive == 0 && meta.alive == 0 &&
              !sim::iqbm::counters().registered;
    for (const std::string& misuse : sim::misuses()) {
        printf("MISUSE: %s\n", misuse.c_str());
        ok = false;
    }
    printf("ledger: records %llu, CHI objects alive %zu, camera metadata alive %zu, %s\n",
           static_cast<unsigned long long>(QcomPostProcInfo::mSum), chi.alive, meta.alive,
           ok ? "balanced" : "NOT BALANCED");
    return ok;
}

}  // namespace

int main(int argc, char** argv) {
    sim::setJournalEnabled(false);
    sim::kycam::setLogOutput(false, nullptr);
    loggingOff();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    if (!checkAndList()) {
        return 1;
    }
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return ledgerBalanced() ? 0 : 1;
}
