// SPDX-License-Identifier: Apache-2.0
// Records made, kept, cloned and dropped on several threads at once, and debug
// data kept on one shared record from all of them. Afterwards the class
// counters, the IQ buffer manager's registration and every reference must be
// back where they started. make check-tsan runs this under ThreadSanitizer.
#include <QcomPostProcInfo.h>
#include <sim/iqbm.h>

#include <atomic>
#include <chrono>
#include <memory>
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

// Runs inside the manager's entry points, where the record holds mSumMutex:
// register must come with the first record, unregister with the last.
void onRegistration(bool registering) {
    if (QcomPostProcInfo::mSum != (registering ? 1u : 0u)) {
        ++gRegistrationsOffBoundary;
    }
}

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
        gRegistrationsOffBoundary = 0;
        sim::iqbm::setRegistrationObserver(onRegistration);
        startSum = QcomPostProcInfo::mSum;
        startChiMetaSum = QcomPostProcInfo::mChiMetaSum;
    }

    void TearDown() override {
        sim::iqbm::setRegistrationObserver(nullptr);
        sim::setJournalEnabled(true);
        EXPECT_EQ(QcomPostProcInfo::mSum, startSum);
        EXPECT_EQ(QcomPostProcInfo::mChiMetaSum, startChiMetaSum);
        EXPECT_EQ(sim::chi::totals().alive, 0u);
        for (int i = 0; i < kBuffers; ++i) {
            EXPECT_EQ(sim::iqbm::refCount(gBuffers[i]), 0) << "buffer " << i;
            EXPECT_EQ(sim::kycam::debugDataRefCount(gBuffers[i]), 0) << "buffer " << i;
        }
        std::vector<std::string> registrations;
        for (const std::string& event : sim::iqbm::events()) {
            if (event != "addref" && event != "decref") {
                registrations.push_back(event);
            }
        }
        ASSERT_FALSE(registrations.empty());
        for (size_t i = 0; i < registrations.size(); ++i) {
            ASSERT_EQ(registrations[i], i % 2 == 0 ? "register:KYHAL" : "unregister:KYHAL") << i;
        }
        EXPECT_EQ(registrations.size() % 2, 0u);
        EXPECT_FALSE(sim::iqbm::counters().registered);
        EXPECT_EQ(gRegistrationsOffBoundary, 0);
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
    uint64_t startSum = 0;
    uint64_t startChiMetaSum = 0;
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
        std::shared_ptr<PostProcInfo> own = record->clone(true);
        std::shared_ptr<PostProcInfo> bare = record->clone(false);
        // A copy's camera id texts point into its source: drop the copies first.
        own.reset();
        bare.reset();
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
            std::shared_ptr<PostProcInfo> copy = shared->clone(i % 32 == 0);
        }
        QcomPostProcInfo own;
        own.keep3aDebugData(t, &data, false);
    });
    // One reference per distinct buffer, however many threads kept it.
    EXPECT_EQ(shared->mDebugDataSet.size(), static_cast<size_t>(kBuffers));
    for (int i = 0; i < kBuffers; ++i) {
        EXPECT_EQ(sim::iqbm::refCount(gBuffers[i]), 1) << "buffer " << i;
    }
    shared.reset();
}

}  // namespace
