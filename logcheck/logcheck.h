// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck's library: a phone's log read in any of logcat's formats,
// the record's ledger rebuilt from the library's own lines, one per process,
// and what it found, for a person or for a script.
#pragma once

#include <signal.h>
#include <stdint.h>
#include <stdio.h>

#include <functional>
#include <map>
#include <memory>
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

// logcat's -v formats; Auto recognises each line by itself.
enum class Format { Auto, Threadtime, Brief, Time, Long, Binary };
bool parseFormat(std::string_view name, Format* out);
const char* formatName(Format format);

// Buffered reading of a file descriptor, by lines or by bytes, in bounded
// memory: a line longer than the buffer is handed out cut.
class Reader {
  public:
    explicit Reader(int fd) : mFd(fd) {}
    // False at the end of input or when reading fails (see error()).
    bool line(std::string_view* line, bool* cut);
    // Up to n bytes from the current position, not consumed.
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

// logcat's text lines in, entries out.
class TextParser {
  public:
    enum class Result { Entry, Marker, Continuation, Skipped };
    explicit TextParser(Format format = Format::Auto) : mFormat(format) {}
    // One line without its line feed; a carriage return is dropped here.
    Result feed(std::string_view line, uint64_t number, Entry* entry);
    Format seen() const { return mSeen; }  // the last format recognised

  private:
    bool parseLongHeader(std::string_view line);
    Format mFormat;
    Format mSeen = Format::Auto;
    // long: a header waits for its message line; lines up to a blank one
    // continue the message.
    enum class Long { None, Header, Message } mLong = Long::None;
    Entry mLongEntry;
    std::string mLongTag;
};

// Entries of `logcat -B`, each decoded by liblog's own
// android_log_processLogBuffer; this code only frames them.
class BinaryReader {
  public:
    enum class Result { Entry, Skipped, End };
    explicit BinaryReader(Reader& bytes) : mBytes(bytes) {}
    Result next(Entry* entry);
    static bool available();  // false in a build without liblog

  private:
    Reader& mBytes;
    std::vector<char> mEntry;
};

// Most severe first.
enum class Kind {
    ChiMetaDoubleDestroy,
    ReferenceUnderflow,
    ChiMetaLeak,
    DebugDataLeak,
    RecordLeak,
    LinesLost,
};
const char* kindName(Kind kind);

struct Finding {
    Kind kind;
    uint64_t object;  // the pointer as the log printed it; 0 when none
    int32_t pid;
    int32_t tid;
    uint64_t firstLine;  // of its evidence
    uint64_t lastLine;
    const char* rule;  // the host rule most likely broken; null for lines-lost
    bool certain;
    bool processEnded;
    std::string detail;
};

// One object family: made in the log, alive when the log began, ended in
// it, and alive at its end.
struct Count {
    uint64_t created = 0;
    uint64_t before = 0;
    uint64_t ended = 0;
    uint64_t alive() const { return created + before - ended; }
};

struct Totals {
    Count records;
    Count chiMetas;
    Count debugData;
    Totals& operator+=(const Totals& other);
};

// What the library was allowed to log, as far as the log shows.
struct Seen {
    bool lifetime = false;   // Debug lines of group 128
    bool metaInfo = false;   // Info lines of group 64
    bool metaDebug = false;  // Debug lines of group 64
    bool traces = false;     // reconciliation's reference traces (level below 3)
    bool threadIds = false;  // entries carry their thread (not brief, not time)
};

struct Process {
    int32_t pid = 0;
    bool ended = false;  // the process died or was replaced
    uint64_t firstLine = 0;
    uint64_t lastLine = 0;
    Totals totals;
    std::vector<Finding> findings;
};

class Ledger;

// Takes entries of any tag and keeps one ledger per process.
class Checker {
  public:
    // onFinding sees each finding as soon as it is decided.
    explicit Checker(std::function<void(const Finding&)> onFinding = nullptr);
    ~Checker();
    void add(const Entry& entry);
    void finish();  // end of input: what is still alive is decided on

    const std::vector<Process>& processes() const { return mDone; }
    const Seen& seen() const { return mSeen; }
    uint64_t libraryLines() const { return mLibraryLines; }
    uint64_t otherLines() const { return mOtherLines; }
    uint64_t unknownLines() const { return mUnknownLines; }

  private:
    void end(int32_t pid, bool processEnded);
    std::function<void(const Finding&)> mOnFinding;
    std::map<int32_t, std::unique_ptr<Ledger>> mLedgers;
    std::vector<Process> mDone;
    Seen mSeen;
    uint64_t mLibraryLines = 0;
    uint64_t mOtherLines = 0;
    uint64_t mUnknownLines = 0;
};

struct InputStats {
    uint64_t lines = 0;    // text lines, or binary entries
    uint64_t markers = 0;  // "--------- beginning of ..."
    uint64_t skipped = 0;  // no entry: truncated, garbled
    Format format = Format::Auto;
    bool interrupted = false;
};

// Reads one input into the checker until its end or until *stop is set.
// False when it cannot be read; error then holds the errno value (ENOTSUP:
// binary input in a build without liblog).
bool readLog(int fd, Format format, Checker& checker, InputStats& stats, int* error,
             const volatile sig_atomic_t* stop);

// One finding on one line, as the live output prints it.
std::string describe(const Finding& finding);
// The verdict first, the ledger per process, the findings most severe
// first, the checks the log could not support, and the input.
void printHuman(FILE* out, const Checker& checker, const InputStats& input);
void printJson(FILE* out, const Checker& checker, const InputStats& input);

}  // namespace logcheck
