// SPDX-License-Identifier: Apache-2.0
// A process in which "libiqdbgmgr.so" cannot be opened, with
// "persist.vendor.camera.enableIQBM" at 0: the library still loads, and its
// records keep debug data through the framework's counters. ctest runs the
// copy of this program that sits with copies of its libraries in a directory
// without the manager.
#include <cutils/properties.h>
#include <dlfcn.h>

#include "support/sim_test.h"

namespace {

using NoManagerTest = testsupport::SimTest;

TEST_F(NoManagerTest, RecordsWorkWithTheFrameworkCounters) {
    EXPECT_EQ(property_get_int32("persist.vendor.camera.enableIQBM", 1), 0);
    EXPECT_EQ(dlopen("libiqdbgmgr.so", RTLD_NOW), nullptr);
    char buffer[16];
    adapter::DebugData data = {sizeof(buffer), buffer};
    {
        auto record = std::make_unique<adapter::QcomPostProcInfo>();
        EXPECT_FALSE(record->mEnableIQBM);
        std::set<std::string> ids = {"0", "1"};
        adapter::PostProcInfoMetaAttributes attributes = {};
        record->createPrivResultMeta(ids, true, attributes);
        camera3_capture_request request = {};
        record->setHalRequestPrivResultMeta(&request);
        EXPECT_EQ(request.num_priv_physcam_result, 2u);
        record->keep3aDebugData(0, &data, false);
        record->clone(true).reset();
        EXPECT_EQ(adapter::QcomPostProcInfo::mSum, 1u);
    }
    EXPECT_EQ(adapter::QcomPostProcInfo::mSum, 0u);
    EXPECT_EQ(sim::count("AddDebugDataReference", buffer), 2u);
    EXPECT_EQ(sim::count("SubDebugDataReference", buffer), 2u);
    EXPECT_EQ(sim::kycam::debugDataRefCount(buffer), 0);
    EXPECT_EQ(sim::chi::totals().alive, 0u);
}

}  // namespace
