// SPDX-License-Identifier: Apache-2.0
#include <log/log_read.h>
#include <log/logprint.h>
#include <sim/logcat.h>
#include <stdlib.h>

#include <sstream>

namespace sim {
namespace logcat {

namespace {

constexpr uid_t kCameraServerUid = 1047;

AndroidLogEntry entryOf(const kycam::LogLine& line, size_t index) {
    AndroidLogEntry entry = {};
    entry.tv_sec = 1700000000 + static_cast<time_t>(index / 1000);
    entry.tv_nsec = static_cast<long>(index % 1000) * 1000000;
    entry.priority = static_cast<android_LogPriority>(line.priority);
    entry.uid = kCameraServerUid;
    entry.pid = line.pid;
    entry.tid = line.tid;
    entry.tag = line.tag.c_str();
    entry.tagLen = line.tag.size();
    entry.message = line.text.c_str();
    entry.messageLen = line.text.size();
    return entry;
}

// A version 4 logger_entry header, then priority, tag and message.
std::string binary(const std::vector<kycam::LogLine>& lines) {
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
        header.uid = kCameraServerUid;
        bytes.append(reinterpret_cast<const char*>(&header), sizeof(header));
        bytes += payload;
    }
    return bytes;
}

}  // namespace

std::vector<kycam::LogLine> androidLines(int32_t pid) {
    std::vector<kycam::LogLine> lines;
    for (kycam::LogLine line : kycam::lines()) {
        if (line.sink == kycam::Sink::Android) {
            line.pid = pid;
            lines.push_back(std::move(line));
        }
    }
    return lines;
}

std::string write(const std::vector<kycam::LogLine>& lines, const std::string& format) {
    if (format == "binary") {
        return binary(lines);
    }
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

}  // namespace logcat
}  // namespace sim
