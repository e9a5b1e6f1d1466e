// SPDX-License-Identifier: Apache-2.0
// Tuning parameters, translation to Android metadata and the tuning
// metadata exchange: sizes, order, first entry wins, what moves and who gives
// each buffer back.
#include <stdlib.h>

#include <sim/iqbm.h>

#include "support/record_test.h"

using adapter::QCOMTuningParams;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::hex;

namespace {

class TuningTest : public testsupport::RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        sim::iqbm::clearBuffers();
    }
    void TearDown() override {
        record.reset();
        EXPECT_EQ(sim::camera_metadata::totals().alive, leakedBuffers);
        sim::camera_metadata::reset();  // frees what the record dropped on purpose
        RecordFixture::TearDown();
    }
    QCOMTuningParams& params() {
        if (!tuning) {
            tuning = record->createTuningParams();
        }
        return static_cast<QCOMTuningParams&>(*tuning);
    }
    // The consumer's duty: the exported buffers are its own.
    void freeExported(kycam::TuningParamsBase& p) {
        for (auto& entry : p.mTuningMetas) {
            free_camera_metadata(entry.second);
        }
        p.mTuningMetas.clear();
    }
    std::string r() const { return "PostProcsInfo " + hex(record.get()); }
    std::shared_ptr<kycam::TuningParamsBase> tuning;
    size_t leakedBuffers = 0;
};

TEST_F(TuningTest, CreateTuningParamsMakesAFreshObjectEachTime) {
    std::shared_ptr<kycam::TuningParamsBase> first = record->createTuningParams();
    EXPECT_EQ(first->getTuningMetasSize(), 0);
    EXPECT_FALSE(first->mTransAllMetas);
    EXPECT_EQ(first->mCameraId, -1);
    EXPECT_TRUE(record->mFreeDebugData);
    EXPECT_EQ(first.use_count(), 2) << "the record keeps a share";
    std::shared_ptr<kycam::TuningParamsBase> second = record->createTuningParams();
    EXPECT_NE(first, second);
    EXPECT_EQ(first.use_count(), 1) << "the caller's copy keeps the old one alive";
    EXPECT_EQ(testsupport::androidMessages().back(), r() + " mTuningParam:" + hex(second.get()));
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
    EXPECT_EQ(testsupport::androidMessages()[0],
              "[Offline DebugData] " + r() + " mEnableIQBM 1 destruct debugData pData:" +
                      hex(decremented) + " after dec ref is 0");
    EXPECT_EQ(sim::kycam::lines()[0].text.rfind("KYA_META ", 0), 0u);
    free(decremented);

    params().mDebug3ABuffers = {{0, {16, freed}}};
    record->setTuningMetaBufs(params());
    sim::clearJournal();
    sim::kycam::clearLines();
    const void* address = record.get();
    record.reset();
    EXPECT_EQ(testsupport::androidMessages()[1],
              "PostProcsInfo " + hex(address) + " free data:" + hex(freed));
    EXPECT_EQ(sim::count("IBMIntfBufDecRef") + sim::count("SubDebugDataReference"), 0u);
}

TEST_F(TuningTest, TranslateOneMeta) {
    void* meta = record->createChiMeta(false, false);
    sim::chi::setContent(meta, "3A state");
    const struct {
        bool large;
        size_t entries, data;
    } sizes[] = {{true, 1024, 2252800}, {false, 700, 716800}};
    for (const auto& size : sizes) {
        camera_metadata_t* androidMeta =
                record->transToAndroidMeta(meta, true, false, 0, nullptr, size.large);
        ASSERT_NE(androidMeta, nullptr);
        EXPECT_EQ(get_camera_metadata_entry_capacity(androidMeta), size.entries);
        EXPECT_EQ(get_camera_metadata_data_capacity(androidMeta), size.data);
        EXPECT_EQ(sim::camera_metadata::content(androidMeta), "3A state");
        free_camera_metadata(androidMeta);
    }
    // The buffer is made before the handle is looked at.
    sim::clearJournal();
    EXPECT_EQ(record->transToAndroidMeta(nullptr, true, false, 0, nullptr, true), nullptr);
    EXPECT_THAT(sim::opSequence(), ElementsAre("allocate_camera_metadata", "free_camera_metadata"));
    record->destroyChiMeta(meta);
}

