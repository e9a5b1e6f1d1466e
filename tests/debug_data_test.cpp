// SPDX-License-Identifier: Apache-2.0
// Debug data held by reference: one reference per distinct buffer with
// either keeper, given back exactly once, and the keep operations from
// several threads.
#include <sim/iqbm.h>

#include <functional>
#include <thread>

#include "support/record_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::hex;

namespace {

enum class Keeper { Manager, Framework };

class DebugDataTest : public testsupport::SimTest, public ::testing::WithParamInterface<Keeper> {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        sim::iqbm::clearBuffers();
        record = std::make_unique<adapter::QcomPostProcInfo>();
        record->mEnableIQBM = GetParam() == Keeper::Manager;
        sim::kycam::setLogConfig(3, KYA_LOG_GROUP_POSTPROC, 0);
        sim::kycam::clearLines();
        sim::clearJournal();
    }
    int refs(const void* buffer) {
        return GetParam() == Keeper::Manager ? sim::iqbm::refCount(buffer)
                                             : sim::kycam::debugDataRefCount(buffer);
    }
    int otherKeeperCalls() {
        return static_cast<int>(
                GetParam() == Keeper::Manager
                        ? sim::count("AddDebugDataReference") + sim::count("SubDebugDataReference")
                        : sim::count("IBMIntfBufAddRef") + sim::count("IBMIntfBufDecRef"));
    }
    std::string r() const { return "PostProcsInfo " + hex(record.get()); }
    std::unique_ptr<adapter::QcomPostProcInfo> record;
    char a[8], b[8];
};

TEST_P(DebugDataTest, OneReferencePerDistinctBufferGivenBackOnce) {
    adapter::DebugData first = {8, a};
    adapter::DebugDataTuningMetaArray tuning = {3, {{8, b}, {0, nullptr}, {8, a}}};
    record->keep3aDebugData(0, &first, false);
    record->keep3aDebugData(0, &first, false);
    record->keep3aDebugData(1, &first, false);
    record->keepTuningDDArray(0, &tuning, false);
    EXPECT_EQ(refs(a), 1);
    EXPECT_EQ(refs(b), 1);
    EXPECT_EQ(record->m3aDebugDataMap.size(), 2u);
    const std::string enable = GetParam() == Keeper::Manager ? "1" : "0";
    std::vector<std::string> expected;
    if (GetParam() == Keeper::Manager) {
        expected.push_back(r() + " add DebugDataPtr " + hex(a) + " ref 1");
    }
    const std::string keep = "[Offline DebugData] " + r() + " add phycamId ";
    expected.push_back(keep + "0 3adebugData pData:" + hex(a) + " after add ref is 1");
    expected.push_back(keep + "0 3adebugData pData:" + hex(a) + " after add ref is -1");
    expected.push_back(keep + "1 3adebugData pData:" + hex(a) + " after add ref is -1");
    if (GetParam() == Keeper::Manager) {
        expected.push_back(r() + " add DebugDataPtr " + hex(b) + " ref 1");
    }
    expected.push_back(keep + "0 DebugDataArrayTuning index 0 pData:" + hex(b) +
                       " after add ref is 1");
    expected.push_back(keep + "0 DebugDataArrayTuning index 2 pData:" + hex(a) +
                       " after add ref is -1");
    EXPECT_EQ(testsupport::androidMessages(), expected);

    sim::kycam::clearLines();
    const void* address = record.get();
    record.reset();
    EXPECT_EQ(refs(a), 0);
    EXPECT_EQ(refs(b), 0);
    EXPECT_EQ(otherKeeperCalls(), 0);
    const char* low = std::less<const char*>()(a, b) ? a : b;
    const char* high = low == a ? b : a;
    const std::string release = "[Offline DebugData] PostProcsInfo " + hex(address) +
                                " mEnableIQBM " + enable + " destruct debugData pData:";
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre(::testing::StartsWith("Destruct  QcomPostProcInfo"),
                            release + hex(low) + " after dec ref is 0",
                            release + hex(high) + " after dec ref is 0"));
}

TEST_P(DebugDataTest, AlreadyReferencedCountsOnlyForTheFramework) {
    adapter::DebugData data = {8, a};
    sim::kycam::setDebugDataRefCount(a, 1);
    EXPECT_EQ(record->addDebugDataAndRef(&data, true), 1);
    if (GetParam() == Keeper::Framework) {
        EXPECT_EQ(sim::count("AddDebugDataReference"), 0u);
        record.reset();
        EXPECT_EQ(sim::count("SubDebugDataReference", a), 1u);
        EXPECT_EQ(sim::kycam::debugDataRefCount(a), 0);
    } else {
        EXPECT_EQ(sim::count("IBMIntfBufAddRef", a), 1u);
        record.reset();
        EXPECT_EQ(sim::iqbm::refCount(a), 0);
    }
}

TEST_P(DebugDataTest, EmptyInputsHoldNothing) {
    EXPECT_EQ(record->addDebugDataAndRef(nullptr, false), -1);
    record->keep3aDebugData(0, nullptr, false);
    record->keepTuningDDArray(0, nullptr, false);
    adapter::DebugData earlier = {8, a};
    record->keep3aDebugData(4, &earlier, false);
    adapter::DebugDataTuningMetaArray tuning = {1, {{8, b}}};
    record->keepTuningDDArray(4, &tuning, false);
    sim::clearJournal();
    sim::kycam::clearLines();
    adapter::DebugData none = {0, nullptr};
    record->keep3aDebugData(4, &none, false);
    EXPECT_EQ(record->m3aDebugDataMap.at(4).pData, nullptr) << "replaced silently";
    adapter::DebugDataTuningMetaArray empty = {0, {{8, a}}};
    record->keepTuningDDArray(4, &empty, false);
    EXPECT_EQ(record->mTuningDDArrayMap.at(4).count, 1u) << "a count of 0 is not stored";
    EXPECT_THAT(sim::calls(), IsEmpty());
    EXPECT_THAT(sim::kycam::lines(), IsEmpty());
    EXPECT_EQ(record->mDebugDataSet.size(), 2u);
}

TEST_P(DebugDataTest, KeepFromTwoThreadsWhileAnotherRecordGoes) {
    constexpr int kBuffers = 64;
    static char buffers[kBuffers];
    auto other = std::make_unique<adapter::QcomPostProcInfo>();
    adapter::DebugData shared = {1, &buffers[0]};
    other->keep3aDebugData(0, &shared, false);
    auto keep = [this](int first) {
        for (int i = first; i < kBuffers; i += 2) {
            adapter::DebugData data = {1, &buffers[i]};
            record->keep3aDebugData(i, &data, false);
            adapter::DebugDataTuningMetaArray array = {2, {{1, &buffers[i]}, {1, &buffers[0]}}};
            record->keepTuningDDArray(i, &array, false);
        }
    };
    std::thread even(keep, 0);
    std::thread odd(keep, 1);
    other.reset();
    even.join();
    odd.join();
    EXPECT_EQ(record->mDebugDataSet.size(), static_cast<size_t>(kBuffers));
    for (const char& buffer : buffers) {
        EXPECT_EQ(refs(&buffer), 1);
    }
    record.reset();
    for (const char& buffer : buffers) {
        EXPECT_EQ(refs(&buffer), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Keepers, DebugDataTest,
                         ::testing::Values(Keeper::Manager, Keeper::Framework),
                         [](const auto& info) {
                             return info.param == Keeper::Manager ? "Manager" : "Framework";
                         });

}  // namespace
