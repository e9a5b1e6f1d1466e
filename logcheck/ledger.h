// SPDX-License-Identifier: Apache-2.0
// The record's ledger rebuilt from its log: which records, CHI metadata
// objects and debug data references each camera provider process made and
// gave back, and where the log shows a host rule broken.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "input.h"

namespace logcheck {

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
    uint64_t firstLine;
    uint64_t lastLine;
    const char* rule;  // the host rule most likely broken; null for lines-lost
    bool certain;
    bool processEnded;
    std::string detail;
};

// One object family: made in the log, alive when the log began, ended in
// the log, and alive at its end.
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

// What the library was allowed to log, as far as the log shows it.
struct Seen {
    bool lifetime = false;   // Debug lines of group 128
    bool metaInfo = false;   // Info lines of group 64
    bool metaDebug = false;  // Debug lines of group 64
    bool traces = false;     // reference traces (level below 3)
    bool tracesOff = false;  // a displacement without its trace
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

// Feeds entries of any tag, one process ledger per pid.
class Checker {
  public:
    // onFinding sees each finding as soon as it is decided.
    explicit Checker(std::function<void(const Finding&)> onFinding = nullptr);
    ~Checker();
    void add(const Entry& entry);
    // End of input: what is still alive is decided on.
    void finish();

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

}  // namespace logcheck
