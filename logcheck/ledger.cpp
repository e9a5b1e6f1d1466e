// SPDX-License-Identifier: Apache-2.0
// The ledger of one process, rebuilt line by line. Each library line is
// recognised by the function in its prefix and its message, read with the
// library's own format.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <unordered_map>

#include "logcheck.h"

namespace logcheck {

namespace {

enum class Event : uint8_t {
    Construct,     // a record made by the default or the copy constructor
    Destruct,      // a record's destructor begins
    ShallowCopy,   // a shallow clone shares what its source just referenced
    MetaCreate,    // a CHI metadata object made (count: ChimetaSum)
    MetaDestroy,   // one ended (count: ChimetaSum)
    MetaRefused,   // a destroy refused: the record had ended the handle
    RefAdd,        // a reference taken by the record (count: after it)
    RefRelease,    // one given back
    RefRead,       // a count read for a test
    TraceAdd,      // reconciliation referenced a returned object (count: %d)
    TraceRelease,  // reconciliation released a displaced one (count: %d)
    Owned,         // an object made or adopted for a record (0: the last made)
    PrivPhy,       // a physical private result made for a camera id
    DebugAdd,      // the manager took a reference on a debug buffer
    DebugKeep,     // a keep took one (-1: the buffer was held already)
    DebugAdopt,    // an import adopted a buffer without a reference
    DebugDec,      // a reference given back (count: after it)
    DebugFree,     // a buffer freed instead
    HandOver,      // releaseTuningMetaBufs: objects, perhaps debug data, handed over
    Other,         // names a record, nothing more
};

// How the conversions of a format land in a Line: R record, O object, T
// other record, C count, S id, x not kept.
struct Pattern {
    const char* function;
    const char* format;
    Event event;
    uint8_t group;
    const char* fields;
};

constexpr const char* kPrivResults =
        "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u mSamelogical_PhyResult %d";
constexpr const char* kRefLogical = "PostProcsInfo %p m_pPrivResult %p ref %u";
constexpr const char* kRefPhysical = "PostProcsInfo %p phyCamId %u privResult %p ref %u";
constexpr const char* kDestructData =
        "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d destruct debugData pData:%p after dec "
        "ref is %d";
constexpr const char* kFree = "PostProcsInfo %p free data:%p";
constexpr const char* kPhysical = "PostProcsInfo %p PrivPhyCamId %s PrivPhyResult %p";

const Pattern kPatterns[] = {
        {"QcomPostProcInfo", "Construct QcomPostProcInfo %p, after sum %d", Event::Construct, 128,
         "RC"},
        {"QcomPostProcInfo",
         "Deep Construct QcomPostProcInfo %p m_pPrivResult %p, after sum %d, info from "
         "QcomPostProcInfo %p m_pPrivResult %p",
         Event::Construct, 64, "RxCTx"},
        {"QcomPostProcInfo",
         "%p deep Construct, m_pPrivPhyResults %p index is %d from other.m_pPrivPhyResults[%d] %p",
         Event::Owned, 64, "R"},
        {"QcomPostProcInfo", "%p deep Construct, m_pPrivResult %p from other.m_pPrivResult %p",
         Event::Owned, 64, "RO"},
        {"~QcomPostProcInfo", "Destruct  QcomPostProcInfo %p, before sum %d", Event::Destruct, 128,
         "RC"},
        {"~QcomPostProcInfo", kDestructData, Event::DebugDec, 128, "RxOC"},
        {"~QcomPostProcInfo", kFree, Event::DebugFree, 64, "RO"},
        {"shallowClone",
         "shallow copy QcomPostProcInfo %p m_pPrivResult %p, info from QcomPostProcInfo %p "
         "m_pPrivResult %p",
         Event::ShallowCopy, 64, "RxTx"},
        {"createChiMeta",
         "Create ChiMeta %p ref %u isMultiTypeContextMeta %d isMultiCameraContextMeta %d "
         "ChimetaSum %d",
         Event::MetaCreate, 64, "OxxxC"},
        {"destroyChiMeta", "Destroy ChiMeta %p ref %u ChimetaSum %d", Event::MetaDestroy, 64,
         "OxC"},
        {"destroyChiMeta", "chiMetaHandle %p is destroyed, no need to destroy", Event::MetaRefused,
         64, "O"},
        {"addChiMetasRef", kRefLogical, Event::RefAdd, 64, "ROC"},
        {"addChiMetasRef", kRefPhysical, Event::RefAdd, 64, "RxOC"},
        {"releaseChiMetasRef", kRefLogical, Event::RefRelease, 64, "ROC"},
        {"releaseChiMetasRef", kRefPhysical, Event::RefRelease, 64, "RxOC"},
        {"releaseChiMetasRefWithCameraId", kRefLogical, Event::RefRelease, 64, "ROC"},
        {"releaseChiMetasRefWithCameraId", kRefPhysical, Event::RefRelease, 64, "RxOC"},
        {"isMetaUsedInQC", "PostProcInfo %p ChiMeta %p ref %u", Event::RefRead, 64, "ROC"},
        {"resetChiMetas", "PostProcInfo %p ChiMeta %p ref %u be reset!", Event::RefRead, 64, "ROC"},
        {"resetChiMetas", "PostProcInfo %p ChiMeta %p ref %u still in use, cannot be reset!",
         Event::RefRead, 64, "ROC"},
        {"checkAndUpdatePrivResult", "PostProcsInfo %p the chi meta: %p AddReference ref: %d",
         Event::TraceAdd, 64, "ROC"},
        {"checkAndUpdatePrivResult", "PostProcsInfo %p the chi meta: %p ReleaseReference ref: %d",
         Event::TraceRelease, 64, "ROC"},
        {"checkAndUpdatePrivResult",
         "PostProcsInfo %p vndFrame:%u update phycam %d result->priv_physcam_metadata[%d] %p",
         Event::Owned, 64, "RxxxO"},
        {"createPrivResultMeta", kPrivResults, Event::Owned, 64, "RO"},
        {"createPrivResultMeta", kPhysical, Event::PrivPhy, 64, "RSO"},
        {"createTuningMetaBufs", kPrivResults, Event::Owned, 64, "RO"},
        {"createTuningMetaBufs", kPhysical, Event::PrivPhy, 64, "RSO"},
        {"destroyTuningMetaBufs", kPrivResults, Event::Other, 64, "R"},
        {"destroyTuningMetaBufs", kDestructData, Event::DebugDec, 64, "RxOC"},
        {"releaseTuningMetaBufs", kPrivResults, Event::HandOver, 64, "R"},
        {"addDebugDataAndRef", "PostProcsInfo %p add DebugDataPtr %p ref %d", Event::DebugAdd, 128,
         "ROC"},
        {"keep3aDebugData",
         "[Offline DebugData] PostProcsInfo %p add phycamId %d 3adebugData pData:%p after add ref "
         "is %d",
         Event::DebugKeep, 128, "RxOC"},
        {"keepTuningDDArray",
         "[Offline DebugData] PostProcsInfo %p add phycamId %d DebugDataArrayTuning index %u "
         "pData:%p after add ref is %d",
         Event::DebugKeep, 128, "RxxOC"},
        {"setTuningMetaBufs", "PostProcsInfo %p add DebugDataPtr %p", Event::DebugAdopt, 64, "RO"},
        {"reset",
         "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d reset debugData pData:%p after dec "
         "ref is %d",
         Event::DebugDec, 128, "RxOC"},
        {"reset", kFree, Event::DebugFree, 64, "RO"},
        {"getTuningMetaBufs", "PostProcsInfo %p", Event::Other, 64, "R"},
        {"setTuningMetaBufs", "PostProcsInfo %p", Event::Other, 64, "R"},
};

struct Line {
    Event event = Event::Other;
    uint8_t group = 0;  // 64 or 128
    uint64_t record = 0;
    uint64_t object = 0;  // CHI metadata object or debug buffer
    uint64_t other = 0;   // a copy's source
    int64_t count = 0;
    std::string_view id;  // a camera id text
    std::string_view function;
};

// One conversion at text[*pos]; glibc prints a null pointer as "(nil)",
// bionic as "0x0".
bool convert(char conversion, std::string_view text, size_t* pos, int64_t* number,
             std::string_view* word) {
    size_t i = *pos;
    if (conversion == 's') {
        *pos = std::min(text.find(' ', i), text.size());
        *word = text.substr(i, *pos - i);
        return *pos > i;
    }
    if (conversion == 'p' && text.compare(i, 5, "(nil)") == 0) {
        *number = 0;
        *pos = i + 5;
        return true;
    }
    const bool hex = conversion == 'p';
    if (hex && text.compare(i, 2, "0x") != 0) {
        return false;
    }
    const bool negative = conversion == 'd' && i < text.size() && text[i] == '-';
    i += hex ? 2 : negative ? 1 : 0;
    const size_t start = i;
    uint64_t value = 0;
    for (; i < text.size() && i - start < (hex ? 16u : 10u); ++i) {
        const char c = text[i];
        const int digit = c >= '0' && c <= '9'          ? c - '0'
                          : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                                                        : -1;
        if (digit < 0) {
            break;
        }
        value = value * (hex ? 16 : 10) + static_cast<uint64_t>(digit);
    }
    *number = negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
    *pos = i;
    return i > start;
}

// Reads the prefix "<group> <file>:<line> <function>()" (a function object's
// function is "operator()") and matches the message against the library's
// formats.
bool classify(std::string_view text, Line* out) {
    size_t at = text.find(' ');
    at = at == std::string_view::npos ? at : text.find(' ', at + 1);
    if (at == std::string_view::npos) {
        return false;
    }
    const size_t from = text.compare(at + 1, 10, "operator()") == 0 ? at + 11 : at + 1;
    const size_t parens = text.find("()", from);
    if (parens == std::string_view::npos) {
        return false;
    }
    const std::string_view function = text.substr(at + 1, parens - at - 1);
    const std::string_view message = text.substr(parens + 2);
    for (const Pattern& pattern : kPatterns) {
        if (function != pattern.function) {
            continue;
        }
        Line line;
        size_t pos = 0;
        size_t k = 0;
        bool matched = true;
        for (const char* f = pattern.format; *f != '\0' && matched; ++f) {
            if (*f != '%') {
                matched = pos < message.size() && message[pos++] == *f;
                continue;
            }
            int64_t number = 0;
            std::string_view word;
            matched = convert(*++f, message, &pos, &number, &word);
            const char field = k < strlen(pattern.fields) ? pattern.fields[k] : 'x';
            ++k;
            const uint64_t pointer = static_cast<uint64_t>(number);
            switch (field) {
                case 'R':
                    line.record = pointer;
                    break;
                case 'O':
                    line.object = pointer;
                    break;
                case 'T':
                    line.other = pointer;
                    break;
                case 'C':
                    line.count = number;
                    break;
                case 'S':
                    line.id = word;
                    break;
                default:
                    break;
            }
        }
        if (matched && pos == message.size()) {
            line.event = pattern.event;
            line.group = pattern.group;
            line.function = function;
            *out = line;
            return true;
        }
    }
    return false;
}

// Destroyed objects remembered to catch a second destroy: bounded, so that
// memory follows the objects alive rather than the length of the log.
constexpr size_t kDestroyedKept = 4096;

// The host rules, by their names in the README.
constexpr const char* kRecordLifetime = "record-lifetime";
constexpr const char* kCreateOnEmpty = "create-on-empty";
constexpr const char* kReleaseHandsOver = "release-hands-over";
constexpr const char* kAtoiSharedKey = "atoi-shared-key";
constexpr const char* kTuningParamsFree = "tuning-params-free";
constexpr const char* kImportAdopts = "import-adopts";
constexpr const char* kHalReferences = "hal-references";
constexpr const char* kAlreadyReferenced = "already-referenced";
constexpr const char* kHeldAndParked = "held-and-parked";
constexpr const char* kShallowCloneOwner = "shallow-clone-owner";
constexpr const char* kShallowCloneDebugData = "shallow-clone-debug-data";

struct Evidence {
    uint64_t first = 0;
    uint64_t last = 0;
    int32_t tid = 0;
    void see(const Entry& entry) {
        first = first == 0 ? entry.line : first;
        last = entry.line;
        tid = entry.tid;
    }
};

struct RecordState {
    Evidence evidence;
    bool created = false;                    // made in the log
    bool handedOver = false;                 // releaseTuningMetaBufs ran on it
    bool shallow = false;                    // a shallow clone
    std::unordered_map<int, uint64_t> keys;  // camera key to object
};

struct MetaState {
    Evidence evidence;
    bool created = false;
    bool shared = false;  // with a shallow clone
    bool handedOver = false;
    bool atoiShared = false;  // lost its key to a later id
    bool underflow = false;   // reported
    uint64_t owner = 0;
    int64_t held = 0;  // references the library took and has not given back
};

struct BufferState {
    Evidence evidence;
    std::vector<std::pair<uint64_t, bool>> holders;  // record, took a reference
    bool underflow = false;
};

struct ThreadState {
    uint64_t created = 0;      // the CHI object its last create made
    uint64_t destructing = 0;  // the record whose destructor runs on it
    bool endingHandedOver = false;
    // The manager's line of an add, before keep's line of the same add.
    uint64_t addRecord = 0;
    uint64_t addBuffer = 0;
    int64_t addCount = 0;
    std::vector<uint64_t> referenced;  // what addChiMetasRef just referenced
};

}  // namespace

const char* kindName(Kind kind) {
    static const char* const kNames[] = {
            "chi-meta-double-destroy", "reference-underflow", "chi-meta-leak",
            "debug-data-leak",         "record-leak",         "lines-lost"};
    return kNames[static_cast<int>(kind)];
}

Totals& Totals::operator+=(const Totals& other) {
    Count* mine[] = {&records, &chiMetas, &debugData};
    const Count* theirs[] = {&other.records, &other.chiMetas, &other.debugData};
    for (int i = 0; i < 3; ++i) {
        mine[i]->created += theirs[i]->created;
        mine[i]->before += theirs[i]->before;
        mine[i]->ended += theirs[i]->ended;
    }
    return *this;
}

class Ledger {
  public:
    Ledger(int32_t pid, uint64_t line, const std::function<void(const Finding&)>& onFinding)
        : mOnFinding(onFinding) {
        mProcess.pid = pid;
        mProcess.firstLine = line;
    }
    uint64_t firstLine() const { return mProcess.firstLine; }
    uint64_t lastLine() const { return mProcess.lastLine; }
    void add(const Entry& entry, const Line& line);
    // logd dropped lines of this process.
    void lost(const Entry& entry) { linesLost(entry, 0, std::string(entry.message)); }
    Process finish(bool processEnded);

