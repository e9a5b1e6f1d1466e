// SPDX-License-Identifier: Apache-2.0
// Fixture for tests of one record's private results: request building, HAL
// objects the capture result brings, and a ledger that must balance once the
// record and the HAL's leftovers are gone.
#pragma once

#include <QcomPostProcInfo.h>
#include <chi/chxmetadata.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/sim_test.h"

namespace testsupport {

inline adapter::PostProcInfoMetaAttributes attributes(uint8_t lt, uint8_t lc, uint8_t pt,
                                                      uint8_t pc) {
    return {lt, lc, pt, pc};
}

// A capture result whose arrays live as long as it does.
struct Result {
    std::vector<std::string> idTexts;
    std::vector<const char*> ids;
    std::vector<void*> metas;
    camera3_capture_result result = {};

    Result(uint32_t frame, void* logical, std::vector<std::pair<std::string, void*>> cameras) {
        for (auto& camera : cameras) {
            idTexts.push_back(camera.first);
            metas.push_back(camera.second);
        }
        for (const std::string& id : idTexts) {
            ids.push_back(id.c_str());
        }
        result.frame_number = frame;
        result.num_physcam_metadata = static_cast<uint32_t>(ids.size());
        result.physcam_ids = ids.data();
        result.priv_metadata = logical;
        result.priv_physcam_metadata = metas.data();
    }
    const camera3_capture_result* get() const { return &result; }
};

class RecordFixture : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        record = std::make_unique<adapter::QcomPostProcInfo>();
    }

    void TearDown() override {
        record.reset();
        for (void* meta : halMetas) {
            if (!sim::chi::isDestroyed(meta)) {
                reinterpret_cast<ChiMetadata*>(meta)->Destroy(true);
            }
        }
        EXPECT_EQ(sim::chi::totals().alive, 0u) << "CHI metadata left alive";
        SimTest::TearDown();
    }

    void request(std::set<std::string> ids, bool logical,
                 adapter::PostProcInfoMetaAttributes attrs = {}) {
        record->createPrivResultMeta(ids, logical, attrs);
    }

    // An object the HAL made itself and names in a capture result.
    void* hal() {
        void* meta = ChiMetadata::Create(nullptr, 0, false, nullptr, 0, 0, 0, nullptr);
        halMetas.push_back(meta);
        return meta;
    }

    void* phy(int cameraId) { return record->mPrivPhyResultMap.at(cameraId); }

    std::unique_ptr<adapter::QcomPostProcInfo> record;
    std::vector<void*> halMetas;
};

}  // namespace testsupport
