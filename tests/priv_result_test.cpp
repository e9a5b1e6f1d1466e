// SPDX-License-Identifier: Apache-2.0
// CHI metadata objects and private result metadata: creation, the live
// counter, destruction exactly once, the references the record takes, gives
// back, tests and resets, attachment to the HAL request and reconciliation
// with the capture result, with every reference checked in the CHI ledger.
#include <string.h>

#include "support/sim_test.h"

using adapter::QcomPostProcInfo;
using ::testing::UnorderedElementsAre;
using namespace testsupport;

namespace {

int chiMetaSum() {
    return static_cast<int>(QcomPostProcInfo::mChiMetaSum.load());
}

class ChiMetaTest : public RecordFixture {};

TEST_F(ChiMetaTest, CreatePassesTheTagListFlagsAndMapping) {
    for (bool multiType : {false, true}) {
        for (bool multiCamera : {false, true}) {
            SCOPED_TRACE(testing::Message() << multiType << multiCamera);
            fresh();
            const size_t asked = sim::chi::extensionModuleRequests();
            const int sum = chiMetaSum();
            void* meta = record->createChiMeta(multiType, multiCamera);
            sim::chi::MetaState state;
            ASSERT_TRUE(sim::chi::state(meta, &state));
            const sim::chi::CreateArgs& args = state.args;
            // The extension module is asked only for multi-camera context metas.
            EXPECT_EQ(std::make_tuple(args.tags, args.tagCount, args.isPartial, args.manager,
                                      args.clientId, args.metaToCameraTypeId),
                      std::make_tuple(std::vector<uint32_t>{0x000E001C}, 1u, false, nullptr,
                                      0xFFFFFFFFu,
                                      multiCamera ? sim::chi::extensionMapping() : nullptr));
            EXPECT_THAT(made(meta),
                        ElementsAre(std::to_string(multiType) + " " + std::to_string(multiCamera)));
            EXPECT_EQ(sim::chi::extensionModuleRequests(), asked + multiCamera);
            EXPECT_THAT(androidMessages(),
                        ElementsAre("Create ChiMeta " + hex(meta) +
                                    " ref 0 isMultiTypeContextMeta " + std::to_string(multiType) +
                                    " isMultiCameraContextMeta " + std::to_string(multiCamera) +
                                    " ChimetaSum " + std::to_string(sum + 1)));
            record->destroyChiMeta(meta);
        }
    }
}

// The HAL's objects that records end are counted down too: the count wraps
// below zero, in an atomic read-modify-write, which the phone's integer
// overflow sanitizer leaves alone (the libc++ build traps on any other wrap).
TEST_F(ChiMetaTest, TheSumPassesBelowZeroWhenRecordsEndTheHalsObjects) {
    if (QcomPostProcInfo::mChiMetaSum.load() != 0) {
        GTEST_SKIP() << "the count starts at 0 in a process of its own, as ctest runs each test";
    }
    void* hal[2] = {sim::hal::newMeta(), sim::hal::newMeta()};
    fresh();
    for (void* meta : hal) {
        record->destroyChiMeta(meta);
    }
    EXPECT_EQ(QcomPostProcInfo::mChiMetaSum.load(), UINT64_MAX - 1);
    EXPECT_EQ(androidMessages().back(), "Destroy ChiMeta " + hex(hal[1]) + " ref 0 ChimetaSum -2");
}

TEST_F(ChiMetaTest, DestroyOnceRefuseNullAndDump) {
    void* meta = record->createChiMeta(false, false);
    record->dumpChiMeta(meta);
    EXPECT_EQ(androidMessages().back(), "Dump ChiMeta " + hex(meta));
    ref(meta);
    ref(meta);
    const int sum = chiMetaSum();
    fresh();
    void* none = nullptr;
    record->destroyChiMeta(none);
    EXPECT_THAT(sim::calls(), IsEmpty());
    record->destroyChiMeta(meta);
    record->destroyChiMeta(meta);
    EXPECT_NE(meta, nullptr) << "the caller's handle is left as it is";
    EXPECT_EQ(sim::count("Destroy", meta), 1u) << "whatever the reference count";
    EXPECT_THAT(made(meta), ElementsAre("0 0", "Dump meta[" + hex(meta) + "]", "Destroy 1"));
    EXPECT_EQ(chiMetaSum(), sum - 1);
    EXPECT_THAT(androidMessages(),
                ElementsAre("Destroy chiMetaHandle is null",
                            "Destroy ChiMeta " + hex(meta) + " ref 2 ChimetaSum " +
                                    std::to_string(sum - 1),
                            "chiMetaHandle " + hex(meta) + " is destroyed, no need to destroy"));
    EXPECT_THAT(messages(sim::kycam::Sink::LogSystem, "E"),
                ElementsAre(androidMessages()[0], androidMessages()[2]));
}

// A record with a logical result and cameras 0 and 1.
class ChiRefTest : public RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        request({"0", "1"}, true);
        logical = record->m_pPrivResult;
        fresh();
    }
    std::string qc(void* meta, const std::string& rest) {
        return "PostProcInfo " + hex(record.get()) + " ChiMeta " + hex(meta) + rest;
    }
    void* logical = nullptr;
};

