// SPDX-License-Identifier: Apache-2.0
// The simulated process's Android log as logcat writes it, for
// postproc-logcheck: liblog's own formatter for the -v formats, version 4
// logger entries for -B.
#pragma once

#include <stdint.h>

#include <sim/kycam.h>

#include <string>
#include <vector>

namespace sim {
namespace logcat {

// The captured Android lines, as process pid wrote them.
std::vector<kycam::LogLine> androidLines(int32_t pid = 1234);

// format: logcat's -v words joined by commas ("threadtime", "long,uid,usec"),
// or "binary" for -B. Line i is stamped i milliseconds after a fixed time.
std::string write(const std::vector<kycam::LogLine>& lines,
                  const std::string& format = "threadtime");

// What a phone's log holds besides the library's lines.
struct Phone {
    uint64_t seed = 0;
    std::string format = "threadtime";
    int noise = 0;                 // other lines per library line, at most
    bool chatty = false;           // logd folds repeats of the provider's other tags
    bool carriageReturns = false;  // saved on Windows
};

// The lines among other processes' and other tags' (the provider's own
// threads included), a line longer than 64 KiB, bytes that are not UTF-8,
// another process's crash, logd's chatty lines, written as logcat would.
std::string phoneLog(const std::vector<kycam::LogLine>& lines, const Phone& phone);

}  // namespace logcat
}  // namespace sim
