// SPDX-License-Identifier: Apache-2.0
// Reading a phone's log as users have it: the text that `adb logcat` prints
// in its threadtime (default), brief, time and long formats, with any of
// their modifiers, and the binary entries of `adb logcat -B`.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace logcheck {

// One log entry. The views stay valid until the next line is read.
struct Entry {
    uint64_t line = 0;  // input line where it starts (binary: entry number)
    int32_t pid = 0;
    int32_t tid = 0;
    char priority = '?';  // V D I W E F
    std::string_view tag;
    std::string_view message;
};

// The -v formats read; Auto recognises each line by itself.
enum class Format { Auto, Threadtime, Brief, Time, Long, Binary };
bool parseFormat(std::string_view name, Format* out);
const char* formatName(Format format);

// Turns text lines into entries.
class TextParser {
  public:
    enum class Result { Entry, Marker, Continuation, Skipped };

    explicit TextParser(Format format = Format::Auto) : mFormat(format) {}
    // One line without its line feed; a carriage return is dropped here.
    Result feed(std::string_view line, uint64_t number, Entry* entry);
    // The format of the last entry recognised (Auto before the first).
    Format seen() const { return mSeen; }

  private:
    bool parseThreadtime(std::string_view line, Entry* entry) const;
    bool parseBriefOrTime(std::string_view line, Entry* entry) const;
    bool parseLongHeader(std::string_view line);

    Format mFormat;
    Format mSeen = Format::Auto;
    // long: a header waits for its message line, then lines up to a blank one
    // continue it.
    enum class Long { None, Header, Message } mLong = Long::None;
    Entry mLongEntry;
    std::string mLongTag;
};

// Buffered reading of a file descriptor, by lines or by bytes, in bounded
// memory: a line longer than the buffer is cut.
class Reader {
  public:
    explicit Reader(int fd) : mFd(fd) {}
    // False at the end of input or when reading fails (see error()).
    bool line(std::string_view* line, bool* cut);
    // Up to n bytes from the current position (fewer at the end of input),
    // not consumed.
    std::string_view peek(size_t n);
    void consume(size_t n) { mBegin += n; }
    int error() const { return mError; }

  private:
    bool fill();
    int mFd;
    int mError = 0;
    bool mEnd = false;
    std::vector<char> mBuffer = std::vector<char>(1 << 16);
    size_t mBegin = 0;
    size_t mFilled = 0;
};

// Entries of `logcat -B`, each decoded by liblog's own
// android_log_processLogBuffer; this code only frames them.
class BinaryReader {
  public:
    explicit BinaryReader(Reader& bytes) : mBytes(bytes) {}
    enum class Result { Entry, Skipped, End };
    Result next(Entry* entry);
    // False when this build has no liblog to decode with.
    static bool available();

  private:
    Reader& mBytes;
    std::vector<char> mEntry;
    uint64_t mNumber = 0;
};

}  // namespace logcheck
