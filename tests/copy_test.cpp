// SPDX-License-Identifier: Apache-2.0
// Copies of a record (deep copy, clone, shallow clone) and its reuse after
// reset(): what is new, what is shared, who references what.
#include <sim/iqbm.h>

#include "support/record_test.h"

using adapter::QcomPostProcInfo;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;
using testsupport::hex;

namespace {

class CopyTest : public testsupport::RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        sim::iqbm::clearBuffers();
    }
    // A source with a logical result and cameras 0 and 2, with contents.
    void fill() {
        request({"0", "2"}, true, testsupport::attributes(1, 0, 0, 1));
        sim::chi::setContent(record->m_pPrivResult, "logical");
        sim::chi::setContent(phy(0), "camera 0");
        sim::chi::setContent(phy(2), "camera 2");
        sim::clearJournal();
        sim::kycam::clearLines();
    }
    QcomPostProcInfo& copyOf(const std::shared_ptr<PostProcInfo>& info) {
        return static_cast<QcomPostProcInfo&>(*info);
    }
    std::string warningsAndInfos(const char* level) {
        std::string text;
        for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
            if (line.sink == sim::kycam::Sink::LogSystem && line.level == level) {
                text += line.text + "\n";
            }
        }
        return text;
    }
    char a[8], b[8];
};

TEST_F(CopyTest, DeepCopyMakesNewObjectsWithTheSourcesContents) {
    fill();
    record->mHostFlag1 = true;
    record->setName("first");
    const std::vector<std::string> events = sim::iqbm::events();
    QcomPostProcInfo copy(*record);
    EXPECT_EQ(QcomPostProcInfo::mSum, 2u);
    EXPECT_EQ(sim::iqbm::events(), events) << "a copy never registers";
    EXPECT_EQ(copy.getName(), "first");
    EXPECT_TRUE(copy.mHostFlag1);
    EXPECT_THAT(copy.mPhyCamIdSet, ElementsAre("0", "2"));
    for (int id : {0, 2}) {
        EXPECT_NE(copy.mPrivPhyResultMap.at(id), phy(id));
        EXPECT_EQ(sim::chi::content(copy.mPrivPhyResultMap.at(id)), "camera " + std::to_string(id));
    }
    EXPECT_NE(copy.m_pPrivResult, record->m_pPrivResult);
    EXPECT_EQ(sim::chi::content(copy.m_pPrivResult), "logical");
    sim::chi::MetaState state;
    ASSERT_TRUE(sim::chi::state(copy.m_pPrivResult, &state));
    EXPECT_EQ(state.args.isMultiTypeContextMeta, 1);
    // The id texts are the source's: valid while the source lives.
    EXPECT_EQ(copy.m_pPrivPhyCamIds[0], record->m_pPrivPhyCamIds[0]);
    EXPECT_EQ(copy.m_pPrivPhyCamIds[1], record->m_pPrivPhyCamIds[1]);
    EXPECT_EQ(copy.m_pPrivPhyResults[1], copy.mPrivPhyResultMap.at(2));
    EXPECT_THAT(sim::opSequence("chi"), Contains("Copy"));
    EXPECT_THAT(testsupport::androidMessages().back(),
                "Deep Construct QcomPostProcInfo " + hex(&copy) + " m_pPrivResult " +
                        hex(copy.m_pPrivResult) + ", after sum 2, info from QcomPostProcInfo " +
                        hex(record.get()) + " m_pPrivResult " + hex(record->m_pPrivResult));
    EXPECT_THAT(copy.mDebugDataSet, IsEmpty());
}

TEST_F(CopyTest, DeepCopyOfASourceWithoutUsablePrivateResults) {
    for (bool translated : {false, true}) {
        fill();
        record->mSupportPrivMeta = translated;
        record->mAndroidMetaTranslated = translated;
        QcomPostProcInfo copy(*record);
        EXPECT_EQ(copy.m_pPrivResult, nullptr);
        EXPECT_EQ(copy.m_pPrivPhyResults, nullptr);
        EXPECT_EQ(copy.m_pPrivPhyCamIds, nullptr);
        EXPECT_EQ(sim::count("Create"), 0u);
        EXPECT_EQ(copy.mAndroidMetaTranslated, translated);
        record->mSupportPrivMeta = true;
        record->destroyPrivResultMeta();
    }
}