  private:
    void report(Kind kind, uint64_t object, const Evidence& evidence, uint64_t last,
                const char* rule, std::string detail, bool certain = true) {
        // Without thread ids the lines of records on several threads cannot
        // be told apart.
        Finding finding{kind,           object,
                        mProcess.pid,   evidence.tid,
                        evidence.first, last,
                        rule,           certain && !mLost && mThreadIds,
                        false,          std::move(detail)};
        if (mOnFinding) {
            mOnFinding(finding);
        }
        mProcess.findings.push_back(std::move(finding));
    }

    // A sum in a line disagrees with the ledger, or logd says it dropped
    // lines: whatever they told, later findings are no longer asserted.
    void linesLost(const Entry& entry, uint64_t object, std::string detail) {
        Evidence here;
        here.see(entry);
        report(Kind::LinesLost, object, here, entry.line, nullptr, std::move(detail));
        mLost = true;
    }

    // Known from now on; an object first seen here was alive before the log.
    template <typename State>
    State& known(std::unordered_map<uint64_t, State>& states, uint64_t address, const Entry& entry,
                 Count& count) {
        auto [it, added] = states.try_emplace(address);
        count.before += added ? 1 : 0;
        it->second.evidence.see(entry);
        return it->second;
    }
    RecordState& record(uint64_t a, const Entry& e) {
        return known(mRecords, a, e, mProcess.totals.records);
    }
    MetaState& meta(uint64_t a, const Entry& e) {
        return known(mMetas, a, e, mProcess.totals.chiMetas);
    }

