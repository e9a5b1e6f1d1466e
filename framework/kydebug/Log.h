// SPDX-License-Identifier: Apache-2.0
// Log facility of the host camera framework (kydebug).
//
// Every adapter log line has an Android priority, a group bit and a message,
// and goes to up to two sinks:
//  - the Android log (__android_log_print, tag LOG_TAG) when the framework's
//    level lets the priority through and the group bit is set;
//  - the framework's own log system (kydebug::Log::logSystem) when the group
//    bit is set and, below Error, the debug mask is non-zero.
// The sinks are tested one after the other and each one evaluates the
// arguments only when it writes, so a disabled line costs two loads and two
// compares and formats nothing.
#pragma once

#include <stdint.h>

#include <log/log.h>

#ifndef LOG_TAG
#error "define LOG_TAG before including kydebug/Log.h"
#endif

namespace kydebug {

class Log {
  public:
    // Writes one formatted line to the framework's log system. level is one
    // of "D", "I", "W", "E".
    static void logSystem(uint32_t group, const char* level, const char* fileName,
                          const char* function, int line, const char* format, ...)
            __attribute__((format(printf, 6, 7)));

    // Base name of a source path (the part after the last '/').
    static const char* getFileName(const char* path);

    // Printable name of one group bit.
    static const char* kyaGroupToString(uint32_t group);
};

}  // namespace kydebug

// Owned by the framework's log facility; set by its configuration.
extern int32_t gKyCamLogLevel;
extern uint32_t gKyCamLogGroup;
extern uint32_t gKyCamDebugMask;

// Group bits used by the adapter.
#define KYA_LOG_GROUP_META 64u       // metadata, private results, tuning, clones
#define KYA_LOG_GROUP_POSTPROC 128u  // record lifetime and debug data references

// A priority p is written to the Android log when gKyCamLogLevel < p + 1.
#define KYA_ANDROID_SINK_ON(threshold, group) \
    (gKyCamLogLevel < (threshold) && (gKyCamLogGroup & (group)) != 0)
// Error lines reach the log system whenever their group is on; the others
// also need the debug mask.
#define KYA_SYSTEM_SINK_ON(prio, group) \
    ((gKyCamLogGroup & (group)) != 0 && ((prio) >= ANDROID_LOG_ERROR || gKyCamDebugMask != 0))

// One format per writing sink: the prefix is pasted into the message format
// so that __android_log_print formats both in a single pass. The message
// follows "()" directly, as the framework's own lines do. function is the
// name printed in the prefix; the level macros below pass __func__.
#define KYA_LOG_WHERE(prio, threshold, letter, group, function, fmt, ...)                         \
    do {                                                                                          \
        if (KYA_ANDROID_SINK_ON(threshold, group)) {                                              \
            __android_log_print(                                                                  \
                    prio, LOG_TAG, "%s %s:%d %s()" fmt, kydebug::Log::kyaGroupToString(group),    \
                    kydebug::Log::getFileName(__FILE__), __LINE__, function, ##__VA_ARGS__);      \
        }                                                                                         \
        if (KYA_SYSTEM_SINK_ON(prio, group)) {                                                    \
            kydebug::Log::logSystem(group, letter, kydebug::Log::getFileName(__FILE__), function, \
                                    __LINE__, fmt, ##__VA_ARGS__);                                \
        }                                                                                         \
    } while (0)

#define KYA_LOGD_IN(function, group, fmt, ...)                                         \
    KYA_LOG_WHERE(ANDROID_LOG_DEBUG, ANDROID_LOG_DEBUG + 1, "D", group, function, fmt, \
                  ##__VA_ARGS__)
#define KYA_LOGI_IN(function, group, fmt, ...) \
    KYA_LOG_WHERE(ANDROID_LOG_INFO, ANDROID_LOG_INFO + 1, "I", group, function, fmt, ##__VA_ARGS__)
#define KYA_LOGW_IN(function, group, fmt, ...) \
    KYA_LOG_WHERE(ANDROID_LOG_WARN, ANDROID_LOG_WARN + 1, "W", group, function, fmt, ##__VA_ARGS__)
#define KYA_LOGE_IN(function, group, fmt, ...)                                         \
    KYA_LOG_WHERE(ANDROID_LOG_ERROR, ANDROID_LOG_ERROR + 1, "E", group, function, fmt, \
                  ##__VA_ARGS__)

#define KYA_LOGD(group, fmt, ...) KYA_LOGD_IN(__func__, group, fmt, ##__VA_ARGS__)
#define KYA_LOGI(group, fmt, ...) KYA_LOGI_IN(__func__, group, fmt, ##__VA_ARGS__)
#define KYA_LOGW(group, fmt, ...) KYA_LOGW_IN(__func__, group, fmt, ##__VA_ARGS__)
#define KYA_LOGE(group, fmt, ...) KYA_LOGE_IN(__func__, group, fmt, ##__VA_ARGS__)
// Debug priority, but reaching the Android log only at the verbose level
// (gKyCamLogLevel below 3): reference-count traces of the result path.
#define KYA_LOGD_VERBOSE(group, fmt, ...) \
    KYA_LOG_WHERE(ANDROID_LOG_DEBUG, ANDROID_LOG_DEBUG, "D", group, __func__, fmt, ##__VA_ARGS__)