TEST_F(ChiRefTest, ReleaseWithCameraIdLooksAtTheOneObjectOnly) {
    record->addChiMetasRef();
    EXPECT_EQ(refs(logical) + refs(phy(0)) + refs(phy(1)), 3u);
    record->mSupportPrivMeta = false;  // not looked at by this operation
    fresh();
    record->addChiMetasRef();
    record->releaseChiMetasRef();
    EXPECT_FALSE(record->isMetaUsedInQC());
    record->resetChiMetas();
    record->releaseChiMetasRefWithCameraId(5);
    EXPECT_EQ(record->mPrivPhyResultMap.count(5), 0u) << "no entry may be added";
    EXPECT_THAT(sim::calls(), IsEmpty());
    record->releaseChiMetasRefWithCameraId(1);
    record->releaseChiMetasRefWithCameraId(-1);
    EXPECT_THAT(sim::opSequence(),
                ElementsAre("ReleaseReference", "Invalidate", "ReleaseReference", "Invalidate"));
    EXPECT_EQ(refs(phy(0)), 1u);
    EXPECT_THAT(androidMessages(),
                ElementsAre(r() + " phyCamId 1 privResult " + hex(phy(1)) + " ref 0",
                            r() + " m_pPrivResult " + hex(logical) + " ref 0"));
    record->m_pPrivResult = nullptr;
    fresh();
    record->releaseChiMetasRefWithCameraId(-1);
    EXPECT_THAT(sim::calls(), IsEmpty());
    record->m_pPrivResult = logical;
    record->mSupportPrivMeta = true;  // so that the destructor ends them
}

TEST_F(ChiRefTest, InUseScanStopsAtTheFirstMetaInUse) {
    void* parked = record->createChiMeta(false, false);
    record->mReplacedPrivResults.insert(parked);
    EXPECT_FALSE(record->isMetaUsedInQC());
    for (void* meta : {logical, phy(0), phy(1), parked}) {
        EXPECT_EQ(sim::chi::invalidations(meta), 1u);
    }
    ref(phy(0));
    fresh();
    EXPECT_TRUE(record->isMetaUsedInQC());
    EXPECT_EQ(std::make_pair(sim::chi::invalidations(logical), sim::chi::invalidations(phy(0))),
              std::make_pair(2u, 1u));
    EXPECT_EQ(sim::count("ReferenceCount", phy(1)), 0u) << "the scan went past the meta in use";
    EXPECT_THAT(androidMessages(), ElementsAre(qc(logical, " ref 0"), qc(phy(0), " ref 1")));
    unref(phy(0));
    for (void* meta : {logical, parked}) {
        ref(meta);
        EXPECT_TRUE(record->isMetaUsedInQC());
        unref(meta);
    }
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
    ref(phy(1));  // in use
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << " mask " << c.mask);
        sim::kycam::setLogConfig(c.level, 0xFFFFFFFF, c.mask);
        sim::clearJournal();
        record->resetChiMetas();
        EXPECT_EQ(sim::count("ReferenceCount", logical), 1 + c.infoSinks);
        EXPECT_EQ(sim::count("ReferenceCount", phy(1)), 1 + c.warningSinks);
    }
    unref(phy(1));
}

