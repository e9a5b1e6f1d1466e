// SPDX-License-Identifier: Apache-2.0
// Ledger of the simulated host framework: its log facility (both sinks
// captured) and its debug data reference counters.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <string>
#include <vector>

namespace sim {
namespace kycam {

enum class Sink { Android, LogSystem };

struct LogLine {
    Sink sink;
    int priority;          // Android priority (3 Debug ... 6 Error)
    std::string tag;       // Android sink only
    uint32_t group;        // log system only
    std::string level;     // log system only: "D", "I", "W", "E"
    std::string fileName;  // log system only
    std::string function;  // log system only
    int line;              // log system only
    std::string text;      // the formatted message (with its prefix on the Android sink)
    int pid;               // the process and thread that wrote it
    int tid;
};

// Sets gKyCamLogLevel, gKyCamLogGroup and gKyCamDebugMask.
void setLogConfig(int32_t level, uint32_t group, uint32_t debugMask);
// Where written lines go: capture keeps them for lines(), echo prints them
// (null for none; the log system's lines only with echoLogSystem). With both
// off a line is still formatted, then dropped.
void setLogOutput(bool capture, FILE* echo, bool echoLogSystem = true);
std::vector<LogLine> lines();
// Texts of the captured lines of one sink, in order.
std::vector<std::string> texts(Sink sink);
void clearLines();

// Reference count that the framework keeps for a debug buffer (by pData).
int debugDataRefCount(const void* buffer);
// A buffer the pipeline already holds references on.
void setDebugDataRefCount(const void* buffer, int count);
// Counter values and the ledger of counted buffers back to empty.
void resetDebugData();

}  // namespace kycam
}  // namespace sim