    void construct(const Entry& entry, const Line& line);
    void destroyed(const Entry& entry, uint64_t object, bool refused);
    void metaCount(const Entry& entry, MetaState& state, uint64_t object, int64_t count,
                   bool wraps);
    void debugAdd(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                  bool referenced);
    void debugRelease(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                      bool freed);
    void destructed(int32_t tid, ThreadState& thread);

    Process mProcess;
    const std::function<void(const Finding&)>& mOnFinding;
    bool mLost = false;
    bool mThreadIds = false;  // the format shows them (not brief, not time)
    std::unordered_map<uint64_t, RecordState> mRecords;
    std::unordered_map<uint64_t, MetaState> mMetas;
    std::unordered_map<uint64_t, BufferState> mBuffers;
    std::unordered_map<int32_t, ThreadState> mThreads;
    // Records counted alive, taking every destructor begun as finished; the
    // destructors still running (per thread) may not have counted down yet.
    bool mRecordSumKnown = false;
    int64_t mRecordAlive = 0;
    std::unordered_map<int32_t, int> mRunning;
    struct Destroyed {
        Evidence evidence;
        bool shared;
    };
    std::unordered_map<uint64_t, Destroyed> mDestroyed;
};

// A count below zero (an unsigned one wraps), or below the references the
// library itself still holds on the object.
void Ledger::metaCount(const Entry& entry, MetaState& state, uint64_t object, int64_t count,
                       bool wraps) {
    const bool below = wraps ? count >= INT64_C(0x80000000) : count < 0;
    if ((below || count < state.held) && !state.underflow) {
        state.underflow = true;
        report(Kind::ReferenceUnderflow, object, state.evidence, entry.line, kHalReferences,
               below ? "the count went below zero"
                     : "count " + std::to_string(count) + " below the " +
                               std::to_string(state.held) + " references the library holds");
    }
}

void Ledger::construct(const Entry& entry, const Line& line) {
    // The sum is printed under the lock: exact, but for destructors that
    // have begun and not yet counted down.
    const int64_t before = line.count - 1;
    int64_t running = 0;
    for (const auto& [tid, count] : mRunning) {
        running += count;
    }
    const bool off = before < mRecordAlive || before > mRecordAlive + running;
    if (mRecordSumKnown && off) {
        linesLost(entry, line.record,
                  "after sum " + std::to_string(line.count) + ", the ledger counts " +
                          std::to_string(mRecordAlive + 1));
    }
    mRecordAlive = !mRecordSumKnown || off ? before + 1 : mRecordAlive + 1;
    mRecordSumKnown = true;
    if (mRecords.count(line.record) != 0) {
        linesLost(entry, line.record, "a record made again without being destroyed");
        ++mProcess.totals.records.ended;
        mRecords.erase(line.record);
    }
    RecordState& state = mRecords[line.record];
    state.created = true;
    state.evidence.see(entry);
    ++mProcess.totals.records.created;
}

void Ledger::destroyed(const Entry& entry, uint64_t object, bool refused) {
    auto live = mMetas.find(object);
    if (!refused && live != mMetas.end()) {
        if (mDestroyed.size() == kDestroyedKept) {
            mDestroyed.clear();  // a second destroy comes soon after the first
        }
        Destroyed& ended = mDestroyed[object];
        ended = {live->second.evidence, live->second.shared};
        ended.evidence.see(entry);
        mMetas.erase(live);
        ++mProcess.totals.chiMetas.ended;
        return;
    }
    auto ended = mDestroyed.find(object);
    if (ended == mDestroyed.end() && !refused) {
        ++mProcess.totals.chiMetas.before;  // alive before the log began
        ++mProcess.totals.chiMetas.ended;
        return;
    }
    // A shallow clone and its source both ended what they shared; within one
    // record a handle comes back when an object was held and parked.
    Evidence evidence;
    evidence.see(entry);
    evidence = ended != mDestroyed.end() ? ended->second.evidence : evidence;
    const bool shared = ended != mDestroyed.end() && ended->second.shared && !refused;
    report(Kind::ChiMetaDoubleDestroy, object, evidence, entry.line,
           shared ? kShallowCloneOwner : kHeldAndParked,
           refused ? "the record refused a handle it had ended" : "ended twice");
}

void Ledger::debugAdd(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                      bool referenced) {
    auto [it, added] = mBuffers.try_emplace(object);
    BufferState& state = it->second;
    state.evidence.see(entry);
    mProcess.totals.debugData.created += added ? 1 : 0;
    if (count < 0 && !state.underflow) {
        state.underflow = true;
        report(Kind::ReferenceUnderflow, object, state.evidence, entry.line, kAlreadyReferenced,
               "the count went below zero");
    }
    if (std::none_of(state.holders.begin(), state.holders.end(),
                     [record](const auto& holder) { return holder.first == record; })) {
        state.holders.emplace_back(record, referenced);
    }
}

void Ledger::debugRelease(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                          bool freed) {
    auto [it, added] = mBuffers.try_emplace(object);
    BufferState& state = it->second;
    state.evidence.see(entry);
    mProcess.totals.debugData.before += added ? 1 : 0;
    auto holder = std::find_if(state.holders.begin(), state.holders.end(),
                               [record](const auto& h) { return h.first == record; });
    const bool held = holder != state.holders.end();
    if (freed && held && holder->second) {
        report(Kind::DebugDataLeak, object, state.evidence, entry.line, kTuningParamsFree,
               "freed by a record that had taken a reference on it");
    }
    if (!freed && count < 0 && !state.underflow) {
        state.underflow = true;
        auto releasing = mRecords.find(record);
        const bool shallow = releasing != mRecords.end() && releasing->second.shallow;
        report(Kind::ReferenceUnderflow, object, state.evidence, entry.line,
               held && !holder->second ? kImportAdopts
               : shallow               ? kShallowCloneDebugData
                                       : kAlreadyReferenced,
               "the count went below zero");
    }
    if (held) {
        state.holders.erase(holder);
    }
    if (state.holders.empty() || freed) {
        mBuffers.erase(it);
        ++mProcess.totals.debugData.ended;
    }
}

// The destructor on this thread has returned: what its record still holds
// by the ledger was never given back.
void Ledger::destructed(int32_t tid, ThreadState& thread) {
    const uint64_t address = thread.destructing;
    thread.destructing = 0;
    mRunning.erase(tid);
    for (auto it = mBuffers.begin(); it != mBuffers.end();) {
        auto& holders = it->second.holders;
        auto holder = std::find_if(holders.begin(), holders.end(),
                                   [address](const auto& h) { return h.first == address; });
        if (holder != holders.end()) {
            // Asserted when a releaseTuningMetaBufs line explains it.
            report(Kind::DebugDataLeak, it->first, it->second.evidence, mProcess.lastLine,
                   kReleaseHandsOver, "its record ended without giving it back",
                   thread.endingHandedOver);
            holders.erase(holder);
        }
        if (holders.empty()) {
            ++mProcess.totals.debugData.ended;
            it = mBuffers.erase(it);
        } else {
            ++it;
        }
    }
}

void Ledger::add(const Entry& entry, const Line& line) {
    mProcess.lastLine = entry.line;
    mThreadIds = mThreadIds || entry.tid != 0;
    ThreadState& thread = mThreads[entry.tid];
    if (thread.destructing != 0 &&
        (line.event == Event::Destruct ||
         (line.function != "~QcomPostProcInfo" && line.function != "destroyChiMeta"))) {
        destructed(entry.tid, thread);  // its next line is not the destructor's
    }
    if (line.event != Event::RefAdd && line.event != Event::ShallowCopy) {
        thread.referenced.clear();
    }
    // A copy's lines name it before its constructor's line; a destructor's
    // name the record already ended.
    if (line.record != 0 && line.event != Event::Construct && line.event != Event::Owned &&
        line.record != thread.destructing) {
        record(line.record, entry);
    }
    switch (line.event) {
        case Event::Construct:
            construct(entry, line);
            break;
        case Event::Destruct: {
            ++mProcess.totals.records.ended;
            --mRecordAlive;
            ++mRunning[entry.tid];
            auto found = mRecords.find(line.record);
            thread.endingHandedOver = found != mRecords.end() && found->second.handedOver;
            thread.destructing = line.record;
            if (found != mRecords.end()) {
                mRecords.erase(found);
            }
            break;
        }
        case Event::ShallowCopy:
            record(line.record, entry).shallow = true;
            for (uint64_t object : thread.referenced) {
                meta(object, entry).shared = true;
            }
            break;
        case Event::MetaCreate:
            thread.created = line.object;
            if (line.object != 0) {
                // An address seen before was ended outside the log (the host
                // ends what the record leaves).
                auto [it, fresh] = mMetas.try_emplace(line.object);
                mProcess.totals.chiMetas.ended += fresh ? 0 : 1;
                it->second = MetaState{};
                it->second.created = true;
                it->second.evidence.see(entry);
                mDestroyed.erase(line.object);
                ++mProcess.totals.chiMetas.created;
            }
            break;
        case Event::MetaDestroy:
            destroyed(entry, line.object, false);
            break;
        case Event::MetaRefused:
            destroyed(entry, line.object, true);
            break;
        case Event::RefAdd:
        case Event::TraceAdd: {
            MetaState& state = meta(line.object, entry);
            ++state.held;
            state.owner = state.owner != 0 ? state.owner : line.record;
            thread.referenced.push_back(line.object);
            metaCount(entry, state, line.object, line.count, line.event == Event::RefAdd);
            break;
        }
        case Event::RefRelease:
        case Event::TraceRelease:
        case Event::RefRead: {
            MetaState& state = meta(line.object, entry);
            state.held -= line.event != Event::RefRead && state.held > 0 ? 1 : 0;
            metaCount(entry, state, line.object, line.count, line.event != Event::TraceRelease);
            break;
        }
        case Event::Owned: {
            const uint64_t object = line.object != 0 ? line.object : thread.created;
            if (object != 0 && (line.object != 0 || line.function == "QcomPostProcInfo")) {
                meta(object, entry).owner = line.record;
            }
            break;
        }
        case Event::PrivPhy: {
            auto [slot, fresh] =
                    record(line.record, entry)
                            .keys.try_emplace(atoi(std::string(line.id).c_str()), line.object);
            if (!fresh) {  // the later id takes the key; the earlier object is left
                meta(slot->second, entry).atoiShared = true;
                slot->second = line.object;
            }
            if (line.object != 0) {
                meta(line.object, entry).owner = line.record;
            }
            break;
        }
        case Event::HandOver:
            record(line.record, entry).handedOver = true;
            for (auto& [address, state] : mMetas) {
                state.handedOver = state.handedOver || state.owner == line.record;
            }
            break;
        case Event::DebugAdd:
            thread.addRecord = line.record;
            thread.addBuffer = line.object;
            thread.addCount = line.count;
            debugAdd(entry, line.record, line.object, line.count, true);
            return;
        case Event::DebugKeep:
            // -1: held already. The manager's own line told of this add.
            if (line.count != -1 &&
                !(thread.addBuffer == line.object && thread.addRecord == line.record &&
                  thread.addCount == line.count)) {
                debugAdd(entry, line.record, line.object, line.count, true);
            }
            break;
        case Event::DebugAdopt:
            debugAdd(entry, line.record, line.object, 0, false);
            break;
        case Event::DebugDec:
        case Event::DebugFree:
            debugRelease(entry, line.record, line.object, line.count,
                         line.event == Event::DebugFree);
            break;
        case Event::Other:
            break;
    }
    thread.addBuffer = 0;
}

Process Ledger::finish(bool processEnded) {
    for (auto& [tid, thread] : mThreads) {
        if (thread.destructing != 0) {
            destructed(tid, thread);
        }
    }
    const size_t decided = mProcess.findings.size();
    std::map<uint64_t, const RecordState*> leaked;
    for (const auto& [address, state] : mRecords) {
        if (state.created) {
            leaked.emplace(address, &state);
        }
    }
    for (const auto& [address, state] : leaked) {
        size_t metas = 0;
        size_t buffers = 0;
        for (const auto& [object, meta] : mMetas) {
            metas += meta.owner == address ? 1 : 0;
        }
        for (const auto& [object, buffer] : mBuffers) {
            buffers +=
                    std::count_if(buffer.holders.begin(), buffer.holders.end(),
                                  [holder = address](const auto& h) { return h.first == holder; });
        }
        report(Kind::RecordLeak, address, state->evidence, state->evidence.last, kRecordLifetime,
               "never destroyed; holds " + std::to_string(metas) + " CHI metadata object(s) and " +
                       std::to_string(buffers) + " debug buffer(s)");
    }
    // What a live record holds counts with the record.
    std::map<uint64_t, const MetaState*> orphans;
    for (const auto& [address, state] : mMetas) {
        if (state.created && mRecords.count(state.owner) == 0) {
            orphans.emplace(address, &state);
        }
    }
    for (const auto& [address, state] : orphans) {
        report(Kind::ChiMetaLeak, address, state->evidence, state->evidence.last,
               state->handedOver   ? kReleaseHandsOver
               : state->atoiShared ? kAtoiSharedKey
                                   : kCreateOnEmpty,
               "never destroyed");
    }
    for (size_t i = decided; i < mProcess.findings.size(); ++i) {
        mProcess.findings[i].processEnded = processEnded;
    }
    mProcess.ended = processEnded;
    return std::move(mProcess);
}

namespace {

// A line that tells of a process's death: libc's fatal signal, the tombstone
// header, init's service exit and ActivityManager's death notice. The pid,
// or 0.
int32_t deadProcess(const Entry& entry) {
    static const struct {
        const char* tag;
        const char* words;
        const char* pid;
    } kSigns[] = {{"libc", "Fatal signal", ", pid "},
                  {"DEBUG", "pid: ", "pid: "},
                  {"init", "exited", "(pid "},
                  {"init", "killed", "(pid "},
                  {"init", "exited", "Untracked pid "},
                  {"init", "killed", "Untracked pid "},
                  {"ActivityManager", "has died", "(pid "}};
    for (const auto& sign : kSigns) {
        const size_t at = entry.message.find(sign.pid);
        if (entry.tag == sign.tag && at != std::string_view::npos &&
            entry.message.find(sign.words) != std::string_view::npos) {
            return atoi(std::string(entry.message.substr(at + strlen(sign.pid), 10)).c_str());
        }
    }
    return 0;
}

}  // namespace

Checker::Checker(std::function<void(const Finding&)> onFinding)
    : mOnFinding(std::move(onFinding)) {}

Checker::~Checker() = default;

void Checker::add(const Entry& entry) {
    if (entry.tag != "KyCamAdapter") {
        ++mOtherLines;
        if (const int32_t dead = deadProcess(entry)) {
            end(dead, true);
        } else if (entry.tag == "chatty" && mLedgers.count(entry.pid) != 0) {
            mLedgers[entry.pid]->lost(entry);
        }
        return;
    }
    ++mLibraryLines;
    Line line;
    if (!classify(entry.message, &line)) {
        ++mUnknownLines;
        return;
    }
    const bool debug = entry.priority == 'D';
    const bool trace = line.event == Event::TraceAdd || line.event == Event::TraceRelease;
    mSeen.lifetime = mSeen.lifetime || (line.group == 128 && debug);
    mSeen.metaInfo = mSeen.metaInfo || (line.group == 64 && !debug);
    mSeen.metaDebug = mSeen.metaDebug || (line.group == 64 && debug && !trace);
    mSeen.traces = mSeen.traces || trace;
    mSeen.threadIds = mSeen.threadIds || entry.tid != 0;
    std::unique_ptr<Ledger>& ledger = mLedgers[entry.pid];
    if (!ledger) {
        ledger = std::make_unique<Ledger>(entry.pid, entry.line, mOnFinding);
    }
    ledger->add(entry, line);
}

void Checker::end(int32_t pid, bool processEnded) {
    auto found = mLedgers.find(pid);
    if (found != mLedgers.end()) {
        mDone.push_back(found->second->finish(processEnded));
        mLedgers.erase(found);
    }
}

void Checker::finish() {
    // A process whose lines stop before another's begin was replaced: the
    // camera provider restarted.
    std::vector<int32_t> replaced;
    for (const auto& [pid, ledger] : mLedgers) {
        for (const auto& [other, later] : mLedgers) {
            if (later->firstLine() > ledger->lastLine()) {
                replaced.push_back(pid);
                break;
            }
        }
    }
    for (int32_t pid : replaced) {
        end(pid, true);
    }
    while (!mLedgers.empty()) {
        end(mLedgers.begin()->first, false);
    }
    std::stable_sort(mDone.begin(), mDone.end(),
                     [](const Process& a, const Process& b) { return a.firstLine < b.firstLine; });
}

}  // namespace logcheck