TEST_F(CopyTest, DeepCopyFindsTheSharedLogicalResult) {
    const struct {
        const char* name;
        bool inMap;  // the source's logical result is one of its physical ones
        bool noCameras;
        bool warned;
    } cases[] = {{"found", true, false, false},
                 {"missing", false, false, true},
                 {"no cameras", false, true, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        record = std::make_unique<QcomPostProcInfo>();
        request(c.noCameras ? std::set<std::string>{} : std::set<std::string>{"0", "2"}, false);
        void* theirs = hal();
        record->m_pPrivResult = c.inMap ? phy(2) : theirs;
        sim::kycam::clearLines();
        QcomPostProcInfo copy(*record);
        const int expectedId = c.noCameras ? -1 : (c.inMap ? 2 : 0);
        EXPECT_EQ(copy.m_pPrivResult,
                  c.noCameras ? nullptr : copy.mPrivPhyResultMap.at(expectedId));
        EXPECT_EQ(copy.mPrivPhyResultMap.size(), c.noCameras ? 0u : 2u) << "nothing is added";
        EXPECT_EQ(warningsAndInfos("W"),
                  c.warned ? hex(&copy) +
                                     " deep Construct, Samelogical_PhyResult with phycam -1 "
                                     "result, not found in mPrivPhyResultMap\n"
                           : "");
        EXPECT_THAT(warningsAndInfos("I"),
                    ::testing::HasSubstr(" same as physical cam " + std::to_string(expectedId) +
                                         " result"));
        record->m_pPrivResult = nullptr;
    }
}

TEST_F(CopyTest, DeepCopyKeepsTheFirstOfIdsEqualAfterAtoi) {
    // Walked in string order; creation lets the later id win the shared key,
    // the copy keeps the first one's object under it.
    const struct {
        std::set<std::string> ids;
        int key;
        size_t sourceIndex;
        size_t copyIndex;
    } cases[] = {{{"01", "1"}, 1, 1, 0}, {{"007", "7", "x"}, 7, 1, 0}, {{"a", "b"}, 0, 1, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(*c.ids.begin());
        record = std::make_unique<QcomPostProcInfo>();
        request(c.ids, false);
        std::vector<void*> orphans = {record->m_pPrivPhyResults[c.copyIndex]};
        {
            QcomPostProcInfo copy(*record);
            EXPECT_EQ(record->mPrivPhyResultMap.at(c.key),
                      record->m_pPrivPhyResults[c.sourceIndex]);
            EXPECT_EQ(copy.mPrivPhyResultMap.at(c.key), copy.m_pPrivPhyResults[c.copyIndex]);
            EXPECT_EQ(copy.mPrivPhyResultMap.size(), record->mPrivPhyResultMap.size());
            orphans.push_back(copy.m_pPrivPhyResults[c.sourceIndex]);
        }
        // Objects that live only in an array are the host's to end.
        for (void* orphan : orphans) {
            reinterpret_cast<ChiMetadata*>(orphan)->Destroy(true);
        }
    }
}

TEST_F(CopyTest, LastRecordUnregistersEvenIfItIsACopy) {
    auto copy = std::make_unique<QcomPostProcInfo>(*record);
    record.reset();
    EXPECT_TRUE(sim::iqbm::counters().registered);
    copy.reset();
    EXPECT_FALSE(sim::iqbm::counters().registered);
}

TEST_F(CopyTest, CloneTakesItsOwnReferencesOnlyOnRequest) {
    adapter::DebugData data = {8, a};
    adapter::DebugDataTuningMetaArray array = {2, {{8, b}, {8, a}}};
    record->keep3aDebugData(1, &data, false);
    record->keepTuningDDArray(1, &array, false);
    std::shared_ptr<PostProcInfo> bare = record->clone(false);
    EXPECT_THAT(copyOf(bare).m3aDebugDataMap, IsEmpty());
    EXPECT_EQ(sim::iqbm::refCount(a), 1);
    sim::kycam::clearLines();
    std::shared_ptr<PostProcInfo> owning = record->clone(true);
    EXPECT_EQ(testsupport::androidMessages()[0],
              "Clone QcomPostProcInfo " + hex(record.get()) + " needOwnDebugData 1");
    EXPECT_EQ(copyOf(owning).m3aDebugDataMap.at(1).pData, a);
    EXPECT_EQ(copyOf(owning).mTuningDDArrayMap.at(1).count, 2u);
    EXPECT_EQ(sim::iqbm::refCount(a), 2);
    EXPECT_EQ(sim::iqbm::refCount(b), 2);
    owning.reset();
    bare.reset();
    EXPECT_EQ(sim::iqbm::refCount(a), 1);
}

TEST_F(CopyTest, ShallowCloneSharesObjectsAndReferencesThem) {
    fill();
    void* parked = record->createChiMeta(false, false);
    record->mReplacedPrivResults.insert(parked);
    adapter::DebugData data = {8, a};
    record->keep3aDebugData(0, &data, false);
    std::shared_ptr<PostProcInfo> info = record->shallowClone(true);
    QcomPostProcInfo& clone = copyOf(info);
    EXPECT_EQ(clone.m_pPrivResult, record->m_pPrivResult);
    EXPECT_EQ(clone.m_pPrivPhyResults, record->m_pPrivPhyResults);
    EXPECT_EQ(clone.m_pPrivPhyCamIds, record->m_pPrivPhyCamIds);
    EXPECT_EQ(clone.mPrivPhyResultMap, record->mPrivPhyResultMap);
    EXPECT_THAT(clone.mReplacedPrivResults, IsEmpty());
    for (void* meta : {record->m_pPrivResult, phy(0), phy(2)}) {
        EXPECT_EQ(sim::chi::refCount(meta), 1u);
    }
    EXPECT_EQ(sim::chi::refCount(parked), 0u);
    EXPECT_EQ(clone.mDebugDataSet, record->mDebugDataSet);
    EXPECT_EQ(clone.m3aDebugDataMap.at(0).pData, a);
    EXPECT_EQ(sim::iqbm::refCount(a), 1) << "no reference taken for the copied set";
    EXPECT_EQ(sim::count("Create"), 1u) << "only the parked meta of this test";
    EXPECT_THAT(testsupport::androidMessages(),
                Contains("shallow copy QcomPostProcInfo " + hex(&clone) + " m_pPrivResult " +
                         hex(clone.m_pPrivResult) + ", info from QcomPostProcInfo " +
                         hex(record.get()) + " m_pPrivResult " + hex(record->m_pPrivResult)));
    // As the host, hand the shared objects and references back to the source.
    clone.releaseTuningMetaBufs(true);
    info.reset();
    EXPECT_EQ(sim::chi::refCount(phy(0)), 0u);
}

TEST_F(CopyTest, ShallowCloneOfATranslatedSourceSharesNothing) {
    fill();
    record->mAndroidMetaTranslated = true;
    std::shared_ptr<PostProcInfo> info = record->shallowClone(false);
    QcomPostProcInfo& clone = copyOf(info);
    EXPECT_EQ(clone.m_pPrivResult, nullptr);
    EXPECT_THAT(clone.mPrivPhyResultMap, IsEmpty());
    EXPECT_EQ(clone.mPhyCamIdSet, record->mPhyCamIdSet);
    EXPECT_TRUE(clone.mSupportPrivMeta);
    EXPECT_EQ(sim::count("AddReference"), 0u);
    clone.mSupportPrivMeta = false;  // its set names no objects of its own
}

class ResetTest : public CopyTest {};

TEST_F(ResetTest, NewRecordChangesOnlyTheKeeper) {
    sim::clearJournal();
    sim::kycam::clearLines();
    record->reset();
    record->reset();
    EXPECT_THAT(sim::calls(), IsEmpty());
    EXPECT_THAT(sim::kycam::lines(), IsEmpty());
    EXPECT_FALSE(record->mEnableIQBM);
    EXPECT_EQ(record->getName(), "QcomPostProcInfo");
    EXPECT_FALSE(record->mSupportPrivMeta);
}

TEST_F(ResetTest, ReleasesOnceThenKeepsThroughTheFramework) {
    fill();
    adapter::DebugData data = {8, a};
    record->keep3aDebugData(0, &data, false);
    record->mHostFlag0 = true;
    record->mAndroidMetaTranslated = true;
    void* logical = record->m_pPrivResult;
    sim::kycam::clearLines();
    record->reset();
    record->reset();
    EXPECT_EQ(sim::iqbm::refCount(a), 0);
    EXPECT_EQ(sim::count("IBMIntfBufDecRef", a), 1u);
    EXPECT_THAT(testsupport::androidMessages(),
                Contains("[Offline DebugData] PostProcsInfo " + hex(record.get()) +
                         " mEnableIQBM 1 reset debugData pData:" + hex(a) + " after dec ref is 0"));
    EXPECT_FALSE(record->mHostFlag0);
    EXPECT_FALSE(record->mAndroidMetaTranslated);
    EXPECT_EQ(record->m_pPrivResult, logical) << "private results are kept for reuse";
    EXPECT_EQ(sim::chi::invalidations(logical), 2u);
    record->keep3aDebugData(0, &data, false);
    EXPECT_EQ(sim::kycam::debugDataRefCount(a), 1);
    sim::kycam::clearLines();
    const void* address = record.get();
    record.reset();
    EXPECT_THAT(testsupport::androidMessages(),
                Contains(StartsWith("[Offline DebugData] PostProcsInfo " + hex(address) +
                                    " mEnableIQBM 0 destruct")));
    EXPECT_EQ(sim::kycam::debugDataRefCount(a), 0);
}

TEST_F(ResetTest, FreesOwnedBuffersAndStillRefusesDestroyedHandles) {
    fill();
    void* owned = malloc(8);
    record->createTuningParams()->mDebug3ABuffers[0] = {8, owned};
    record->setTuningMetaBufs(*record->mTuningParam);
    void* meta = record->createChiMeta(false, false);
    record->destroyChiMeta(meta);
    sim::clearJournal();
    sim::kycam::clearLines();
    record->reset();
    EXPECT_EQ(sim::count("IBMIntfBufDecRef") + sim::count("SubDebugDataReference"), 0u);
    EXPECT_THAT(testsupport::androidMessages(),
                Contains("PostProcsInfo " + hex(record.get()) + " free data:" + hex(owned)));
    EXPECT_TRUE(record->mFreeDebugData);
    EXPECT_NE(record->mTuningParam, nullptr);
    record->destroyChiMeta(meta);
    EXPECT_EQ(sim::count("Destroy"), 0u);
}

}  // namespace
