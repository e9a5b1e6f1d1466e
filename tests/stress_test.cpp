// SPDX-License-Identifier: Apache-2.0
// Records made, kept, cloned and dropped on several threads at once, and debug
// data kept on one shared record from all of them. Afterwards the class
// counters, the IQ buffer manager's registration and every reference must be
// back where they started. make check-tsan runs this under ThreadSanitizer.
#include <sim/iqbm.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/sim_test.h"

using adapter::DebugData;
using adapter::DebugDataTuningMetaArray;
using adapter::QcomPostProcInfo;

namespace {

constexpr int kThreads = 4;
constexpr auto kDuration = std::chrono::milliseconds(1000);  // per test
constexpr int kMaxRounds = 20000;  // per thread: bounds the simulation's ledgers
constexpr int kBuffers = 8;
char gBuffers[kBuffers][64];
std::atomic<int> gRegistrationsOffBoundary{0};

DebugData buffer(int index) {
    return {64, gBuffers[index % kBuffers]};
}

class StressTest : public testsupport::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        sim::iqbm::clearBuffers();
        sim::setJournalEnabled(false);
        // Every line is formatted (the destructor's racy read included), then
        // dropped.
        sim::kycam::setLogOutput(false, nullptr);
        sim::kycam::setLogConfig(3, KYA_LOG_GROUP_META | KYA_LOG_GROUP_POSTPROC, 1);
        // Runs inside the manager's entry points, where the record holds
        // mSumMutex: register must come with the first record, unregister
        // with the last.
        sim::iqbm::setRegistrationObserver([](bool registering) {
            gRegistrationsOffBoundary += QcomPostProcInfo::mSum != (registering ? 1u : 0u);
        });
    }

    void TearDown() override {
        sim::iqbm::setRegistrationObserver(nullptr);
        sim::setJournalEnabled(true);
        EXPECT_EQ(QcomPostProcInfo::mSum, 0u);
        EXPECT_EQ(QcomPostProcInfo::mChiMetaSum, 0u);
        EXPECT_EQ(sim::chi::totals().alive, 0u);
        for (const auto& buffer : gBuffers) {
            EXPECT_EQ(sim::iqbm::refCount(buffer) + sim::kycam::debugDataRefCount(buffer), 0);
        }
        std::string registrations;
        for (const std::string& event : sim::iqbm::events()) {
            registrations += event[0] == 'r' ? "+" : event[0] == 'u' ? "-" : "";
        }
        EXPECT_GE(registrations.size(), 2u);
        for (size_t i = 0; i < registrations.size(); ++i) {
            ASSERT_EQ(registrations[i], "+-"[i % 2]) << i << " " << registrations;
        }
        EXPECT_EQ(registrations.size() % 2, 0u);
        EXPECT_EQ(gRegistrationsOffBoundary.exchange(0), 0);
        SimTest::TearDown();  // no misuse: no register twice, no reference below zero
    }

    // Runs round(thread, i) on every thread until the time or the rounds run out.
    template <typename Round>
    void onThreads(Round round) {
        const auto end = std::chrono::steady_clock::now() + kDuration;
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&round, end, t] {
                for (int i = 0; i < kMaxRounds && std::chrono::steady_clock::now() < end; ++i) {
                    round(t, i);
                }
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    std::set<std::string> ids{"0", "2"};
    adapter::PostProcInfoMetaAttributes attributes{1, 0, 0, 1};
};

TEST_F(StressTest, RecordsLiveAndDieOnEveryThread) {
    // No record outlives a round, so the count keeps crossing 0 and 1.
    onThreads([this](int t, int i) {
        auto record = std::make_unique<QcomPostProcInfo>();
        if (i % 4 == 0) {
            record->createPrivResultMeta(ids, true, attributes);
        }
        DebugData data = buffer(t + i);
        record->keep3aDebugData(t, &data, false);
        DebugDataTuningMetaArray array = {3, {buffer(i), {0, nullptr}, buffer(i + 1)}};
        record->keepTuningDDArray(t, &array, false);
        if (i % 8 == 4) {
            record->reset();  // from here on the framework's counters
            record->keep3aDebugData(t, &data, false);
        }
        // A copy's camera id texts point into its source: drop the copies first.
        record->clone(true).reset();
        record->clone(false).reset();
    });
}

TEST_F(StressTest, OneRecordKeepsDebugDataFromEveryThread) {
    auto shared = std::make_unique<QcomPostProcInfo>();
    shared->createPrivResultMeta(ids, true, attributes);
    onThreads([&shared](int t, int i) {
        DebugData data = buffer(t * 3 + i);
        shared->keep3aDebugData(i % 3, &data, false);
        DebugDataTuningMetaArray array = {2, {buffer(i), buffer(t)}};
        shared->keepTuningDDArray(t, &array, false);
        DebugData other = buffer(i * 5);
        shared->addDebugDataAndRef(&other, false);
        if (i % 16 == 0) {
            // Reads the shared maps under their locks while the others keep.
            shared->clone(i % 32 == 0).reset();
        }
        QcomPostProcInfo own;
        own.keep3aDebugData(t, &data, false);
    });
    // One reference per distinct buffer, however many threads kept it.
    EXPECT_EQ(shared->mDebugDataSet.size(), static_cast<size_t>(kBuffers));
    for (const auto& buffer : gBuffers) {
        EXPECT_EQ(sim::iqbm::refCount(buffer), 1);
    }
}

}  // namespace
