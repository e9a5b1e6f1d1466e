// SPDX-License-Identifier: Apache-2.0
// The virtual slots of the record as the host framework sees them: the
// framework is compiled against PostProcInfo alone and calls slot k of
// whatever vtable a record carries. The vtable of a live record is read the
// way the Itanium C++ ABI lays it out (vptr at offset 0, offset-to-top and
// type info in the two words before slot 0), and every slot must hold the
// exported function that the framework links against under that slot.
#include <QcomPostProcInfo.h>
#include <dlfcn.h>
#include <elf.h>
#include <gtest/gtest.h>
#include <link.h>

#include <PostProcInfo.h>

#include <string>

namespace {

// What the framework may rely on: only the interface.
void* const* slotsOf(const PostProcInfo& info) {
    return *reinterpret_cast<void* const* const*>(&info);
}

void* exported(const char* symbol) {
    void* address = dlsym(RTLD_DEFAULT, symbol);
    EXPECT_NE(address, nullptr) << symbol << " is not exported";
    return address;
}

// Mangled names as the framework's objects reference them.
const char* const kSlots[] = {
        "_ZN7adapter16QcomPostProcInfoD1Ev",
        "_ZN7adapter16QcomPostProcInfoD0Ev",
        "_ZN7adapter16QcomPostProcInfo7setNameE"
        "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
        "_ZN7adapter16QcomPostProcInfo11setMediatorESt10shared_ptrIN5kycam9IMediatorEE",
        "_ZNK7adapter16QcomPostProcInfo7getNameB5cxx11Ev",
        "_ZN7adapter16QcomPostProcInfo5cloneEb",
        "_ZN7adapter16QcomPostProcInfo12shallowCloneEb",
        "_ZN7adapter16QcomPostProcInfo18needUpdateToKymetaEv",
        "_ZN7adapter16QcomPostProcInfo18createTuningParamsEv",
        "_ZN7adapter16QcomPostProcInfo17getTuningMetaBufsERN5kycam16TuningParamsBaseE"
        "St8functionIFNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEvEEb",
        "_ZN7adapter16QcomPostProcInfo17setTuningMetaBufsERN5kycam16TuningParamsBaseE",
        "_ZN7adapter16QcomPostProcInfo21destroyTuningMetaBufsEv",
        "_ZN7adapter16QcomPostProcInfo21releaseTuningMetaBufsEb",
        "_ZN7adapter16QcomPostProcInfo20createTuningMetaBufsEv",
        // Not overridden: the interface's own empty defaults, defined by the
        // framework, not by this library.
        "_ZN12PostProcInfo17onPipelineStartedEv",
        "_ZN12PostProcInfo18onPipelineFinishedEv",
};
constexpr size_t kSlotCount = sizeof(kSlots) / sizeof(kSlots[0]);

TEST(VtableSlotsTest, EverySlotHoldsTheFunctionTheFrameworkExpects) {
    adapter::QcomPostProcInfo record;
    void* const* slots = slotsOf(record);
    for (size_t slot = 0; slot < kSlotCount; ++slot) {
        EXPECT_EQ(slots[slot], exported(kSlots[slot])) << "slot " << slot << ": " << kSlots[slot];
    }
}

TEST(VtableSlotsTest, RecordsCarryTheExportedVtableOfSixteenSlotsWithoutTypeInfo) {
    adapter::QcomPostProcInfo record;
    void* const* slots = slotsOf(record);
    void* vtable = exported("_ZTVN7adapter16QcomPostProcInfoE");
    EXPECT_EQ(slots, static_cast<void* const*>(vtable) + 2);
    EXPECT_EQ(slots[-2], nullptr);  // offset to top: the interface is the primary base
    EXPECT_EQ(slots[-1], nullptr);  // built without run-time type information
    Dl_info info{};
    ElfW(Sym)* symbol = nullptr;
    ASSERT_NE(dladdr1(vtable, &info, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT), 0);
    ASSERT_NE(symbol, nullptr);
    EXPECT_EQ(symbol->st_size, (2 + kSlotCount) * sizeof(void*));
}

TEST(VtableSlotsTest, NameSlotsAreCallableAsTheFrameworkCallsThem) {
    // The framework's calls, made through the raw slots: arguments and
    // results pass as the interface declares them.
    adapter::QcomPostProcInfo record;
    void* const* slots = slotsOf(record);
    using SetName = void (*)(PostProcInfo*, std::string);
    using GetName = std::string (*)(const PostProcInfo*);
    using NeedUpdate = bool (*)(PostProcInfo*);
    EXPECT_EQ(reinterpret_cast<GetName>(slots[4])(&record), "QcomPostProcInfo");
    reinterpret_cast<SetName>(slots[2])(&record, "x");
    EXPECT_EQ(record.mName, "x");
    record.mSupportPrivMeta = true;
    EXPECT_TRUE(reinterpret_cast<NeedUpdate>(slots[7])(&record));
}

}  // namespace
