// SPDX-License-Identifier: Apache-2.0
// Instruction counts of the record's lifecycles, for comparison across
// commits. Run under callgrind with collection off at start:
//
//   valgrind --tool=callgrind --collect-atstart=no
//            --callgrind-out-file=DIR/count.out postproc_count DIR/count.out
//
// Collection is switched on only inside the measured steps of each
// lifecycle; the simulation's bookkeeping between lifecycles is left out, and
// it leaves the simulation in the same state before each lifecycle, so the
// count per lifecycle does not depend on how many ran before. Each workload
// ends in a dump of its own, whose total this program reads back.
#include <sim/chi.h>
#include <sim/journal.h>
#include <sim/kycam.h>
#include <valgrind/callgrind.h>

#include <stdio.h>
#include <string.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "steps.h"
#include "workload.h"

namespace {

using namespace workload;

// Collects one step of a lifecycle, or all of them.
struct Collect {
    const char* only;
    bool on = false;

    void operator()(const char* step) {
        const bool want = step != nullptr && (only == nullptr || strcmp(step, only) == 0);
        if (want != on) {
            CALLGRIND_TOGGLE_COLLECT;
            on = want;
        }
    }
};

class Counter {
  public:
    explicit Counter(std::string base) : base_(std::move(base)) {}

    // Instructions per lifecycle of one form, over n lifecycles; the dump is
    // named after the workload, the form and the step.
    template <class W>
    double count(const std::string& workload, W& w, Form form, int n, const char* only = nullptr) {
        for (int i = 0; i < 3; ++i) {
            runForm(w, form, NoMark{});
            settle();
        }
        for (int i = 0; i < n; ++i) {
            runForm(w, form, Collect{only});
            settle();
        }
        const std::string label = workload + " / " + formName(form) +
                                  (only != nullptr ? std::string(" / ") + only : "");
        CALLGRIND_DUMP_STATS_AT(label.c_str());
        return static_cast<double>(readTotal(++dumps_)) / n;
    }

  private:
    long long readTotal(int dump) const {
        const std::string path = base_ + "." + std::to_string(dump);
        std::ifstream in(path);
        std::string line;
        while (std::getline(in, line)) {
            if (line.rfind("totals:", 0) == 0) {
                return std::stoll(line.substr(7));
            }
        }
        fprintf(stderr, "count: no totals in %s\n", path.c_str());
        exit(1);
    }

    std::string base_;
    int dumps_ = 0;
};

constexpr int kLifecycles = 20;

void header(const char* title) {
    printf("\n%s\n%-44s %10s %10s %10s %9s %9s\n", title, "workload", "library", "floor",
           "platform", "lib/floor", "lib/plat");
}

template <class W>
void row(Counter& counter, const std::string& name, W& w, int n = kLifecycles) {
    const double lib = counter.count(name, w, Form::Library, n);
    const double floor = counter.count(name, w, Form::Floor, n);
    const double plat = counter.count(name, w, Form::Platform, n);
    printf("%-44s %10.0f %10.0f %10.0f %9.3f %9.3f\n", name.c_str(), lib, floor, plat, lib / floor,
           lib / plat);
    fflush(stdout);
}

const char* plural(int n) {
    return n == 1 ? "" : "s";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || RUNNING_ON_VALGRIND == 0) {
        fprintf(stderr,
                "usage: valgrind --tool=callgrind --collect-atstart=no "
                "--callgrind-out-file=BASE %s BASE\n",
                argc > 0 ? argv[0] : "postproc_count");
        return 2;
    }
    sim::setJournalEnabled(false);
    sim::kycam::setLogOutput(false, nullptr);
    sim::kycam::setLogConfig(7, 0, 0);
    Counter counter(argv[1]);
    char name[96];

    header("Instructions per lifecycle (callgrind), logging off");
    {
        auto w = emptyRecordWorkload();
        row(counter, "empty record: construct, destroy", w);
    }
    for (int cameras : {1, 3, 6}) {
        Request rq(cameras);
        auto w = requestWorkload(rq);
        snprintf(name, sizeof(name), "request, %d camera%s", cameras, plural(cameras));
        row(counter, name, w);
    }
    for (ResultKind kind : {ResultKind::ReplaceOne, ResultKind::NewCameras}) {
        Request rq(3, kind);
        auto w = requestWorkload(rq);
        row(counter,
            kind == ResultKind::ReplaceOne ? "request, 3 cameras, result replaces one object"
                                           : "request, 3 cameras, result brings new cameras",
            w);
    }
    {
        Request rq(3);
        auto w = offlineWorkload(rq);
        row(counter, "offline path, 3 cameras", w);
    }
    {
        Request rq(3);
        const std::pair<const char*, Copy> copies[] = {
                {"clone(true) and its end, 3 cameras", Copy::Clone},
                {"shallowClone(true) and its end, 3 cameras", Copy::ShallowClone},
                {"reset and keep again, 3 cameras", Copy::Reset}};
        for (const auto& copy : copies) {
            Sources sources(rq, copy.second);
            auto w = sources.workload();
            row(counter, copy.first, w);
        }
    }

