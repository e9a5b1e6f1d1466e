// SPDX-License-Identifier: Apache-2.0
// Framing of `logcat -B`: each entry is a logger_entry header followed by its
// payload; liblog decodes the payload.
#include <string.h>

#include "input.h"

#ifndef LOGCHECK_NO_LIBLOG
#include <log/log_read.h>
#include <log/logprint.h>
#endif

namespace logcheck {

namespace {

// The header sizes liblog accepts: from the first version's 20 bytes to the
// current one with the uid.
constexpr size_t kHeaderMin = 20;
constexpr size_t kHeaderMax = 28;
constexpr size_t kPayloadMax = 5 * 1024;

uint16_t field16(std::string_view bytes, size_t at) {
    return static_cast<uint16_t>(static_cast<uint8_t>(bytes[at]) |
                                 static_cast<uint8_t>(bytes[at + 1]) << 8);
}

// A plausible entry at the start of bytes: sizes in range and a payload that
// begins with a priority and holds the tag's terminator.
size_t entrySize(std::string_view bytes) {
    if (bytes.size() < 4) {
        return 0;
    }
    const size_t payload = field16(bytes, 0);
    const size_t header = field16(bytes, 2) == 0 ? kHeaderMin : field16(bytes, 2);
    if (header < kHeaderMin || header > kHeaderMax || payload < 3 || payload > kPayloadMax) {
        return 0;
    }
    return header + payload;
}

}  // namespace

bool BinaryReader::available() {
#ifdef LOGCHECK_NO_LIBLOG
    return false;
#else
    return true;
#endif
}

BinaryReader::Result BinaryReader::next(Entry* entry) {
    std::string_view head = mBytes.peek(4);
    if (head.empty()) {
        return Result::End;
    }
    ++mNumber;
    size_t size = entrySize(head);
    std::string_view bytes = size != 0 ? mBytes.peek(size) : std::string_view();
    if (size == 0 || bytes.size() < size) {
        // Out of step or cut short: move on by one byte until an entry fits.
        mBytes.consume(1);
        while (!(head = mBytes.peek(4)).empty()) {
            size = entrySize(head);
            if (size != 0 && mBytes.peek(size).size() == size) {
                break;
            }
            mBytes.consume(1);
        }
        return Result::Skipped;
    }
    // liblog writes terminators into the payload, and reads header fields in
    // place: a copy that is aligned and writable.
    const size_t payload = size - field16(bytes, 0);
    mEntry.assign(bytes.begin(), bytes.end());
    mEntry.resize(size + kHeaderMax + 1, '\0');
    mBytes.consume(size);
#ifdef LOGCHECK_NO_LIBLOG
    (void)entry;
    (void)payload;
    return Result::Skipped;
#else
    AndroidLogEntry decoded = {};
    if (android_log_processLogBuffer(reinterpret_cast<logger_entry*>(mEntry.data()), &decoded) !=
        0) {
        return Result::Skipped;
    }
    entry->line = mNumber;
    entry->pid = decoded.pid;
    entry->tid = decoded.tid;
    // The payload's first byte, read as a byte: liblog hands it on as an enum
    // whatever its value.
    const uint8_t priority = static_cast<uint8_t>(mEntry[payload]);
    entry->priority = priority < 8 ? "??VDIWEF"[priority] : '?';
    entry->tag = std::string_view(decoded.tag, strnlen(decoded.tag, decoded.tagLen));
    entry->message = std::string_view(decoded.message, decoded.messageLen);
    return Result::Entry;
#endif
}

}  // namespace logcheck
