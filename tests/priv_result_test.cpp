// SPDX-License-Identifier: Apache-2.0
// Private result metadata: creation for a camera set, reuse decisions,
// destruction, attachment to the HAL request and reconciliation with the
// capture result, with every reference checked in the CHI ledger.
#include <string.h>

#include "support/record_test.h"

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using testsupport::hex;
using testsupport::Result;

namespace {

class PrivResultTest : public testsupport::RecordFixture {
  protected:
    std::string r() const { return "PostProcsInfo " + hex(record.get()); }
    std::vector<int> keys() const {
        std::vector<int> result;
        for (const auto& entry : record->mPrivPhyResultMap) {
            result.push_back(entry.first);
        }
        return result;
    }
    uint32_t refs(void* meta) { return sim::chi::refCount(meta); }
};

TEST_F(PrivResultTest, CamerasAreWalkedInStringOrderAndKeyedByTheirNumber) {
    request({"2", "0", "10"}, true, testsupport::attributes(1, 0, 0, 1));
    ASSERT_NE(record->m_pPrivResult, nullptr);
    EXPECT_FALSE(record->mSamelogical_PhyResult);
    EXPECT_TRUE(record->needUpdateToKymeta());
    EXPECT_THAT(keys(), ElementsAre(0, 2, 10));
    const char* order[] = {"0", "10", "2"};
    auto id = record->mPhyCamIdSet.begin();
    for (int i = 0; i < 3; ++i, ++id) {
        EXPECT_STREQ(record->m_pPrivPhyCamIds[i], order[i]);
        EXPECT_EQ(record->m_pPrivPhyCamIds[i], id->c_str()) << "must point into the set";
        EXPECT_EQ(record->m_pPrivPhyResults[i], phy(atoi(order[i])));
    }
    // Logical flags for the logical result, physical flags for the others.
    sim::chi::MetaState state;
    ASSERT_TRUE(sim::chi::state(record->m_pPrivResult, &state));
    EXPECT_EQ(state.serial, 1u);
    EXPECT_EQ(state.args.isMultiTypeContextMeta, 1);
    EXPECT_EQ(state.args.isMultiCameraContextMeta, 0);
    ASSERT_TRUE(sim::chi::state(phy(2), &state));
    EXPECT_EQ(state.args.isMultiTypeContextMeta, 0);
    EXPECT_EQ(state.args.isMultiCameraContextMeta, 1);
    const std::vector<std::string> lines = testsupport::androidMessages();
    EXPECT_THAT(lines, Contains(r() + " m_pPrivResult " + hex(record->m_pPrivResult) +
                                " request phyCamIdSet size 3 mSamelogical_PhyResult 0"));
    EXPECT_THAT(lines, Contains(r() + " PrivPhyCamId 10 PrivPhyResult " + hex(phy(10))));
}

TEST_F(PrivResultTest, NoLogicalResultAndNoCameras) {
    request({}, false);
    EXPECT_TRUE(record->mSupportPrivMeta);
    EXPECT_TRUE(record->mSamelogical_PhyResult);
    EXPECT_EQ(record->m_pPrivResult, nullptr);
    EXPECT_EQ(record->m_pPrivPhyResults, nullptr);
    EXPECT_EQ(record->m_pPrivPhyCamIds, nullptr);
    EXPECT_THAT(record->mPrivPhyResultMap, IsEmpty());
    EXPECT_EQ(sim::chi::totals().created, 0u);
    for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
        EXPECT_NE(line.priority, ANDROID_LOG_ERROR) << line.text;
    }
}

TEST_F(PrivResultTest, IdsEqualAfterAtoiShareOneKeyAndTheLaterWins) {
    request({"a", "b"}, false);
    EXPECT_THAT(keys(), ElementsAre(0));
    void* shadowed = record->m_pPrivPhyResults[0];
    EXPECT_EQ(phy(0), record->m_pPrivPhyResults[1]);
    record->destroyPrivResultMeta();
    EXPECT_FALSE(sim::chi::isDestroyed(shadowed)) << "lives only in the array";
    record->destroyChiMeta(shadowed);
}

