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

}  // namespace logcat
}  // namespace sim
