// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck's library: a phone's log read in any of logcat's forms
// (every -v format and modifier, -B, a bug report and its zip), the record's
// ledger rebuilt from the library's own lines, one per process and boot, and
// what it found, for a person or for a script.
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
    uint64_t line = 0;     // input line where it starts (binary: entry number)
    int32_t pid = 0;       // 0 where the format prints none
    int32_t tid = 0;       // 0 where the format prints none
    char priority = '?';   // V D I W E F
    std::string_view tag;  // empty where the format prints none
    std::string_view message;
};

// logcat's -v formats; Auto recognises each line by itself.
enum class Format { Auto, Threadtime, Brief, Time, Long, Tag, Process, Thread, Raw, Binary };
// A -v argument: one format and logcat's modifiers, comma separated.
// Modifiers change only what the reader recognises anyway.
bool parseFormat(std::string_view words, Format* out);
const char* formatName(Format format);

// Where bytes come from: a descriptor, or a decompressed stream.
class Source {
  public:
    virtual ~Source() = default;
    // Up to size bytes; 0 at the end, -1 on an error (errno set).
    virtual long read(char* buffer, size_t size) = 0;
    // The whole input at once, where it is a file that can be mapped.
    virtual std::string_view mapped() { return {}; }
};

// Opens a file as logs are kept: plain, gzip, or a bug report zip (its main
// entry). "-" is standard input. Null on failure, with *error an errno value
// and *reason a sentence where errno has none.
std::unique_ptr<Source> openLog(const char* path, int* error, std::string* reason);

// Buffered reading by lines or by bytes, in bounded memory: a line longer
// than the buffer is still one line, handed out empty and marked overlong.
class Reader {
  public:
    explicit Reader(Source& source) : mSource(source), mWhole(source.mapped()) {}
    // False at the end of input or when reading fails (see error()).
    bool line(std::string_view* line, bool* overlong);
    // Up to n bytes from the current position, not consumed.
    std::string_view peek(size_t n);
    void consume(size_t n) { mBegin += n; }
    int error() const { return mError; }

  private:
    bool fill();
    Source& mSource;
    std::string_view mWhole;  // a mapped file: read in place
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
    // One line without its line feed; colour, trailing blanks and carriage
    // returns are taken off here.
    Result feed(std::string_view line, uint64_t number, Entry* entry);
    Format seen() const { return mSeen; }  // the last format recognised
    // Lines that hold the library's message with no header (-v raw).
    uint64_t rawLibraryLines() const { return mRawLibraryLines; }

  private:
    bool parseLongHeader(std::string_view line);
    Format mFormat;
    Format mSeen = Format::Auto;
    uint64_t mRawLibraryLines = 0;
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
    int boot;                        // 0 the log's own; 1 and up earlier boots of a bug report
    std::vector<uint64_t> evidence;  // input lines, in order
    const char* rule;                // the host rule most likely broken; null when none
    bool certain;
    bool processEnded;
    std::string detail;
};

// What a host does about a rule, in one line; null for an unknown rule.
const char* advice(const char* rule);

// One object family: made in the log, alive when the log began (or made
// where the log does not show it), ended in it, and alive at its end.
struct Count {
    uint64_t created = 0;
    uint64_t before = 0;
    uint64_t ended = 0;
    uint64_t alive() const { return created + before - ended; }
};

struct Totals {
    Count records;
    Count chiMetas;
    Count debugData;  // one per hold of a buffer, from its first reference to its last
    Totals& operator+=(const Totals& other);
};

// What the library was allowed to log, as far as the log shows.
struct Seen {
    bool lifetime = false;   // Debug lines of group 128
    bool metaInfo = false;   // Info lines of group 64
    bool metaDebug = false;  // Debug lines of group 64
    bool traces = false;     // reconciliation's reference traces (level below 3)
    bool threadIds = false;  // entries carry their thread (not brief, time, tag, process)
};

