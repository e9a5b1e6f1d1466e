// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck's speed and memory on a phone's log: simulated camera
// sessions (several threads, records reused, addresses reused at once) among
// other processes' lines, the camera provider restarted between sessions, as
// adb logcat -v threadtime prints them, read from a file. grep -c
// KyCamAdapter on the same file is what a person compares it with. Items/s
// is lines a second; heap_kib the heap the ledgers hold at the end of the
// log, which follows the objects alive, not the log's length. Last, a host
// that leaks a record per frame: 20,000 of them, read and reported. Then
// the page of 1M and 10M lines, and 100 bug reports checked two at a time.
#include <benchmark/benchmark.h>
#include <logcheck.h>
#include <malloc.h>
#include <sim/logcat.h>
#include <sim/session.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>
#include <ziparchive/zip_writer.h>

#include <chrono>

namespace {

// The files made for the run, removed at its end.
std::vector<std::string> gMade;

// A file of at least `lines` lines, made once per size.
const std::string& logFile(int64_t lines) {
    static std::map<int64_t, std::string> files;
    std::string& path = files[lines];
    if (!path.empty()) {
        return path;
    }
    char name[] = "/tmp/logcheck-bench-XXXXXX";
    FILE* file = fdopen(mkstemp(name), "w");
    int64_t written = 0;
    for (int provider = 0; written < lines; ++provider) {
        sim::session::Options options;
        options.seed = static_cast<uint64_t>(provider) + 1;
        options.requestThreads = 3;
        options.inFlight = 4;
        options.requests = 1000;
        std::vector<sim::kycam::LogLine> session = sim::session::run(options).lines;
        for (sim::kycam::LogLine& line : session) {
            line.pid = 2000 + provider;
        }
        sim::logcat::Phone phone;
        phone.seed = options.seed;
        phone.noise = 18;  // one line in ten is the library's
        phone.chatty = true;
        std::string text = sim::logcat::phoneLog(session, phone);
        text += "11-14 22:13:21.000     1     1 I init    : Service "
                "'vendor.camera-provider-2-4' (pid " +
                std::to_string(2000 + provider) + ") received signal 9\n";
        written += std::count(text.begin(), text.end(), '\n');
        fwrite(text.data(), 1, text.size(), file);
    }
    fclose(file);
    path = name;
    gMade.push_back(path);
    return path;
}

// 20,000 records never destroyed, one per frame, among other lines.
const std::string& leakingHost() {
    static std::string path;
    if (path.empty()) {
        char name[] = "/tmp/logcheck-leaks-XXXXXX";
        FILE* file = fdopen(mkstemp(name), "w");
        for (int i = 0; i < 20000; ++i) {
            fprintf(file,
                    "11-14 22:13:20.000  1234  1300 D KyCamAdapter: KYA_POSTPROC "
                    "QcomPostProcInfo.cpp:359 QcomPostProcInfo()Construct QcomPostProcInfo "
                    "0x7f%08x, after sum %d\n"
                    "11-14 22:13:20.000  1100  1187 I CameraService: frame %d delivered\n",
                    0x1000 + 0x400 * i, i + 1, i);
        }
        fclose(file);
        path = name;
        gMade.push_back(path);
    }
    return path;
}

struct Run {
    uint64_t lines = 0;
    size_t heap = 0;
    size_t findings = 0;
};

// What the program does: read, decide, and report.
Run check(const std::string& path) {
    static FILE* const sink = fopen("/dev/null", "w");
    Run run;
    const size_t before = mallinfo2().uordblks;
    logcheck::Checker checker;
    logcheck::InputStats stats;
    std::string error;
    int failure = 0;
    const volatile sig_atomic_t stop = 0;
    auto source = logcheck::openLog(path.c_str(), &failure, &error);
    logcheck::readLog(*source, logcheck::Format::Auto, checker, stats, &error, &stop);
    run.heap = mallinfo2().uordblks - before;
    checker.finish();
    logcheck::printHuman(sink, checker, stats, {});
    run.lines = stats.lines;
    for (const logcheck::Process& process : checker.processes()) {
        run.findings += process.findings.size();
    }
    return run;
}

uint64_t grepCount(const std::string& path) {
    FILE* pipe = popen(("grep -c KyCamAdapter " + path).c_str(), "r");
    unsigned long long count = 0;
    if (fscanf(pipe, "%llu", &count) != 1) {
        count = 0;
    }
    pclose(pipe);
    return count;
}

void BM_LogcheckReadsAPhonesLog(benchmark::State& state) {
    const std::string& path = logFile(state.range(0));
    Run run;
    for (auto _ : state) {
        run = check(path);
    }
    state.SetItemsProcessed(static_cast<int64_t>(run.lines) * state.iterations());
    state.counters["heap_kib"] = static_cast<double>(run.heap) / 1024;
    state.counters["findings"] = static_cast<double>(run.findings);
}
BENCHMARK(BM_LogcheckReadsAPhonesLog)->Arg(1000000)->Arg(4000000)->Unit(benchmark::kMillisecond);

void BM_GrepCountsTheSameLog(benchmark::State& state) {
    const std::string& path = logFile(state.range(0));
    const Run lines = check(path);
    for (auto _ : state) {
        benchmark::DoNotOptimize(grepCount(path));
    }
    state.SetItemsProcessed(static_cast<int64_t>(lines.lines) * state.iterations());
}
// grep runs in a child: wall time, not this process's.
BENCHMARK(BM_GrepCountsTheSameLog)
        ->Arg(1000000)
        ->Arg(4000000)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);

