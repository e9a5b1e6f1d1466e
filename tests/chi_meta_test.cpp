// SPDX-License-Identifier: Apache-2.0
// CHI metadata objects of a record: creation arguments, the live counter,
// destruction exactly once, dumps, and the references the record takes,
// gives back, tests and resets.
#include "support/record_test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::hex;

namespace {

class ChiMetaTest : public testsupport::RecordFixture {};

TEST_F(ChiMetaTest, CreatePassesTheTagListFlagsAndMapping) {
    const struct {
        bool multiType;
        bool multiCamera;
    } cases[] = {{false, false}, {true, false}, {false, true}, {true, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.multiType << c.multiCamera);
        sim::kycam::clearLines();
        const size_t asked = sim::chi::extensionModuleRequests();
        const uint64_t sum = adapter::QcomPostProcInfo::mChiMetaSum.load();
        void* meta = record->createChiMeta(c.multiType, c.multiCamera);
        sim::chi::MetaState state;
        ASSERT_TRUE(sim::chi::state(meta, &state));
        EXPECT_THAT(state.args.tags, ElementsAre(0x000E001Cu));
        EXPECT_EQ(state.args.tagCount, 1u);
        EXPECT_FALSE(state.args.isPartial);
        EXPECT_EQ(state.args.manager, nullptr);
        EXPECT_EQ(state.args.clientId, 0xFFFFFFFFu);
        EXPECT_EQ(state.args.isMultiTypeContextMeta, c.multiType ? 1 : 0);
        EXPECT_EQ(state.args.isMultiCameraContextMeta, c.multiCamera ? 1 : 0);
        // The extension module is asked only for multi-camera context metas.
        EXPECT_EQ(state.args.metaToCameraTypeId,
                  c.multiCamera ? sim::chi::extensionMapping() : nullptr);
        EXPECT_EQ(sim::chi::extensionModuleRequests(), asked + (c.multiCamera ? 1 : 0));
        EXPECT_EQ(adapter::QcomPostProcInfo::mChiMetaSum.load(), sum + 1);
        EXPECT_THAT(testsupport::androidMessages(),
                    ElementsAre("Create ChiMeta " + hex(meta) + " ref 0 isMultiTypeContextMeta " +
                                std::to_string(c.multiType) + " isMultiCameraContextMeta " +
                                std::to_string(c.multiCamera) + " ChimetaSum " +
                                std::to_string(static_cast<int>(sum + 1))));
        record->destroyChiMeta(meta);
    }
}

TEST_F(ChiMetaTest, DestroyHappensOnceWhateverTheReferenceCount) {
    void* meta = record->createChiMeta(false, false);
    reinterpret_cast<ChiMetadata*>(meta)->AddReference(nullptr);
    reinterpret_cast<ChiMetadata*>(meta)->AddReference(nullptr);
    const uint64_t sum = adapter::QcomPostProcInfo::mChiMetaSum.load();
    sim::kycam::clearLines();
    record->destroyChiMeta(meta);
    record->destroyChiMeta(meta);
    EXPECT_NE(meta, nullptr) << "the caller's handle is left as it is";
    EXPECT_EQ(sim::count("Destroy", meta), 1u);
    EXPECT_EQ(adapter::QcomPostProcInfo::mChiMetaSum.load(), sum - 1);
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre("Destroy ChiMeta " + hex(meta) + " ref 2 ChimetaSum " +
                                    std::to_string(static_cast<int>(sum - 1)),
                            "chiMetaHandle " + hex(meta) + " is destroyed, no need to destroy"));
    EXPECT_EQ(sim::kycam::lines().back().level, "E");
}

TEST_F(ChiMetaTest, NullHandleIsRefusedWithAnError) {
    const uint64_t sum = adapter::QcomPostProcInfo::mChiMetaSum.load();
    void* none = nullptr;
    sim::clearJournal();
    sim::kycam::clearLines();
    record->destroyChiMeta(none);
    EXPECT_EQ(adapter::QcomPostProcInfo::mChiMetaSum.load(), sum);
    EXPECT_THAT(sim::calls(), IsEmpty());
    EXPECT_THAT(testsupport::androidMessages(), ElementsAre("Destroy chiMetaHandle is null"));
}

TEST_F(ChiMetaTest, DumpNamesTheFileAfterTheHandle) {
    void* meta = record->createChiMeta(false, false);
    sim::kycam::clearLines();
    record->dumpChiMeta(meta);
    sim::chi::MetaState state;
    ASSERT_TRUE(sim::chi::state(meta, &state));
    EXPECT_THAT(state.dumps, ElementsAre("meta[" + hex(meta) + "]"));
    EXPECT_THAT(testsupport::androidMessages(), ElementsAre("Dump ChiMeta " + hex(meta)));
    record->destroyChiMeta(meta);
}

