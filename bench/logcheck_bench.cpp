// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck's speed and memory on a log where one line in ten is the
// library's (threadtime, as adb logcat prints it). Counters:
//   lines/s     the Items column: log lines read per second
//   heap_kib    heap the ledgers hold at the end of the log, before their
//               verdict: it follows the objects alive, not the log's length
#include <benchmark/benchmark.h>
#include <log/logprint.h>
#include <logcheck.h>
#include <malloc.h>
#include <sim/kycam.h>
#include <sys/mman.h>
#include <unistd.h>

#include <QcomPostProcInfo.h>

#include <algorithm>
#include <memory>
#include <string>

namespace {

// The library's lines of one request with private results, debug data and a
// clone, as logcat prints them among nine lines of other tags each.
std::string requestLog() {
    sim::kycam::setLogConfig(0, 0xFFFFFFFF, 0);  // every line on logcat
    sim::kycam::setLogOutput(true, nullptr);
    sim::kycam::clearLines();
    {
        std::set<std::string> cameras = {"0", "1"};
        adapter::PostProcInfoMetaAttributes attributes = {};
        adapter::QcomPostProcInfo record;
        record.createPrivResultMeta(cameras, true, attributes);
        static char aec[64];
        adapter::DebugData data = {sizeof(aec), aec};
        record.keep3aDebugData(0, &data, false);
        record.clone(true).reset();
    }
    sim::kycam::setLogOutput(false, nullptr);
    AndroidLogFormat* format = android_log_format_new();
    android_log_setPrintFormat(format, FORMAT_THREADTIME);
    std::string log;
    for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
        if (line.sink != sim::kycam::Sink::Android) {
            continue;
        }
        AndroidLogEntry entry = {};
        entry.tv_sec = 1700000000;
        entry.priority = static_cast<android_LogPriority>(line.priority);
        entry.pid = 1234;
        entry.tid = 1301;
        entry.tag = line.tag.c_str();
        entry.tagLen = line.tag.size();
        entry.message = line.text.c_str();
        entry.messageLen = line.text.size();
        char buffer[1024];
        size_t length = 0;
        const char* text =
                android_log_formatLogLine(format, buffer, sizeof(buffer), &entry, &length);
        log.append(text, length);
        for (int i = 0; i < 9; ++i) {
            log += "11-14 22:13:20.000  1100  1187 I CameraService: frame 4711 delivered to "
                   "client com.example.camera, 3 buffers in flight\n";
        }
    }
    android_log_format_free(format);
    return log;
}

void BM_LogcheckReadsALog(benchmark::State& state) {
    static const std::string request = requestLog();
    const size_t requests =
            static_cast<size_t>(state.range(0)) / 10 /
            static_cast<size_t>(std::count(request.begin(), request.end(), '\n') / 10);
    const int fd = memfd_create("log", 0);
    for (size_t i = 0; i < requests; ++i) {
        benchmark::DoNotOptimize(write(fd, request.data(), request.size()));
    }
    uint64_t lines = 0;
    uint64_t library = 0;
    size_t heap = 0;
    for (auto _ : state) {
        lseek(fd, 0, SEEK_SET);
        const size_t before = mallinfo2().uordblks;
        logcheck::Checker checker;
        logcheck::InputStats stats;
        int error = 0;
        const volatile sig_atomic_t stop = 0;
        logcheck::readLog(fd, logcheck::Format::Auto, checker, stats, &error, &stop);
        heap = mallinfo2().uordblks - before;
        checker.finish();
        lines += stats.lines;
        library = checker.libraryLines();
    }
    close(fd);
    state.SetItemsProcessed(static_cast<int64_t>(lines));
    state.counters["heap_kib"] = static_cast<double>(heap) / 1024;
    state.counters["library_lines"] = static_cast<double>(library);
}
BENCHMARK(BM_LogcheckReadsALog)
        ->Arg(100000)
        ->Arg(1000000)
        ->Arg(4000000)
        ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
