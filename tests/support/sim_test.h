// SPDX-License-Identifier: Apache-2.0
// Fixtures over the host simulation: every test starts from empty books, with
// every log line of both sinks captured, and ends with no misuse seen; a
// record's tests also end with no CHI metadata object left alive.
#pragma once

#ifndef LOG_TAG
#define LOG_TAG "KyCamAdapterTest"
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <QcomPostProcInfo.h>
#include <chi/chxmetadata.h>
#include <kydebug/Log.h>

#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/hal.h>
#include <sim/journal.h>
#include <sim/kycam.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The message of an Android line: what follows the prefix "group
// file:line function()". A function object's name is "operator()", so its
// prefix ends in "operator()()".
inline std::string androidMessage(const std::string& text) {
    size_t at = text.find(' ');
    at = at == std::string::npos ? at : text.find(' ', at + 1);
    if (at == std::string::npos) {
        return text;
    }
    const size_t parens = text.compare(at + 1, 10, "operator()") == 0 ? at + 11 : at + 1;
    const size_t end = text.find("()", parens);
    return end == std::string::npos ? text : text.substr(end + 2);
}

// Messages of one sink in order (of one level letter, when given), without
// the Android sink's prefix.
inline std::vector<std::string> messages(sim::kycam::Sink sink, const char* level = nullptr) {
    std::vector<std::string> result;
    for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
        if (line.sink == sink && (level == nullptr || line.level == level)) {
            result.push_back(sink == sim::kycam::Sink::Android ? androidMessage(line.text)
                                                               : line.text);
        }
    }
    return result;
}

inline std::vector<std::string> androidMessages() {
    return messages(sim::kycam::Sink::Android);
}

inline std::string hex(const void* pointer) {
    char text[32];
    snprintf(text, sizeof(text), "%p", pointer);
    return text;
}

// Forgets the calls and log lines so far.
inline void fresh() {
    sim::clearJournal();
    sim::kycam::clearLines();
}

class SimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::chi::reset();
        sim::camera_metadata::reset();
        sim::kycam::resetDebugData();
        sim::kycam::setLogOutput(true, nullptr);
        sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
        fresh();
    }

    void TearDown() override {
        EXPECT_THAT(sim::misuses(), IsEmpty());
        sim::kycam::setLogOutput(false, nullptr);
    }
};

using sim::hal::Result;

inline ChiMetadata* chi(void* meta) {
    return static_cast<ChiMetadata*>(meta);
}

// References taken and given back as the HAL or pipeline would.
inline void ref(void* meta) {
    chi(meta)->AddReference(nullptr);
}
inline void unref(void* meta) {
    chi(meta)->ReleaseReference(nullptr);
}
inline uint32_t refs(void* meta) {
    return sim::chi::refCount(meta);
}

// How a meta was made and used: "type camera" context flags from its
// creation, then the arguments of every copy into it and translation of it.
inline std::vector<std::string> made(void* meta) {
    sim::chi::MetaState state;
    if (!sim::chi::state(meta, &state)) {
        return {"unknown"};
    }
    std::vector<std::string> result = {std::to_string(state.args.isMultiTypeContextMeta) + " " +
                                       std::to_string(state.args.isMultiCameraContextMeta)};
    result.insert(result.end(), state.arguments.begin(), state.arguments.end());
    return result;
}

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
                chi(meta)->Destroy(true);
            }
        }
        EXPECT_EQ(sim::chi::totals().alive, 0u) << "CHI metadata left alive";
        SimTest::TearDown();
    }

    void request(std::set<std::string> ids, bool logical,
                 adapter::PostProcInfoMetaAttributes attributes = {}) {
        record->createPrivResultMeta(ids, logical, attributes);
    }

    // An object the HAL made itself and names in a capture result.
    void* hal() {
        halMetas.push_back(sim::hal::newMeta());
        return halMetas.back();
    }

    void* phy(int cameraId) { return record->mPrivPhyResultMap.at(cameraId); }
    std::vector<int> keys() const {
        std::vector<int> result;
        for (const auto& entry : record->mPrivPhyResultMap) {
            result.push_back(entry.first);
        }
        return result;
    }
    // The start of the record's own lines.
    std::string r() const { return "PostProcsInfo " + hex(record.get()); }

    std::unique_ptr<adapter::QcomPostProcInfo> record;
    std::vector<void*> halMetas;
};

}  // namespace testsupport
