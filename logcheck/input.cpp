// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "lines.h"
#include "logcheck.h"

#ifndef LOGCHECK_NO_LIBLOG
#include <log/log_read.h>
#include <log/logprint.h>
#endif
#ifndef LOGCHECK_NO_ZIP
#include <ziparchive/zip_archive.h>
#include <ziparchive/zip_archive_stream_entry.h>
#include <zlib.h>
#endif

namespace logcheck {

namespace {

bool isPriority(char c) {
    return c == 'V' || c == 'D' || c == 'I' || c == 'W' || c == 'E' || c == 'F';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// A colour's reset at the end ("\x1b[0m"), taken off.
std::string_view uncoloured(std::string_view s) {
    if (s.empty() || s.back() != 'm') {
        return s;
    }
    const size_t escape = s.size() > 16 ? s.find('\x1b', s.size() - 16) : s.find('\x1b');
    if (escape != std::string_view::npos &&
        s.substr(escape + 1).find_first_not_of("[0123456789;m") == std::string_view::npos) {
        s = s.substr(0, escape);
    }
    return s;
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
        s.remove_suffix(1);
    }
    return s;
}

// Colour escapes at either end, trailing blanks, tabs and carriage returns.
std::string_view normalize(std::string_view s) {
    if (s.empty()) {
        return s;
    }
    const char last = s.back();
    if (s[0] != '\x1b' && last != ' ' && last != '\t' && last != '\r' && last != 'm') {
        return s;  // most lines: nothing to take off
    }
    if (s[0] == '\x1b') {
        size_t i = 1;
        if (i < s.size() && s[i] == '[') {
            while (++i < s.size() && !(s[i] >= 0x40 && s[i] <= 0x7e)) {
            }
        }
        s.remove_prefix(std::min(i + 1, s.size()));
    }
    return trimmed(uncoloured(trimmed(s)));
}

class FdSource : public Source {
  public:
    FdSource(int fd, bool owned) : mFd(fd), mOwned(owned) {
        // A file is read in place rather than copied in pieces.
        struct stat status = {};
        if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
            void* map = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ, MAP_PRIVATE,
                             fd, 0);
            if (map != MAP_FAILED) {
                madvise(map, static_cast<size_t>(status.st_size), MADV_SEQUENTIAL);
                mMap = std::string_view(static_cast<const char*>(map),
                                        static_cast<size_t>(status.st_size));
            }
        }
    }
    ~FdSource() override {
        if (!mMap.empty()) {
            munmap(const_cast<char*>(mMap.data()), mMap.size());
        }
        if (mOwned) {
            close(mFd);
        }
    }
    long read(char* buffer, size_t size) override { return ::read(mFd, buffer, size); }
    std::string_view mapped() override { return mMap; }

  private:
    int mFd;
    bool mOwned;
    std::string_view mMap;
};

#ifndef LOGCHECK_NO_ZIP
// zlib reads gzip members one after another, as zcat does.
class GzipSource : public Source {
  public:
    explicit GzipSource(gzFile file) : mFile(file) { gzbuffer(mFile, 1 << 17); }
    ~GzipSource() override { gzclose(mFile); }
    long read(char* buffer, size_t size) override {
        const int got =
                gzread(mFile, buffer, static_cast<unsigned>(std::min<size_t>(size, 1 << 30)));
        if (got < 0) {
            errno = EILSEQ;
        }
        return got;
    }

  private:
    gzFile mFile;
};

// A bug report's main text, streamed out of its zip by AOSP's reader.
class ZipSource : public Source {
  public:
    ZipSource(ZipArchiveHandle archive, ZipArchiveStreamEntry* stream)
        : mArchive(archive), mStream(stream) {}
    ~ZipSource() override {
        mStream.reset();
        CloseArchive(mArchive);
    }
    long read(char* buffer, size_t size) override {
        while (mChunk == nullptr || mOffset == mChunk->size()) {
            if (mDone || (mChunk = mStream->Read()) == nullptr) {
                if (!mDone && !mStream->Verify()) {
                    errno = EILSEQ;
                    mDone = true;
                    return -1;
                }
                mDone = true;
                return 0;
            }
            mOffset = 0;
        }
        const size_t n = std::min(size, mChunk->size() - mOffset);
        memcpy(buffer, mChunk->data() + mOffset, n);
        mOffset += n;
        return static_cast<long>(n);
    }