struct Process {
    int32_t pid = 0;
    int boot = 0;
    bool ended = false;  // the process died, was replaced, or its boot ended
    uint64_t firstLine = 0;
    uint64_t lastLine = 0;
    Totals totals;
    std::vector<Finding> findings;
};

// What the log could not tell, with the line it begins at.
struct Caveat {
    uint64_t line;
    std::string text;
};

class Ledger;
class Classifier;

// Takes entries of any tag and keeps one ledger per process and boot.
class Checker {
  public:
    // onFinding sees each finding as soon as it is decided.
    explicit Checker(std::function<void(const Finding&)> onFinding = nullptr);
    ~Checker();
    void add(const Entry& entry);
    // A bug report's sections: entries from now on belong to this boot (0:
    // the report's own, 1: the one before, ...).
    void beginBoot(int boot);
    // That boot's processes ended with it (the phone rebooted).
    void endBoot(int boot, uint64_t line);
    void finish();  // end of input: what is still alive is decided on

    const std::vector<Process>& processes() const { return mDone; }
    const std::vector<Caveat>& caveats() const { return mCaveats; }
    const Seen& seen() const { return mSeen; }
    uint64_t libraryLines() const { return mLibraryLines; }
    uint64_t otherLines() const { return mOtherLines; }
    uint64_t unknownLines() const { return mUnknownLines; }

  private:
    using Key = std::pair<int, int32_t>;  // boot, pid
    Ledger& ledger(const Entry& entry);
    Ledger* live(int32_t pid) const;
    void relist();
    void end(Key key, bool processEnded);
    void chatty(const Entry& entry);
    std::function<void(const Finding&)> mOnFinding;
    std::unique_ptr<Classifier> mClassifier;
    std::map<Key, std::unique_ptr<Ledger>> mLedgers;
    std::vector<Process> mDone;
    std::vector<Caveat> mCaveats;
    Seen mSeen;
    int mBoot = 0;
    Ledger* mLast = nullptr;  // the ledger of the last library line
    // The current boot's ledgers by pid: few, and searched for every line.
    std::vector<std::pair<int32_t, Ledger*>> mLive;
    uint64_t mLibraryLines = 0;
    uint64_t mOtherLines = 0;
    uint64_t mUnknownLines = 0;
};

struct InputStats {
    uint64_t lines = 0;            // text lines, or binary entries
    uint64_t markers = 0;          // "--------- beginning of ...", a bug report's section lines
    uint64_t skipped = 0;          // no entry: truncated, garbled, longer than 64 KiB
    uint64_t outside = 0;          // a bug report's lines outside its logs
    uint64_t rawLibraryLines = 0;  // the library's messages without a header
    Format format = Format::Auto;
    bool bugReport = false;
    bool interrupted = false;
};

// Reads one input into the checker until its end or until *stop is set.
// False when it cannot be read, with the reason.
bool readLog(Source& source, Format format, Checker& checker, InputStats& stats, std::string* error,
             const volatile sig_atomic_t* stop);

// The texts of the given input lines (sorted), read again from the start.
std::map<uint64_t, std::string> evidenceLines(Source& source, const std::vector<uint64_t>& lines);

enum class Verdict { Clean, Findings, NothingChecked };
Verdict verdict(const Checker& checker);
// The exit status that goes with it: 0 clean, 1 findings, 3 nothing checked.
int exitStatus(Verdict verdict);

struct ReportOptions {
    bool all = false;  // every finding, not the first of each rule past a screenful
    // Texts of evidence lines, when the input could be read again.
    const std::map<uint64_t, std::string>* texts = nullptr;
};

// One finding on one line, as the live output prints it.
std::string describe(const Finding& finding);
// The evidence lines every finding cites, for evidenceLines().
std::vector<uint64_t> citedLines(const Checker& checker);
// The verdict first, findings grouped by rule with what to do and their
// evidence, the ledger per process, the checks the log could not support,
// and the input.
void printHuman(FILE* out, const Checker& checker, const InputStats& input,
                const ReportOptions& options);
void printJson(FILE* out, const Checker& checker, const InputStats& input,
               const ReportOptions& options);

}  // namespace logcheck
