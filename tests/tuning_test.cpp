// SPDX-License-Identifier: Apache-2.0
// Debug data held by reference (one reference per distinct buffer with either
// keeper, given back exactly once), tuning parameters, translation to Android
// metadata and the tuning metadata exchange: sizes, order, first entry wins,
// what moves and who gives each buffer back.
#include <stdlib.h>

#include <functional>

#include <sim/iqbm.h>

#include "support/sim_test.h"

using adapter::QCOMTuningParams;
using namespace testsupport;

namespace {

enum class Keeper { Manager, Framework };

class DebugDataTest : public RecordFixture, public ::testing::WithParamInterface<Keeper> {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        sim::iqbm::clearBuffers();
        record->mEnableIQBM = manager();
        sim::kycam::setLogConfig(3, KYA_LOG_GROUP_POSTPROC, 0);
        fresh();
    }
    bool manager() const { return GetParam() == Keeper::Manager; }
    int refs(const void* buffer) {
        return manager() ? sim::iqbm::refCount(buffer) : sim::kycam::debugDataRefCount(buffer);
    }
    char a[8], b[8];
};

TEST_P(DebugDataTest, OneReferencePerDistinctBufferGivenBackOnce) {
    adapter::DebugData first = {8, a};
    adapter::DebugDataTuningMetaArray tuning = {3, {{8, b}, {0, nullptr}, {8, a}}};
    record->keep3aDebugData(0, &first, false);
    record->keep3aDebugData(0, &first, false);
    record->keep3aDebugData(1, &first, false);
    record->keepTuningDDArray(0, &tuning, false);
    EXPECT_EQ(refs(a) + refs(b), 2);
    const std::string keep = "[Offline DebugData] " + r() + " add phycamId ";
    std::vector<std::string> expected = {
            r() + " add DebugDataPtr " + hex(a) + " ref 1",
            keep + "0 3adebugData pData:" + hex(a) + " after add ref is 1",
            keep + "0 3adebugData pData:" + hex(a) + " after add ref is -1",
            keep + "1 3adebugData pData:" + hex(a) + " after add ref is -1",
            r() + " add DebugDataPtr " + hex(b) + " ref 1",
            keep + "0 DebugDataArrayTuning index 0 pData:" + hex(b) + " after add ref is 1",
            keep + "0 DebugDataArrayTuning index 2 pData:" + hex(a) + " after add ref is -1"};
    if (!manager()) {
        expected.erase(expected.begin() + 4);
        expected.erase(expected.begin());
    }
    EXPECT_EQ(androidMessages(), expected);

    // Empty inputs hold nothing: no call, no line.
    fresh();
    EXPECT_EQ(record->addDebugDataAndRef(nullptr, false), -1);
    record->keep3aDebugData(0, nullptr, false);
    record->keepTuningDDArray(0, nullptr, false);
    adapter::DebugData none = {0, nullptr};
    record->keep3aDebugData(1, &none, false);
    EXPECT_EQ(record->m3aDebugDataMap.at(1).pData, nullptr) << "replaced silently";
    adapter::DebugDataTuningMetaArray empty = {0, {{8, a}}};
    record->keepTuningDDArray(0, &empty, false);
    EXPECT_EQ(record->mTuningDDArrayMap.at(0).count, 3u) << "a count of 0 is not stored";
    adapter::DebugDataTuningMetaArray beyond = {1, {{0, nullptr}, {8, a}}};
    record->keepTuningDDArray(1, &beyond, false);
    EXPECT_TRUE(sim::calls().empty() && sim::kycam::lines().empty()) << "entries past the count";

    const std::string release = "[Offline DebugData] " + r() + " mEnableIQBM " +
                                std::to_string(manager()) + " destruct debugData pData:";
    record.reset();
    EXPECT_EQ(refs(a) + refs(b), 0);
    EXPECT_EQ(sim::count(manager() ? "SubDebugDataReference" : "IBMIntfBufDecRef"), 0u);
    const char* low = std::less<const char*>()(a, b) ? a : b;
    EXPECT_THAT(androidMessages(),
                ElementsAre(::testing::StartsWith("Destruct  QcomPostProcInfo"),
                            release + hex(low) + " after dec ref is 0",
                            release + hex(low == a ? b : a) + " after dec ref is 0"));
}

