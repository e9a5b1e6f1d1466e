// SPDX-License-Identifier: Apache-2.0
#include "input.h"

#include <errno.h>
#include <string.h>
#include <unistd.h>

namespace logcheck {

namespace {

bool isPriority(char c) {
    return strchr("VDIWEFA", c) != nullptr && c != '\0';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Reads a decimal number at pos (after leading blanks); false if none.
bool number(std::string_view text, size_t* pos, int32_t* out) {
    size_t i = *pos;
    while (i < text.size() && text[i] == ' ') {
        ++i;
    }
    int64_t value = 0;
    const size_t start = i;
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

// The tag runs from pos to the first ": " (logcat pads it with blanks).
bool tagAndMessage(std::string_view line, size_t pos, Entry* entry) {
    const size_t colon = line.find(": ", pos);
    if (colon == std::string_view::npos) {
        return false;
    }
    size_t end = colon;
    while (end > pos && line[end - 1] == ' ') {
        --end;
    }
    entry->tag = line.substr(pos, end - pos);
    entry->message = line.substr(colon + 2);
    return true;
}

// Skips the time stamp and zone in front of the numbers: "MM-DD hh:mm:ss.f",
// with a year, or epoch / monotonic seconds, then an optional zone. Returns
// the position after them.
size_t skipTime(std::string_view line, size_t pos) {
    while (pos < line.size() && line[pos] == ' ') {
        ++pos;
    }
    const size_t first = line.find(' ', pos);
    if (first == std::string_view::npos) {
        return std::string_view::npos;
    }
    const std::string_view date = line.substr(pos, first - pos);
    if (date.find('-') != std::string_view::npos) {
        const size_t second = line.find(' ', first + 1);
        if (second == std::string_view::npos ||
            line.substr(first + 1, second - first - 1).find(':') == std::string_view::npos) {
            return std::string_view::npos;
        }
        pos = second;
    } else if (date.find('.') != std::string_view::npos) {
        pos = first;
    } else {
        return std::string_view::npos;
    }
    // A zone: "+0000", "-0800" or letters ("UTC").
    size_t next = pos + 1;
    if (next < line.size() && (line[next] == '+' || (line[next] == '-' && next + 1 < line.size() &&
                                                     isDigit(line[next + 1])))) {
        pos = line.find(' ', next);
    } else if (next + 1 < line.size() && line[next] >= 'A' && line[next] <= 'Z' &&
               line[next + 1] >= 'A' && line[next + 1] <= 'Z') {
        pos = line.find(' ', next);
    }
    return pos;
}

}  // namespace

bool parseFormat(std::string_view name, Format* out) {
    static const struct {
        const char* name;
        Format format;
    } kFormats[] = {{"auto", Format::Auto},   {"threadtime", Format::Threadtime},
                    {"brief", Format::Brief}, {"time", Format::Time},
                    {"long", Format::Long},   {"binary", Format::Binary}};
    for (const auto& known : kFormats) {
        if (name == known.name) {
            *out = known.format;
            return true;
        }
    }
    return false;
}

const char* formatName(Format format) {
    switch (format) {
        case Format::Threadtime:
            return "threadtime";
        case Format::Brief:
            return "brief";
        case Format::Time:
            return "time";
        case Format::Long:
            return "long";
        case Format::Binary:
            return "binary";
        case Format::Auto:
            break;
    }
    return "auto";
}

// "<time> [zone] [uid] <pid> <tid> <P> <tag>: <message>"
bool TextParser::parseThreadtime(std::string_view line, Entry* entry) const {
    size_t pos = skipTime(line, 0);
    if (pos == std::string_view::npos) {
        return false;
    }
    // The numbers run up to the priority letter; the last two are pid and
    // tid (a uid, a number or a short name, may come first).
    int32_t numbers[3] = {};
    int count = 0;
    while (true) {
        while (pos < line.size() && line[pos] == ' ') {
            ++pos;
        }
        if (pos + 1 < line.size() && isPriority(line[pos]) && line[pos + 1] == ' ' && count >= 2) {
            break;
        }
        const size_t end = line.find(' ', pos);
        if (end == std::string_view::npos || count == 3) {
            return false;
        }
        int32_t value = 0;
        size_t at = pos;
        if (number(line, &at, &value) && at == end) {
            numbers[count++] = value;
        } else if (count != 0) {
            return false;  // only a uid may be a name, and it comes first
        }
        pos = end;
    }
    entry->pid = numbers[count - 2];
    entry->tid = numbers[count - 1];
    entry->priority = line[pos];
    return tagAndMessage(line, pos + 2, entry);
}

// brief "<P>/<tag>(<pid>): <message>", time: the same after a time stamp;
// with -v uid the parentheses hold "<uid>:<pid>".
bool TextParser::parseBriefOrTime(std::string_view line, Entry* entry) const {
    size_t pos = 0;
    if (!(line.size() > 2 && isPriority(line[0]) && line[1] == '/')) {
        pos = skipTime(line, 0);
        if (pos == std::string_view::npos || pos + 3 > line.size()) {
            return false;
        }
        ++pos;
        if (!(isPriority(line[pos]) && line[pos + 1] == '/')) {
            return false;
        }
    }
    const size_t close = line.find("): ", pos);
    if (close == std::string_view::npos) {
        return false;
    }
    const size_t open = line.rfind('(', close);
    if (open == std::string_view::npos || open < pos + 2) {
        return false;
    }
    const size_t colon = line.substr(open, close - open).rfind(':');
    size_t at = colon == std::string_view::npos ? open + 1 : open + colon + 1;
    if (!number(line, &at, &entry->pid) || at != close) {
        return false;
    }
    entry->tid = 0;
    entry->priority = line[pos];
    size_t end = open;
    while (end > pos + 2 && line[end - 1] == ' ') {
        --end;
    }
    entry->tag = line.substr(pos + 2, end - pos - 2);
    entry->message = line.substr(close + 3);
    return true;
}

// "[ <time> [zone] [uid:] <pid>: <tid> <P>/<tag> ]"
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
    // "<pid>:<tid>", with blanks only where the numbers are short.
    const size_t colon = inside.rfind(':', slash);
    size_t at = colon;
    while (at != std::string_view::npos && at > 0 && isDigit(inside[at - 1])) {
        --at;
    }
    Entry& entry = mLongEntry;
    if (colon == std::string_view::npos || at == colon || !number(inside, &at, &entry.pid) ||
        at != colon) {
        return false;
    }
    at = colon + 1;
    if (!number(inside, &at, &entry.tid) || at != slash - 2) {
        return false;
    }
    entry.priority = inside[slash - 1];
    size_t end = inside.size();
    while (end > slash + 1 && inside[end - 1] == ' ') {
        --end;
    }
    mLongTag.assign(inside.substr(slash + 1, end - slash - 1));
    return true;
}

TextParser::Result TextParser::feed(std::string_view line, uint64_t number, Entry* entry) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    if (mLong == Long::Header) {
        // The message of the header before.
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
    if (mLong == Long::Message) {
        if (line.empty()) {
            mLong = Long::None;
        }
        if (line.empty() || line.substr(0, 2) != "[ ") {
            return Result::Continuation;
        }
        mLong = Long::None;
    }
    if (line.empty()) {
        return Result::Skipped;
    }
    entry->line = number;
    Format format = mFormat;
    if (format == Format::Auto) {
        if (line[0] == '[') {
            format = Format::Long;
        } else if (line.size() > 1 && line[1] == '/') {
            format = Format::Brief;
        } else {
            format = parseThreadtime(line, entry) ? Format::Threadtime : Format::Time;
            if (format == Format::Threadtime) {
                mSeen = format;
                return Result::Entry;
            }
        }
    }
    bool parsed = false;
    switch (format) {
        case Format::Threadtime:
            parsed = parseThreadtime(line, entry);
            break;
        case Format::Brief:
        case Format::Time:
            parsed = parseBriefOrTime(line, entry);
            if (parsed) {
                format = line[1] == '/' ? Format::Brief : Format::Time;
            }
            break;
        case Format::Long:
            if (parseLongHeader(line)) {
                mLongEntry.line = number;
                mLong = Long::Header;
                mSeen = format;
                return Result::Continuation;
            }
            break;
        case Format::Auto:
        case Format::Binary:
            break;
    }
    if (!parsed) {
        return Result::Skipped;
    }
    mSeen = format;
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
    if (mFilled == mBuffer.size()) {
        return false;
    }
    const ssize_t got = read(mFd, mBuffer.data() + mFilled, mBuffer.size() - mFilled);
    if (got < 0) {
        mError = errno;
        mEnd = true;
        return false;
    }
    if (got == 0) {
        mEnd = true;
        return false;
    }
    mFilled += static_cast<size_t>(got);
    return true;
}

bool Reader::line(std::string_view* line, bool* cut) {
    size_t scanned = mBegin;
    while (true) {
        const void* feed = memchr(mBuffer.data() + scanned, '\n', mFilled - scanned);
        if (feed != nullptr) {
            const size_t end = static_cast<const char*>(feed) - mBuffer.data();
            *line = std::string_view(mBuffer.data() + mBegin, end - mBegin);
            *cut = false;
            mBegin = end + 1;
            return true;
        }
        scanned = mFilled - mBegin;
        if (!fill()) {
            if (mFilled == mBegin) {
                return false;
            }
            // The last line without its line feed, or a line longer than the
            // buffer: hand out what there is.
            *line = std::string_view(mBuffer.data() + mBegin, mFilled - mBegin);
            *cut = !mEnd;
            mBegin = mFilled;
            return true;
        }
        scanned += mBegin;
    }
}

std::string_view Reader::peek(size_t n) {
    while (mFilled - mBegin < n && fill()) {
    }
    return std::string_view(mBuffer.data() + mBegin, std::min(n, mFilled - mBegin));
}

}  // namespace logcheck