void BM_LogcheckReportsALeakingHost(benchmark::State& state) {
    const std::string& path = leakingHost();
    Run run;
    for (auto _ : state) {
        run = check(path);
    }
    state.counters["findings"] = static_cast<double>(run.findings);
}
BENCHMARK(BM_LogcheckReportsALeakingHost)->Unit(benchmark::kMillisecond);

// The page of a phone's log: read, decided and drawn, its size.
void BM_LogcheckDrawsThePage(benchmark::State& state) {
    const std::string& path = logFile(state.range(0));
    const std::string page = path + ".html";
    logcheck::RunOptions options;
    options.html = page.c_str();
    const volatile sig_atomic_t stop = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(logcheck::checkLog(path, options, nullptr, &stop));
    }
    struct stat status = {};
    stat(page.c_str(), &status);
    state.counters["page_kib"] = static_cast<double>(status.st_size) / 1024;
    state.SetItemsProcessed(static_cast<int64_t>(check(path).lines) * state.iterations());
    unlink(page.c_str());
}
BENCHMARK(BM_LogcheckDrawsThePage)
        ->Arg(1000000)
        ->Arg(10000000)
        ->Iterations(2)
        ->Unit(benchmark::kMillisecond);

// A fleet's bug reports: each a zip of one phone's log (its provider's
// sessions among the phone's other lines), checked two at a time as -j 2.
const std::vector<std::string>& bugReports() {
    static std::vector<std::string> paths;
    if (!paths.empty()) {
        return paths;
    }
    for (int phone = 0; phone < 100; ++phone) {
        sim::session::Options options;
        options.seed = 1000 + static_cast<uint64_t>(phone);
        options.requestThreads = 3;
        options.inFlight = 4;
        options.requests = 200;
        options.broken =
                phone % 10 == 0 ? sim::session::Rule::RecordLifetime : sim::session::Rule::None;
        sim::logcat::Phone noise;
        noise.seed = options.seed;
        noise.noise = 18;
        const std::string text =
                "== dumpstate: 2026-11-23 10:00:00\n------ SYSTEM LOG (logcat -v threadtime -v "
                "printable -v uid -d *:v) ------\n" +
                sim::logcat::phoneLog(sim::session::run(options).lines, noise) +
                "------ 0.125s was the duration of 'SYSTEM LOG' ------\n";
        char name[] = "/tmp/logcheck-bugreport-XXXXXX";
        FILE* file = fdopen(mkstemp(name), "w");
        ZipWriter writer(file);
        writer.StartEntry("bugreport-phone-2026-11-23.txt", ZipWriter::kCompress);
        writer.WriteBytes(text.data(), text.size());
        writer.FinishEntry();
        writer.Finish();
        fclose(file);
        paths.push_back(name);
        gMade.push_back(name);
    }
    return paths;
}

void BM_LogcheckChecksAFleet(benchmark::State& state) {
    const std::vector<std::string>& reports = bugReports();
    logcheck::RunOptions options;
    const volatile sig_atomic_t stop = 0;
    static FILE* const sink = fopen("/dev/null", "w");
    for (auto _ : state) {
        benchmark::DoNotOptimize(logcheck::checkLogs(reports, options, 2, sink, &stop));
    }
    state.counters["logs_per_s"] = benchmark::Counter(
            static_cast<double>(reports.size()) * static_cast<double>(state.iterations()),
            benchmark::Counter::kIsRate);
}
// Two threads: wall time.
BENCHMARK(BM_LogcheckChecksAFleet)->UseRealTime()->Unit(benchmark::kMillisecond);

// The two on the same file in one run, best of five each.
void compareWithGrep() {
    const std::string& path = logFile(4000000);
    auto best = [](auto&& run) {
        double fastest = 1e9;
        for (int i = 0; i < 5; ++i) {
            const auto start = std::chrono::steady_clock::now();
            run();
            fastest = std::min(
                    fastest, std::chrono::duration<double>(std::chrono::steady_clock::now() - start)
                                     .count());
        }
        return fastest;
    };
    const uint64_t lines = check(path).lines;
    const double tool = best([&path] { check(path); });
    const double grep = best([&path] { grepCount(path); });
    printf("postproc-logcheck %.1fM lines/s, grep -c %.1fM lines/s on %llu lines: %.2f of grep's "
           "speed\n",
           static_cast<double>(lines) / tool / 1e6, static_cast<double>(lines) / grep / 1e6,
           static_cast<unsigned long long>(lines), grep / tool);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    compareWithGrep();
    for (const std::string& path : gMade) {
        unlink(path.c_str());
    }
    return 0;
}