TEST_F(TuningTest, TranslateOneCamera) {
    record->transToAndroidMetaWithCameraId(-1);
    EXPECT_FALSE(record->mAndroidMetaTranslated) << "no private results: nothing happens";
    request({"0"}, false);
    sim::kycam::clearLines();
    EXPECT_EQ(record->transToAndroidMetaWithCameraId(-1), nullptr);
    EXPECT_TRUE(record->mAndroidMetaTranslated);
    EXPECT_EQ(record->transToAndroidMetaWithCameraId(5), nullptr);
    EXPECT_EQ(record->mPrivPhyResultMap.count(5), 0u);
    camera_metadata_t* camera0 = record->transToAndroidMetaWithCameraId(0);
    EXPECT_EQ(get_camera_metadata_entry_capacity(camera0), 700u);
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre(r() + " cameraId -1 transToAndroidMeta pAndroidMeta (nil)",
                            r() + " cameraId 5 transToAndroidMeta fail",
                            r() + " cameraId 5 transToAndroidMeta pAndroidMeta (nil)",
                            r() + " cameraId 0 transToAndroidMeta pAndroidMeta " + hex(camera0)));
    free_camera_metadata(camera0);
    // Camera by camera now: the all-camera path waits for reset().
    record->transAllToAndroidMetas(params(), false, false, 0, nullptr, true);
    EXPECT_THAT(params().mTuningMetas, IsEmpty());
    record->reset();
    record->transAllToAndroidMetas(params(), false, false, 0, nullptr, true);
    EXPECT_EQ(params().mTuningMetas.size(), 1u);
    freeExported(params());
}

TEST_F(TuningTest, TranslateAllInCameraOrderAndTheFirstEntryWins) {
    request({"2", "0"}, true);
    camera_metadata_t* earlier = allocate_camera_metadata(1, 1);
    params().mTuningMetas[-1] = earlier;
    auto earlierInfo = std::make_shared<kycam::TuningParamsMetaInfos>();
    params().mMetaInfos[-1] = earlierInfo;
    sim::clearJournal();
    record->transAllToAndroidMetas(params(), false, false, 0, nullptr, true);
    std::vector<const void*> order;
    for (const sim::Call& call : sim::calls()) {
        if (call.op == "TranslateToCameraMetadata") {
            order.push_back(call.object);
        }
    }
    EXPECT_THAT(order, ElementsAre(record->m_pPrivResult, phy(0), phy(2)));
    EXPECT_EQ(params().mTuningMetas.at(-1), earlier);
    EXPECT_EQ(params().mMetaInfos.at(-1), earlierInfo);
    EXPECT_EQ(params().mMetaInfos.at(2)->entryCapacity, 1024u);
    EXPECT_EQ(params().mMetaInfos.at(2)->dataCapacity, 2252800u);
    EXPECT_EQ(params().mMetaInfos.at(2)->metaSize,
              get_camera_metadata_size(params().mTuningMetas.at(2)));
    freeExported(params());
    leakedBuffers = 1;  // the losing translation is neither stored nor freed
}

TEST_F(TuningTest, ExportAndImportMovePointersOnly) {
    // The source keeps debug data handed over with the pipeline's reference.
    adapter::QcomPostProcInfo source;
    source.mEnableIQBM = false;
    void* a = malloc(64);
    void* b = malloc(32);
    sim::kycam::setDebugDataRefCount(a, 1);
    sim::kycam::setDebugDataRefCount(b, 1);
    adapter::DebugData da = {64, a}, db = {32, b};
    source.keep3aDebugData(0, &da, true);
    source.keep3aDebugData(2, &db, true);
    std::set<std::string> cameras = {"0", "2"};
    adapter::PostProcInfoMetaAttributes attrs = {};
    source.createPrivResultMeta(cameras, true, attrs);
    sim::chi::setContent(source.m_pPrivResult, "logical");
    sim::chi::setContent(source.mPrivPhyResultMap.at(0), "camera 0");
    sim::chi::setContent(source.mPrivPhyResultMap.at(2), "camera 2");

    // The importing record made the tuning parameters and owns what it adopts.
    params().mTransAllMetas = true;
    source.getTuningMetaBufs(params(), nullptr, false);
    ASSERT_EQ(params().mTuningMetas.size(), 3u);
    EXPECT_EQ(params().mDebug3ABuffers.at(0).buffer, a);
    EXPECT_EQ(params().mDebug3ABuffers.at(2).size, 32u);
    record->mSupportPrivMeta = true;
    record->mPhyCamIdSet = cameras;
    record->createTuningMetaBufs();
    EXPECT_EQ(sim::chi::refCount(record->m_pPrivResult), 1u);
    sim::kycam::clearLines();
    record->setTuningMetaBufs(params());
    record->setTuningMetaBufs(params());
    EXPECT_EQ(sim::chi::content(record->m_pPrivResult), "logical");
    EXPECT_EQ(sim::chi::content(phy(0)), "camera 0");
    EXPECT_EQ(sim::chi::content(phy(2)), "camera 2");
    EXPECT_EQ(record->m3aDebugDataMap.at(0).pData, a);
    EXPECT_EQ(record->mDebugDataSet, (std::set<void*>{a, b}));
    const std::vector<std::string> lines = testsupport::androidMessages();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), r() + " add m3aDebugDataMap id:0 " + hex(a)),
              2);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), r() + " add DebugDataPtr " + hex(a)), 1);
    EXPECT_EQ(sim::count("AddDebugDataReference") + sim::count("IBMIntfBufAddRef"), 0u);
    freeExported(params());

    // Each owner gives back what it holds: the source its references, the
    // importer the buffers themselves (ASan sees a double free).
    source.~QcomPostProcInfo();
    new (&source) adapter::QcomPostProcInfo();
    EXPECT_EQ(sim::kycam::debugDataRefCount(a), 0);
    EXPECT_EQ(sim::kycam::debugDataRefCount(b), 0);
}