// A record with a logical result and cameras 0 and 1.
class ChiRefTest : public testsupport::RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        request({"0", "1"}, true);
        logical = record->m_pPrivResult;
        sim::clearJournal();
        sim::kycam::clearLines();
    }
    uint32_t refs(void* meta) { return sim::chi::refCount(meta); }
    void* logical = nullptr;
};

TEST_F(ChiRefTest, AddAndReleaseAreSymmetricAndTheLastReleaseInvalidates) {
    record->addChiMetasRef();
    EXPECT_EQ(refs(logical), 1u);
    EXPECT_EQ(refs(phy(0)), 1u);
    EXPECT_EQ(refs(phy(1)), 1u);
    record->releaseChiMetasRef();
    for (void* meta : {logical, phy(0), phy(1)}) {
        EXPECT_EQ(refs(meta), 0u);
        EXPECT_EQ(sim::chi::invalidations(meta), 1u);
    }
    EXPECT_THAT(sim::opSequence("chi"),
                ElementsAre("AddReference", "AddReference", "AddReference", "ReleaseReference",
                            "Invalidate", "ReleaseReference", "Invalidate", "ReleaseReference",
                            "Invalidate"));
    const std::string r = "PostProcsInfo " + hex(record.get());
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre(r + " m_pPrivResult " + hex(logical) + " ref 1",
                            r + " phyCamId 0 privResult " + hex(phy(0)) + " ref 1",
                            r + " phyCamId 1 privResult " + hex(phy(1)) + " ref 1",
                            r + " m_pPrivResult " + hex(logical) + " ref 0",
                            r + " phyCamId 0 privResult " + hex(phy(0)) + " ref 0",
                            r + " phyCamId 1 privResult " + hex(phy(1)) + " ref 0"));
}

TEST_F(ChiRefTest, ReleaseAboveZeroDoesNotInvalidate) {
    record->addChiMetasRef();
    record->addChiMetasRef();
    record->releaseChiMetasRef();
    EXPECT_EQ(refs(logical), 1u);
    EXPECT_EQ(sim::count("Invalidate"), 0u);
}

TEST_F(ChiRefTest, NullPhysicalHandlesAndReplacedMetasAreSkipped) {
    void* parked = record->createChiMeta(false, false);
    record->mReplacedPrivResults.insert(parked);
    record->mPrivPhyResultMap[7] = nullptr;
    sim::clearJournal();
    record->addChiMetasRef();
    record->releaseChiMetasRef();
    EXPECT_EQ(sim::count("AddReference"), 3u);
    EXPECT_EQ(sim::count("ReleaseReference"), 3u);
    EXPECT_EQ(sim::count("AddReference", parked), 0u);
    record->mPrivPhyResultMap.erase(7);
}

TEST_F(ChiRefTest, WithoutPrivateResultsOnlyTheCameraIdReleaseActs) {
    record->addChiMetasRef();
    record->mSupportPrivMeta = false;
    sim::clearJournal();
    record->addChiMetasRef();
    record->releaseChiMetasRef();
    EXPECT_FALSE(record->isMetaUsedInQC());
    record->resetChiMetas();
    EXPECT_THAT(sim::calls(), IsEmpty());
    record->releaseChiMetasRefWithCameraId(-1);
    EXPECT_THAT(sim::opSequence(), ElementsAre("ReleaseReference", "Invalidate"));
    record->mSupportPrivMeta = true;  // so that the destructor ends them
}

TEST_F(ChiRefTest, ReleaseWithCameraId) {
    record->addChiMetasRef();
    sim::clearJournal();
    sim::kycam::clearLines();
    record->releaseChiMetasRefWithCameraId(5);
    EXPECT_EQ(record->mPrivPhyResultMap.count(5), 0u) << "no entry may be added";
    EXPECT_THAT(sim::calls(), IsEmpty());
    record->releaseChiMetasRefWithCameraId(1);
    EXPECT_EQ(refs(phy(1)), 0u);
    EXPECT_EQ(refs(phy(0)), 1u);
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre("PostProcsInfo " + hex(record.get()) + " phyCamId 1 privResult " +
                            hex(phy(1)) + " ref 0"));
    void* saved = record->m_pPrivResult;
    record->m_pPrivResult = nullptr;
    sim::clearJournal();
    record->releaseChiMetasRefWithCameraId(-1);
    EXPECT_THAT(sim::calls(), IsEmpty());
    record->m_pPrivResult = saved;
}

