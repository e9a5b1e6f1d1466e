// SPDX-License-Identifier: Apache-2.0
// What logging and the data model cost a record. A line that does not write
// evaluates and formats nothing; a line that writes formats once per sink and
// never allocates; a lifecycle allocates, step by step, what the record's
// containers need and nothing more (the benchmarks' hand-written floor).
// The process counts its mallocs and formats (bench/probes.cpp); platform
// calls are read from the simulation's journal.
#include <QcomPostProcInfo.h>

#include "probes.h"
#include "steps.h"
#include "support/sim_test.h"
#include "workload.h"

using adapter::QcomPostProcInfo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace workload;

namespace {

struct Sinks {
    int32_t level;
    uint32_t groups;
    uint32_t mask;
    int writing;  // sinks that write a group 64 Info line
};

const ResultKind kResults[] = {ResultKind::SameObjects, ResultKind::ReplaceOne,
                               ResultKind::NewCameras};
const Copy kCopies[] = {Copy::Clone, Copy::ShallowClone, Copy::Reset};

class LogCostTest : public testsupport::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        sim::setJournalEnabled(true);
    }

    // createChiMeta and destroyChiMeta, whose Info lines read the reference
    // count for each sink that writes.
    probe::Counts createAndDestroy(const Sinks& sinks) {
        QcomPostProcInfo record;
        sim::kycam::setLogConfig(sinks.level, sinks.groups, sinks.mask);
        sim::clearJournal();
        sim::kycam::clearLines();
        const probe::Counts before = probe::counts();
        void* meta = record.createChiMeta(false, false);
        record.destroyChiMeta(meta);
        const probe::Counts cost = probe::counts() - before;
        sim::kycam::setLogConfig(7, 0, 0);
        return cost;
    }

    // The record's own allocations per step with every line of every level
    // written to a logger that drops it, and with none written.
    template <class W>
    void expectLoggingAllocatesNothing(W&& w) {
        sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
        const long formats = probe::counts().formats;
        const std::vector<long> on = ownAllocationCounts(w, Form::Library);
        EXPECT_GT(probe::counts().formats, formats) << "nothing was logged";
        sim::kycam::setLogConfig(7, 0, 0);
        EXPECT_EQ(on, ownAllocationCounts(w, Form::Library));
    }

    template <class W>
    void expectFloorAllocations(W&& w) {
        EXPECT_EQ(ownAllocationCounts(w, Form::Library), ownAllocationCounts(w, Form::Floor));
    }
};

TEST_F(LogCostTest, LineThatDoesNotWriteEvaluatesAndFormatsNothing) {
    // Info below the level with no debug mask; the group switched off.
    for (const Sinks& sinks :
         {Sinks{5, 0xFFFFFFFF, 0, 0}, Sinks{0, KYA_LOG_GROUP_POSTPROC, 1, 0}}) {
        EXPECT_EQ(createAndDestroy(sinks).formats, 0);
        EXPECT_THAT(sim::opSequence("chi"), ElementsAre("Create", "Destroy"));
        EXPECT_THAT(sim::kycam::lines(), IsEmpty());
    }
}

TEST_F(LogCostTest, LineFormatsPrefixAndMessageOncePerWritingSink) {
    const uint32_t meta = KYA_LOG_GROUP_META;
    for (const Sinks& sinks : {Sinks{4, meta, 0, 1}, Sinks{5, meta, 1, 1}, Sinks{4, meta, 1, 2}}) {
        EXPECT_EQ(createAndDestroy(sinks).formats, 2 * sinks.writing) << sinks.level;
        EXPECT_EQ(sim::count("ReferenceCount"), 2u * sinks.writing);
        EXPECT_EQ(sim::kycam::lines().size(), 2u * sinks.writing);
    }
    EXPECT_THAT(sim::kycam::texts(sim::kycam::Sink::Android).front(),
                ::testing::MatchesRegex("KYA_META QcomPostProcInfo\\.cpp:[0-9]+ createChiMeta\\(\\)"
                                        "Create ChiMeta 0x[0-9a-f]+ ref 0 .*"));
}

TEST_F(LogCostTest, NoLineAllocatesAtAnyLevel) {
    sim::setJournalEnabled(false);
    sim::kycam::setLogOutput(false, nullptr);
    for (ResultKind kind : kResults) {
        Request rq(3, kind);
        expectLoggingAllocatesNothing(requestWorkload(rq));
    }
    Request rq(3);
    expectLoggingAllocatesNothing(offlineWorkload(rq));
    for (Copy copy : kCopies) {
        Sources sources(rq, copy);
        expectLoggingAllocatesNothing(sources.workload());
    }
    // The Error lines: a null handle, a handle destroyed twice, no object.
    auto errorLines = [](int32_t level, uint32_t groups) {
        QcomPostProcInfo record;
        settle();
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

TEST_F(LogCostTest, LifecycleAllocatesWhatTheContainersNeed) {
    sim::kycam::setLogOutput(false, nullptr);
    sim::kycam::setLogConfig(7, 0, 0);
    Request three(3);
    auto w = requestWorkload(three);
    const auto calls = platformCalls(w);
    EXPECT_EQ(calls[0], calls[1]);
    EXPECT_EQ(calls[0], calls[2]);
    sim::setJournalEnabled(false);
    // construct: the name; createPrivResultMeta: four tag lists, three set
    // and three map nodes, two arrays; keep3aDebugData: a map and a set node
    // per camera; destroy: a node of the destroyed set per object.
    EXPECT_THAT(ownAllocationCounts(w, Form::Library), ElementsAre(1, 12, 0, 0, 0, 6, 4));
    for (int cameras : {1, 6, 16}) {
        for (ResultKind kind : kResults) {
            Request rq(cameras, kind);
            expectFloorAllocations(requestWorkload(rq));
        }
        Request rq(cameras);
        expectFloorAllocations(offlineWorkload(rq));
    }
    for (Copy copy : kCopies) {
        Sources sources(three, copy);
        expectFloorAllocations(sources.workload());
    }
}

}  // namespace