TEST_F(ChiRefTest, ResetDestroysReplacedMetasOnlyWhenAllAreFree) {
    void* busy = record->createChiMeta(false, false);
    void* idle = record->createChiMeta(false, false);
    ref(busy);
    ref(phy(1));  // in use: left alone
    record->mReplacedPrivResults = {busy, idle};
    fresh();
    record->resetChiMetas();
    EXPECT_EQ(record->mReplacedPrivResults.size(), 2u);
    EXPECT_EQ(sim::count("Destroy"), 0u);
    EXPECT_EQ(std::make_pair(sim::chi::invalidations(idle), sim::chi::invalidations(busy)),
              std::make_pair(1u, 0u));
    EXPECT_EQ(androidMessages()[0], qc(logical, " ref 0 be reset!"));
    EXPECT_THAT(androidMessages(), Contains(qc(busy, " ref 1 still in use, cannot be reset!")));
    unref(busy);
    const int sum = chiMetaSum();
    record->resetChiMetas();
    EXPECT_TRUE(sim::chi::isDestroyed(busy) && sim::chi::isDestroyed(idle));
    EXPECT_THAT(record->mReplacedPrivResults, IsEmpty());
    EXPECT_EQ(chiMetaSum(), sum - 2);
    // The request's own metas are invalidated for reuse, never destroyed.
    EXPECT_EQ(sim::chi::invalidations(logical) + sim::chi::invalidations(phy(0)), 4u);
    EXPECT_EQ(sim::chi::invalidations(phy(1)), 0u);
    EXPECT_EQ(sim::count("Destroy"), 2u);
    unref(phy(1));
    fresh();
    record.reset();
    EXPECT_THAT(androidMessages(),
                ::testing::Each(::testing::Not(::testing::HasSubstr("no need"))));
}

class PrivResultTest : public RecordFixture {
  protected:
    // What a HAL request carries of the private results.
    static auto block(const camera3_capture_request& request) {
        return std::make_tuple(request.priv_result, request.priv_physcam_id,
                               request.num_priv_physcam_result, request.priv_physcam_result);
    }
};

TEST_F(PrivResultTest, CamerasAreWalkedInStringOrderAndKeyedByTheirNumber) {
    request({"2", "0", "10"}, true, {1, 0, 0, 1});
    ASSERT_NE(record->m_pPrivResult, nullptr);
    EXPECT_FALSE(record->mSamelogical_PhyResult);
    EXPECT_TRUE(record->needUpdateToKymeta());
    EXPECT_THAT(keys(), ElementsAre(0, 2, 10));
    EXPECT_THAT(record->mPhyCamIdSet, ElementsAre("0", "10", "2"));
    size_t i = 0;
    for (const std::string& id : record->mPhyCamIdSet) {
        EXPECT_EQ(record->m_pPrivPhyCamIds[i], id.c_str()) << "must point into the set";
        EXPECT_EQ(record->m_pPrivPhyResults[i++], phy(atoi(id.c_str())));
        // Logical flags for the logical result, physical flags for the others.
        EXPECT_THAT(made(phy(atoi(id.c_str()))), ElementsAre("0 1"));
    }
    EXPECT_THAT(made(record->m_pPrivResult), ElementsAre("1 0"));
    sim::chi::MetaState state;
    ASSERT_TRUE(sim::chi::state(record->m_pPrivResult, &state));
    EXPECT_EQ(state.serial, 1u);
    EXPECT_THAT(androidMessages(),
                Contains(r() + " m_pPrivResult " + hex(record->m_pPrivResult) +
                         " request phyCamIdSet size 3 mSamelogical_PhyResult 0"));
    EXPECT_THAT(androidMessages(),
                Contains(r() + " PrivPhyCamId 10 PrivPhyResult " + hex(phy(10))));
}

TEST_F(PrivResultTest, SupportSamePhysical) {
    const adapter::PostProcInfoMetaAttributes a = {0, 1, 1, 0};
    request({"0", "1"}, true, a);
    const std::string notSupported =
            " reuse needPrivLogicalMeta 0 but this Samelogical_PhyResult 0, not support";
    const struct {
        std::set<std::string> ids;
        bool logical;
        adapter::PostProcInfoMetaAttributes attributes;
        bool expected;
        std::string line;
    } cases[] = {
            {{"0", "1"}, true, a, true, ""},
            {{"0", "1"}, false, a, false, notSupported},
            {{"0"}, true, a, false, ""},
            {{"0", "2"}, true, a, false, " expect phy 2 cannot find"},
            {{"0", "1"}, true, {1, 1, 1, 0}, false, ""},
            {{"0", "1"}, true, {0, 0, 1, 0}, false, ""},
            {{"0", "1"}, true, {0, 1, 0, 0}, false, ""},
            {{"0", "1"}, true, {0, 1, 1, 1}, false, ""},
    };
    for (auto c : cases) {
        sim::kycam::clearLines();
        EXPECT_EQ(record->supportSamePhysical(c.ids, c.logical, c.attributes), c.expected);
        EXPECT_EQ(androidMessages(), c.line.empty() ? std::vector<std::string>{}
                                                    : std::vector<std::string>{r() + c.line});
    }
    QcomPostProcInfo empty;
    std::set<std::string> none;
    adapter::PostProcInfoMetaAttributes zero = {};
    empty.createPrivResultMeta(none, false, zero);
    EXPECT_TRUE(empty.supportSamePhysical(none, false, zero));
}