TEST_F(ChiRefTest, InUseScanStopsAtTheFirstMetaInUse) {
    reinterpret_cast<ChiMetadata*>(phy(0))->AddReference(nullptr);
    sim::clearJournal();
    sim::kycam::clearLines();
    EXPECT_TRUE(record->isMetaUsedInQC());
    EXPECT_EQ(sim::chi::invalidations(logical), 1u);
    EXPECT_EQ(sim::chi::invalidations(phy(0)), 0u);
    EXPECT_EQ(sim::count("ReferenceCount", phy(1)), 0u) << "the scan went past the meta in use";
    EXPECT_EQ(testsupport::androidMessages().size(), 2u);
    EXPECT_EQ(testsupport::androidMessages()[1],
              "PostProcInfo " + hex(record.get()) + " ChiMeta " + hex(phy(0)) + " ref 1");
    reinterpret_cast<ChiMetadata*>(phy(0))->ReleaseReference(nullptr);
}

TEST_F(ChiRefTest, FalseMeansEveryHeldMetaWasInvalidated) {
    void* parked = record->createChiMeta(false, false);
    record->mReplacedPrivResults.insert(parked);
    EXPECT_FALSE(record->isMetaUsedInQC());
    for (void* meta : {logical, phy(0), phy(1), parked}) {
        EXPECT_EQ(sim::chi::invalidations(meta), 1u);
    }
}

TEST_F(ChiRefTest, ResetKeepsReplacedMetasWhileOneIsInUse) {
    void* busy = record->createChiMeta(false, false);
    void* idle = record->createChiMeta(false, false);
    reinterpret_cast<ChiMetadata*>(busy)->AddReference(nullptr);
    record->mReplacedPrivResults = {busy, idle};
    sim::kycam::clearLines();
    record->resetChiMetas();
    EXPECT_EQ(record->mReplacedPrivResults.size(), 2u);
    EXPECT_FALSE(sim::chi::isDestroyed(busy));
    EXPECT_FALSE(sim::chi::isDestroyed(idle));
    EXPECT_EQ(sim::chi::invalidations(idle), 1u);
    EXPECT_EQ(sim::chi::invalidations(busy), 0u);
    EXPECT_THAT(testsupport::androidMessages(),
                Contains("PostProcInfo " + hex(record.get()) + " ChiMeta " + hex(busy) +
                         " ref 1 still in use, cannot be reset!"));
    EXPECT_EQ(testsupport::androidMessages()[0], "PostProcInfo " + hex(record.get()) + " ChiMeta " +
                                                         hex(logical) + " ref 0 be reset!");
    reinterpret_cast<ChiMetadata*>(busy)->ReleaseReference(nullptr);
}

TEST_F(ChiRefTest, ResetTestReadsTheCountAgainForEachSinkThatWrites) {
    // Sinks writing the reset test's Info ("be reset!") and Warning ("still
    // in use") lines under a log level and debug mask.
    const struct {
        int32_t level;
        uint32_t mask;
        size_t infoSinks;
        size_t warningSinks;
    } cases[] = {{0, 1, 2, 2}, {0, 0, 1, 1}, {5, 1, 1, 2}, {5, 0, 0, 1}, {7, 0, 0, 0}};
    reinterpret_cast<ChiMetadata*>(phy(1))->AddReference(nullptr);  // in use
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << " mask " << c.mask);
        sim::kycam::setLogConfig(c.level, 0xFFFFFFFF, c.mask);
        sim::clearJournal();
        record->resetChiMetas();
        EXPECT_EQ(sim::count("ReferenceCount", logical), 1 + c.infoSinks);
        EXPECT_EQ(sim::count("ReferenceCount", phy(1)), 1 + c.warningSinks);
    }
    reinterpret_cast<ChiMetadata*>(phy(1))->ReleaseReference(nullptr);
}

TEST_F(ChiRefTest, ResetDestroysReplacedMetasWhenAllAreFree) {
    void* first = record->createChiMeta(false, false);
    void* second = record->createChiMeta(false, false);
    record->mReplacedPrivResults = {first, second};
    reinterpret_cast<ChiMetadata*>(phy(1))->AddReference(nullptr);  // in use: left alone
    const uint64_t sum = adapter::QcomPostProcInfo::mChiMetaSum.load();
    record->resetChiMetas();
    EXPECT_TRUE(sim::chi::isDestroyed(first));
    EXPECT_TRUE(sim::chi::isDestroyed(second));
    EXPECT_THAT(record->mReplacedPrivResults, IsEmpty());
    EXPECT_EQ(adapter::QcomPostProcInfo::mChiMetaSum.load(), sum - 2);
    // The request's own metas are invalidated for reuse, never destroyed.
    EXPECT_EQ(sim::chi::invalidations(logical), 1u);
    EXPECT_EQ(sim::chi::invalidations(phy(0)), 1u);
    EXPECT_EQ(sim::chi::invalidations(phy(1)), 0u);
    EXPECT_FALSE(sim::chi::isDestroyed(logical));
    reinterpret_cast<ChiMetadata*>(phy(1))->ReleaseReference(nullptr);
}

}  // namespace