  private:
    ZipArchiveHandle mArchive;
    std::unique_ptr<ZipArchiveStreamEntry> mStream;
    const std::vector<uint8_t>* mChunk = nullptr;
    size_t mOffset = 0;
    bool mDone = false;
};

// The report's text: the entry main_entry.txt names, or the first
// bugreport*.txt at the top.
std::unique_ptr<Source> openBugReport(int fd, const char* path, std::string* reason) {
    ZipArchiveHandle archive = nullptr;
    if (const int32_t status = OpenArchiveFd(fd, path, &archive, true); status != 0) {
        *reason = std::string("not a readable zip: ") + ErrorCodeString(status);
        CloseArchive(archive);
        return nullptr;
    }
    std::string name;
    ZipEntry entry;
    if (FindEntry(archive, "main_entry.txt", &entry) == 0 && entry.uncompressed_length < 4096) {
        name.resize(entry.uncompressed_length);
        if (ExtractToMemory(archive, &entry, reinterpret_cast<uint8_t*>(name.data()),
                            static_cast<uint32_t>(name.size())) != 0) {
            name.clear();
        }
        name.erase(name.find_last_not_of(" \r\n") + 1);
    }
    void* cookie = nullptr;
    if (name.empty() && StartIteration(archive, &cookie, "bugreport", ".txt") == 0) {
        std::string candidate;
        while (Next(cookie, &entry, &candidate) == 0) {
            if (candidate.find('/') == std::string::npos) {
                name = candidate;
                break;
            }
        }
        EndIteration(cookie);
    }
    ZipArchiveStreamEntry* stream = nullptr;
    if (name.empty() || FindEntry(archive, name, &entry) != 0 ||
        (stream = ZipArchiveStreamEntry::Create(archive, entry)) == nullptr) {
        *reason = name.empty() ? "a zip without a bug report's text (bugreport-*.txt)"
                               : "cannot read " + name + " in the zip";
        CloseArchive(archive);
        return nullptr;
    }
    return std::make_unique<ZipSource>(archive, stream);
}
#endif

// Past the time stamp ("MM-DD hh:mm:ss.f", with a year, or epoch or
// monotonic seconds) and a zone ("+0000"); npos when there is none.
size_t skipTime(std::string_view s) {
    const size_t n = s.size();
    // logcat's own "MM-DD hh:mm:ss.fff", without a zone: most lines.
    if (n > 19 && s[2] == '-' && s[5] == ' ' && s[8] == ':' && s[11] == ':' && s[14] == '.' &&
        isDigit(s[15]) && isDigit(s[17]) && s[18] == ' ' && !(s[19] == '+' || s[19] == '-')) {
        return 18;
    }
    size_t i = 0;
    while (i < n && s[i] == ' ') {
        ++i;
    }
    const size_t start = i;
    while (i < n && isDigit(s[i])) {
        ++i;
    }
    if (i == start || i == n) {
        return std::string_view::npos;
    }
    if (s[i] == '-') {
        while (i < n && (isDigit(s[i]) || s[i] == '-')) {
            ++i;
        }
        if (i == n || s[i] != ' ') {
            return std::string_view::npos;
        }
        const size_t clock = ++i;
        while (i < n && (isDigit(s[i]) || s[i] == ':' || s[i] == '.')) {
            ++i;
        }
        if (memchr(s.data() + clock, ':', i - clock) == nullptr) {
            return std::string_view::npos;
        }
    } else if (s[i] == '.') {
        ++i;
        while (i < n && isDigit(s[i])) {
            ++i;
        }
    } else {
        return std::string_view::npos;
    }
    if (i + 2 < n && s[i] == ' ' && (s[i + 1] == '+' || s[i + 1] == '-') && isDigit(s[i + 2])) {
        i += 2;
        while (i < n && isDigit(s[i])) {
            ++i;
        }
    }
    return i;
}