TEST_F(PrivResultTest, DestroyEndsEveryObjectOnce) {
    request({"0", "1"}, true);
    record->mReplacedPrivResults.insert(record->createChiMeta(false, false));
    record->destroyPrivResultMeta();
    EXPECT_EQ(sim::count("Destroy"), 4u) << "the parked one too";
    EXPECT_THAT(record->mReplacedPrivResults, IsEmpty());
    EXPECT_EQ(std::tie(record->m_pPrivResult, record->m_pPrivPhyResults, record->m_pPrivPhyCamIds),
              std::make_tuple(nullptr, nullptr, nullptr));
    EXPECT_TRUE(record->mPhyCamIdSet.empty() && record->mSupportPrivMeta);
    // A logical result that is one of the physical ones dies with them.
    request({"0", "1"}, false);
    record->m_pPrivResult = phy(1);
    record->destroyPrivResultMeta();
    EXPECT_EQ(record->m_pPrivResult, nullptr);
    EXPECT_EQ(sim::count("Destroy"), 6u);
    // Without private results nothing is touched.
    void* meta = record->createChiMeta(false, false);
    record->mPrivPhyResultMap[0] = meta;
    record->mPhyCamIdSet = {"0"};
    record->mSupportPrivMeta = false;
    record->destroyPrivResultMeta();
    EXPECT_EQ(record->mPrivPhyResultMap.size(), 1u);
    EXPECT_EQ(sim::count("Destroy"), 6u);
    record->destroyChiMeta(meta);
    record->mPrivPhyResultMap.clear();
}

TEST_F(PrivResultTest, AttachToTheHalRequest) {
    camera3_capture_request before;
    memset(&before, 0xAB, sizeof(before));
    camera3_capture_request halRequest = before;
    record->setHalRequestPrivResultMeta(&halRequest);
    EXPECT_EQ(memcmp(&before, &halRequest, sizeof(before)), 0) << "no private results";

    request({}, true);
    EXPECT_EQ(record->m_pPrivPhyResults, nullptr) << "no cameras, no arrays";
    record->setHalRequestPrivResultMeta(&halRequest);
    EXPECT_EQ(block(halRequest), std::make_tuple(record->m_pPrivResult, nullptr, 0u, nullptr));
    record->destroyPrivResultMeta();

    // A logical result that is one of the physical ones is not handed over.
    request({"0", "1"}, false);
    record->m_pPrivResult = phy(0);
    sim::kycam::clearLines();
    record->setHalRequestPrivResultMeta(&halRequest);
    EXPECT_EQ(block(halRequest),
              std::make_tuple(nullptr, record->m_pPrivPhyCamIds, 2u, record->m_pPrivPhyResults));
    EXPECT_THAT(androidMessages(),
                ElementsAre(r() + " m_pPrivResult " + hex(phy(0)) +
                                    " request phyCamIdSet size 2 m_pPrivPhyResults " +
                                    hex(record->m_pPrivPhyResults) + " mSamelogical_PhyResult 1",
                            r() + " halRequest priv_result (nil) priv_physcam_result " +
                                    hex(record->m_pPrivPhyResults)));
}

TEST_F(PrivResultTest, MissingFirstPhysicalResultWithdrawsTheWholeBlock) {
    request({"0", "1"}, true);
    void* first = record->m_pPrivPhyResults[0];
    record->m_pPrivPhyResults[0] = nullptr;
    camera3_capture_request halRequest;
    memset(&halRequest, 0xAB, sizeof(halRequest));
    sim::kycam::clearLines();
    record->setHalRequestPrivResultMeta(&halRequest);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&halRequest);
    for (size_t i = 88; i < 108; ++i) {
        EXPECT_EQ(bytes[i], 0) << "byte " << i;
    }
    EXPECT_EQ(halRequest.priv_physcam_result, nullptr);
    EXPECT_EQ(bytes[87], 0xAB) << "nothing before priv_result is touched";
    EXPECT_THAT(androidMessages(), Contains("Not Create priv_physcam_result"));
    record->m_pPrivPhyResults[0] = first;
}