TEST_P(DebugDataTest, AlreadyReferencedCountsOnlyForTheFramework) {
    adapter::DebugData data = {8, a};
    sim::kycam::setDebugDataRefCount(a, 1);
    EXPECT_EQ(record->addDebugDataAndRef(&data, true), 1);
    EXPECT_EQ(sim::count("AddDebugDataReference") + sim::count("IBMIntfBufAddRef", a), manager());
    record.reset();
    EXPECT_EQ(refs(a), 0);
    EXPECT_EQ(sim::count(manager() ? "IBMIntfBufDecRef" : "SubDebugDataReference", a), 1u);
}

INSTANTIATE_TEST_SUITE_P(Keepers, DebugDataTest,
                         ::testing::Values(Keeper::Manager, Keeper::Framework),
                         [](const auto& info) {
                             return info.param == Keeper::Manager ? "Manager" : "Framework";
                         });

class TuningTest : public RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        sim::iqbm::clearBuffers();
    }
    void TearDown() override {
        record.reset();
        EXPECT_EQ(sim::camera_metadata::totals().alive, 0u);
        RecordFixture::TearDown();
    }
    QCOMTuningParams& params() {
        if (!tuning) {
            tuning = record->createTuningParams();
        }
        return static_cast<QCOMTuningParams&>(*tuning);
    }
    // The consumer's duty: the exported buffers are its own.
    void freeExported() {
        for (auto& entry : params().mTuningMetas) {
            free_camera_metadata(entry.second);
        }
        params().mTuningMetas.clear();
    }
    // Entry and data capacity of an Android buffer.
    static std::pair<size_t, size_t> capacity(const camera_metadata_t* meta) {
        return {get_camera_metadata_entry_capacity(meta), get_camera_metadata_data_capacity(meta)};
    }
    std::shared_ptr<kycam::TuningParamsBase> tuning;
};

const std::pair<size_t, size_t> kLarge = {1024, 2252800}, kSmall = {700, 716800};

TEST_F(TuningTest, CreateTuningParamsMakesAFreshObjectEachTime) {
    std::shared_ptr<kycam::TuningParamsBase> first = record->createTuningParams();
    EXPECT_TRUE(first->getTuningMetasSize() == 0 && !first->mTransAllMetas &&
                first->mCameraId == -1 && record->mFreeDebugData);
    EXPECT_EQ(first.use_count(), 2) << "the record keeps a share";
    std::shared_ptr<kycam::TuningParamsBase> second = record->createTuningParams();
    EXPECT_NE(first, second);
    EXPECT_EQ(first.use_count(), 1) << "the caller's copy keeps the old one alive";
    EXPECT_EQ(androidMessages().back(), r() + " mTuningParam:" + hex(second.get()));
}

TEST_F(TuningTest, DestructorFreesButDestroyTuningMetaBufsDecrements) {
    // Buffers adopted by a record that made its own tuning parameters.
    void* decremented = malloc(16);
    void* freed = malloc(16);
    params().mDebug3ABuffers = {{0, {16, decremented}}};
    record->setTuningMetaBufs(params());
    sim::iqbm::setRefCount(decremented, 1);
    sim::kycam::clearLines();
    record->destroyTuningMetaBufs();
    EXPECT_EQ(sim::iqbm::refCount(decremented), 0);
    EXPECT_EQ(androidMessages()[0], "[Offline DebugData] " + r() +
                                            " mEnableIQBM 1 destruct debugData pData:" +
                                            hex(decremented) + " after dec ref is 0");
    EXPECT_EQ(sim::kycam::lines()[0].text.rfind("KYA_META ", 0), 0u);
    free(decremented);

    params().mDebug3ABuffers = {{0, {16, freed}}};
    record->setTuningMetaBufs(params());
    fresh();
    const std::string address = r();
    record.reset();
    EXPECT_EQ(androidMessages()[1], address + " free data:" + hex(freed));
    EXPECT_EQ(sim::count("IBMIntfBufDecRef") + sim::count("SubDebugDataReference"), 0u);
}