// A decimal number, whole.
bool decimal(std::string_view text, int32_t* out) {
    if (text.empty() || text.size() > 10) {
        return false;
    }
    int64_t value = 0;
    for (char c : text) {
        if (!isDigit(c)) {
            return false;
        }
        value = value * 10 + (c - '0');
    }
    if (value > INT32_MAX) {
        return false;
    }
    *out = static_cast<int32_t>(value);
    return true;
}

std::string_view trim(std::string_view s) {
    const size_t begin = s.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        return {};
    }
    return s.substr(begin, s.find_last_not_of(' ') - begin + 1);
}

// "<uid>:<pid>" or "<pid>" (brief, time, process), or with the thread
// (thread, long): the numbers between the parentheses. A uid may be a name.
int ids(std::string_view inside, int32_t numbers[3]) {
    int count = 0;
    size_t at = 0;
    while (count < 3) {
        const size_t colon = inside.find(':', at);
        const std::string_view word = trim(inside.substr(at, colon - at));
        if (!decimal(word, &numbers[count])) {
            if (count != 0 || colon == std::string_view::npos || word.size() > 5) {
                return -1;
            }
            numbers[count] = -1;  // a uid's name
        }
        ++count;
        if (colon == std::string_view::npos) {
            return count;
        }
        at = colon + 1;
    }
    return -1;
}

// "<time> [zone] [uid] <pid> <tid> <P> <tag>: <message>", the time ending at
// pos.
bool parseThreadtime(std::string_view line, size_t pos, Entry* entry) {
    const size_t n = line.size();
    if (pos >= n) {
        return false;  // no time stamp
    }
    // logcat's columns: " %5d %5d %c " after the time; most lines fit them.
    if (pos + 15 < n && line[pos + 6] == ' ' && line[pos + 12] == ' ' && line[pos + 14] == ' ' &&
        isPriority(line[pos + 13])) {
        const char* p = line.data() + pos + 1;
        auto field = [](const char* at, int32_t* out) {
            int i = 0;
            while (i < 4 && at[i] == ' ') {
                ++i;
            }
            int32_t value = 0;
            for (; i < 5; ++i) {
                if (!isDigit(at[i])) {
                    return false;
                }
                value = value * 10 + (at[i] - '0');
            }
            *out = value;
            return true;
        };
        const char* tag = p + 14;
        const void* colon = memchr(tag, ':', line.data() + n - tag);
        if (field(p, &entry->pid) && field(p + 6, &entry->tid) && colon != nullptr) {
            const char* end = static_cast<const char*>(colon);
            const char* message = end + 1;
            if (message < line.data() + n && *message == ' ') {
                while (end > tag && end[-1] == ' ') {
                    --end;
                }
                entry->priority = p[12];
                entry->tag = std::string_view(tag, static_cast<size_t>(end - tag));
                entry->message = std::string_view(
                        message + 1, static_cast<size_t>(line.data() + n - message - 1));
                return true;
            }
        }
    }
    int32_t numbers[3] = {};
    int count = 0;
    while (true) {
        while (pos < n && line[pos] == ' ') {
            ++pos;
        }
        if (pos + 1 >= n) {
            return false;
        }
        if (count >= 2 && isPriority(line[pos]) && line[pos + 1] == ' ') {
            break;
        }
        if (count == 3) {
            return false;
        }
        const size_t start = pos;
        int64_t value = 0;
        for (; pos < n && isDigit(line[pos]) && pos - start < 10; ++pos) {
            value = value * 10 + (line[pos] - '0');
        }
        if (pos > start && pos < n && line[pos] == ' ' && value <= INT32_MAX) {
            numbers[count++] = static_cast<int32_t>(value);
            continue;
        }
        // A uid's name comes first, five letters at most.
        for (pos = start; pos < n && line[pos] != ' '; ++pos) {
        }
        if (count != 0 || pos >= n || pos - start > 5) {
            return false;
        }
        numbers[count++] = -1;
    }
    if (pos >= n) {
        return false;
    }
    entry->pid = numbers[count - 2];
    entry->tid = numbers[count - 1];
    entry->priority = line[pos];
    size_t colon = line.find(": ", pos + 2);
    const bool bare = colon == std::string_view::npos && line.back() == ':';
    colon = bare ? n - 1 : colon;
    if (colon == std::string_view::npos || entry->pid < 0) {
        return false;
    }
    entry->tag = trim(line.substr(pos + 2, colon - pos - 2));
    entry->message = bare ? std::string_view() : line.substr(colon + 2);
    return true;
}