class ReconcileTest : public RecordFixture {
  protected:
    void SetUp() override {
        RecordFixture::SetUp();
        request({"0", "2"}, true);
        logical = record->m_pPrivResult;
        phy0 = phy(0);
        phy2 = phy(2);
        // The HAL holds a reference on every object it is handed to fill,
        // and hands it to the record with the result.
        camera3_capture_request halRequest = {};
        record->setHalRequestPrivResultMeta(&halRequest);
        requestIds = halRequest.priv_physcam_id;
        sim::hal::reference(halRequest);
        sim::kycam::setLogConfig(2, 0xFFFFFFFF, 1);  // with the reference-count traces
        fresh();
    }
    void reconcile(void* logicalResult, std::vector<std::pair<std::string, void*>> cameras) {
        Result result(7, logicalResult, std::move(cameras));
        record->checkAndUpdatePrivResult(result.get());
    }
    std::vector<std::string> warnings() { return messages(sim::kycam::Sink::LogSystem, "W"); }
    std::string f() const { return r() + " vndFrame:7"; }
    void* logical = nullptr;
    void* phy0 = nullptr;
    void* phy2 = nullptr;
    const char** requestIds = nullptr;
};

TEST_F(ReconcileTest, WithoutPrivateResultsOnlyTheEntryLineIsWritten) {
    QcomPostProcInfo plain;
    void* theirs = hal();
    Result result(7, theirs, {{"0", hal()}});
    sim::kycam::clearLines();
    plain.checkAndUpdatePrivResult(result.get());
    EXPECT_THAT(androidMessages(), ElementsAre("PostProcsInfo " + hex(&plain) +
                                               " mSupportPrivMeta 0 vndFrame:7 m_pPrivResult "
                                               "(nil) result->priv_metadata " +
                                               hex(theirs)));
    EXPECT_THAT(plain.mPrivPhyResultMap, IsEmpty());
}

TEST_F(ReconcileTest, SameObjectsChangeNothing) {
    Result result(7, logical, {{"0", phy0}, {"2", phy2}});
    record->checkAndUpdatePrivResult(result.get());
    result.result.physcam_ids = requestIds;  // the HAL hands back the request's own ids
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_THAT(record->mReplacedPrivResults, IsEmpty());
    EXPECT_EQ(sim::count("AddReference") + sim::count("ReleaseReference"), 0u);
    EXPECT_FALSE(record->mSamelogical_PhyResult);
    const std::string same = f() + " phycam 2 phyresult " + hex(phy2);
    EXPECT_THAT(warnings(), Contains(same + " result->priv_physcam_metadata[1] " + hex(phy2)));
    EXPECT_EQ(warnings().size(), 4u) << "one comparison line per camera and pass";
}

TEST_F(ReconcileTest, ReplacedLogicalResultIsParkedAndTheNewOneReferenced) {
    void* theirs = hal();
    reconcile(theirs, {{"0", phy0}, {"2", phy2}});
    EXPECT_EQ(record->m_pPrivResult, theirs);
    EXPECT_EQ(refs(theirs), 1u);
    EXPECT_THAT(record->mReplacedPrivResults, ElementsAre(logical));
    EXPECT_EQ(sim::chi::invalidations(logical), 1u) << "released to zero";
    EXPECT_THAT(warnings(), Contains(f() + " m_pPrivResult " + hex(logical) +
                                     " not same as result->priv_metadata " + hex(theirs)));
    EXPECT_THAT(androidMessages(),
                Contains(r() + " the chi meta: " + hex(logical) + " ReleaseReference ref: 0"));
    EXPECT_THAT(androidMessages(),
                Contains(r() + " the chi meta: " + hex(theirs) + " AddReference ref: 1"));
    // The traces need the verbose level.
    sim::kycam::setLogConfig(3, 0xFFFFFFFF, 0);
    fresh();
    reconcile(hal(), {{"0", phy0}, {"2", phy2}});
    EXPECT_EQ(sim::count("AddReference"), 1u);
    EXPECT_THAT(androidMessages(),
                ::testing::Each(::testing::Not(::testing::HasSubstr("chi meta:"))));
}

