// SPDX-License-Identifier: Apache-2.0
// What logging and the data model cost a record. A line that does not write
// evaluates and formats nothing; a line that writes formats once per sink and
// never allocates; a lifecycle makes the platform calls of the benchmarks'
// hand-written floor (bench/workload.h) and allocates, step by step, what it
// does; a buffer it adopted it frees once. The process counts its mallocs,
// frees and formats (sim/probes).
#include <sim/probes.h>
#include "support/sim_test.h"
#include "workload.h"

using adapter::QcomPostProcInfo;
using testsupport::fresh;
using testsupport::SimTest;
using workload::Result;

namespace {

// Allocations of each step; the bookkeeping's own are left out.
struct Allocations : workload::Marks {
    std::vector<long> steps;
    long last = 0;
    void operator()(const char* step) override {
        if (!steps.empty()) {
            steps.back() = probe::counts().allocations - last;
        }
        if (step != nullptr) {
            steps.push_back(0);
        }
        last = probe::counts().allocations;
    }
};

// After a first lifecycle: liblog and the simulation allocate once for what
// they cache.
std::vector<long> allocations(const workload::Workload& w, bool library) {
    Allocations steps;
    steps.steps.reserve(16);
    workload::Marks none;
    for (workload::Marks* marks : {&none, static_cast<workload::Marks*>(&steps)}) {
        library ? workload::runLibrary(w, *marks) : workload::runFloor(w, *marks);
        workload::settle();
    }
    return steps.steps;
}

const Result kResults[] = {Result::Same, Result::ReplaceOne, Result::NewCameras};

using LogCostTest = SimTest;

TEST_F(LogCostTest, LineFormatsOncePerWritingSinkAndNothingOtherwise) {
    const uint32_t meta = KYA_LOG_GROUP_META;
    const struct {
        int32_t level;
        uint32_t groups;
        uint32_t mask;
        int writing;  // sinks that write a group 64 Info line
    } cases[] = {{5, 0xFFFFFFFF, 0, 0},
                 {0, KYA_LOG_GROUP_POSTPROC, 1, 0},
                 {4, meta, 0, 1},
                 {5, meta, 1, 1},
                 {4, meta, 1, 2}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.level << " " << c.groups << " " << c.mask);
        QcomPostProcInfo record;
        sim::kycam::setLogConfig(c.level, c.groups, c.mask);
        fresh();
        const probe::Counts before = probe::counts();
        // Their Info lines read the reference count for each sink that writes.
        void* meta = record.createChiMeta(false, false);
        record.destroyChiMeta(meta);
        EXPECT_EQ((probe::counts() - before).formats, 2 * c.writing) << "prefix and message once";
        EXPECT_EQ(sim::count("ReferenceCount"), 2u * c.writing);
        EXPECT_EQ(sim::kycam::lines().size(), 2u * c.writing);
        sim::kycam::setLogConfig(7, 0, 0);
    }
    EXPECT_THAT(sim::kycam::texts(sim::kycam::Sink::Android).front(),
                ::testing::MatchesRegex("KYA_META QcomPostProcInfo\\.cpp:[0-9]+ createChiMeta\\(\\)"
                                        "Create ChiMeta 0x[0-9a-f]+ ref 0 .*"));
}

TEST_F(LogCostTest, NoLineAllocatesAtAnyLevel) {
    sim::setJournalEnabled(false);
    sim::kycam::setLogOutput(false, nullptr);
    for (Result result : kResults) {
        const workload::Workload w{workload::Kind::Request, 3, -1, result};
        sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
        const long formats = probe::counts().formats;
        const std::vector<long> on = allocations(w, true);
        EXPECT_GT(probe::counts().formats, formats) << "nothing was logged";
        sim::kycam::setLogConfig(7, 0, 0);
        EXPECT_EQ(on, allocations(w, true));
    }
    // The Error lines: a null handle, a handle destroyed twice, no object.
    auto errorLines = [](int32_t level, uint32_t groups) {
        QcomPostProcInfo record;
        workload::settle();
        sim::kycam::setLogConfig(level, groups, 1);
        const long before = probe::counts().allocations;
        void* meta = nullptr;
        record.destroyChiMeta(meta);
        meta = record.createChiMeta(false, false);
        record.destroyChiMeta(meta);
        record.destroyChiMeta(meta);
        EXPECT_EQ(record.transToAndroidMeta(nullptr, false, false, 0, nullptr, false), nullptr);
        return probe::counts().allocations - before;
    };
    errorLines(7, 0);
    EXPECT_EQ(errorLines(0, 0xFFFFFFFF), errorLines(7, 0));
}

TEST_F(LogCostTest, AdoptedBuffersAreFreedOnceWithTheRecord) {
    auto record = std::make_unique<QcomPostProcInfo>();
    void* owned = malloc(64);
    record->createTuningParams()->mDebug3ABuffers = {{0, {64, owned}}, {1, {64, owned}}};
    record->setTuningMetaBufs(*record->mTuningParam);
    probe::watch(owned);
    record.reset();
    EXPECT_EQ(probe::watchedFrees(), 1);
}

TEST_F(LogCostTest, LifecycleAllocatesAndCallsWhatTheFloorDoes) {
    sim::kycam::setLogOutput(false, nullptr);
    sim::kycam::setLogConfig(7, 0, 0);
    for (int cameras : {1, 3, 6, 16}) {
        for (Result result : kResults) {
            SCOPED_TRACE(testing::Message() << cameras << " cameras, result " << int(result));
            const workload::Workload w{workload::Kind::Request, cameras, -1, result};
            sim::setJournalEnabled(true);
            workload::Marks none;
            std::vector<std::string> calls[2];
            for (bool library : {true, false}) {
                sim::clearJournal();
                library ? workload::runLibrary(w, none) : workload::runFloor(w, none);
                calls[library] = sim::opSequence();
            }
            EXPECT_EQ(calls[true], calls[false]);
            sim::setJournalEnabled(false);
            workload::settle();
            EXPECT_EQ(allocations(w, true), allocations(w, false));
        }
    }
    EXPECT_EQ(allocations({workload::Kind::Empty, 1}, true),
              allocations({workload::Kind::Empty, 1}, false));
}

}  // namespace
