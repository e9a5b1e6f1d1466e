// SPDX-License-Identifier: Apache-2.0
// Copies of a record (deep copy, clone, shallow clone) and its reuse after
// reset(): what is new, what is shared, who references what.
#include <sim/iqbm.h>

#include "support/sim_test.h"

using adapter::QcomPostProcInfo;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace testsupport;

namespace {

class CopyTest : public RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        sim::iqbm::clearBuffers();
    }
    // A source with a logical result and cameras 0 and 2, with contents.
    void fill() {
        request({"0", "2"}, true, {1, 0, 0, 1});
        sim::chi::setContent(record->m_pPrivResult, "logical");
        sim::chi::setContent(phy(0), "camera 0");
        sim::chi::setContent(phy(2), "camera 2");
        fresh();
    }
    static QcomPostProcInfo& as(const std::shared_ptr<PostProcInfo>& info) {
        return static_cast<QcomPostProcInfo&>(*info);
    }
    char a[8], b[8];
};

TEST_F(CopyTest, DeepCopyMakesNewObjectsWithTheSourcesContents) {
    fill();
    record->mHostFlag1 = true;
    record->setName("first");
    auto owned = std::make_unique<QcomPostProcInfo>(*record);
    QcomPostProcInfo& copy = *owned;
    EXPECT_EQ(QcomPostProcInfo::mSum, 2u);
    EXPECT_THAT(sim::iqbm::events(), IsEmpty()) << "a copy never registers";
    EXPECT_TRUE(copy.getName() == "first" && copy.mHostFlag1 && copy.mPhyCamIdSet.size() == 2);
    for (int id : {0, 2}) {
        EXPECT_NE(copy.mPrivPhyResultMap.at(id), phy(id));
        EXPECT_EQ(sim::chi::content(copy.mPrivPhyResultMap.at(id)), "camera " + std::to_string(id));
        EXPECT_THAT(made(copy.mPrivPhyResultMap.at(id)), ElementsAre("0 1", "Copy 0"));
    }
    EXPECT_NE(copy.m_pPrivResult, record->m_pPrivResult);
    EXPECT_EQ(sim::chi::content(copy.m_pPrivResult), "logical");
    EXPECT_THAT(made(copy.m_pPrivResult), ElementsAre("1 0", "Copy 0"));
    // The id texts are the source's: valid while the source lives.
    EXPECT_EQ(std::vector<const char*>(copy.m_pPrivPhyCamIds, copy.m_pPrivPhyCamIds + 2),
              std::vector<const char*>(record->m_pPrivPhyCamIds, record->m_pPrivPhyCamIds + 2));
    EXPECT_EQ(copy.m_pPrivPhyResults[1], copy.mPrivPhyResultMap.at(2));
    const std::string deep = hex(&copy) + " deep Construct, ";
    EXPECT_THAT(messages(sim::kycam::Sink::LogSystem, "I"),
                ::testing::IsSupersetOf(
                        {deep + "m_pPrivPhyResults " + hex(copy.m_pPrivPhyResults) +
                                 " index is 1 from other.m_pPrivPhyResults[1] " + hex(phy(2)),
                         deep + "m_pPrivResult " + hex(copy.m_pPrivResult) +
                                 " from other.m_pPrivResult " + hex(record->m_pPrivResult)}));
    EXPECT_THAT(androidMessages().back(),
                "Deep Construct QcomPostProcInfo " + hex(&copy) + " m_pPrivResult " +
                        hex(copy.m_pPrivResult) + ", after sum 2, info from QcomPostProcInfo " +
                        hex(record.get()) + " m_pPrivResult " + hex(record->m_pPrivResult));
    EXPECT_THAT(copy.mDebugDataSet, IsEmpty());
    // The last record unregisters even if it is a copy.
    record.reset();
    EXPECT_TRUE(sim::iqbm::counters().registered);
    owned.reset();
    EXPECT_THAT(sim::iqbm::events(), ElementsAre("unregister:KYHAL"));
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
        record->m_pPrivResult = c.inMap ? phy(2) : hal();
        sim::kycam::clearLines();
        QcomPostProcInfo copy(*record);
        const int id = c.noCameras ? -1 : (c.inMap ? 2 : 0);
        EXPECT_EQ(copy.m_pPrivResult, c.noCameras ? nullptr : copy.mPrivPhyResultMap.at(id));
        EXPECT_EQ(copy.mPrivPhyResultMap.size(), c.noCameras ? 0u : 2u) << "nothing is added";
        const std::string missing = hex(&copy) +
                                    " deep Construct, Samelogical_PhyResult with phycam -1 "
                                    "result, not found in mPrivPhyResultMap";
        EXPECT_EQ(messages(sim::kycam::Sink::LogSystem, "W"),
                  c.warned ? std::vector<std::string>{missing} : std::vector<std::string>{});
        EXPECT_THAT(messages(sim::kycam::Sink::LogSystem, "I"),
                    Contains(HasSubstr(" same as physical cam " + std::to_string(id) + " result")));
        record->m_pPrivResult = nullptr;
    }
}

