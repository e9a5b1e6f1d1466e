// SPDX-License-Identifier: Apache-2.0
// Record lifetime: the instance counter, the IQ buffer manager registration
// at the 0/1 boundaries, the lifetime log lines and the trivial operations.
#include <QcomPostProcInfo.h>
#include <cutils/properties.h>
#include <sim/iqbm.h>

#include <memory>

#include "support/sim_test.h"

using adapter::QcomPostProcInfo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testsupport::hex;

namespace {

class RecordTest : public testsupport::SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        sim::iqbm::clearBuffers();
        ASSERT_EQ(QcomPostProcInfo::mSum, 0u);
        ASSERT_FALSE(sim::iqbm::counters().registered);
    }
};

TEST_F(RecordTest, PropertyAtItsDefaultEnablesTheManager) {
    EXPECT_EQ(property_get_int32("persist.vendor.camera.enableIQBM", 1), 1);
    QcomPostProcInfo record;
    EXPECT_TRUE(record.mEnableIQBM);
}

TEST_F(RecordTest, RegistersAtFirstRecordAndUnregistersAtLast) {
    auto first = std::make_unique<QcomPostProcInfo>();
    EXPECT_THAT(sim::iqbm::events(), ElementsAre("register:KYHAL"));
    auto second = std::make_unique<QcomPostProcInfo>();
    EXPECT_EQ(QcomPostProcInfo::mSum, 2u);
    EXPECT_THAT(sim::iqbm::events(), ElementsAre("register:KYHAL"));
    first.reset();
    EXPECT_THAT(sim::iqbm::events(), ElementsAre("register:KYHAL"));
    EXPECT_TRUE(sim::iqbm::counters().registered);
    second.reset();
    EXPECT_THAT(sim::iqbm::events(), ElementsAre("register:KYHAL", "unregister:KYHAL"));
    EXPECT_EQ(QcomPostProcInfo::mSum, 0u);
}

TEST_F(RecordTest, RecordsOneAfterAnotherRegisterEachTime) {
    for (int i = 0; i < 3; ++i) {
        QcomPostProcInfo record;
    }
    EXPECT_THAT(sim::iqbm::events(),
                ElementsAre("register:KYHAL", "unregister:KYHAL", "register:KYHAL",
                            "unregister:KYHAL", "register:KYHAL", "unregister:KYHAL"));
}

TEST_F(RecordTest, ConstructAndDestructLogTheCountAfterAndBefore) {
    sim::kycam::setLogConfig(3, KYA_LOG_GROUP_POSTPROC, 1);
    auto first = std::make_unique<QcomPostProcInfo>();
    auto second = std::make_unique<QcomPostProcInfo>();
    const void* firstAddress = first.get();
    const void* secondAddress = second.get();
    first.reset();
    second.reset();
    EXPECT_THAT(testsupport::androidMessages(),
                ElementsAre("Construct QcomPostProcInfo " + hex(firstAddress) + ", after sum 1",
                            "Construct QcomPostProcInfo " + hex(secondAddress) + ", after sum 2",
                            "Destruct  QcomPostProcInfo " + hex(firstAddress) + ", before sum 2",
                            "Destruct  QcomPostProcInfo " + hex(secondAddress) + ", before sum 1"));
    EXPECT_EQ(testsupport::messages(sim::kycam::Sink::LogSystem), testsupport::androidMessages());
}

TEST_F(RecordTest, LifetimeLinesCarryTheirPrefixOnBothSinks) {
    sim::kycam::setLogConfig(3, KYA_LOG_GROUP_POSTPROC, 1);
    std::string address;
    {
        QcomPostProcInfo record;
        address = hex(&record);
    }
    const std::vector<sim::kycam::LogLine> lines = sim::kycam::lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].sink, sim::kycam::Sink::Android);
    EXPECT_EQ(lines[0].priority, ANDROID_LOG_DEBUG);
    EXPECT_EQ(lines[0].tag, "KyCamAdapter");
    EXPECT_EQ(lines[1].sink, sim::kycam::Sink::LogSystem);
    EXPECT_EQ(lines[1].group, KYA_LOG_GROUP_POSTPROC);
    EXPECT_EQ(lines[1].level, "D");
    EXPECT_EQ(lines[1].fileName, "QcomPostProcInfo.cpp");
    EXPECT_EQ(lines[1].function, "QcomPostProcInfo");
    EXPECT_EQ(lines[1].text, "Construct QcomPostProcInfo " + address + ", after sum 1");
    // The whole Android text, byte for byte: the message follows "()".
    EXPECT_EQ(lines[0].text, "KYA_POSTPROC QcomPostProcInfo.cpp:" + std::to_string(lines[1].line) +
                                     " QcomPostProcInfo()Construct QcomPostProcInfo " + address +
                                     ", after sum 1");
    EXPECT_EQ(lines[2].text, "KYA_POSTPROC QcomPostProcInfo.cpp:" + std::to_string(lines[3].line) +
                                     " ~QcomPostProcInfo()Destruct  QcomPostProcInfo " + address +
                                     ", before sum 1");
    EXPECT_EQ(lines[3].function, "~QcomPostProcInfo");
}

TEST_F(RecordTest, NameStartsAsTheClassNameAndCanBeSet) {
    QcomPostProcInfo record;
    EXPECT_EQ(record.getName(), "QcomPostProcInfo");
    record.setName("x");
    EXPECT_EQ(record.getName(), "x");
    EXPECT_EQ(record.mName, "x");
}

TEST_F(RecordTest, MediatorIsNotKept) {
    class Mediator : public kycam::IMediator {};
    auto mediator = std::make_shared<Mediator>();
    QcomPostProcInfo record;
    sim::kycam::clearLines();
    record.setMediator(mediator);
    EXPECT_EQ(mediator.use_count(), 1);
    EXPECT_THAT(sim::kycam::lines(), IsEmpty());
}

using RecordDeathTest = RecordTest;

TEST_F(RecordDeathTest, InstanceCounterOverflowAborts) {
    EXPECT_DEATH(
            {
                QcomPostProcInfo::mSum = UINT64_MAX;
                QcomPostProcInfo record;
            },
            "");
}

TEST_F(RecordDeathTest, InstanceCounterUnderflowAborts) {
    auto record = std::make_unique<QcomPostProcInfo>();
    EXPECT_DEATH(
            {
                QcomPostProcInfo::mSum = 0;
                record.reset();
            },
            "");
}

}  // namespace
