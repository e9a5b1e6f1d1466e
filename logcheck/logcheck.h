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
    std::string_view stamp;  // the time as printed; empty where the format prints none
};

// A time stamp as logcat prints it ("MM-DD hh:mm:ss.fff", with a year, epoch
// or monotonic seconds, a zone) in seconds; NaN where there is none. Without
// a year, seconds since the year began.
double stampSeconds(std::string_view stamp);

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
    std::string mLongStamp;
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
    char mStamp[32];
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

// The objects alive over a process's lines, in bounded memory: at most
// kMost points, each the least and most alive over a span of lines, spans
// doubling as the log grows.
class Timeline {
  public:
    static constexpr size_t kMost = 512;
    enum Family { Records, ChiMetas, DebugData, kFamilies };
    struct Point {
        uint64_t line;  // its span's first library line
        double time;    // seconds there; NaN where the format prints none
        uint64_t low[kFamilies];
        uint64_t high[kFamilies];
        uint64_t lastLine;  // its span's last library line, and what was alive after it
        double lastTime;
        uint64_t last[kFamilies];
    };
    // After a library line: what is alive now.
    void add(uint64_t line, double time, const Totals& totals);
    const std::vector<Point>& points() const { return mPoints; }
    // Every point has a time: draw over time, else over lines.
    bool timed() const { return !mPoints.empty() && mTimed; }
    // The point whose span holds the line (the first, before them all).
    const Point* at(uint64_t line) const;
    // The time at a line, from its span's ends; NaN when not timed.
    double timeAt(uint64_t line) const;

  private:
    std::vector<Point> mPoints;
    uint64_t mFirst = 0;
    uint64_t mSpan = 1;
    bool mTimed = true;
    // A log without years runs on past New Year: later stamps are moved on.
    double mLastTime = 0;
    double mYears = 0;
};

struct Process {
    int32_t pid = 0;
    int boot = 0;
    bool ended = false;  // the process died, was replaced, or its boot ended
    uint64_t firstLine = 0;
    uint64_t lastLine = 0;
    Totals totals;
    std::vector<Finding> findings;
    Timeline timeline;
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
    const char* log = nullptr;  // the log's name, where there are several
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
// One page a browser opens by itself: per process, the objects alive over
// the log's time (or its lines) with each finding marked where its evidence
// begins and the first leaked object of each rule called out, then the
// findings by rule with what to do and their evidence.
void printHtml(FILE* out, const Checker& checker, const InputStats& input,
               const ReportOptions& options);
// The same counters and findings in the Trace Event Format, which
// ui.perfetto.dev and chrome://tracing open.
void printTrace(FILE* out, const Checker& checker);

// How the program reports one log or many.
struct RunOptions {
    Format format = Format::Auto;
    bool json = false;            // one log: one JSON object
    bool jsonl = false;           // each log: one JSON object on a line of its own
    bool all = false;             // every finding, also past a screenful
    const char* html = nullptr;   // one log: the page, written here
    const char* trace = nullptr;  // one log: the trace, written here
};

// What one log came to.
struct LogResult {
    std::string path;
    int status = 0;        // exitStatus(), or 2 when it could not be read or reported
    std::string sentence;  // the verdict's sentence, or why it could not be read
    std::string json;      // with jsonl, its line
    struct RuleCount {
        std::string rule;
        size_t findings;
        uint64_t firstLine;
    };
    std::vector<RuleCount> rules;  // by rule, as the report groups them
};

// Reads one log ("-": standard input) and reports it: in full on out when
// there is one, as a page and a trace where asked.
LogResult checkLog(const std::string& path, const RunOptions& options, FILE* out,
                   const volatile sig_atomic_t* stop,
                   const std::function<void(const Finding&)>& live = nullptr);

// The logs named: files as they are, a directory's files (recursively, in
// name order), and the paths listed one per line in each list ("-":
// standard input). False with the reason when a list or directory cannot be
// read.
bool listLogs(const std::vector<std::string>& named, const std::vector<std::string>& lists,
              std::vector<std::string>* logs, std::string* error);

// Checks the logs, jobs at a time: one line per log in the order given (or
// its --jsonl object), then a summary by rule across them. The worst status.
int checkLogs(const std::vector<std::string>& logs, const RunOptions& options, int jobs, FILE* out,
              const volatile sig_atomic_t* stop);

// The worse of two exit statuses: unreadable (2), findings (1), nothing
// checked (3), clean (0).
int worse(int a, int b);

}  // namespace logcheck