TEST_F(CopyTest, DeepCopyKeepsTheFirstOfIdsEqualAfterAtoi) {
    // Walked in string order; creation lets the later id win the shared key,
    // the copy keeps the first one's object under it.
    const struct {
        std::set<std::string> ids;
        int key;
    } cases[] = {{{"01", "1"}, 1}, {{"007", "7", "x"}, 7}, {{"a", "b"}, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(*c.ids.begin());
        record = std::make_unique<QcomPostProcInfo>();
        request(c.ids, false);
        std::vector<void*> orphans = {record->m_pPrivPhyResults[0]};
        {
            QcomPostProcInfo copy(*record);
            EXPECT_EQ(phy(c.key), record->m_pPrivPhyResults[1]);
            EXPECT_EQ(copy.mPrivPhyResultMap.at(c.key), copy.m_pPrivPhyResults[0]);
            EXPECT_EQ(copy.mPrivPhyResultMap.size(), record->mPrivPhyResultMap.size());
            orphans.push_back(copy.m_pPrivPhyResults[1]);
        }
        // Objects that live only in an array are the host's to end.
        for (void* orphan : orphans) {
            chi(orphan)->Destroy(true);
        }
    }
}

TEST_F(CopyTest, CloneTakesItsOwnReferencesOnlyOnRequest) {
    for (bool manager : {true, false}) {
        record = std::make_unique<QcomPostProcInfo>();
        record->mEnableIQBM = manager;
        auto refs = manager ? sim::iqbm::refCount : sim::kycam::debugDataRefCount;
        adapter::DebugData data = {8, a};
        adapter::DebugDataTuningMetaArray array = {2, {{8, b}, {8, a}}};
        record->keep3aDebugData(1, &data, false);
        record->keepTuningDDArray(1, &array, false);
        std::shared_ptr<PostProcInfo> bare = record->clone(false);
        EXPECT_THAT(as(bare).m3aDebugDataMap, IsEmpty());
        EXPECT_EQ(refs(a), 1);
        sim::kycam::clearLines();
        std::shared_ptr<PostProcInfo> owning = record->clone(true);
        EXPECT_EQ(androidMessages()[0],
                  "Clone QcomPostProcInfo " + hex(record.get()) + " needOwnDebugData 1");
        EXPECT_EQ(as(owning).m3aDebugDataMap.at(1).pData, a);
        EXPECT_EQ(as(owning).mTuningDDArrayMap.at(1).count, 2u);
        EXPECT_EQ(refs(a) + refs(b), 4) << "with either keeper";
        owning.reset();
        bare.reset();
        record.reset();
        EXPECT_EQ(refs(a) + refs(b), 0);
    }
}

TEST_F(CopyTest, ShallowCloneSharesObjectsAndReferencesThem) {
    fill();
    void* parked = record->createChiMeta(false, false);
    record->mReplacedPrivResults.insert(parked);
    adapter::DebugData data = {8, a};
    record->keep3aDebugData(0, &data, false);
    adapter::DebugDataTuningMetaArray array = {1, {data}};
    record->keepTuningDDArray(2, &array, false);
    std::shared_ptr<PostProcInfo> info = record->shallowClone(true);
    QcomPostProcInfo& clone = as(info);
    EXPECT_EQ(std::tie(clone.m_pPrivResult, clone.m_pPrivPhyResults, clone.m_pPrivPhyCamIds,
                       clone.mPrivPhyResultMap),
              std::tie(record->m_pPrivResult, record->m_pPrivPhyResults, record->m_pPrivPhyCamIds,
                       record->mPrivPhyResultMap));
    EXPECT_THAT(clone.mReplacedPrivResults, IsEmpty());
    for (void* meta : {record->m_pPrivResult, phy(0), phy(2)}) {
        EXPECT_EQ(refs(meta), 1u);
    }
    EXPECT_EQ(refs(parked), 0u);
    EXPECT_EQ(clone.mDebugDataSet, record->mDebugDataSet);
    EXPECT_EQ(clone.m3aDebugDataMap.at(0).pData, a);
    EXPECT_EQ(clone.mTuningDDArrayMap.at(2).entries[0].pData, a);
    EXPECT_EQ(sim::iqbm::refCount(a), 1) << "no reference taken for the copied set";
    EXPECT_EQ(sim::count("Create"), 1u) << "only the parked meta of this test";
    EXPECT_THAT(androidMessages(),
                Contains("shallow copy QcomPostProcInfo " + hex(&clone) + " m_pPrivResult " +
                         hex(clone.m_pPrivResult) + ", info from QcomPostProcInfo " +
                         hex(record.get()) + " m_pPrivResult " + hex(record->m_pPrivResult)));
    // As the host, hand the shared objects and references back to the source.
    clone.releaseTuningMetaBufs(true);
    info.reset();
    EXPECT_EQ(refs(phy(0)), 0u);

    // A translated source shares nothing.
    record->mAndroidMetaTranslated = true;
    info = record->shallowClone(false);
    EXPECT_TRUE(as(info).m_pPrivResult == nullptr && as(info).mPrivPhyResultMap.empty() &&
                as(info).mSupportPrivMeta && as(info).mPhyCamIdSet == record->mPhyCamIdSet);
    EXPECT_EQ(refs(phy(0)), 0u);
    as(info).mSupportPrivMeta = false;  // its set names no objects of its own
}

TEST_F(CopyTest, ResetReleasesOnceThenKeepsThroughTheFramework) {
    fill();
    adapter::DebugData data = {8, a};
    record->keep3aDebugData(0, &data, false);
    adapter::DebugDataTuningMetaArray array = {1, {data}};
    record->keepTuningDDArray(0, &array, false);
    record->mHostFlag0 = true;
    record->mHostFlag1 = true;
    record->mAndroidMetaTranslated = true;
    void* logical = record->m_pPrivResult;
    void* ended = record->createChiMeta(false, false);
    record->destroyChiMeta(ended);
    sim::kycam::clearLines();
    record->reset();
    record->reset();
    record->destroyChiMeta(ended);
    EXPECT_EQ(sim::count("Destroy", ended), 1u) << "a destroyed handle is still refused";
    EXPECT_EQ(sim::iqbm::refCount(a), 0);
    EXPECT_EQ(sim::count("IBMIntfBufDecRef", a), 1u);
    EXPECT_THAT(androidMessages(),
                Contains("[Offline DebugData] PostProcsInfo " + hex(record.get()) +
                         " mEnableIQBM 1 reset debugData pData:" + hex(a) + " after dec ref is 0"));
    EXPECT_FALSE(record->mHostFlag0 || record->mHostFlag1 || record->mAndroidMetaTranslated);
    EXPECT_TRUE(record->m3aDebugDataMap.empty() && record->mTuningDDArrayMap.empty());
    EXPECT_EQ(record->m_pPrivResult, logical) << "private results are kept for reuse";
    EXPECT_EQ(sim::chi::invalidations(logical), 2u);
    record->keep3aDebugData(0, &data, false);
    EXPECT_EQ(sim::kycam::debugDataRefCount(a), 1);
    sim::kycam::clearLines();
    const void* address = record.get();
    record.reset();
    EXPECT_THAT(androidMessages(), Contains(StartsWith("[Offline DebugData] PostProcsInfo " +
                                                       hex(address) + " mEnableIQBM 0 destruct")));
    EXPECT_EQ(sim::kycam::debugDataRefCount(a), 0);
}

}  // namespace