TEST_F(TuningTest, ExportKeepsWhatTheObjectAlreadyHas) {
    request({"0"}, true);
    adapter::DebugData data = {8, &data};
    record->keep3aDebugData(0, &data, false);
    params().mTransAllMetas = true;
    params().mTuningMetas[0] = nullptr;
    params().mDebug3ABuffers[5] = {1, nullptr};
    sim::clearJournal();
    sim::kycam::clearLines();
    record->getTuningMetaBufs(params(), nullptr, false);
    EXPECT_EQ(sim::count("allocate_camera_metadata"), 0u);
    EXPECT_EQ(params().mDebug3ABuffers.size(), 1u);
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre(r() + " tuningbuffer size:1", r() + " Debug3ABuffer size:1", r()));
    params().mTuningMetas.clear();
    record->mFreeDebugData = false;  // the descriptor is on the stack
}

TEST_F(TuningTest, ImportTargetsLogicalOrMappedCamerasOnly) {
    request({"0"}, false);
    camera_metadata_t* logical = allocate_camera_metadata(1, 1);
    camera_metadata_t* unknown = allocate_camera_metadata(1, 1);
    sim::camera_metadata::setContent(logical, "for -1");
    params().mTuningMetas = {{-1, logical}, {7, unknown}};
    sim::clearJournal();
    record->setTuningMetaBufs(params());
    EXPECT_EQ(sim::count("SetAndroidMetadata"), 0u) << "no logical result and no entry -1";
    record->mPrivPhyResultMap[-1] = phy(0);
    record->setTuningMetaBufs(params());
    EXPECT_EQ(sim::chi::content(phy(0)), "for -1");
    record->mPrivPhyResultMap.erase(-1);
    freeExported(params());
}

TEST_F(TuningTest, CreateTuningMetaBufs) {
    request({}, true);
    record->destroyTuningMetaBufs();
    sim::clearJournal();
    record->createTuningMetaBufs();
    // One reference count per sink that writes the creation line.
    EXPECT_THAT(sim::opSequence("chi"),
                ElementsAre("Create", "ReferenceCount", "ReferenceCount", "AddReference"));
    record->destroyTuningMetaBufs();
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
    void* logical = record->m_pPrivResult;
    std::vector<void*> physical = {phy(0), phy(1)};
    void** results = record->m_pPrivPhyResults;
    const char** ids = record->m_pPrivPhyCamIds;
    sim::clearJournal();
    record->releaseTuningMetaBufs(false);
    EXPECT_EQ(record->mDebugDataSet.size(), 1u) << "debug data stays without the flag";
    EXPECT_EQ(sim::count("ReleaseReference"), 3u);
    EXPECT_EQ(record->m_pPrivResult, nullptr);
    EXPECT_THAT(record->mPrivPhyResultMap, IsEmpty());
    record->releaseTuningMetaBufs(true);
    EXPECT_THAT(record->mDebugDataSet, IsEmpty());
    EXPECT_EQ(sim::count("IBMIntfBufDecRef"), 0u);
    // The new owner ends what was handed over.
    for (void* meta : {logical, physical[0], physical[1]}) {
        EXPECT_FALSE(sim::chi::isDestroyed(meta));
        record->destroyChiMeta(meta);
    }
    delete[] results;
    delete[] ids;
    sim::iqbm::setRefCount(&data, 0);
}

}  // namespace
