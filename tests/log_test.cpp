// SPDX-License-Identifier: Apache-2.0
// The log conventions: which sink writes under which level, group and mask,
// the prefix, and arguments evaluated once per writing sink only.
#define LOG_TAG "KyCamAdapter"

#include <kydebug/Log.h>

#include "support/sim_test.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

int gEvaluations = 0;

int counted(int value) {
    ++gEvaluations;
    return value;
}

enum Level { D, I, W, E, DV };

void logAt(Level level, uint32_t group) {
    switch (level) {
        case D:
            KYA_LOGD(group, "value %d", counted(7));
            break;
        case I:
            KYA_LOGI(group, "value %d", counted(7));
            break;
        case W:
            KYA_LOGW(group, "value %d", counted(7));
            break;
        case E:
            KYA_LOGE(group, "value %d", counted(7));
            break;
        case DV:
            KYA_LOGD_VERBOSE(group, "value %d", counted(7));
            break;
    }
}

class LogTest : public testsupport::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        gEvaluations = 0;
    }
};

struct SinkCase {
    Level level;
    int32_t logLevel;
    uint32_t enabledGroups;
    uint32_t mask;
    bool android;
    bool logSystem;
};

TEST_F(LogTest, EachSinkWritesUnderItsOwnConditions) {
    const uint32_t meta = KYA_LOG_GROUP_META;
    const SinkCase cases[] = {
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
    for (const SinkCase& c : cases) {
        SCOPED_TRACE(testing::Message() << "level " << c.level << " logLevel " << c.logLevel
                                        << " groups " << c.enabledGroups << " mask " << c.mask);
        sim::kycam::clearLines();
        gEvaluations = 0;
        sim::kycam::setLogConfig(c.logLevel, c.enabledGroups, c.mask);
        logAt(c.level, meta);
        const size_t android = testsupport::messages(sim::kycam::Sink::Android).size();
        const size_t logSystem = testsupport::messages(sim::kycam::Sink::LogSystem).size();
        EXPECT_EQ(android, c.android ? 1u : 0u);
        EXPECT_EQ(logSystem, c.logSystem ? 1u : 0u);
        // The argument is evaluated once per writing sink, never otherwise.
        EXPECT_EQ(gEvaluations, static_cast<int>(android + logSystem));
    }
}

TEST_F(LogTest, PriorityAndLetterMatchTheLevel) {
    const struct {
        Level level;
        int priority;
        const char* letter;
    } cases[] = {{D, ANDROID_LOG_DEBUG, "D"},
                 {I, ANDROID_LOG_INFO, "I"},
                 {W, ANDROID_LOG_WARN, "W"},
                 {E, ANDROID_LOG_ERROR, "E"},
                 {DV, ANDROID_LOG_DEBUG, "D"}};
    for (const auto& c : cases) {
        sim::kycam::clearLines();
        logAt(c.level, KYA_LOG_GROUP_META);
        const std::vector<sim::kycam::LogLine> lines = sim::kycam::lines();
        ASSERT_EQ(lines.size(), 2u);
        EXPECT_EQ(lines[0].priority, c.priority);
        EXPECT_EQ(lines[0].tag, "KyCamAdapter");
        EXPECT_EQ(lines[1].level, c.letter);
        EXPECT_EQ(lines[1].group, KYA_LOG_GROUP_META);
    }
}

TEST_F(LogTest, AndroidLineCarriesGroupFileLineAndFunction) {
    const int line = __LINE__ + 1;
    KYA_LOGI(KYA_LOG_GROUP_META, "hello %s %d", "world", 3);
    const std::vector<sim::kycam::LogLine> lines = sim::kycam::lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text,
              "KYA_META log_test.cpp:" + std::to_string(line) + " TestBody()hello world 3");
    EXPECT_EQ(lines[1].text, "hello world 3");
    EXPECT_EQ(lines[1].fileName, "log_test.cpp");
    EXPECT_EQ(lines[1].function, "TestBody");
    EXPECT_EQ(lines[1].line, line);
}

TEST_F(LogTest, LocalFunctionObjectsReportOperatorCall) {
    auto local = [] { KYA_LOGW(KYA_LOG_GROUP_META, "inside"); };
    local();
    const std::vector<sim::kycam::LogLine> lines = sim::kycam::lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[0].text, ::testing::EndsWith(" operator()()inside"));
    EXPECT_EQ(testsupport::androidMessage(lines[0].text), "inside");
    EXPECT_EQ(lines[1].function, "operator()");
}

}  // namespace
