// SPDX-License-Identifier: Apache-2.0
// Run with "persist.vendor.camera.enableIQBM" at 0: the manager library is
// still opened at load, but no entry point is ever called. This binary does
// not link the manager, so that only the record's dlopen can have loaded it.
#include <QcomPostProcInfo.h>
#include <cutils/properties.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>

namespace {

TEST(IqbmOff, RecordsNeverCallTheManagerTheLibraryOpened) {
    EXPECT_EQ(property_get_int32("persist.vendor.camera.enableIQBM", 1), 0);
    {
        auto first = std::make_unique<adapter::QcomPostProcInfo>();
        adapter::QcomPostProcInfo second;
        EXPECT_FALSE(first->mEnableIQBM || second.mEnableIQBM);
        adapter::DebugData data = {16, &second};
        second.keep3aDebugData(0, &data, false);
        first.reset();
    }
    EXPECT_EQ(adapter::QcomPostProcInfo::mSum, 0u);
    void* handle = dlopen("libiqdbgmgr.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(handle, nullptr) << "opened at load";
    auto calls = reinterpret_cast<size_t (*)()>(dlsym(handle, "SimIqbmEntryPointCalls"));
    ASSERT_NE(calls, nullptr);
    EXPECT_EQ(calls(), 0u);
    dlclose(handle);
}

}  // namespace
