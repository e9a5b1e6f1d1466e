// Test fixture over the host simulation: every test starts from empty books,
// with every log line of both sinks captured, and ends with no misuse seen.
#pragma once

#ifndef LOG_TAG
#define LOG_TAG "KyCamAdapterTest"
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <kydebug/Log.h>

#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/journal.h>
#include <sim/kycam.h>

#include <string>
#include <vector>

namespace testsupport {

// Messages of one sink in order; the Android sink's prefix ("group file:line
// function() ") is cut off.
inline std::vector<std::string> messages(sim::kycam::Sink sink) {
    std::vector<std::string> result;
    for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
        if (line.sink != sink) {
            continue;
        }
        if (sink == sim::kycam::Sink::Android) {
            size_t end = line.text.find("() ");
            result.push_back(end == std::string::npos ? line.text : line.text.substr(end + 3));
        } else {
            result.push_back(line.text);
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

class SimTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::chi::reset();
        sim::camera_metadata::reset();
        sim::kycam::resetDebugData();
        sim::clearJournal();
        sim::kycam::setLogOutput(true, nullptr);
        sim::kycam::clearLines();
        sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
    }

    void TearDown() override {
        EXPECT_THAT(sim::misuses(), ::testing::IsEmpty());
        sim::kycam::setLogOutput(false, nullptr);
    }
};

}  // namespace testsupport