TEST_F(TuningTest, TranslateOneMetaOrOneCamera) {
    void* meta = record->createChiMeta(false, false);
    sim::chi::setContent(meta, "3A state");
    uint32_t tags[] = {7, 8};
    for (bool large : {true, false}) {
        camera_metadata_t* androidMeta =
                record->transToAndroidMeta(meta, large, true, 2, tags, large);
        EXPECT_EQ(capacity(androidMeta), large ? kLarge : kSmall);
        EXPECT_EQ(sim::camera_metadata::content(androidMeta), "3A state");
        free_camera_metadata(androidMeta);
    }
    EXPECT_THAT(made(meta),
                ElementsAre("0 0", "Translate 1 1 2 " + hex(tags), "Translate 0 1 2 " + hex(tags)));
    // The buffer is made before the handle is looked at.
    sim::clearJournal();
    EXPECT_EQ(record->transToAndroidMeta(nullptr, true, false, 0, nullptr, true), nullptr);
    EXPECT_THAT(sim::opSequence(), ElementsAre("allocate_camera_metadata", "free_camera_metadata"));
    record->destroyChiMeta(meta);

    record->transToAndroidMetaWithCameraId(-1);
    EXPECT_FALSE(record->mAndroidMetaTranslated) << "no private results: nothing happens";
    request({"0"}, true);
    sim::kycam::clearLines();
    camera_metadata_t* logical = record->transToAndroidMetaWithCameraId(-1);
    EXPECT_TRUE(record->mAndroidMetaTranslated);
    EXPECT_EQ(record->transToAndroidMetaWithCameraId(5), nullptr);
    EXPECT_EQ(record->mPrivPhyResultMap.count(5), 0u);
    camera_metadata_t* camera0 = record->transToAndroidMetaWithCameraId(0);
    EXPECT_EQ(capacity(camera0), kSmall);
    EXPECT_EQ(capacity(logical), kSmall);
    EXPECT_THAT(made(record->m_pPrivResult), ElementsAre("0 0", "Translate 1 0 0 (nil)"));
    EXPECT_THAT(made(phy(0)), ElementsAre("0 0", "Translate 1 0 0 (nil)"));
    EXPECT_THAT(androidMessages(),
                ElementsAre(r() + " cameraId -1 transToAndroidMeta pAndroidMeta " + hex(logical),
                            r() + " cameraId 5 transToAndroidMeta fail",
                            r() + " cameraId 5 transToAndroidMeta pAndroidMeta (nil)",
                            r() + " cameraId 0 transToAndroidMeta pAndroidMeta " + hex(camera0)));
    free_camera_metadata(logical);
    free_camera_metadata(camera0);
    // Camera by camera now: the all-camera path waits for reset().
    record->transAllToAndroidMetas(params(), false, false, 0, nullptr, true);
    EXPECT_THAT(params().mTuningMetas, IsEmpty());
    record->reset();
    record->transAllToAndroidMetas(params(), false, false, 0, nullptr, true);
    EXPECT_EQ(params().getTuningMetasSize(), 2);
    freeExported();
}