TEST_F(PrivResultTest, SupportSamePhysical) {
    auto a = testsupport::attributes(0, 1, 1, 0);
    request({"0", "1"}, true, a);
    const struct {
        std::set<std::string> ids;
        bool logical;
        adapter::PostProcInfoMetaAttributes attrs;
        bool expected;
        std::string line;
    } cases[] = {
            {{"0", "1"}, true, a, true, ""},
            {{"0", "1"},
             false,
             a,
             false,
             " reuse needPrivLogicalMeta 0 but this Samelogical_PhyResult 0, not support"},
            {{"0"}, true, a, false, ""},
            {{"0", "2"}, true, a, false, " expect phy 2 cannot find"},
            {{"0", "1"}, true, testsupport::attributes(1, 1, 1, 0), false, ""},
            {{"0", "1"}, true, testsupport::attributes(0, 0, 1, 0), false, ""},
            {{"0", "1"}, true, testsupport::attributes(0, 1, 0, 0), false, ""},
            {{"0", "1"}, true, testsupport::attributes(0, 1, 1, 1), false, ""},
    };
    for (auto c : cases) {
        sim::kycam::clearLines();
        EXPECT_EQ(record->supportSamePhysical(c.ids, c.logical, c.attrs), c.expected);
        EXPECT_EQ(testsupport::androidMessages(), c.line.empty()
                                                          ? std::vector<std::string>{}
                                                          : std::vector<std::string>{r() + c.line});
    }
    adapter::QcomPostProcInfo empty;
    std::set<std::string> none;
    adapter::PostProcInfoMetaAttributes zero = {};
    empty.createPrivResultMeta(none, false, zero);
    EXPECT_TRUE(empty.supportSamePhysical(none, false, zero));
}

TEST_F(PrivResultTest, DestroyEndsEveryObjectOnce) {
    request({"0", "1"}, true);
    void* logical = record->m_pPrivResult;
    record->destroyPrivResultMeta();
    EXPECT_TRUE(sim::chi::isDestroyed(logical));
    EXPECT_EQ(sim::count("Destroy"), 3u);
    EXPECT_EQ(record->m_pPrivResult, nullptr);
    EXPECT_EQ(record->m_pPrivPhyResults, nullptr);
    EXPECT_THAT(record->mPhyCamIdSet, IsEmpty());
    EXPECT_TRUE(record->mSupportPrivMeta);
}

TEST_F(PrivResultTest, LogicalResultThatIsAPhysicalOneDiesWithThem) {
    request({"0", "1"}, false);
    record->m_pPrivResult = phy(1);
    record->destroyPrivResultMeta();
    EXPECT_EQ(record->m_pPrivResult, nullptr);
    EXPECT_EQ(sim::count("Destroy"), 2u);
}

TEST_F(PrivResultTest, DestroyWithoutPrivateResultsTouchesNothing) {
    void* meta = record->createChiMeta(false, false);
    record->mPrivPhyResultMap[0] = meta;
    record->mPhyCamIdSet = {"0"};
    record->destroyPrivResultMeta();
    EXPECT_EQ(record->mPrivPhyResultMap.size(), 1u);
    EXPECT_FALSE(sim::chi::isDestroyed(meta));
    record->destroyChiMeta(meta);
    record->mPrivPhyResultMap.clear();
}

class AttachTest : public PrivResultTest {
  protected:
    void SetUp() override {
        PrivResultTest::SetUp();
        memset(&halRequest, 0xAB, sizeof(halRequest));
    }
    camera3_capture_request halRequest;
};

TEST_F(AttachTest, RecordWithoutPrivateResultsLeavesTheRequest) {
    camera3_capture_request before = halRequest;
    record->setHalRequestPrivResultMeta(&halRequest);
    EXPECT_EQ(memcmp(&before, &halRequest, sizeof(before)), 0);
}

TEST_F(AttachTest, PhysicalResultsWithoutALogicalOne) {
    request({"0", "1"}, false);
    record->setHalRequestPrivResultMeta(&halRequest);
    EXPECT_EQ(halRequest.priv_result, nullptr);
    EXPECT_EQ(halRequest.num_priv_physcam_result, 2u);
    EXPECT_EQ(halRequest.priv_physcam_result, record->m_pPrivPhyResults);
    EXPECT_EQ(halRequest.priv_physcam_id, record->m_pPrivPhyCamIds);
    EXPECT_EQ(testsupport::androidMessages().back(),
              r() + " halRequest priv_result (nil) priv_physcam_result " +
                      hex(record->m_pPrivPhyResults));
}

TEST_F(AttachTest, LogicalResultWithoutCameras) {
    request({}, true);
    record->setHalRequestPrivResultMeta(&halRequest);
    EXPECT_EQ(halRequest.priv_result, record->m_pPrivResult);
    EXPECT_EQ(halRequest.priv_physcam_id, nullptr);
    EXPECT_EQ(halRequest.num_priv_physcam_result, 0u);
    EXPECT_EQ(halRequest.priv_physcam_result, nullptr);
}