// "<P>/<tag>(<pid>): ", "<P>/<tag>: ", "<P>(<pid>) <message>  (<tag>)" or
// "<P>(<pid>:<tid>) " at pos.
bool parseLetterFirst(std::string_view line, size_t pos, Format format, Entry* entry,
                      Format* seen) {
    const size_t n = line.size();
    if (pos + 2 > n || !isPriority(line[pos])) {
        return false;
    }
    entry->priority = line[pos];
    entry->pid = 0;
    entry->tid = 0;
    int32_t numbers[3] = {};
    if (line[pos + 1] == '/') {
        const size_t close = format == Format::Tag ? std::string_view::npos : line.find("): ", pos);
        const size_t open = close == std::string_view::npos ? close : line.rfind('(', close);
        const int count = open == std::string_view::npos || open < pos + 2
                                  ? -1
                                  : ids(line.substr(open + 1, close - open - 1), numbers);
        if (count == 1 || count == 2) {
            entry->pid = numbers[count - 1];
            entry->tag = trim(line.substr(pos + 2, open - pos - 2));
            entry->message = line.substr(close + 3);
            *seen = pos == 0 ? Format::Brief : Format::Time;
            return entry->pid >= 0;
        }
        if (format == Format::Brief || format == Format::Time) {
            return false;
        }
        const size_t colon = line.find(": ", pos + 2);
        if (colon == std::string_view::npos) {
            return false;
        }
        entry->tag = trim(line.substr(pos + 2, colon - pos - 2));
        entry->message = line.substr(colon + 2);
        *seen = Format::Tag;
        return true;
    }
    if (line[pos + 1] != '(') {
        return false;
    }
    const size_t close = line.find(')', pos + 2);
    const int count = close == std::string_view::npos
                              ? -1
                              : ids(line.substr(pos + 2, close - pos - 2), numbers);
    if (count < 1 || close + 1 >= n || line[close + 1] != ' ') {
        return false;
    }
    const std::string_view rest = line.substr(close + 2);
    const size_t suffix = rest.rfind("  (");
    const bool tagged = rest.back() == ')' && suffix != std::string_view::npos &&
                        rest.find(' ', suffix + 3) == std::string_view::npos;
    const bool process = format == Format::Process ||
                         (format != Format::Thread && (count == 1 || (count == 2 && tagged)));
    if (process) {
        if (!tagged || count > 2) {
            return false;
        }
        entry->pid = numbers[count - 1];
        entry->tag = rest.substr(suffix + 3, rest.size() - suffix - 4);
        // -v color resets before the tag.
        entry->message = uncoloured(rest.substr(0, suffix));
        *seen = Format::Process;
        return entry->pid >= 0;
    }
    if (count < 2) {
        return false;
    }
    entry->pid = numbers[count - 2];
    entry->tid = numbers[count - 1];
    entry->tag = {};
    entry->message = rest;
    *seen = Format::Thread;
    return entry->pid >= 0;
}

}  // namespace

bool parseFormat(std::string_view words, Format* out) {
    static const char* const kModifiers[] = {"color",     "colour",    "descriptive", "epoch",
                                             "monotonic", "printable", "uid",         "usec",
                                             "nsec",      "UTC",       "year",        "zone"};
    bool named = false;
    while (!words.empty()) {
        const size_t comma = words.find(',');
        const std::string_view word = words.substr(0, comma);
        words = comma == std::string_view::npos ? std::string_view() : words.substr(comma + 1);
        bool known =
                std::find_if(std::begin(kModifiers), std::end(kModifiers),
                             [word](const char* m) { return word == m; }) != std::end(kModifiers);
        for (int f = 0; !known && f <= static_cast<int>(Format::Binary); ++f) {
            if (word == formatName(static_cast<Format>(f))) {
                *out = static_cast<Format>(f);
                known = named = true;
            }
        }
        if (!known) {
            return false;
        }
    }
    if (!named) {
        *out = Format::Auto;  // modifiers alone: logcat's default format, recognised
    }
    return true;
}