TEST_F(TuningTest, ExportAndImportMovePointersOnly) {
    // The source keeps debug data handed over with the pipeline's reference.
    adapter::QcomPostProcInfo source;
    source.mEnableIQBM = false;
    void *a = malloc(64), *b = malloc(32);
    sim::kycam::setDebugDataRefCount(a, 1);
    sim::kycam::setDebugDataRefCount(b, 1);
    adapter::DebugData da = {64, a}, db = {32, b};
    source.keep3aDebugData(0, &da, true);
    source.keep3aDebugData(2, &db, true);
    std::set<std::string> cameras = {"0", "2"};
    adapter::PostProcInfoMetaAttributes attributes = {};
    source.createPrivResultMeta(cameras, true, attributes);
    sim::chi::setContent(source.m_pPrivResult, "logical");
    for (const auto& [id, meta] : source.mPrivPhyResultMap) {
        sim::chi::setContent(meta, "camera " + std::to_string(id));
    }

    // The importing record made the tuning parameters and owns what it adopts.
    params().mTransAllMetas = true;
    sim::kycam::clearLines();
    source.getTuningMetaBufs(params(), nullptr, false);
    const std::string s = "PostProcsInfo " + hex(&source);
    EXPECT_THAT(androidMessages(),
                ElementsAre(s + " transAllToAndroidMetas",
                            "3A debug " + s + " cameraId:0 buffer:" + hex(a) + " size:64",
                            "3A debug " + s + " cameraId:2 buffer:" + hex(b) + " size:32", s));
    ASSERT_EQ(params().getTuningMetasSize(), 3);
    EXPECT_EQ(capacity(params().mTuningMetas.at(0)), kLarge);
    EXPECT_THAT(made(source.m_pPrivResult), ElementsAre("0 0", "Translate 0 0 0 (nil)"));
    EXPECT_EQ(params().mDebug3ABuffers.at(0).buffer, a);
    EXPECT_EQ(params().mDebug3ABuffers.at(2).size, 32u);
    record->mSupportPrivMeta = true;
    record->mPhyCamIdSet = cameras;
    record->createTuningMetaBufs();
    EXPECT_EQ(refs(record->m_pPrivResult), 1u);
    sim::kycam::clearLines();
    record->setTuningMetaBufs(params());
    std::vector<std::string> lines = {r() + " AndroidMeta to ChiMeta for logical",
                                      r() + " AndroidMeta to ChiMeta for phy(0)",
                                      r() + " AndroidMeta to ChiMeta for phy(2)",
                                      r() + " add m3aDebugDataMap id:0 " + hex(a),
                                      r() + " add DebugDataPtr " + hex(a),
                                      r() + " add m3aDebugDataMap id:2 " + hex(b),
                                      r() + " add DebugDataPtr " + hex(b),
                                      r()};
    EXPECT_EQ(androidMessages(), lines);
    sim::kycam::clearLines();
    record->setTuningMetaBufs(params());
    lines.erase(lines.begin() + 6);
    lines.erase(lines.begin() + 4);
    EXPECT_EQ(androidMessages(), lines) << "each buffer is kept once";
    EXPECT_EQ(sim::chi::content(record->m_pPrivResult) + ", " + sim::chi::content(phy(0)) + ", " +
                      sim::chi::content(phy(2)),
              "logical, camera 0, camera 2");
    EXPECT_EQ(record->m3aDebugDataMap.at(0).pData, a);
    EXPECT_EQ(record->mDebugDataSet, (std::set<void*>{a, b}));
    EXPECT_EQ(sim::count("AddDebugDataReference") + sim::count("IBMIntfBufAddRef"), 0u);
    freeExported();

    // Each owner gives back what it holds: the source its references, the
    // importer the buffers themselves (ASan sees a double free).
    source.~QcomPostProcInfo();
    new (&source) adapter::QcomPostProcInfo();
    EXPECT_EQ(sim::kycam::debugDataRefCount(a) + sim::kycam::debugDataRefCount(b), 0);
}

TEST_F(TuningTest, ExportKeepsWhatTheObjectAlreadyHas) {
    request({"0"}, true);
    adapter::DebugData data = {8, &data};
    record->keep3aDebugData(0, &data, false);
    params().mTransAllMetas = true;
    params().mTuningMetas[0] = nullptr;
    params().mDebug3ABuffers[5] = {1, nullptr};
    fresh();
    record->getTuningMetaBufs(params(), nullptr, false);
    EXPECT_EQ(sim::count("allocate_camera_metadata"), 0u);
    EXPECT_EQ(params().mDebug3ABuffers.size(), 1u);
    EXPECT_THAT(androidMessages(),
                ElementsAre(r() + " tuningbuffer size:1", r() + " Debug3ABuffer size:1", r()));
    params().mTuningMetas.clear();
    record->mFreeDebugData = false;  // the descriptor is on the stack
}

