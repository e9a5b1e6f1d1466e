// SPDX-License-Identifier: Apache-2.0
#include <log/log_read.h>
#include <log/logprint.h>
#include <sim/logcat.h>
#include <stdlib.h>

#include <random>
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

std::string phoneLog(const std::vector<kycam::LogLine>& lines, const Phone& phone) {
    std::mt19937_64 rng(phone.seed);
    auto roll = [&rng](int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); };
    auto line = [](int pid, int tid, int priority, const char* tag, std::string text) {
        return kycam::LogLine{kycam::Sink::Android, priority, tag, 0, "", "", "", 0,
                              std::move(text),      pid,      tid};
    };
    std::vector<kycam::LogLine> all;
    for (const kycam::LogLine& library : lines) {
        for (int i = phone.noise > 0 ? roll(phone.noise + 1) : 0; i > 0; --i) {
            switch (roll(6)) {
                case 0:
                    all.push_back(line(1100, 1187, 4, "CameraService",
                                       "frame " + std::to_string(rng() % 100000) + " delivered"));
                    break;
                case 1:
                    // The provider's own threads log under other tags.
                    all.push_back(
                            line(library.pid, library.tid, 3, "CamX",
                                 "[ REQMAP ] request " + std::to_string(rng() % 9) + " queued"));
                    if (phone.chatty && roll(3) == 0) {
                        all.push_back(line(library.pid, library.tid, 4, "chatty",
                                           "uid=1047(cameraserver) provider@2.4-se identical " +
                                                   std::to_string(1 + roll(20)) + " lines"));
                    }
                    break;
                case 2:
                    all.push_back(line(1300, 1300, 3, "DEBUG",
                                       "onServiceConnected pid: " + std::to_string(library.pid)));
                    break;
                case 3: {
                    std::string bytes = "bad bytes ";  // not UTF-8
                    bytes += {static_cast<char>(0xff), static_cast<char>(0xc3), '('};
                    all.push_back(line(1400, 1401, 5, "AudioFlinger", bytes));
                    break;
                }
                case 4:
                    if (roll(200) == 0) {
                        // A dumpsys line longer than logcat's own reader buffers.
                        all.push_back(line(1500, 1500, 4, "dumpsys", std::string(70000, 'x')));
                    }
                    break;
                default:
                    if (roll(50) == 0) {
                        all.push_back(line(1600, 1601, 7, "libc",
                                           "Fatal signal 11 (SIGSEGV), code 1 (SEGV_MAPERR), "
                                           "fault addr 0x0 in tid 1601 (worker), pid 1600 (app)"));
                    }
                    break;
            }
        }
        all.push_back(library);
    }
    std::string text = write(all, phone.format);
    if (phone.carriageReturns) {
        std::string crlf;
        crlf.reserve(text.size() + all.size());
        for (char c : text) {
            crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
        }
        text = std::move(crlf);
    }
    return text;
}

}  // namespace logcat
}  // namespace sim
