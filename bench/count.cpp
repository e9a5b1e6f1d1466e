// SPDX-License-Identifier: Apache-2.0
// Instructions per lifecycle of the record's workloads and of the floor, for
// comparison across commits; make bench-count runs it under callgrind with
// collection off at the start. Collection is on only in the measured steps,
// and the simulation is brought back to the same state between lifecycles,
// so a count does not depend on what ran before. Each figure ends in a dump
// of its own (callgrind_annotate reads it), whose total this program reads.
#include <sim/journal.h>
#include <sim/kycam.h>
#include <stdio.h>
#include <string.h>
#include <valgrind/callgrind.h>

#include <fstream>
#include <string>

#include "workload.h"

namespace {

using namespace workload;

// Collects the measured steps, or one of them.
struct Collect : Marks {
    const char* only = nullptr;
    bool on = false;
    void operator()(const char* step) override {
        const bool want = step != nullptr && (only == nullptr || strcmp(step, only) == 0);
        if (want != on) {
            CALLGRIND_TOGGLE_COLLECT;
            on = want;
        }
    }
};

std::string gBase;
int gDumps = 0;

// Instructions per lifecycle over 20, after 3 unmeasured.
double count(const Workload& w, bool library, const char* only = nullptr) {
    Collect collect;
    collect.only = only;
    Marks none;
    for (int i = 0; i < 23; ++i) {
        library ? runLibrary(w, i < 3 ? none : collect) : runFloor(w, i < 3 ? none : collect);
        settle();
    }
    const std::string label = describe(w) + (library ? " / library" : " / floor");
    CALLGRIND_DUMP_STATS_AT(label.c_str());
    std::ifstream in(gBase + "." + std::to_string(++gDumps));
    for (std::string line; std::getline(in, line);) {
        if (line.rfind("totals:", 0) == 0) {
            return std::stod(line.substr(7)) / 20;
        }
    }
    fprintf(stderr, "count: no totals in %s.%d\n", gBase.c_str(), gDumps);
    exit(1);
}

void row(const Workload& w) {
    const double lib = count(w, true);
    const double floor = count(w, false);
    printf("%-60s %10.0f %10.0f %8.3f\n", describe(w).c_str(), lib, floor, lib / floor);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || !RUNNING_ON_VALGRIND) {
        fprintf(stderr,
                "usage: valgrind --tool=callgrind --collect-atstart=no "
                "--callgrind-out-file=FILE postproc_count FILE\n");
        return 2;
    }
    gBase = argv[1];
    sim::setJournalEnabled(false);
    sim::kycam::setLogOutput(false, nullptr);
    sim::kycam::setLogConfig(7, 0, 0);
    printf("%-60s %10s %10s %8s\n", "instructions per lifecycle", "library", "floor", "ratio");
    row({Kind::Empty, 1});
    for (int n : {1, 2, 3, 4, 6, 8, 16}) {
        row({Kind::Request, n});
    }
    row({Kind::Request, 3, -1, Result::ReplaceOne});
    row({Kind::Request, 3, -1, Result::NewCameras});
    for (int n : {1, 4, 16, 64}) {
        row({Kind::Request, 3, n});
    }
    for (int n : {1, 10, 100, 1000}) {
        row({Kind::Request, 3, -1, Result::Same, n});
    }
    const Workload three{Kind::Request, 3};
    printf("\nper step, %s\n", describe(three).c_str());
    for (const char* step : {"construct", "createPrivResultMeta", "setHalRequestPrivResultMeta",
                             "checkAndUpdatePrivResult", "keep3aDebugData", "destroy"}) {
        printf("%-60s %10.0f %10.0f\n", step, count(three, true, step), count(three, false, step));
    }
    const double off = count(three, true);
    sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
    printf("\nevery line logged to both sinks, %s: %.0f, %.1f times\n", describe(three).c_str(),
           count(three, true), count(three, true) / off);
    return 0;
}
