// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck's speed and memory on a log where one line in ten is the
// library's (a request's every line, as adb logcat -v threadtime prints
// them). Items/s is lines read per second; heap_kib the heap the ledgers hold
// at the end of the log, which follows the objects alive, not its length.
#include <benchmark/benchmark.h>
#include <logcheck.h>
#include <malloc.h>
#include <sim/logcat.h>
#include <sys/mman.h>
#include <unistd.h>

#include "workload.h"

namespace {

std::string requestLog() {
    sim::kycam::setLogConfig(0, 0xFFFFFFFF, 0);
    sim::kycam::setLogOutput(true, nullptr);
    workload::Marks none;
    workload::runLibrary({workload::Kind::Request, 2}, none);
    sim::kycam::setLogOutput(false, nullptr);
    const std::string library = sim::logcat::write(sim::logcat::androidLines());
    std::string log;
    for (size_t at = 0, end; (end = library.find('\n', at)) != std::string::npos; at = end + 1) {
        log.append(library, at, end + 1 - at);
        for (int i = 0; i < 9; ++i) {
            log += "11-14 22:13:20.000  1100  1187 I CameraService: frame 4711 delivered\n";
        }
    }
    return log;
}

void BM_LogcheckReadsALog(benchmark::State& state) {
    static const std::string request = requestLog();
    const int fd = memfd_create("log", 0);
    const auto lines = std::count(request.begin(), request.end(), '\n');
    for (int64_t written = 0; written < state.range(0); written += lines) {
        benchmark::DoNotOptimize(write(fd, request.data(), request.size()));
    }
    size_t heap = 0;
    logcheck::InputStats stats;
    for (auto _ : state) {
        lseek(fd, 0, SEEK_SET);
        const size_t before = mallinfo2().uordblks;
        logcheck::Checker checker;
        std::string error;
        int failure = 0;
        const volatile sig_atomic_t stop = 0;
        auto source = logcheck::openLog(("/proc/self/fd/" + std::to_string(fd)).c_str(), &failure,
                                        &error);
        logcheck::readLog(*source, logcheck::Format::Auto, checker, stats, &error, &stop);
        heap = mallinfo2().uordblks - before;
        checker.finish();
    }
    close(fd);
    state.SetItemsProcessed(static_cast<int64_t>(stats.lines));
    state.counters["heap_kib"] = static_cast<double>(heap) / 1024;
}
BENCHMARK(BM_LogcheckReadsALog)
        ->Arg(100000)
        ->Arg(1000000)
        ->Arg(4000000)
        ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