TEST_F(AttachTest, MissingFirstPhysicalResultWithdrawsTheWholeBlock) {
    request({"0", "1"}, true);
    void* first = record->m_pPrivPhyResults[0];
    record->m_pPrivPhyResults[0] = nullptr;
    sim::kycam::clearLines();
    record->setHalRequestPrivResultMeta(&halRequest);
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(&halRequest);
    for (size_t i = 88; i < 108; ++i) {
        EXPECT_EQ(bytes[i], 0) << "byte " << i;
    }
    EXPECT_EQ(halRequest.priv_physcam_result, nullptr);
    EXPECT_EQ(bytes[87], 0xAB) << "nothing before priv_result is touched";
    EXPECT_THAT(testsupport::androidMessages(), Contains("Not Create priv_physcam_result"));
    record->m_pPrivPhyResults[0] = first;
}

class ReconcileTest : public PrivResultTest {
  protected:
    void SetUp() override {
        PrivResultTest::SetUp();
        request({"0", "2"}, true);
        logical = record->m_pPrivResult;
        phy0 = phy(0);
        phy2 = phy(2);
        // The HAL holds a reference on every object it is handed to fill,
        // and hands it to the record with the result.
        camera3_capture_request halRequest = {};
        record->setHalRequestPrivResultMeta(&halRequest);
        requestIds = halRequest.priv_physcam_id;
        reinterpret_cast<ChiMetadata*>(halRequest.priv_result)->AddReference(nullptr);
        for (uint32_t i = 0; i < halRequest.num_priv_physcam_result; ++i) {
            reinterpret_cast<ChiMetadata*>(halRequest.priv_physcam_result[i])
                    ->AddReference(nullptr);
        }
        sim::clearJournal();
        sim::kycam::setLogConfig(2, 0xFFFFFFFF, 1);  // with the reference-count traces
        sim::kycam::clearLines();
    }
    std::vector<std::string> warnings() {
        std::vector<std::string> result;
        for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
            if (line.sink == sim::kycam::Sink::LogSystem && line.level == "W") {
                result.push_back(line.text);
            }
        }
        return result;
    }
    std::string f() const { return r() + " vndFrame:7"; }
    void* logical = nullptr;
    void* phy0 = nullptr;
    void* phy2 = nullptr;
    const char** requestIds = nullptr;
};

TEST_F(ReconcileTest, WithoutPrivateResultsOnlyTheEntryLineIsWritten) {
    adapter::QcomPostProcInfo plain;
    Result result(7, hal(), {{"0", hal()}});
    sim::kycam::clearLines();
    plain.checkAndUpdatePrivResult(result.get());
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre("PostProcsInfo " + hex(&plain) +
                            " mSupportPrivMeta 0 vndFrame:7 m_pPrivResult (nil) "
                            "result->priv_metadata " +
                            hex(result.metas.size() ? result.result.priv_metadata : nullptr)));
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
    EXPECT_THAT(warnings(), Contains(f() + " phycam 2 phyresult " + hex(phy2) +
                                     " result->priv_physcam_metadata[1] " + hex(phy2)));
    EXPECT_EQ(warnings().size(), 4u) << "one comparison line per camera and pass";
}

TEST_F(ReconcileTest, ReplacedLogicalResultIsParkedAndTheNewOneReferenced) {
    void* theirs = hal();
    Result result(7, theirs, {{"0", phy0}, {"2", phy2}});
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_EQ(record->m_pPrivResult, theirs);
    EXPECT_EQ(refs(theirs), 1u);
    EXPECT_THAT(record->mReplacedPrivResults, ElementsAre(logical));
    EXPECT_EQ(sim::chi::invalidations(logical), 1u) << "released to zero";
    EXPECT_THAT(warnings(), Contains(f() + " m_pPrivResult " + hex(logical) +
                                     " not same as result->priv_metadata " + hex(theirs)));
    EXPECT_THAT(testsupport::androidMessages(),
                Contains(r() + " the chi meta: " + hex(logical) + " ReleaseReference ref: 0"));
    EXPECT_THAT(testsupport::androidMessages(),
                Contains(r() + " the chi meta: " + hex(theirs) + " AddReference ref: 1"));
}