TEST_F(TuningTest, CreateTuningMetaBufs) {
    request({"0"}, true, {1, 0, 0, 1});
    record->destroyTuningMetaBufs();
    fresh();
    record->createTuningMetaBufs();
    // The attributes of the request; one reference count per sink that
    // writes a creation line.
    EXPECT_THAT(made(record->m_pPrivResult), ElementsAre("1 0"));
    EXPECT_THAT(made(phy(0)), ElementsAre("0 1"));
    EXPECT_THAT(sim::opSequence("chi"),
                ElementsAre("Create", "ReferenceCount", "ReferenceCount",
                            "ExtensionModule::GetInstance", "Create", "ReferenceCount",
                            "ReferenceCount", "AddReference", "AddReference"));
    EXPECT_THAT(androidMessages(),
                Contains(r() + " m_pPrivResult " + hex(record->m_pPrivResult) +
                         " request phyCamIdSet size 1 mSamelogical_PhyResult 0"));
    fresh();
    record->destroyTuningMetaBufs();  // gives its references back first
    EXPECT_THAT(sim::opSequence("chi"),
                ElementsAre("ReleaseReference", "Invalidate", "ReleaseReference", "Invalidate",
                            "ReferenceCount", "ReferenceCount", "Destroy", "ReferenceCount",
                            "ReferenceCount", "Destroy"));
    EXPECT_EQ(androidMessages().back(),
              r() + " m_pPrivResult (nil) request phyCamIdSet size 1 mSamelogical_PhyResult 0");
    record->mAndroidMetaTranslated = true;
    sim::clearJournal();
    record->createTuningMetaBufs();
    EXPECT_THAT(sim::calls(), IsEmpty());
}

TEST_F(TuningTest, ReleaseTuningMetaBufsHandsEverythingOver) {
    record->mSupportPrivMeta = true;
    record->mPhyCamIdSet = {"0", "1"};
    record->createTuningMetaBufs();  // fresh objects with the record's reference
    adapter::DebugData data = {8, &data};
    record->keep3aDebugData(0, &data, false);
    adapter::DebugDataTuningMetaArray array = {1, {data}};
    record->keepTuningDDArray(1, &array, false);
    std::vector<void*> handed = {record->m_pPrivResult, phy(0), phy(1)};
    void** results = record->m_pPrivPhyResults;
    const char** ids = record->m_pPrivPhyCamIds;
    sim::clearJournal();
    record->releaseTuningMetaBufs(false);
    EXPECT_EQ(sim::count("ReleaseReference"), 3u);
    EXPECT_TRUE(record->m_pPrivResult == nullptr && record->m_pPrivPhyResults == nullptr &&
                record->m_pPrivPhyCamIds == nullptr && record->mPrivPhyResultMap.empty());
    auto held = [&] {
        return std::make_tuple(record->mDebugDataSet.size(), record->m3aDebugDataMap.size(),
                               record->mTuningDDArrayMap.size());
    };
    EXPECT_EQ(held(), std::make_tuple(1u, 1u, 1u)) << "debug data stays without the flag";
    record->releaseTuningMetaBufs(true);
    EXPECT_EQ(held(), std::make_tuple(0u, 0u, 0u));
    EXPECT_EQ(sim::count("IBMIntfBufDecRef"), 0u);
    // The new owner ends what was handed over.
    for (void* meta : handed) {
        EXPECT_FALSE(sim::chi::isDestroyed(meta));
        record->destroyChiMeta(meta);
    }
    delete[] results;
    delete[] ids;
    sim::iqbm::setRefCount(&data, 0);
}

}  // namespace
