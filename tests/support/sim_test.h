// SPDX-License-Identifier: Apache-2.0
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

// Messages of one sink in order, without the Android sink's prefix.
inline std::vector<std::string> messages(sim::kycam::Sink sink) {
    std::vector<std::string> result;
    for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
        if (line.sink == sink) {
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