TEST_F(ReconcileTest, ReferenceTracesNeedTheVerboseLevel) {
    sim::kycam::setLogConfig(3, 0xFFFFFFFF, 0);
    Result result(7, hal(), {{"0", phy0}, {"2", phy2}});
    record->checkAndUpdatePrivResult(result.get());
    for (const std::string& line : testsupport::androidMessages()) {
        EXPECT_EQ(line.find("the chi meta:"), std::string::npos) << line;
    }
}

TEST_F(ReconcileTest, ReplacedPhysicalResultAmongTheSameCameras) {
    void* theirs = hal();
    Result result(7, logical, {{"0", phy0}, {"2", theirs}});
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_EQ(phy(2), theirs);
    EXPECT_EQ(record->m_pPrivPhyResults[1], theirs);
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
    EXPECT_EQ(record->m_pPrivPhyResults[0], new2);
    EXPECT_STREQ(record->m_pPrivPhyCamIds[0], "0");
    EXPECT_EQ(phy(0), new0);
    EXPECT_EQ(phy(2), new2);
    EXPECT_THAT(record->mReplacedPrivResults, UnorderedElementsAre(phy0, phy2));
    EXPECT_EQ(refs(new0) + refs(new2), 2u);
}

TEST_F(ReconcileTest, ReplacedCameraRebuildsWithoutNewReferences) {
    void* theirs = hal();
    Result result(7, logical, {{"0", phy0}, {"3", theirs}});
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_THAT(record->mPhyCamIdSet, ElementsAre("0", "3"));
    EXPECT_THAT(keys(), ElementsAre(0, 3));
    EXPECT_EQ(phy(3), theirs);
    EXPECT_EQ(refs(theirs), 0u) << "taken over as the result holds it";
    EXPECT_THAT(record->mReplacedPrivResults, UnorderedElementsAre(phy0, phy2));
    EXPECT_THAT(
            warnings(),
            ElementsAre(f() + " original physcam not keep camera 3, need Update all "
                              "physcam_metadata",
                        f() + " update phycam 0 result->priv_physcam_metadata[0] " + hex(phy0),
                        f() + " update phycam 3 result->priv_physcam_metadata[1] " + hex(theirs)));
    // phy0 is both parked and held again: it is still destroyed once.
    record.reset();
    EXPECT_EQ(sim::count("Destroy", phy0), 1u);
}

TEST_F(ReconcileTest, ZeroCamerasReleaseAndParkEverything) {
    Result result(7, logical, {});
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_THAT(record->mPhyCamIdSet, IsEmpty());
    EXPECT_THAT(record->mPrivPhyResultMap, IsEmpty());
    EXPECT_EQ(record->m_pPrivPhyResults, nullptr);
    EXPECT_EQ(record->m_pPrivPhyCamIds, nullptr);
    EXPECT_THAT(record->mReplacedPrivResults, UnorderedElementsAre(phy0, phy2));
    EXPECT_FALSE(record->mSamelogical_PhyResult);
    EXPECT_THAT(warnings(), ElementsAre(f() + " original num_physcam_metadata 2 not same asreturn "
                                              "result->num_physcam_metadata 0, need Update all "
                                              "physcam_metadata"));
}

TEST_F(ReconcileTest, LogicalResultFoundAmongThePhysicalOnes) {
    Result result(7, phy2, {{"0", phy0}, {"2", phy2}});
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_TRUE(record->mSamelogical_PhyResult);
    EXPECT_EQ(refs(phy2), 2u) << "the HAL's reference and the record's";
    EXPECT_THAT(warnings(), Contains(f() + " result->priv_metadata " + hex(phy2) +
                                     " same as result->priv_physcam_metadata[2] " + hex(phy2)));
}

TEST_F(ReconcileTest, InsertingLookupMakesANullLogicalResultMatch) {
    // The map lost camera 2 apart from the set; the result brings no object
    // for it and no logical result.
    void* dropped = phy2;
    record->mPrivPhyResultMap.erase(2);
    record->mReplacedPrivResults.insert(dropped);
    Result result(7, nullptr, {{"0", phy0}, {"2", nullptr}});
    record->checkAndUpdatePrivResult(result.get());
    EXPECT_EQ(record->mPrivPhyResultMap.count(2), 1u);
    EXPECT_EQ(phy(2), nullptr);
    EXPECT_TRUE(record->mSamelogical_PhyResult);
    EXPECT_THAT(warnings(), Contains(f() + " result->priv_metadata (nil) same as "
                                           "result->priv_physcam_metadata[2] (nil)"));
    record->mPrivPhyResultMap.erase(2);  // a null handle may not reach the destructor
}

}  // namespace