const char* formatName(Format format) {
    static const char* const kNames[] = {"auto", "threadtime", "brief",  "time", "long",
                                         "tag",  "process",    "thread", "raw",  "binary"};
    return kNames[static_cast<int>(format)];
}

std::unique_ptr<Source> openLog(const char* path, int* error, std::string* reason) {
    if (strcmp(path, "-") == 0) {
        return std::make_unique<FdSource>(STDIN_FILENO, false);
    }
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        *error = errno;
        return nullptr;
    }
    unsigned char magic[4] = {};
    const ssize_t got = pread(fd, magic, sizeof(magic), 0);
    const bool zip = got == 4 && memcmp(magic, "PK\3\4", 4) == 0;
    const bool gzip = got >= 2 && magic[0] == 0x1f && magic[1] == 0x8b;
#ifndef LOGCHECK_NO_ZIP
    if (zip) {
        return openBugReport(fd, path, reason);
    }
    if (gzip) {
        if (gzFile file = gzdopen(fd, "rb")) {
            return std::make_unique<GzipSource>(file);
        }
        *error = errno;
        close(fd);
        return nullptr;
    }
#else
    if (zip || gzip) {
        *reason = "compressed: this build reads text; unzip or zcat it first";
        close(fd);
        return nullptr;
    }
#endif
    return std::make_unique<FdSource>(fd, true);
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
    const long got = mSource.read(mBuffer.data() + mFilled, mBuffer.size() - mFilled);
    if (got <= 0) {
        mError = got < 0 ? errno : 0;
        mEnd = true;
        return false;
    }
    mFilled += static_cast<size_t>(got);
    return true;
}

bool Reader::line(std::string_view* line, bool* overlong) {
    *overlong = false;
    if (!mWhole.empty()) {
        if (mBegin >= mWhole.size()) {
            return false;
        }
        const char* start = mWhole.data() + mBegin;
        const void* feed = memchr(start, '\n', mWhole.size() - mBegin);
        const size_t length = feed != nullptr
                                      ? static_cast<size_t>(static_cast<const char*>(feed) - start)
                                      : mWhole.size() - mBegin;
        // As long a line as the buffer would hold: the same lines either way.
        *overlong = length >= mBuffer.size();
        *line = *overlong ? std::string_view() : std::string_view(start, length);
        mBegin += length + 1;
        return true;
    }
    size_t scanned = 0;  // from mBegin
    while (true) {
        const char* start = mBuffer.data() + mBegin;
        const void* feed = memchr(start + scanned, '\n', mFilled - mBegin - scanned);
        if (feed != nullptr) {
            const size_t length = static_cast<size_t>(static_cast<const char*>(feed) - start);
            *line = *overlong ? std::string_view() : std::string_view(start, length);
            mBegin += length + 1;
            return true;
        }
        scanned = mFilled - mBegin;
        if (mBegin == 0 && mFilled == mBuffer.size()) {
            // Longer than the buffer: its bytes go, it stays one line.
            *overlong = true;
            mFilled = 0;
            scanned = 0;
        }
        if (!fill()) {
            if (mFilled == mBegin && !*overlong) {
                return false;
            }
            // The last line, without its line feed.
            *line = *overlong ? std::string_view()
                              : std::string_view(mBuffer.data() + mBegin, mFilled - mBegin);
            mBegin = mFilled;
            return true;
        }
    }
}

std::string_view Reader::peek(size_t n) {
    if (!mWhole.empty()) {
        return mWhole.substr(std::min(mBegin, mWhole.size()), n);
    }
    while (mFilled - mBegin < n && fill()) {
    }
    return std::string_view(mBuffer.data() + mBegin, std::min(n, mFilled - mBegin));
}