TEST_F(ReconcileTest, ReplacedPhysicalResultAmongTheSameCameras) {
    void* theirs = hal();
    reconcile(logical, {{"0", phy0}, {"2", theirs}});
    EXPECT_TRUE(phy(2) == theirs && record->m_pPrivPhyResults[1] == theirs);
    EXPECT_EQ(refs(theirs), 1u);
    EXPECT_THAT(record->mReplacedPrivResults, ElementsAre(phy2));
    EXPECT_THAT(warnings(),
                Contains(f() + " phycam 2 phyresult " + hex(phy2) +
                         " not same as result->priv_physcam_metadata[1] " + hex(theirs)));
}

TEST_F(ReconcileTest, SameCamerasInAnotherOrderIndexTheArrayByResultPosition) {
    void* new2 = hal();
    void* new0 = hal();
    Result result(7, logical, {{"2", new2}, {"0", new0}});
    result.ids = {requestIds[1], requestIds[0]};  // the request's own texts, reordered
    result.result.physcam_ids = result.ids.data();
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_EQ(std::make_tuple(record->m_pPrivPhyResults[0], phy(0), phy(2)),
              std::make_tuple(new2, new0, new2));
    EXPECT_STREQ(record->m_pPrivPhyCamIds[0], "0");
    EXPECT_THAT(record->mReplacedPrivResults, UnorderedElementsAre(phy0, phy2));
    EXPECT_EQ(refs(new0) + refs(new2), 2u);
}

TEST_F(ReconcileTest, ReplacedCameraRebuildsWithoutNewReferences) {
    void* theirs = hal();
    reconcile(logical, {{"0", phy0}, {"3", theirs}});
    EXPECT_THAT(record->mPhyCamIdSet, ElementsAre("0", "3"));
    EXPECT_THAT(keys(), ElementsAre(0, 3));
    EXPECT_EQ(phy(3), theirs);
    EXPECT_EQ(refs(theirs), 0u) << "taken over as the result holds it";
    EXPECT_THAT(record->mReplacedPrivResults, UnorderedElementsAre(phy0, phy2));
    const std::string update = f() + " update phycam ";
    EXPECT_THAT(warnings(),
                ElementsAre(f() + " original physcam not keep camera 3, need Update all "
                                  "physcam_metadata",
                            update + "0 result->priv_physcam_metadata[0] " + hex(phy0),
                            update + "3 result->priv_physcam_metadata[1] " + hex(theirs)));
    // phy0 is both parked and held again: it is still destroyed once.
    record.reset();
    EXPECT_EQ(sim::count("Destroy", phy0), 1u);
}

TEST_F(ReconcileTest, ZeroCamerasReleaseAndParkEverything) {
    reconcile(logical, {});
    EXPECT_TRUE(record->mPhyCamIdSet.empty() && record->mPrivPhyResultMap.empty());
    EXPECT_EQ(std::tie(record->m_pPrivPhyResults, record->m_pPrivPhyCamIds),
              std::make_tuple(nullptr, nullptr));
    EXPECT_THAT(record->mReplacedPrivResults, UnorderedElementsAre(phy0, phy2));
    EXPECT_FALSE(record->mSamelogical_PhyResult);
    EXPECT_THAT(warnings(), ElementsAre(f() + " original num_physcam_metadata 2 not same asreturn "
                                              "result->num_physcam_metadata 0, need Update all "
                                              "physcam_metadata"));
}

TEST_F(ReconcileTest, InsertingLookupMakesANullLogicalResultMatch) {
    // The map lost camera 2 apart from the set; the result brings no object
    // for it and no logical result.
    record->mPrivPhyResultMap.erase(2);
    record->mReplacedPrivResults.insert(phy2);
    reconcile(nullptr, {{"0", phy0}, {"2", nullptr}});
    EXPECT_EQ(record->mPrivPhyResultMap.count(2), 1u);
    EXPECT_EQ(phy(2), nullptr);
    EXPECT_TRUE(record->mSamelogical_PhyResult);
    EXPECT_THAT(warnings(), Contains(f() + " result->priv_metadata (nil) same as "
                                           "result->priv_physcam_metadata[2] (nil)"));
    record->mPrivPhyResultMap.erase(2);  // a null handle may not reach the destructor
}

}  // namespace
