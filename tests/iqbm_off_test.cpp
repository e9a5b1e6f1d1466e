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

size_t entryPointCalls() {
    void* handle = dlopen("libiqdbgmgr.so", RTLD_NOW | RTLD_NOLOAD);
    if (handle == nullptr) {
        ADD_FAILURE() << "libiqdbgmgr.so is not loaded";
        return 0;
    }
    auto calls = reinterpret_cast<size_t (*)()>(dlsym(handle, "SimIqbmEntryPointCalls"));
    dlclose(handle);
    return calls != nullptr ? calls() : 0;
}

TEST(IqbmOff, PropertyIsZero) {
    EXPECT_EQ(property_get_int32("persist.vendor.camera.enableIQBM", 1), 0);
}

TEST(IqbmOff, LibraryOpenedTheManagerAtLoad) {
    void* handle = dlopen("libiqdbgmgr.so", RTLD_NOW | RTLD_NOLOAD);
    EXPECT_NE(handle, nullptr);
    if (handle != nullptr) {
        dlclose(handle);
    }
}

TEST(IqbmOff, RecordsNeverCallTheManager) {
    {
        auto first = std::make_unique<adapter::QcomPostProcInfo>();
        EXPECT_FALSE(first->mEnableIQBM);
        adapter::QcomPostProcInfo second;
        EXPECT_FALSE(second.mEnableIQBM);
        adapter::DebugData data = {16, &second};
        second.keep3aDebugData(0, &data, false);
        first.reset();
    }
    EXPECT_EQ(adapter::QcomPostProcInfo::mSum, 0u);
    EXPECT_EQ(entryPointCalls(), 0u);
}

}  // namespace