// "[ <time> [zone] [uid:] <pid>:<tid> <P>/<tag> ]".
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
    const size_t time = skipTime(inside);
    size_t from = time == std::string_view::npos ? 0 : time;
    int32_t numbers[3] = {};
    const int count = from < slash - 2 ? ids(inside.substr(from, slash - 2 - from), numbers) : -1;
    if (count < 2 || numbers[count - 2] < 0) {
        return false;
    }
    mLongEntry.pid = numbers[count - 2];
    mLongEntry.tid = numbers[count - 1];
    mLongEntry.priority = inside[slash - 1];
    mLongTag.assign(trim(inside.substr(slash + 1)));
    mLongStamp.assign(inside.substr(0, time == std::string_view::npos ? 0 : time));
    return true;
}

TextParser::Result TextParser::feed(std::string_view raw, uint64_t number, Entry* entry) {
    const std::string_view line = normalize(raw);
    if (mLong == Long::Header) {  // the message of the header before
        mLong = Long::Message;
        *entry = mLongEntry;
        entry->tag = mLongTag;
        entry->stamp = mLongStamp;
        entry->message = line;
        return Result::Entry;
    }
    if (!line.empty() && line[0] == '-' && line.substr(0, 10) == "--------- ") {
        mLong = Long::None;
        return Result::Marker;
    }
    if (mLong == Long::Message && line.substr(0, 2) != "[ ") {
        mLong = line.empty() ? Long::None : Long::Message;
        return Result::Continuation;
    }
    mLong = Long::None;
    entry->line = number;
    if (line.empty()) {
        return Result::Skipped;
    }
    const char first = line[0];
    Format format = mFormat;
    if (format == Format::Long || (format == Format::Auto && first == '[')) {
        if (!parseLongHeader(line)) {
            return Result::Skipped;
        }
        mLongEntry.line = number;
        mLong = Long::Header;
        mSeen = Format::Long;
        return Result::Continuation;
    }
    Format seen = format;
    bool parsed = false;
    entry->stamp = {};
    if (format == Format::Threadtime) {
        const size_t time = skipTime(line);
        parsed = parseThreadtime(line, time, entry);
        entry->stamp = line.substr(0, time);
    } else if (format == Format::Raw) {
        parsed = false;
    } else if (format == Format::Time ||
               (format == Format::Auto && first != '[' && !isPriority(first))) {
        const size_t time = skipTime(line);
        if (time != std::string_view::npos && time + 3 < line.size() && line[time] == ' ' &&
            isPriority(line[time + 1]) && line[time + 2] == '/') {
            parsed = parseLetterFirst(line, time + 1, format, entry, &seen);
        } else if (format == Format::Auto) {
            parsed = parseThreadtime(line, time, entry);
            seen = Format::Threadtime;
        }
        entry->stamp = time != std::string_view::npos ? line.substr(0, time) : std::string_view();
    } else {
        parsed = parseLetterFirst(line, 0, format, entry, &seen);
    }
    if (!parsed) {
        mRawLibraryLines += looksLikeLibrary(line) ? 1 : 0;
        return Result::Skipped;
    }
    mSeen = seen;
    return Result::Entry;
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
    // As -v epoch prints it.
    const int length = snprintf(mStamp, sizeof(mStamp), "%lld.%09ld",
                                static_cast<long long>(decoded.tv_sec), decoded.tv_nsec);
    entry->stamp = std::string_view(mStamp, static_cast<size_t>(std::max(length, 0)));
    return Result::Entry;
#endif
}

}  // namespace logcheck

