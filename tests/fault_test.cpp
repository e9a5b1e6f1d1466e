// SPDX-License-Identifier: Apache-2.0
// Faults of the platform (CHI metadata objects that are not made, camera
// metadata that cannot be allocated): the record answers with its log lines
// or with nothing, and the ledger still balances.
#include "support/sim_test.h"

using ::testing::ElementsAreArray;
using namespace testsupport;

namespace {

class FaultTest : public RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        // No Info lines: the Create line asks a null handle for its count.
        sim::kycam::setLogConfig(5, 0xFFFFFFFF, 0);
        sim::kycam::clearLines();
        sum = adapter::QcomPostProcInfo::mChiMetaSum.load();
    }
    std::set<std::string> ids{"0", "1"};
    adapter::PostProcInfoMetaAttributes attrs{};
    uint64_t sum = 0;
};

TEST_F(FaultTest, CreateFailingForThePrivateResults) {
    const struct {
        std::vector<size_t> failing;  // Create calls: 1 logical, 2 camera "0", 3 camera "1"
        std::vector<std::string> lines;
        bool attached;
    } cases[] = {
            {{1}, {}, true},
            {{2}, {"Create priv_physcam_result failed", "Not Create priv_physcam_result"}, false},
            {{3}, {}, true},
            {{2, 3},
             {"Create priv_physcam_result failed", "Not Create priv_physcam_result"},
             false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing.back());
        record = std::make_unique<adapter::QcomPostProcInfo>();
        fresh();
        sim::chi::failCreateAt(c.failing);
        record->createPrivResultMeta(ids, true, attrs);
        camera3_capture_request request = {};
        record->setHalRequestPrivResultMeta(&request);
        EXPECT_THAT(androidMessages(), ElementsAreArray(c.lines));
        EXPECT_EQ(request.priv_result, c.attached ? record->m_pPrivResult : nullptr);
        EXPECT_EQ(request.priv_physcam_result, c.attached ? record->m_pPrivPhyResults : nullptr);
        EXPECT_EQ(request.num_priv_physcam_result, c.attached ? 2u : 0u);
        // Null handles are skipped by the reference operations and refused
        // by the per-camera ones.
        sim::kycam::clearLines();
        record->addChiMetasRef();
        record->releaseChiMetasRef();
        if (record->m_pPrivResult == nullptr) {
            record->releaseChiMetasRefWithCameraId(-1);
        }
        std::vector<std::string> lines;
        if (record->mPrivPhyResultMap.at(1) == nullptr) {
            record->releaseChiMetasRefWithCameraId(1);
            EXPECT_EQ(record->transToAndroidMetaWithCameraId(1), nullptr);
            lines.push_back("PostProcsInfo " + hex(record.get()) +
                            " cameraId 1 transToAndroidMeta fail");
        }
        // A call on a null handle would be a misuse in the ledger.
        EXPECT_EQ(sim::count("ReleaseReference"), sim::count("AddReference"));
        // Each null physical result is refused at destruction; the logical
        // one is tested before.
        for (size_t failing : c.failing) {
            if (failing != 1) {
                lines.push_back("Destroy chiMetaHandle is null");
            }
        }
        record.reset();
        EXPECT_THAT(androidMessages(), ElementsAreArray(lines));
        EXPECT_EQ(sim::count("Destroy"), 3 - c.failing.size());
        // Counted at creation whether or not an object came back.
        EXPECT_EQ(adapter::QcomPostProcInfo::mChiMetaSum.load(), sum + c.failing.size());
        sum = adapter::QcomPostProcInfo::mChiMetaSum.load();
    }
}

TEST_F(FaultTest, CreateFailingInTheCopyConstructor) {
    record->createPrivResultMeta(ids, true, attrs);
    // The copy makes camera "0", camera "1", then the logical result, and
    // copies into each at once, without testing the handle.
    for (size_t failing : {1, 3}) {
        SCOPED_TRACE(failing);
        sim::chi::failCreateAt({failing});
#ifdef POSTPROC_UBSAN
        EXPECT_DEATH(adapter::QcomPostProcInfo copy(*record), "member call on null pointer");
        sim::chi::failCreateAt({});
#else
        {
            adapter::QcomPostProcInfo copy(*record);
            EXPECT_THAT(sim::misuses(), ElementsAre("chi Copy on a null object"));
            fresh();
        }
        EXPECT_THAT(androidMessages(),
                    failing == 1 ? std::vector<std::string>{"Destroy chiMetaHandle is null"}
                                 : std::vector<std::string>{});
        EXPECT_EQ(sim::chi::totals().alive, 3u) << "the source's objects only";
#endif
    }
}

TEST_F(FaultTest, CameraMetadataAllocationFailing) {
    record->createPrivResultMeta(ids, true, attrs);
    const std::string failed =
            "Null pChiMetadata || pDstCameraMetadata cannot translate to Android Meta";
    sim::camera_metadata::failNextAllocations(1);
    EXPECT_EQ(record->transToAndroidMetaWithCameraId(-1), nullptr);
    EXPECT_TRUE(record->mAndroidMetaTranslated) << "set even when nothing came back";
    record->reset();
    // Export of every camera: the buffers that could not be made are stored
    // as null, with zero sizes.
    for (size_t failing : {1, 3}) {
        SCOPED_TRACE(failing);
        std::shared_ptr<kycam::TuningParamsBase> params = record->createTuningParams();
        params->mTransAllMetas = true;
        sim::camera_metadata::failNextAllocations(failing);
        record->getTuningMetaBufs(*params, nullptr, false);
        ASSERT_EQ(params->mTuningMetas.size(), 3u);
        ASSERT_EQ(params->mMetaInfos.size(), 3u);
        size_t nulls = 0;
        for (auto& [cameraId, meta] : params->mTuningMetas) {
            const kycam::TuningParamsMetaInfos& infos = *params->mMetaInfos.at(cameraId);
            EXPECT_EQ(meta == nullptr,
                      infos.metaSize == 0 && infos.entryCapacity == 0 && infos.dataCapacity == 0);
            nulls += meta == nullptr;
            free_camera_metadata(meta);  // the export's buffers are the caller's
        }
        EXPECT_EQ(nulls, failing);
    }
    EXPECT_THAT(androidMessages(), ElementsAre(failed, failed, failed, failed, failed));
    EXPECT_EQ(sim::count("TranslateToCameraMetadata"), 2u);
    EXPECT_EQ(sim::camera_metadata::totals().alive, 0u);
}

}  // namespace
