// SPDX-License-Identifier: Apache-2.0
// The library's captured Android lines written as logcat writes them:
// liblog's own formatter for the -v formats, logger entries for -B; and run
// back through the log checker.
#pragma once

#include <log/log_read.h>
#include <log/logprint.h>
#include <logcheck.h>
#include <sim/kycam.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

// The captured Android lines, as process pid wrote them.
inline std::vector<sim::kycam::LogLine> androidLines(int32_t pid = 1234) {
    std::vector<sim::kycam::LogLine> lines;
    for (sim::kycam::LogLine line : sim::kycam::lines()) {
        if (line.sink == sim::kycam::Sink::Android) {
            line.pid = pid;
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

inline AndroidLogEntry entryOf(const sim::kycam::LogLine& line, size_t index) {
    AndroidLogEntry entry = {};
    entry.tv_sec = 1700000000 + static_cast<time_t>(index / 1000);
    entry.tv_nsec = static_cast<long>(index % 1000) * 1000000;
    entry.priority = static_cast<android_LogPriority>(line.priority);
    entry.uid = 1047;
    entry.pid = line.pid;
    entry.tid = line.tid;
    entry.tag = line.tag.c_str();
    entry.tagLen = line.tag.size();
    entry.message = line.text.c_str();
    entry.messageLen = line.text.size();
    return entry;
}

// format: logcat's -v words, "threadtime" or "long,uid,usec".
inline std::string logcat(const std::vector<sim::kycam::LogLine>& lines,
                          const std::string& format) {
    AndroidLogFormat* printFormat = android_log_format_new();
    std::istringstream words(format);
    for (std::string word; std::getline(words, word, ',');) {
        android_log_setPrintFormat(printFormat, android_log_formatFromString(word.c_str()));
    }
    std::string text;
    for (size_t i = 0; i < lines.size(); ++i) {
        const AndroidLogEntry entry = entryOf(lines[i], i);
        char buffer[1024];
        size_t length = 0;
        char* line =
                android_log_formatLogLine(printFormat, buffer, sizeof(buffer), &entry, &length);
        text.append(line, length);
        if (line != buffer) {
            free(line);
        }
    }
    android_log_format_free(printFormat);
    return text;
}

// logcat -B: a version 4 logger_entry header, then priority, tag and message.
inline std::string logcatBinary(const std::vector<sim::kycam::LogLine>& lines) {
    std::string bytes;
    for (size_t i = 0; i < lines.size(); ++i) {
        const AndroidLogEntry entry = entryOf(lines[i], i);
        std::string payload(1, static_cast<char>(entry.priority));
        payload += lines[i].tag + '\0' + lines[i].text + '\0';
        logger_entry header = {};
        header.len = static_cast<uint16_t>(payload.size());
        header.hdr_size = sizeof(header);
        header.pid = entry.pid;
        header.tid = static_cast<uint32_t>(entry.tid);
        header.sec = static_cast<uint32_t>(entry.tv_sec);
        header.nsec = static_cast<uint32_t>(entry.tv_nsec);
        header.uid = 1047;
        bytes.append(reinterpret_cast<const char*>(&header), sizeof(header));
        bytes += payload;
    }
    return bytes;
}

struct Checked {
    std::vector<logcheck::Finding> findings;
    logcheck::Totals totals;
    std::vector<logcheck::Process> processes;
    logcheck::InputStats stats;
    logcheck::Seen seen;
};

// The log through the checker, from a file as the tool reads it.
inline Checked check(const std::string& log, logcheck::Format format = logcheck::Format::Auto) {
    FILE* file = tmpfile();
    fwrite(log.data(), 1, log.size(), file);
    fflush(file);
    lseek(fileno(file), 0, SEEK_SET);
    logcheck::Checker checker;
    Checked checked;
    int error = 0;
    const volatile sig_atomic_t stop = 0;
    logcheck::readLog(fileno(file), format, checker, checked.stats, &error, &stop);
    fclose(file);
    checker.finish();
    checked.processes = checker.processes();
    checked.seen = checker.seen();
    for (const logcheck::Process& process : checked.processes) {
        checked.totals += process.totals;
        checked.findings.insert(checked.findings.end(), process.findings.begin(),
                                process.findings.end());
    }
    return checked;
}

}  // namespace testsupport
