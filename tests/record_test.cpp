// SPDX-License-Identifier: Apache-2.0
// Record lifetime and the log conventions: the instance counter, the
// lifetime lines, and which sink writes under which level, group and mask.
// (The manager's registration at the 0/1 boundaries: stress_test.cpp.)
#include <dlfcn.h>

#include "support/sim_test.h"

using adapter::QcomPostProcInfo;
using namespace testsupport;

namespace {

class RecordTest : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        ASSERT_EQ(QcomPostProcInfo::mSum, 0u);
    }
};

// On a phone that ships the real IQ buffer manager, the suite must still run
// against the simulation's: the manager the library opened is the one this
// program linked.
TEST_F(RecordTest, TheManagerTheLibraryOpenedIsTheSimulations) {
    void* opened = dlopen("libiqdbgmgr.so", RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(opened, nullptr) << "no libiqdbgmgr.so in the process";
    EXPECT_NE(dlsym(opened, "SimIqbmEntryPointCalls"), nullptr)
            << "the library opened another libiqdbgmgr.so than the simulation's (the phone's "
               "own?): the test must find its own first (see docs/target.md)";
    dlclose(opened);
}

TEST_F(RecordTest, LifetimeLinesCountAfterAndBeforeOnBothSinks) {
    sim::kycam::setLogConfig(3, KYA_LOG_GROUP_POSTPROC, 1);
    auto first = std::make_unique<QcomPostProcInfo>();
    auto second = std::make_unique<QcomPostProcInfo>();
    const std::string a = hex(first.get()), b = hex(second.get());
    first.reset();
    second.reset();
    EXPECT_THAT(androidMessages(),
                ElementsAre("Construct QcomPostProcInfo " + a + ", after sum 1",
                            "Construct QcomPostProcInfo " + b + ", after sum 2",
                            "Destruct  QcomPostProcInfo " + a + ", before sum 2",
                            "Destruct  QcomPostProcInfo " + b + ", before sum 1"));
    EXPECT_EQ(messages(sim::kycam::Sink::LogSystem), androidMessages());
    const std::vector<sim::kycam::LogLine> lines = sim::kycam::lines();
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].tag, "KyCamAdapter");
    EXPECT_EQ(lines[1].group, KYA_LOG_GROUP_POSTPROC);
    EXPECT_EQ(lines[1].level, "D");
    EXPECT_EQ(lines[1].fileName, "QcomPostProcInfo.cpp");
    // The whole Android text, byte for byte: the message follows "()".
    EXPECT_EQ(lines[0].text, "KYA_POSTPROC QcomPostProcInfo.cpp:" + std::to_string(lines[1].line) +
                                     " QcomPostProcInfo()Construct QcomPostProcInfo " + a +
                                     ", after sum 1");
    EXPECT_EQ(lines[7].function, "~QcomPostProcInfo");
    EXPECT_EQ(lines[6].text, "KYA_POSTPROC QcomPostProcInfo.cpp:" + std::to_string(lines[7].line) +
                                     " ~QcomPostProcInfo()Destruct  QcomPostProcInfo " + b +
                                     ", before sum 1");
}

TEST_F(RecordTest, InstanceCounterLeavingItsRangeAborts) {
    // The construction itself must stop: nothing is destroyed afterwards.
    EXPECT_DEATH(
            {
                QcomPostProcInfo::mSum = UINT64_MAX;
                new QcomPostProcInfo();
            },
            "");
    auto record = std::make_unique<QcomPostProcInfo>();
    EXPECT_DEATH(
            {
                QcomPostProcInfo::mSum = 0;
                record.reset();
            },
            "");
}

int gEvaluations = 0;

int counted(int value) {
    ++gEvaluations;
    return value;
}

enum Level { D, I, W, E, DV };
void (*const logAt[])(uint32_t) = {
        [](uint32_t group) { KYA_LOGD(group, "value %d", counted(7)); },
        [](uint32_t group) { KYA_LOGI(group, "value %d", counted(7)); },
        [](uint32_t group) { KYA_LOGW(group, "value %d", counted(7)); },
        [](uint32_t group) { KYA_LOGE(group, "value %d", counted(7)); },
        [](uint32_t group) { KYA_LOGD_VERBOSE(group, "value %d", counted(7)); },
};

TEST_F(RecordTest, EachSinkWritesUnderItsOwnConditionsAndEvaluatesOnlyThen) {
    const uint32_t meta = KYA_LOG_GROUP_META;
    const struct {
        Level level;
        int32_t logLevel;
        uint32_t enabledGroups;
        uint32_t mask;
        bool android;
        bool logSystem;
    } cases[] = {
            // Android: level below priority + 1; log system: mask, or Error.
            {D, 3, meta, 1, true, true},
            {D, 4, meta, 1, false, true},
            {D, 3, meta, 0, true, false},
            {I, 4, meta, 0, true, false},
            {I, 5, meta, 1, false, true},
            {W, 5, meta, 0, true, false},
            {W, 6, meta, 1, false, true},
            {E, 6, meta, 0, true, true},
            {E, 7, meta, 0, false, true},
            {E, 6, KYA_LOG_GROUP_POSTPROC, 1, false, false},
            {D, 0, KYA_LOG_GROUP_POSTPROC, 1, false, false},
            // Reference-count traces need a level below 3.
            {DV, 3, meta, 0, false, false},
            {DV, 2, meta, 0, true, false},
            {DV, 3, meta, 1, false, true},
    };
    const int priorities[] = {ANDROID_LOG_DEBUG, ANDROID_LOG_INFO, ANDROID_LOG_WARN,
                              ANDROID_LOG_ERROR, ANDROID_LOG_DEBUG};
    const char* const letters[] = {"D", "I", "W", "E", "D"};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << " logLevel " << c.logLevel
                                        << " groups " << c.enabledGroups << " mask " << c.mask);
        sim::kycam::clearLines();
        gEvaluations = 0;
        sim::kycam::setLogConfig(c.logLevel, c.enabledGroups, c.mask);
        logAt[c.level](meta);
        int written = 0;
        for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
            const bool android = line.sink == sim::kycam::Sink::Android;
            EXPECT_TRUE(android ? c.android : c.logSystem);
            EXPECT_TRUE(android ? line.priority == priorities[c.level] && line.tag == LOG_TAG
                                : line.level == letters[c.level] && line.group == meta);
            // A function object's prefix ends in "operator()()".
            EXPECT_THAT(android ? line.text : " " + line.function + "()" + line.text,
                        ::testing::EndsWith(" operator()()value 7"));
            ++written;
        }
        EXPECT_EQ(written, c.android + c.logSystem);
        // The argument is evaluated once per writing sink, never otherwise.
        EXPECT_EQ(gEvaluations, written);
    }
}

}  // namespace