namespace logcheck {

namespace {

// A bug report's section lines: "------ SYSTEM LOG (logcat -v threadtime
// ...) ------" begins one, "------ 0.1s was the duration of 'SYSTEM LOG'
// ------" ends it. Logs are the sections whose command is logcat; -L reads
// the boot before.
struct Section {
    bool begins = false;
    bool log = false;
    int boot = 0;
};

bool section(std::string_view line, Section* out) {
    line = normalize(line);
    if (line.size() < 14 || line.substr(0, 7) != "------ " ||
        line.substr(line.size() - 7) != " ------") {
        return false;
    }
    const std::string_view inside = line.substr(7, line.size() - 14);
    out->begins = inside.find("was the duration of '") == std::string_view::npos;
    const size_t open = inside.find(" (");
    const std::string_view command =
            open == std::string_view::npos ? std::string_view() : inside.substr(open + 2);
    out->log = out->begins && command.substr(0, 7) == "logcat ";
    out->boot = out->log && command.find(" -L") != std::string_view::npos ? 1 : 0;
    return true;
}

bool compressed(std::string_view head) {
    return head.substr(0, 4) == std::string_view("PK\3\4", 4) ||
           head.substr(0, 2) == std::string_view("\x1f\x8b", 2);
}

}  // namespace

bool readLog(Source& source, Format format, Checker& checker, InputStats& stats, std::string* error,
             const volatile sig_atomic_t* stop) {
    Reader reader(source);
    Entry entry;
    checker.beginBoot(0);
    const std::string_view head = reader.peek(64);
    if (compressed(head)) {
        *error = "compressed: name the file (zip and gzip files are opened), or decompress it";
        return false;
    }
    // Binary entries carry NUL bytes at once; logcat's text never does.
    if (format == Format::Binary ||
        (format == Format::Auto && head.find('\0') != std::string_view::npos)) {
        if (!BinaryReader::available()) {
            *error = "binary input needs a build with liblog; read logcat's text";
            return false;
        }
        stats.format = Format::Binary;
        BinaryReader binary(reader);
        for (BinaryReader::Result result;
             !*stop && (result = binary.next(&entry)) != BinaryReader::Result::End;) {
            entry.line = ++stats.lines;
            if (result == BinaryReader::Result::Entry) {
                checker.add(entry);
            } else {
                ++stats.skipped;
            }
        }
    } else {
        TextParser parser(format);
        std::string_view line;
        bool overlong = false;
        bool inLog = true;
        int boot = 0;
        Section part;
        while (!*stop && reader.line(&line, &overlong)) {
            const uint64_t number = ++stats.lines;
            if (overlong) {
                ++stats.skipped;
                continue;
            }
            if (!line.empty() && line[0] == '-' && section(line, &part)) {
                ++stats.markers;
                stats.bugReport = true;
                if (inLog && boot > 0) {
                    checker.endBoot(boot, number);
                }
                inLog = part.log;
                boot = part.boot;
                checker.beginBoot(boot);
                stats.rawLibraryLines += parser.rawLibraryLines();
                stats.format = parser.seen() != Format::Auto ? parser.seen() : stats.format;
                parser = TextParser(format);
                continue;
            }
            if (!inLog) {
                ++stats.outside;
                continue;
            }
            const auto result = parser.feed(line, number, &entry);
            stats.markers += result == TextParser::Result::Marker ? 1 : 0;
            stats.skipped += result == TextParser::Result::Skipped ? 1 : 0;
            if (result == TextParser::Result::Entry) {
                checker.add(entry);
            }
        }
        if (inLog && boot > 0) {
            checker.endBoot(boot, stats.lines);
        }
        stats.rawLibraryLines += parser.rawLibraryLines();
        stats.format = parser.seen() != Format::Auto ? parser.seen() : stats.format;
        checker.beginBoot(0);
    }
    if (reader.error() != 0 && !(reader.error() == EINTR && *stop)) {
        *error = strerror(reader.error());
        return false;
    }
    return true;
}

std::map<uint64_t, std::string> evidenceLines(Source& source, const std::vector<uint64_t>& lines) {
    std::map<uint64_t, std::string> texts;
    Reader reader(source);
    const std::string_view head = reader.peek(64);
    if (lines.empty() || compressed(head) || head.find('\0') != std::string_view::npos) {
        return texts;
    }
    std::string_view line;
    bool overlong = false;
    uint64_t number = 0;
    auto wanted = lines.begin();
    while (wanted != lines.end() && reader.line(&line, &overlong)) {
        if (++number == *wanted) {
            texts.emplace(number, normalize(line));
            while (wanted != lines.end() && *wanted <= number) {
                ++wanted;
            }
        }
    }
    return texts;
}

}  // namespace logcheck
