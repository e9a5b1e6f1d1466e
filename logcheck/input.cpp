// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "logcheck.h"

#ifndef LOGCHECK_NO_LIBLOG
#include <log/log_read.h>
#include <log/logprint.h>
#endif

namespace logcheck {

namespace {

bool isPriority(char c) {
    return c != '\0' && strchr("VDIWEFA", c) != nullptr;
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A decimal number at *pos, after blanks.
bool number(std::string_view text, size_t* pos, int32_t* out) {
    size_t i = text.find_first_not_of(' ', *pos);
    int64_t value = 0;
    const size_t start = i = std::min(i, text.size());
    for (; i < text.size() && isDigit(text[i]) && i - start < 10; ++i) {
        value = value * 10 + (text[i] - '0');
    }
    if (i == start || value > INT32_MAX) {
        return false;
    }
    *pos = i;
    *out = static_cast<int32_t>(value);
    return true;
}

// Past the time stamp in front of the numbers ("MM-DD hh:mm:ss.f", with a
// year, or epoch or monotonic seconds) and a zone ("+0000", "UTC").
size_t skipTime(std::string_view line) {
    size_t pos = line.find_first_not_of(' ');
    size_t end = line.find(' ', pos);
    if (pos == std::string_view::npos || end == std::string_view::npos) {
        return std::string_view::npos;
    }
    const std::string_view date = line.substr(pos, end - pos);
    if (date.find('-') != std::string_view::npos) {
        pos = end + 1;
        end = line.find(' ', pos);
        if (end == std::string_view::npos ||
            line.substr(pos, end - pos).find(':') == std::string_view::npos) {
            return std::string_view::npos;
        }
    } else if (date.find('.') == std::string_view::npos) {
        return std::string_view::npos;
    }
    const char zone = end + 2 < line.size() ? line[end + 1] : ' ';
    const bool letters = zone >= 'A' && zone <= 'Z' && line[end + 2] >= 'A' && line[end + 2] <= 'Z';
    if (zone == '+' || (zone == '-' && isDigit(line[end + 2])) || letters) {
        end = line.find(' ', end + 1);
    }
    return end;
}

// "<time> [zone] [uid] <pid> <tid> <P> <tag>: <message>": the last two
// numbers before the priority letter are pid and tid.
bool parseThreadtime(std::string_view line, Entry* entry) {
    size_t pos = skipTime(line);
    int32_t numbers[3] = {};
    int count = 0;
    while (pos < line.size()) {
        pos = line.find_first_not_of(' ', pos);
        if (pos == std::string_view::npos) {
            return false;  // blanks to the end
        }
        if (pos + 1 < line.size() && isPriority(line[pos]) && line[pos + 1] == ' ' && count >= 2) {
            entry->pid = numbers[count - 2];
            entry->tid = numbers[count - 1];
            entry->priority = line[pos];
            const size_t colon = line.find(": ", pos + 2);
            const size_t end = line.find_last_not_of(' ', colon - 1);
            if (colon == std::string_view::npos || end < pos + 2) {
                return false;
            }
            entry->tag = line.substr(pos + 2, end - pos - 1);
            entry->message = line.substr(colon + 2);
            return true;
        }
        const size_t end = line.find(' ', pos);
        size_t at = pos;
        int32_t value = 0;
        if (end == std::string_view::npos || count == 3) {
            return false;
        }
        if (number(line, &at, &value) && at == end) {
            numbers[count++] = value;
        } else if (count != 0) {
            return false;  // a uid may be a name, and comes first
        }
        pos = end;
    }
    return false;
}

// brief "<P>/<tag>(<pid>): <message>", time the same after a time stamp;
// with -v uid the parentheses hold "<uid>:<pid>".
bool parseBriefOrTime(std::string_view line, Entry* entry) {
    size_t pos = 0;
    if (!(line.size() > 2 && isPriority(line[0]) && line[1] == '/')) {
        pos = skipTime(line);
        if (pos == std::string_view::npos || pos + 3 > line.size() || !isPriority(line[++pos]) ||
            line[pos + 1] != '/') {
            return false;
        }
    }
    const size_t close = line.find("): ", pos);
    const size_t open = line.rfind('(', close);
    if (close == std::string_view::npos || open == std::string_view::npos || open < pos + 2) {
        return false;
    }
    const size_t colon = line.substr(open, close - open).rfind(':');
    size_t at = colon == std::string_view::npos ? open + 1 : open + colon + 1;
    if (!number(line, &at, &entry->pid) || at != close) {
        return false;
    }
    const size_t end = line.find_last_not_of(' ', open - 1);
    entry->tid = 0;
    entry->priority = line[pos];
    entry->tag = line.substr(pos + 2, end + 1 - (pos + 2));
    entry->message = line.substr(close + 3);
    return end + 1 > pos + 2;
}

}  // namespace

bool parseFormat(std::string_view name, Format* out) {
    for (Format format : {Format::Auto, Format::Threadtime, Format::Brief, Format::Time,
                          Format::Long, Format::Binary}) {
        if (name == formatName(format)) {
            *out = format;
            return true;
        }
    }
    return false;
}

const char* formatName(Format format) {
    static const char* const kNames[] = {"auto", "threadtime", "brief", "time", "long", "binary"};
    return kNames[static_cast<int>(format)];
}

// "[ <time> [zone] [uid:] <pid>:<tid> <P>/<tag> ]", with blanks in front of
// short numbers.
bool TextParser::parseLongHeader(std::string_view line) {
    if (line.size() < 4 || line.substr(0, 2) != "[ " || line.substr(line.size() - 2) != " ]") {
        return false;
    }
    const std::string_view inside = line.substr(2, line.size() - 4);
    const size_t slash = inside.find('/');
    if (slash == std::string_view::npos || slash < 2 || !isPriority(inside[slash - 1]) ||
        inside[slash - 2] != ' ') {
        return false;
    }
    const size_t colon = inside.rfind(':', slash);
    size_t at = colon;
    while (at != std::string_view::npos && at > 0 && isDigit(inside[at - 1])) {
        --at;
    }
    if (colon == std::string_view::npos || at == colon || !number(inside, &at, &mLongEntry.pid) ||
        at != colon) {
        return false;
    }
    at = colon + 1;
    if (!number(inside, &at, &mLongEntry.tid) || at != slash - 2) {
        return false;
    }
    mLongEntry.priority = inside[slash - 1];
    mLongTag.assign(inside.substr(slash + 1, inside.find_last_not_of(' ') - slash));
    return true;
}

TextParser::Result TextParser::feed(std::string_view line, uint64_t number, Entry* entry) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    if (mLong == Long::Header) {  // the message of the header before
        mLong = Long::Message;
        *entry = mLongEntry;
        entry->tag = mLongTag;
        entry->message = line;
        return Result::Entry;
    }
    if (line.substr(0, 10) == "--------- ") {
        mLong = Long::None;
        return Result::Marker;
    }
    if (mLong == Long::Message && line.substr(0, 2) != "[ ") {
        mLong = line.empty() ? Long::None : Long::Message;
        return Result::Continuation;
    }
    mLong = Long::None;
    entry->line = number;
    Format format = mFormat;
    if (format == Format::Auto) {
        format = line.substr(0, 1) == "["            ? Format::Long
                 : line.size() > 1 && line[1] == '/' ? Format::Brief
                 : parseThreadtime(line, entry)      ? Format::Threadtime
                                                     : Format::Time;
        if (format == Format::Threadtime) {
            mSeen = format;
            return Result::Entry;
        }
    }
    if (format == Format::Long && parseLongHeader(line)) {
        mLongEntry.line = number;
        mLong = Long::Header;
        mSeen = format;
        return Result::Continuation;
    }
    const bool parsed = format == Format::Threadtime ? parseThreadtime(line, entry)
                        : format == Format::Brief || format == Format::Time
                                ? parseBriefOrTime(line, entry)
                                : false;
    if (!parsed) {
        return Result::Skipped;
    }
    mSeen = format == Format::Threadtime ? format : line[1] == '/' ? Format::Brief : Format::Time;
    return Result::Entry;
}

bool Reader::fill() {
    if (mEnd) {
        return false;
    }
    if (mBegin > 0) {
        memmove(mBuffer.data(), mBuffer.data() + mBegin, mFilled - mBegin);
        mFilled -= mBegin;
        mBegin = 0;
    }
    const ssize_t got = mFilled == mBuffer.size()
                                ? 0
                                : read(mFd, mBuffer.data() + mFilled, mBuffer.size() - mFilled);
    if (got <= 0) {
        mError = got < 0 ? errno : 0;
        mEnd = got < 0 || mFilled < mBuffer.size();
        return false;
    }
    mFilled += static_cast<size_t>(got);
    return true;
}

bool Reader::line(std::string_view* line, bool* cut) {
    size_t scanned = 0;  // from mBegin
    while (true) {
        const char* start = mBuffer.data() + mBegin;
        const void* feed = memchr(start + scanned, '\n', mFilled - mBegin - scanned);
        if (feed != nullptr) {
            const size_t length = static_cast<size_t>(static_cast<const char*>(feed) - start);
            *line = std::string_view(start, length);
            *cut = false;
            mBegin += length + 1;
            return true;
        }
        scanned = mFilled - mBegin;
        if (!fill()) {
            if (mFilled == mBegin) {
                return false;
            }
            // The last line without its line feed, or one longer than the
            // buffer.
            *line = std::string_view(mBuffer.data() + mBegin, mFilled - mBegin);
            *cut = !mEnd;
            mBegin = mFilled;
            return true;
        }
    }
}

std::string_view Reader::peek(size_t n) {
    while (mFilled - mBegin < n && fill()) {
    }
    return std::string_view(mBuffer.data() + mBegin, std::min(n, mFilled - mBegin));
}

namespace {

// The header sizes liblog accepts: the first version's 20 bytes to the
// current one's 28, with the uid.
constexpr size_t kHeaderMin = 20;
constexpr size_t kHeaderMax = 28;
constexpr size_t kPayloadMax = 5 * 1024;

size_t field16(std::string_view bytes, size_t at) {
    return static_cast<uint8_t>(bytes[at]) |
           static_cast<size_t>(static_cast<uint8_t>(bytes[at + 1])) << 8;
}

// The size of a plausible entry at the start of bytes, or 0.
size_t entrySize(std::string_view bytes) {
    if (bytes.size() < 4) {
        return 0;
    }
    const size_t payload = field16(bytes, 0);
    const size_t header = field16(bytes, 2) == 0 ? kHeaderMin : field16(bytes, 2);
    const bool plausible =
            header >= kHeaderMin && header <= kHeaderMax && payload >= 3 && payload <= kPayloadMax;
    return plausible ? header + payload : 0;
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
    size_t size = entrySize(head);
    const std::string_view bytes = size != 0 ? mBytes.peek(size) : std::string_view();
    if (size == 0 || bytes.size() < size) {
        // Out of step or cut short: on by one byte until an entry fits.
        do {
            mBytes.consume(1);
            size = entrySize(head = mBytes.peek(4));
        } while (!head.empty() && (size == 0 || mBytes.peek(size).size() < size));
        return Result::Skipped;
    }
    // liblog writes terminators into the payload and reads the header in
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
    entry->pid = decoded.pid;
    entry->tid = decoded.tid;
    // The payload's first byte, read as a byte: liblog hands it on as an
    // enum whatever its value.
    const uint8_t priority = static_cast<uint8_t>(mEntry[payload]);
    entry->priority = priority < 8 ? "??VDIWEF"[priority] : '?';
    entry->tag = std::string_view(decoded.tag, strnlen(decoded.tag, decoded.tagLen));
    entry->message = std::string_view(decoded.message, decoded.messageLen);
    return Result::Entry;
#endif
}

}  // namespace logcheck