    printf("\nLogging on (every line to both sinks, formatted and dropped), library only\n");
    for (int cameras : {1, 3, 6}) {
        Request rq(cameras);
        auto w = requestWorkload(rq);
        snprintf(name, sizeof(name), "request, %d camera%s", cameras, plural(cameras));
        const double off = counter.count(name, w, Form::Library, kLifecycles);
        sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
        const double on =
                counter.count(std::string(name) + ", logging on", w, Form::Library, kLifecycles);
        sim::kycam::setLogConfig(7, 0, 0);
        printf("%-44s off %10.0f  on %10.0f  on/off %6.2f\n", name, off, on, on / off);
    }

    {
        printf("\nOne log line (createChiMeta's), instructions per line\n");
        struct Setting {
            const char* name;
            int32_t level;
            uint32_t groups;
            uint32_t mask;
        };
        const Setting settings[] = {{"disabled", 7, 0, 0},
                                    {"Android log only", 0, 0xFFFFFFFF, 0},
                                    {"log system only", 7, 0xFFFFFFFF, 1},
                                    {"both sinks", 0, 0xFFFFFFFF, 1}};
        constexpr int kLines = 100;
        char text[1024];
        double floorLine = 0;
        for (int k = 4; k >= 0; --k) {
            auto lines = [&](auto, auto&& mark) {
                mark("lines");
                for (int i = 0; i < kLines; ++i) {
                    if (k == 4) {
                        createChiMetaText(text, sizeof(text), text, 1, 7);
                    } else {
                        createChiMetaLine(text, 1, 7);
                    }
                }
                mark(nullptr);
            };
            if (k < 4) {
                sim::kycam::setLogConfig(settings[k].level, settings[k].groups, settings[k].mask);
            }
            const double perLine = counter.count(k < 4 ? settings[k].name : "bare snprintf", lines,
                                                 Form::Library, 1) /
                                   kLines;
            sim::kycam::setLogConfig(7, 0, 0);
            if (k == 4) {
                floorLine = perLine;
            }
            printf("%-44s %10.1f %9.3f\n", k < 4 ? settings[k].name : "bare snprintf, same text",
                   perLine, perLine / floorLine);
        }
    }

    {
        Request rq(3);
        auto w = requestWorkload(rq);
        printf("\nPer step, request with 3 cameras\n%-44s %10s %10s %10s %9s\n", "step", "library",
               "floor", "platform", "lib-floor");
        for (const char* step : stepNames(w)) {
            const double lib =
                    counter.count("request, 3 cameras", w, Form::Library, kLifecycles, step);
            const double floor =
                    counter.count("request, 3 cameras", w, Form::Floor, kLifecycles, step);
            const double plat =
                    counter.count("request, 3 cameras", w, Form::Platform, kLifecycles, step);
            printf("%-44s %10.0f %10.0f %10.0f %9.0f\n", step, lib, floor, plat, lib - floor);
        }
    }

    header("Growth: cameras");
    for (int cameras : {1, 2, 4, 8, 16}) {
        Request rq(cameras);
        auto w = requestWorkload(rq);
        snprintf(name, sizeof(name), "request, %d camera%s", cameras, plural(cameras));
        row(counter, name, w);
    }
    header("Growth: debug buffers kept by a 3-camera request");
    for (int buffers : {1, 4, 16, 64}) {
        Request rq(3, ResultKind::SameObjects, buffers);
        auto w = requestWorkload(rq);
        snprintf(name, sizeof(name), "request, 3 cameras, %d buffer%s", buffers, plural(buffers));
        row(counter, name, w);
    }
    header("Growth: records alive during a 3-camera request");
    for (int records : {1, 10, 100, 1000}) {
        Request others(3);
        std::vector<std::unique_ptr<QcomPostProcInfo>> live;
        for (int i = 0; i < records; ++i) {
            live.push_back(std::make_unique<QcomPostProcInfo>());
            live.back()->createPrivResultMeta(others.ids, true, others.attributes);
        }
        Request rq(3);
        rq.firstRecord = false;
        auto w = requestWorkload(rq);
        snprintf(name, sizeof(name), "request, 3 cameras, %d other record%s", records,
                 plural(records));
        row(counter, name, w);
        live.clear();
        settle();
    }
    return sim::misuses().empty() ? 0 : 1;
}
