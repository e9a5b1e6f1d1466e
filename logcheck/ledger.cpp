// SPDX-License-Identifier: Apache-2.0
// The ledger of one process, rebuilt line by line. Each record is a replica
// of what the library holds for it (its private results, parked objects and
// debug buffers), driven by the lines that print its address. Each record,
// CHI metadata object and held buffer is a lifetime of an address, from the
// line that makes it to the line that ends it: a later one at the same
// address is a new one. Thread ids serve only lines that name no record.
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <unordered_map>
#include <unordered_set>

#include "lines.h"
#include "logcheck.h"

namespace logcheck {

namespace {

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
constexpr const char* kDestroyedHandlesKept = "destroyed-handles-kept";
// Not rules: why an object outlived its record when no rule explains it.
constexpr const char* kLinesMissing = "lines missing";
constexpr const char* kLogEnded = "log ended";

constexpr int64_t kNoKeep = INT64_MIN;
// Ended objects remembered to catch a second destroy. Bounded, so that memory
// follows the objects alive rather than the length of the log; a second
// destroy comes soon after the first.
constexpr size_t kEndedKept = 1 << 16;
// How far ahead of a line of createChiMeta or destroyChiMeta another
// thread's next one may still have changed the count before the line read
// it (a thread stopped between the change and its line that long is taken
// as having changed nothing).
constexpr size_t kSumAhead = 4096;
// Library lines of a process during which destructors that began before its
// log may still count down without a line of theirs.
constexpr int64_t kSettling = 256;
// ChimetaSum lines checked after a second destroy before it is asserted.
constexpr int64_t kSumSettled = 64;

// One lifetime of a CHI metadata object.
struct Ref {
    uint64_t address = 0;
    uint32_t gen = 0;
};

enum class HoldKind : uint8_t { Reference, Adopted, Copied, Unknown };

struct Holder {
    uint64_t record;
    uint32_t recordGen;
    HoldKind kind;
    int64_t awaitsKeep;  // the manager's add, before keep's line of the same add
    uint64_t line;
};

struct RecordState {
    uint32_t gen = 0;
    bool destructing = false;
    bool finished = false;  // its destructor returned, or the log ended
    bool made = false;      // made in the log
    bool copying = false;   // a copy constructor's lines, before its last
    bool supportPriv = false;
    bool sameLogical = false;
    bool translated = false;
    bool handedOver = false;  // releaseTuningMetaBufs ran on it
    bool shallow = false;     // a shallow clone or the source of one
    uint64_t handOverLine = 0;
    uint64_t createLine = 0;  // the last creation of private results
    uint64_t peer = 0;        // a shallow clone's source
    uint32_t peerGen = 0;
    Ref logical;
    std::vector<std::pair<int64_t, Ref>> cameras;  // by key, ascending
    std::vector<Ref> parked;
    std::vector<std::string> ids;                 // camera id texts, in the set's order
    std::vector<std::pair<int64_t, Ref>> copied;  // a copy's objects by index
    std::vector<uint64_t> buffers;                // buffers it may hold
    uint64_t firstLine = 0;
    uint64_t lastLine = 0;
    int32_t tid = 0;
};

enum class Origin : uint8_t { Created, Adopted, Before };

struct MetaState {
    uint32_t gen = 0;
    bool alive = false;
    Origin origin = Origin::Before;
    bool attributed = false;      // a record held it
    bool guessed = false;         // attributed without thread ids
    bool shared = false;          // by a shallow clone and its source
    bool underflow = false;       // reported
    bool staleEnd = false;        // ended by a record that held an earlier object here
    int64_t held = 0;             // references the library took and has not given back
    const char* cause = nullptr;  // how it lost its last holder
    uint64_t causeLine = 0;
    uint64_t madeLine = 0;
    uint64_t endLine = 0;
    uint64_t previousEndLine = 0;  // of the object before it at this address
    int32_t tid = 0;
};

struct BufferState {
    std::vector<Holder> holders;
    uint32_t handed = 0;  // holds let go by releaseTuningMetaBufs, for another owner
    uint64_t handedLine = 0;
    uint32_t leaked = 0;              // references never to be given back
    const char* lostCause = nullptr;  // a record ended without giving one back
    uint64_t lostLine = 0;
    bool underflow = false;
    uint64_t firstLine = 0;
    int32_t tid = 0;
};

struct ThreadState {
    Ref created;          // the last object createChiMeta made on it
    uint64_t record = 0;  // the last record its lines named
    uint64_t destructing = 0;
    uint32_t destructingGen = 0;
    // Its last line, for logd's "identical" lines: the library's, and one
    // that changes the ledger (which no copy of itself can follow).
    bool lastLibrary = false;
    bool lastChanges = false;
};

struct SumLine {
    uint64_t line;
    int32_t tid;
    int delta;
    int64_t printed;
    int64_t count;     // the log's own count of changes, up to it
    int64_t creates;   // creations logged up to it
    int64_t destroys;  // destructions logged up to it
    int64_t previous;  // its thread's line before it, -1 for none
    int64_t next;      // its thread's line after it, -1 for none yet
};

// An interval of what a log-start offset can be; empty once lines are lost.
struct Bounds {
    bool known = false;
    int64_t low = 0;
    int64_t high = 0;
    // False when [low, high] leaves no value in common with what was known.
    bool narrow(int64_t low2, int64_t high2) {
        if (known && std::max(low, low2) > std::min(high, high2)) {
            low = low2;
            high = high2;
            return false;
        }
        low = known ? std::max(low, low2) : low2;
        high = known ? std::min(high, high2) : high2;
        known = true;
        return true;
    }
};

bool inCameras(const RecordState& r, uint64_t address) {
    return std::any_of(r.cameras.begin(), r.cameras.end(),
                       [address](const auto& c) { return c.second.address == address; });
}

Ref* camera(RecordState& r, int64_t key) {
    auto it = std::lower_bound(r.cameras.begin(), r.cameras.end(), key,
                               [](const auto& c, int64_t k) { return c.first < k; });
    if (it == r.cameras.end() || it->first != key) {
        it = r.cameras.insert(it, {key, Ref{}});
    }
    return &it->second;
}

std::string hex(uint64_t value) {
    char text[24];
    snprintf(text, sizeof(text), "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

const char* kindName(Kind kind) {
    static const char* const kNames[] = {
            "chi-meta-double-destroy", "reference-underflow", "chi-meta-leak",
            "debug-data-leak",         "record-leak",         "lines-lost"};
    return kNames[static_cast<int>(kind)];
}

const char* advice(const char* rule) {
    static const std::pair<const char*, const char*> kAdvice[] = {
            {kRecordLifetime, "destroy every record exactly once, however it was made"},
            {kCreateOnEmpty,
             "create private results or tuning buffers only on a record that holds none"},
            {kReleaseHandsOver,
             "after releaseTuningMetaBufs another owner must end the objects and give back the "
             "debug data"},
            {kAtoiSharedKey,
             "camera ids equal after atoi share one key: the host ends the object left out"},
            {kTuningParamsFree,
             "make tuning parameters only on a record without referenced debug data"},
            {kImportAdopts,
             "import only buffers handed over for good, into a record with tuning parameters"},
            {kHalReferences,
             "the HAL holds a reference on every object it is handed or returns in a result"},
            {kAlreadyReferenced,
             "hand over with alreadyReferenced only a reference actually taken, in the "
             "framework's mode"},
            {kHeldAndParked,
             "do not return an object the record parks: it is ended while still held"},
            {kShallowCloneOwner,
             "of a shallow clone and its source exactly one ends the shared objects; the other "
             "lets go first"},
            {kShallowCloneDebugData,
             "after shallowClone(true) take references for the clone, or let one side go"},
            {kDestroyedHandlesKept,
             "a record refuses an address it ended before: do not reuse it for objects at such "
             "an address"},
    };
    for (const auto& [name, text] : kAdvice) {
        if (rule != nullptr && strcmp(rule, name) == 0) {
            return text;
        }
    }
    return nullptr;
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
    Ledger(int32_t pid, int boot, uint64_t line, const std::function<void(const Finding&)>& on)
        : mOnFinding(on) {
        mProcess.pid = pid;
        mProcess.boot = boot;
        mProcess.firstLine = line;
    }
    int32_t pid() const { return mProcess.pid; }
    int boot() const { return mProcess.boot; }
    uint64_t firstLine() const { return mProcess.firstLine; }
    uint64_t lastLine() const { return mProcess.lastLine; }
    void add(const Entry& entry, const Line& line);
    // What is alive after the entry, for the timeline.
    void sample(const Entry& entry) {
        mProcess.timeline.add(entry.line, stampSeconds(entry.stamp), mProcess.totals);
    }
    // Another tag's line on a thread of this process.
    void other(int32_t tid) {
        auto found = mThreads.find(tid);
        if (found != mThreads.end()) {
            found->second.lastLibrary = false;
        } else if (tid == 0) {
            mNoThread.lastLibrary = false;
        }
    }
    // logd folded copies of a thread's last line: one of the library's that
    // changes the ledger cannot have copies, so lines were lost.
    bool foldedALedgerLine(int32_t tid) {
        auto found = mThreads.find(tid);
        return found != mThreads.end() && found->second.lastLibrary && found->second.lastChanges;
    }
    // logd may have dropped lines: what is found from here on is not asserted.
    void mayHaveLost() { mLost = true; }
    Process finish(bool processEnded);

  private:
    enum class Finish { Superseded, Returned, LogEnded };

    void report(Kind kind, uint64_t object, int32_t tid, std::vector<uint64_t> evidence,
                const char* rule, std::string detail, bool certain = true) {
        evidence.erase(std::remove(evidence.begin(), evidence.end(), 0u), evidence.end());
        std::sort(evidence.begin(), evidence.end());
        evidence.erase(std::unique(evidence.begin(), evidence.end()), evidence.end());
        Finding finding{
                kind,    object, mProcess.pid,     tid, mProcess.boot, std::move(evidence), rule,
                certain, false,  std::move(detail)};
        decide(std::move(finding));
    }

    // A second destroy, or a Create line lost before it: the ChimetaSum of
    // the lines around tells, so it is decided once they are checked.
    void doubleDestroy(Finding finding) {
        if (mSums.empty() || mSums.back().line != finding.evidence.back()) {
            decide(std::move(finding));
        } else {
            mPending.emplace_back(mSumsBase + static_cast<int64_t>(mSums.size()) - 1,
                                  std::move(finding));
        }
    }
    void decide(Finding finding) {
        finding.certain = finding.certain && !mLost;
        if (mOnFinding) {
            mOnFinding(finding);
        }
        mProcess.findings.push_back(std::move(finding));
    }

    // The log contradicts itself here: lines were lost, and what is found
    // from now on is not asserted.
    void lost(const Entry& entry, uint64_t object, std::string detail) {
        report(Kind::LinesLost, object, entry.tid, {entry.line}, nullptr, std::move(detail));
        mLost = true;
    }

    ThreadState& thread(const Entry& entry) {
        return entry.tid != 0 ? mThreads[entry.tid] : mNoThread;
    }

    // CHI metadata objects.
    Ref current(uint64_t address) const {
        auto found = mMetas.find(address);
        return address != 0 && found != mMetas.end() && found->second.alive
                       ? Ref{address, found->second.gen}
                       : Ref{};
    }
    bool isCurrent(Ref ref) const {
        return ref.address != 0 && current(ref.address).gen == ref.gen;
    }
    MetaState* meta(Ref ref) {
        auto found = mMetas.find(ref.address);
        return isCurrent(ref) ? &found->second : nullptr;
    }
    Ref seen(uint64_t address, const Entry& entry);
    Ref made(uint64_t address, const Entry& entry);
    // The next lifetime at an address: made in the log, or taken on from
    // the HAL (counted with those alive before the log).
    void renew(MetaState& m, Origin origin, const Entry& entry) {
        const uint32_t gen = m.gen + 1;
        const uint64_t previous = m.endLine;
        m = MetaState{};
        m.gen = gen;
        m.alive = true;
        m.origin = origin;
        m.madeLine = entry.line;
        m.previousEndLine = previous;
        m.tid = entry.tid;
        ++(origin == Origin::Created ? mProcess.totals.chiMetas.created
                                     : mProcess.totals.chiMetas.before);
    }
    Ref adopt(uint64_t address, const Entry& entry);
    void ended(uint64_t address, MetaState& meta, const Entry& entry);
    void orphan(Ref ref, const char* cause, uint64_t line) {
        MetaState* m = meta(ref);
        if (m != nullptr && m->cause == nullptr) {
            m->cause = cause;
            m->causeLine = line;
        }
    }
    void countCheck(const Entry& entry, Ref ref, int64_t count, const char* rule);

    // Records.
    RecordState& record(const Entry& entry, const Line& line);
    RecordState& beginRecord(const Entry& entry, uint64_t address, bool copy);
    void beginBefore(RecordState& r, const Entry& entry, uint64_t address, bool destructing);
    void destructing(RecordState& r, const Entry& entry, uint64_t address);
    void finishRecord(uint64_t address, RecordState& r, Finish how, uint64_t line);
    void park(RecordState& r, uint64_t address, const Entry& entry) {
        const Ref ref = seen(address, entry);
        if (std::none_of(r.parked.begin(), r.parked.end(),
                         [ref](Ref p) { return p.address == ref.address && p.gen == ref.gen; })) {
            r.parked.push_back(ref);
        }
    }
    void copyDone(RecordState& r, const Line& line);

    // Debug buffers.
    Holder* holder(BufferState& b, uint64_t record, uint32_t gen) {
        for (Holder& h : b.holders) {
            if (h.record == record && h.recordGen == gen) {
                return &h;
            }
        }
        return nullptr;
    }
    BufferState& bufferAt(uint64_t address, const Entry& entry) {
        auto [it, fresh] = mBuffers.try_emplace(address);
        if (fresh) {
            it->second.firstLine = entry.line;
            it->second.tid = entry.tid;
        }
        return it->second;
    }
    void hold(RecordState& r, uint64_t address, uint64_t buffer, HoldKind kind, int64_t awaits,
              const Entry& entry);
    void release(RecordState& r, uint64_t address, uint64_t buffer, int64_t count, bool freed,
                 const Entry& entry);
    // Nothing of it is held or owed any more: forgotten.
    void close(uint64_t buffer, BufferState& b) {
        if (b.holders.empty() && b.handed == 0 && b.leaked == 0) {
            mBuffers.erase(buffer);
        }
    }

    // The sums the library prints.
    void recordSum(const Entry& entry, uint64_t address, int64_t sum);
    void chiSum(const Entry& entry, int delta, int64_t printed);
    void checkChiSum();

    Process mProcess;
    const std::function<void(const Finding&)>& mOnFinding;
    bool mLost = false;
    bool mThreadIds = false;
    bool mTraces = false;  // reconciliation's references are logged too
    std::unordered_map<uint64_t, RecordState> mRecords;
    uint32_t mRecordGens = 0;  // records are forgotten once ended: one count for all
    std::unordered_map<uint64_t, MetaState> mMetas;
    std::deque<Ref> mEnded;  // ended objects, oldest first
    std::unordered_map<uint64_t, BufferState> mBuffers;
    std::unordered_map<int32_t, ThreadState> mThreads;
    ThreadState mNoThread;
    // Records: constructors counted, destructors begun, destructors known to
    // have returned, and records first seen alive or ending.
    int64_t mConstructs = 0;
    int64_t mDestructs = 0;
    int64_t mReturned = 0;
    int64_t mBeforeSeen = 0;
    int64_t mLines = 0;         // library lines read
    Bounds mUnseen;             // records alive when the log began
    bool mBeforeCounts = true;  // until lines are lost, records first seen later were among them
    // CHI metadata: the lines that print ChimetaSum, numbered from the
    // first, kept until every other thread's next one is known.
    std::deque<SumLine> mSums;
    int64_t mSumsBase = 0;                             // the number of mSums.front()
    int64_t mSumChecked = 0;                           // the next to check
    std::unordered_map<int32_t, int64_t> mSumLast;     // thread: its last line
    std::unordered_map<int32_t, int64_t> mSumAfter;    // thread: its first line after the checked
    Bounds mChiStart;                                  // ChimetaSum when the log began
    std::deque<std::pair<int64_t, Finding>> mPending;  // by their line's ChimetaSum number
};

Ref Ledger::seen(uint64_t address, const Entry& entry) {
    if (address == 0) {
        return {};
    }
    auto [it, fresh] = mMetas.try_emplace(address);
    MetaState& m = it->second;
    if (fresh) {
        m.gen = 1;
        m.alive = true;
        m.origin = Origin::Before;
        m.madeLine = entry.line;
        m.tid = entry.tid;
        ++mProcess.totals.chiMetas.before;
    }
    return m.alive ? Ref{address, m.gen} : Ref{};
}

// An object the line says the library has just made: the one its Create line
// made. At the address of an ended one, that Create line is missing.
Ref Ledger::made(uint64_t address, const Entry& entry) {
    auto found = mMetas.find(address);
    if (address == 0 || found == mMetas.end() || found->second.alive) {
        const Ref ref = seen(address, entry);
        if (MetaState* m = meta(ref)) {
            m->attributed = true;
        }
        return ref;
    }
    lost(entry, address, "a CHI metadata object made with no Create line");
    MetaState& m = found->second;
    renew(m, Origin::Created, entry);
    m.attributed = true;
    return {address, m.gen};
}

// An object a result hands the record: known, or the HAL's own, new here.
Ref Ledger::adopt(uint64_t address, const Entry& entry) {
    if (address == 0) {
        return {};
    }
    auto [it, fresh] = mMetas.try_emplace(address);
    MetaState& m = it->second;
    if (fresh || !m.alive) {
        renew(m, Origin::Adopted, entry);
    }
    m.attributed = true;
    return {address, m.gen};
}

void Ledger::ended(uint64_t address, MetaState& m, const Entry& entry) {
    m.alive = false;
    m.endLine = entry.line;
    ++mProcess.totals.chiMetas.ended;
    mEnded.push_back({address, m.gen});
    if (mEnded.size() > kEndedKept) {
        const Ref oldest = mEnded.front();
        mEnded.pop_front();
        auto found = mMetas.find(oldest.address);
        if (found != mMetas.end() && !found->second.alive && found->second.gen == oldest.gen) {
            mMetas.erase(found);
        }
    }
}

// A count below zero (an unsigned one wraps), or, where every reference the
// library takes and gives back is logged, below the ones it still holds.
void Ledger::countCheck(const Entry& entry, Ref ref, int64_t count, const char* rule) {
    MetaState* m = meta(ref);
    if (m == nullptr || m->underflow || !(count < 0 || (mTraces && count < m->held))) {
        return;
    }
    m->underflow = true;
    report(Kind::ReferenceUnderflow, ref.address, entry.tid, {entry.line}, rule,
           count < 0 ? "the count went below zero"
                     : "count " + std::to_string(count) + " below the " + std::to_string(m->held) +
                               " references the library holds");
}

void Ledger::beginBefore(RecordState& r, const Entry& entry, uint64_t address, bool ending) {
    r = RecordState{};
    r.gen = ++mRecordGens;
    r.firstLine = r.lastLine = entry.line;
    r.tid = entry.tid;
    ++mProcess.totals.records.before;
    ++mBeforeSeen;
    if (ending) {
        destructing(r, entry, address);
    }
}

void Ledger::destructing(RecordState& r, const Entry& entry, uint64_t address) {
    r.destructing = true;
    ++mProcess.totals.records.ended;
    ++mDestructs;
    if (entry.tid != 0) {
        ThreadState& t = mThreads[entry.tid];
        t.destructing = address;
        t.destructingGen = r.gen;
    }
}

// The record a line names: the lifetime at that address the line belongs to.
RecordState& Ledger::record(const Entry& entry, const Line& line) {
    auto [it, fresh] = mRecords.try_emplace(line.record);
    RecordState& r = it->second;
    const bool destructor = line.function == Fn::Destructor;
    if (fresh) {
        beginBefore(r, entry, line.record, destructor && line.event != Event::Destruct);
    } else if (r.destructing && !destructor) {
        lost(entry, line.record, "a record named after its destructor, with no Construct line");
        finishRecord(line.record, r, Finish::Superseded, entry.line);
        beginBefore(r, entry, line.record, false);
    } else if (!r.destructing && destructor && line.event != Event::Destruct) {
        lost(entry, line.record, "a destructor's line with no Destruct line before it");
        destructing(r, entry, line.record);
    }
    r.lastLine = entry.line;
    return r;
}

// A constructor's line: a record at an address whose earlier one has ended.
RecordState& Ledger::beginRecord(const Entry& entry, uint64_t address, bool copy) {
    auto [it, fresh] = mRecords.try_emplace(address);
    RecordState& r = it->second;
    if (!fresh) {
        if (copy && r.copying && !r.destructing) {
            r.lastLine = entry.line;
            return r;
        }
        if (!r.destructing) {
            lost(entry, address, "a record made again without being destroyed");
            ++mProcess.totals.records.ended;
            ++mDestructs;
            r.destructing = true;
        }
        finishRecord(address, r, Finish::Superseded, entry.line);
    }
    r = RecordState{};
    r.gen = ++mRecordGens;
    r.made = true;
    r.copying = copy;
    r.firstLine = r.lastLine = entry.line;
    r.tid = entry.tid;
    ++mProcess.totals.records.created;
    return r;
}

// The record's destructor has returned (or the log ended): what it still
// holds by the replica, it did not give back.
void Ledger::finishRecord(uint64_t address, RecordState& r, Finish how, uint64_t line) {
    if (!r.destructing || r.finished) {
        return;
    }
    r.finished = true;
    if (how != Finish::LogEnded) {
        ++mReturned;
    }
    size_t buffers = 0;
    for (uint64_t buffer : r.buffers) {
        auto found = mBuffers.find(buffer);
        Holder* h = found == mBuffers.end() ? nullptr : holder(found->second, address, r.gen);
        if (h == nullptr) {
            continue;
        }
        BufferState& b = found->second;
        const HoldKind kind = h->kind;
        b.holders.erase(b.holders.begin() + (h - b.holders.data()));
        if (kind != HoldKind::Copied && r.handedOver) {
            ++b.handed;  // for another owner to give back
            b.handedLine = r.handOverLine;
        } else if (kind != HoldKind::Copied && kind != HoldKind::Unknown) {
            ++buffers;
            ++b.leaked;
            b.lostCause = how == Finish::LogEnded ? kLogEnded : kLinesMissing;
            b.lostLine = line;
        }
        close(buffer, b);
    }
    size_t objects = 0;
    auto left = [&](Ref ref, bool logical) {
        MetaState* m = meta(ref);
        // A guess without thread ids proves nothing; a handle the record
        // refused it cannot end.
        if (m == nullptr || m->guessed || m->cause == kDestroyedHandlesKept) {
            return;
        }
        m->cause = nullptr;  // it held the object still, whatever others did
        if (logical && r.sameLogical && !inCameras(r, ref.address)) {
            orphan(ref, kAtoiSharedKey, line);
        } else if (r.supportPriv) {
            orphan(ref, how == Finish::LogEnded ? kLogEnded : kLinesMissing, line);
            ++objects;
        }
    };
    left(r.logical, true);
    for (const auto& c : r.cameras) {
        left(c.second, false);
    }
    for (Ref p : r.parked) {
        left(p, false);
    }
    if ((objects != 0 || buffers != 0) && how != Finish::LogEnded) {
        Entry here;
        here.line = line;
        here.tid = r.tid;
        lost(here, address,
             "record " + hex(address) + " ended without ending " + std::to_string(objects) +
                     " CHI metadata object(s) and giving back " + std::to_string(buffers) +
                     " debug buffer(s): their lines are missing");
    }
    r.buffers.clear();
}

// References are counted as the log shows them taken and given back; a
// buffer is followed while a record holds it or a reference to it is owed.
void Ledger::hold(RecordState& r, uint64_t address, uint64_t buffer, HoldKind kind, int64_t awaits,
                  const Entry& entry) {
    BufferState& b = bufferAt(buffer, entry);
    Count& debugData = mProcess.totals.debugData;
    debugData.created += kind == HoldKind::Reference || kind == HoldKind::Adopted ? 1 : 0;
    debugData.before += kind == HoldKind::Unknown ? 1 : 0;
    b.holders.push_back({address, r.gen, kind, awaits, entry.line});
    if (std::find(r.buffers.begin(), r.buffers.end(), buffer) == r.buffers.end()) {
        r.buffers.push_back(buffer);
    }
}

void Ledger::release(RecordState& r, uint64_t address, uint64_t buffer, int64_t count, bool freed,
                     const Entry& entry) {
    BufferState& b = bufferAt(buffer, entry);
    Count& debugData = mProcess.totals.debugData;
    Holder* h = holder(b, address, r.gen);
    const HoldKind kind = h != nullptr ? h->kind : HoldKind::Unknown;
    const uint64_t heldSince = h != nullptr ? h->line : b.firstLine;
    if (h != nullptr) {
        b.holders.erase(b.holders.begin() + (h - b.holders.data()));
    }
    if (freed && kind == HoldKind::Reference) {
        ++b.leaked;
        report(Kind::DebugDataLeak, buffer, entry.tid, {heldSince, entry.line}, kTuningParamsFree,
               "freed by record " + hex(address) +
                       ", which had taken a reference on it: the reference is never given back");
    } else if (h != nullptr && kind != HoldKind::Copied) {
        ++debugData.ended;
    } else {
        // A reference the record's own lines do not show: one another record
        // handed over, the source's when a shallow clone gives back its copy,
        // or one taken where the log does not show it.
        auto source = mRecords.find(r.peer);
        Holder* lent =
                kind != HoldKind::Copied || source == mRecords.end() || !source->second.handedOver
                        ? nullptr
                        : holder(b, r.peer, r.peerGen);
        if (b.handed > 0) {
            --b.handed;
        } else if (lent != nullptr) {
            b.holders.erase(b.holders.begin() + (lent - b.holders.data()));
        } else {
            ++debugData.before;
        }
        ++debugData.ended;
    }
    if (!freed && count < 0 && !b.underflow) {
        b.underflow = true;
        report(Kind::ReferenceUnderflow, buffer, entry.tid, {heldSince, entry.line},
               kind == HoldKind::Adopted               ? kImportAdopts
               : kind == HoldKind::Copied || r.shallow ? kShallowCloneDebugData
                                                       : kAlreadyReferenced,
               "record " + hex(address) + " gave back a reference below zero");
    }
    close(buffer, b);
}

void Ledger::recordSum(const Entry& entry, uint64_t address, int64_t sum) {
    // The sum is printed under the counter's lock: the records made before,
    // less the destructors that have counted down (at least those known to
    // have returned, at most those begun), plus the records alive when the
    // log began, of which every one first seen later is one.
    const int64_t others = sum - 1 - mConstructs;
    const int64_t high = others + mDestructs;
    const int64_t low = std::max(others + mReturned, mBeforeCounts ? mBeforeSeen : INT64_MIN);
    bool consistent = low <= high;
    if (consistent && mUnseen.known && mLines < kSettling) {
        // Destructors under way when the log began count down without a
        // line: for a while the records alive then only become fewer.
        consistent = low <= mUnseen.high;
        mUnseen.low = low;
        mUnseen.high = std::min(mUnseen.high, high);
    } else if (consistent) {
        consistent = mUnseen.narrow(low, high);
    }
    if (!consistent) {
        lost(entry, address,
             "after sum " + std::to_string(sum) + " the ledger counts " +
                     std::to_string(mConstructs + 1 - mReturned) + " record(s) alive or ending");
        mUnseen = Bounds{};
        mUnseen.narrow(others + mReturned, high);
        mBeforeCounts = false;
    }
    ++mConstructs;
}

void Ledger::chiSum(const Entry& entry, int delta, int64_t printed) {
    if (entry.tid == 0) {
        return;  // without threads the lines cannot be ordered against the count
    }
    const int64_t index = mSumsBase + static_cast<int64_t>(mSums.size());
    const SumLine* last = mSums.empty() ? nullptr : &mSums.back();
    SumLine line{entry.line,
                 entry.tid,
                 delta,
                 printed,
                 (last != nullptr ? last->count : 0) + delta,
                 (last != nullptr ? last->creates : 0) + (delta > 0 ? 1 : 0),
                 (last != nullptr ? last->destroys : 0) + (delta < 0 ? 1 : 0),
                 -1,
                 -1};
    auto [previous, first] = mSumLast.try_emplace(entry.tid, index);
    if (!first) {
        line.previous = previous->second;
        if (previous->second >= mSumsBase) {
            mSums[static_cast<size_t>(previous->second - mSumsBase)].next = index;
        }
        previous->second = index;
    }
    mSumAfter.try_emplace(entry.tid, index);
    mSums.push_back(line);
    while (mSumChecked + static_cast<int64_t>(kSumAhead) < index) {
        checkChiSum();
    }
}

// ChimetaSum is read after the change, apart from it. The value a line
// prints lacks at most the changes other threads logged since its own
// thread's previous line, and holds early at most each other thread's next
// change.
void Ledger::checkChiSum() {
    const int64_t index = mSumChecked++;
    const SumLine& at = mSums[static_cast<size_t>(index - mSumsBase)];
    if (at.previous >= mSumsBase) {
        const SumLine& before = mSums[static_cast<size_t>(at.previous - mSumsBase)];
        const SumLine* just = &mSums[static_cast<size_t>(index - mSumsBase) - 1];
        int64_t low = -(just->creates - before.creates);
        int64_t high = just->destroys - before.destroys;
        for (const auto& [tid, next] : mSumAfter) {
            if (tid == at.tid || next <= index || next > index + static_cast<int64_t>(kSumAhead)) {
                continue;
            }
            (mSums[static_cast<size_t>(next - mSumsBase)].delta > 0 ? high : low) +=
                    mSums[static_cast<size_t>(next - mSumsBase)].delta;
        }
        const int64_t offset = at.printed - at.count;
        if (!mChiStart.narrow(offset - high, offset - low)) {
            Entry here;
            here.line = at.line;
            here.tid = at.tid;
            lost(here, 0,
                 "ChimetaSum " + std::to_string(at.printed) +
                         " disagrees with the objects the log made and ended");
        }
    }
    // Decided once the lines well after it are checked too: a lost line
    // shows at the first tight check after it.
    while (!mPending.empty() && mPending.front().first + kSumSettled <= index) {
        decide(std::move(mPending.front().second));
        mPending.pop_front();
    }
    // On past it: its thread's next line is that thread's first after it.
    auto after = mSumAfter.find(at.tid);
    if (at.next >= 0) {
        after->second = at.next;
    } else {
        mSumAfter.erase(after);
    }
    while (mSumChecked - mSumsBase > static_cast<int64_t>(kSumAhead)) {
        mSums.pop_front();
        ++mSumsBase;
    }
}

void Ledger::copyDone(RecordState& r, const Line& line) {
    auto source = mRecords.find(line.other);
    const RecordState* s = source == mRecords.end() ? nullptr : &source->second;
    if (s != nullptr) {
        r.ids = s->ids;
        r.supportPriv = s->supportPriv;
        r.sameLogical = s->sameLogical;
    }
    r.supportPriv = r.supportPriv || !r.copied.empty() || r.logical.address != 0;
    // Keyed by the source's ids in its set's order; of two equal after atoi
    // the first keeps the key.
    std::sort(r.copied.begin(), r.copied.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [index, ref] : r.copied) {
        const size_t i = static_cast<size_t>(index);
        const int64_t key = i < r.ids.size()                        ? atoi(r.ids[i].c_str())
                            : s != nullptr && i < s->cameras.size() ? s->cameras[i].first
                                                                    : index;
        const bool taken = std::any_of(r.cameras.begin(), r.cameras.end(),
                                       [key](const auto& c) { return c.first == key; });
        if (taken) {
            orphan(ref, kAtoiSharedKey, r.lastLine);
        } else {
            *camera(r, key) = ref;
        }
    }
    r.copied.clear();
    r.copying = false;
}

void Ledger::add(const Entry& entry, const Line& line) {
    mProcess.lastLine = entry.line;
    ++mLines;
    mThreadIds = mThreadIds || entry.tid != 0;
    ThreadState& t = thread(entry);
    // A destructor has returned once its thread logs anything of the
    // library's but its own lines and destroyChiMeta's.
    if (t.destructing != 0 && line.function != Fn::DestroyChiMeta &&
        !(line.function == Fn::Destructor && line.record == t.destructing)) {
        auto found = mRecords.find(t.destructing);
        if (found != mRecords.end() && found->second.gen == t.destructingGen) {
            finishRecord(t.destructing, found->second, Finish::Returned, entry.line);
            mRecords.erase(found);
        }
        t.destructing = 0;
    }
    if (line.record != 0) {
        t.record = line.record;
    }
    t.lastLibrary = true;
    t.lastChanges =
            !(line.event == Event::Other || line.event == Event::NoRecord ||
              line.event == Event::RefRead || (line.event == Event::Keep && line.count == -1));
    switch (line.event) {
        case Event::Construct: {
            beginRecord(entry, line.record, false);
            recordSum(entry, line.record, line.count);
            break;
        }
        case Event::CopyPhysical: {
            RecordState& r = beginRecord(entry, line.record, true);
            // The object is its thread's last made; one a record already
            // holds means that Create line is missing.
            MetaState* m = meta(t.created);
            if (m != nullptr && m->attributed && entry.tid != 0) {
                lost(entry, line.record, "a copy's CHI metadata object with no Create line");
                m = nullptr;
            }
            if (m != nullptr) {
                m->attributed = true;
                m->guessed = entry.tid == 0;
                r.copied.emplace_back(line.number, t.created);
            }
            break;
        }
        case Event::CopySameLogical:
        case Event::CopyLogical: {
            RecordState& r = beginRecord(entry, line.record, true);
            r.logical = line.event == Event::CopyLogical ? made(line.object, entry)
                                                         : seen(line.object, entry);
            r.sameLogical = line.event == Event::CopySameLogical;
            break;
        }
        case Event::CopyDone: {
            RecordState& r = beginRecord(entry, line.record, true);
            copyDone(r, line);
            if (line.object != r.logical.address) {
                r.logical = seen(line.object, entry);
            }
            recordSum(entry, line.record, line.count);
            break;
        }
        case Event::Destruct: {
            auto [it, fresh] = mRecords.try_emplace(line.record);
            RecordState& r = it->second;
            if (fresh) {
                beginBefore(r, entry, line.record, false);
            } else if (r.destructing) {
                lost(entry, line.record, "destroyed again, or its Construct line is missing");
                finishRecord(line.record, r, Finish::Superseded, entry.line);
                beginBefore(r, entry, line.record, false);
            }
            r.lastLine = entry.line;
            destructing(r, entry, line.record);
            break;
        }
        case Event::ShallowCopy: {
            // Elements of the map stay where they are when it grows.
            RecordState& c = record(entry, line);
            Line named = line;
            named.record = line.other;
            RecordState& source = record(entry, named);
            c.shallow = source.shallow = true;
            c.peer = line.other;
            c.peerGen = source.gen;
            c.supportPriv = source.supportPriv;
            c.sameLogical = source.sameLogical;
            c.translated = source.translated;
            c.ids = source.ids;
            if (source.supportPriv && !source.translated) {
                c.logical = source.logical;
                c.cameras = source.cameras;
                for (Ref shared : {c.logical}) {
                    if (MetaState* m = meta(shared)) {
                        m->shared = true;
                    }
                }
                for (const auto& cam : c.cameras) {
                    if (MetaState* m = meta(cam.second)) {
                        m->shared = true;
                    }
                }
            }
            // shallowClone(true) copies the buffers without references; the
            // log does not say which it was.
            for (uint64_t buffer : source.buffers) {
                auto found = mBuffers.find(buffer);
                Holder* h = found == mBuffers.end() ? nullptr
                                                    : holder(found->second, line.other, source.gen);
                if (h != nullptr && h->kind != HoldKind::Copied) {
                    hold(c, line.record, buffer, HoldKind::Copied, kNoKeep, entry);
                }
            }
            break;
        }
        case Event::MetaCreate: {
            if (line.object != 0) {
                auto [it, fresh] = mMetas.try_emplace(line.object);
                MetaState& m = it->second;
                if (!fresh && m.alive) {
                    // Handed out again, so the object there was ended: where
                    // no record held it any more, outside the library.
                    if (m.cause == nullptr) {
                        lost(entry, line.object,
                             "a CHI metadata object made at the address of one never destroyed");
                    }
                    ended(line.object, m, entry);
                }
                renew(m, Origin::Created, entry);
                t.created = {line.object, m.gen};
            } else {
                t.created = {};
            }
            chiSum(entry, 1, line.count);
            break;
        }
        case Event::MetaDestroy: {
            auto [it, fresh] = mMetas.try_emplace(line.object);
            MetaState& m = it->second;
            if (fresh) {
                m.gen = 1;
                m.origin = Origin::Before;
                m.alive = true;
                ++mProcess.totals.chiMetas.before;
            }
            if (m.alive) {
                auto destroyer = mRecords.find(t.record);
                if (destroyer != mRecords.end()) {
                    const RecordState& d = destroyer->second;
                    auto stale = [&](Ref ref) {
                        return ref.address == line.object && ref.gen != m.gen;
                    };
                    m.staleEnd = stale(d.logical) ||
                                 std::any_of(d.cameras.begin(), d.cameras.end(),
                                             [&](const auto& c) { return stale(c.second); }) ||
                                 std::any_of(d.parked.begin(), d.parked.end(), stale);
                }
                ended(line.object, m, entry);
                chiSum(entry, -1, line.count);
            } else {
                chiSum(entry, -1, line.count);
                // Without threads the sums cannot tell it from a lost Create line.
                doubleDestroy({Kind::ChiMetaDoubleDestroy,
                               line.object,
                               mProcess.pid,
                               entry.tid,
                               mProcess.boot,
                               {m.endLine, entry.line},
                               m.shared || m.staleEnd ? kShallowCloneOwner : kHeldAndParked,
                               entry.tid != 0,
                               false,
                               "ended twice"});
            }
            break;
        }
        case Event::MetaRefused: {
            auto found = mMetas.find(line.object);
            if (found == mMetas.end()) {
                break;  // it ended before the log began
            }
            MetaState& m = found->second;
            auto refuser = mRecords.find(t.record);
            const bool stale =
                    refuser != mRecords.end() && m.alive &&
                    !(refuser->second.logical.address == line.object &&
                      refuser->second.logical.gen == m.gen) &&
                    std::none_of(refuser->second.cameras.begin(), refuser->second.cameras.end(),
                                 [&](const auto& c) {
                                     return c.second.address == line.object &&
                                            c.second.gen == m.gen;
                                 }) &&
                    std::none_of(refuser->second.parked.begin(), refuser->second.parked.end(),
                                 [&](Ref p) { return p.address == line.object && p.gen == m.gen; });
            if (!m.alive || stale) {
                report(Kind::ChiMetaDoubleDestroy, line.object, entry.tid,
                       {m.alive ? m.previousEndLine : m.endLine, entry.line}, kHeldAndParked,
                       "the record refused a handle it had ended");
            } else {
                // This record ended an earlier object at this address, so it
                // will not end this one.
                orphan({line.object, m.gen}, kDestroyedHandlesKept, entry.line);
            }
            break;
        }
        case Event::RefAdd:
        case Event::TraceAdd: {
            RecordState& r = record(entry, line);
            Ref ref =
                    line.event == Event::TraceAdd ? current(line.object) : seen(line.object, entry);
            if (line.event == Event::TraceAdd && ref.address == 0 && line.object != 0) {
                // A result's new object, at an ended one's address: the line
                // taking it is missing. Unknown, it is from before the log.
                if (mMetas.count(line.object) != 0) {
                    lost(entry, line.object, "a result's object referenced with no line taking it");
                }
                ref = adopt(line.object, entry);
            }
            if (line.event == Event::RefAdd && ref.address != 0) {
                // What addChiMetasRef walks is what the record holds.
                *(line.number == -1 ? &r.logical : camera(r, line.number)) = ref;
                r.supportPriv = true;
            }
            mTraces = mTraces || line.event == Event::TraceAdd;
            if (MetaState* m = meta(ref)) {
                ++m->held;
            }
            countCheck(entry, ref, line.count, kHalReferences);
            break;
        }
        case Event::RefRelease:
        case Event::TraceRelease:
        case Event::RefRead: {
            RecordState& r = record(entry, line);
            const Ref ref = current(line.object);
            MetaState* m = meta(ref);
            if (m != nullptr && line.event != Event::RefRead && m->held > 0) {
                --m->held;
            }
            mTraces = mTraces || line.event == Event::TraceRelease;
            countCheck(entry, ref, line.count,
                       line.event == Event::RefRelease
                               ? (r.shallow ? kShallowCloneOwner : kReleaseHandsOver)
                               : kHalReferences);
            break;
        }
        case Event::ReconcileStart: {
            RecordState& r = record(entry, line);
            r.supportPriv = line.number != 0;
            if (r.logical.address != line.object) {
                r.logical = seen(line.object, entry);
            }
            break;
        }
        case Event::ReconcileLogical: {
            RecordState& r = record(entry, line);
            if (line.object != 0) {
                park(r, line.object, entry);
            }
            r.logical = adopt(line.other, entry);
            break;
        }
        case Event::ReconcileCamera:
        case Event::ReconcileReplace: {
            // The comparison's line already shows a replacement; the one that
            // follows it says so again.
            RecordState& r = record(entry, line);
            Ref* held = camera(r, line.number);
            if (held->address != line.object && held->address != line.other) {
                *held = seen(line.object, entry);
            }
            if (line.other == line.object || held->address == line.other) {
                break;
            }
            if (line.object != 0) {
                park(r, line.object, entry);
            }
            *camera(r, line.number) = adopt(line.other, entry);
            break;
        }
        case Event::ReconcileRebuild: {
            RecordState& r = record(entry, line);
            if (line.number != 0) {
                for (const auto& c : r.cameras) {
                    if (c.second.address != 0) {
                        park(r, c.second.address, entry);
                    }
                }
                r.cameras.clear();
            }
            r.ids.clear();
            break;
        }
        case Event::ReconcileAdopt: {
            RecordState& r = record(entry, line);
            Ref* held = camera(r, line.number);
            if (held->address != 0 && held->address != line.object) {
                // The later id takes the key; the earlier object stays only
                // in the array, and nothing ends it.
                orphan(*held, kAtoiSharedKey, entry.line);
            }
            *held = adopt(line.object, entry);
            const std::string id = std::to_string(line.number);
            auto at = std::lower_bound(r.ids.begin(), r.ids.end(), id);
            if (at == r.ids.end() || *at != id) {
                r.ids.insert(at, id);
            }
            break;
        }
        case Event::ReconcileSame:
            record(entry, line).sameLogical = true;
            break;
        case Event::CreatePriv: {
            RecordState& r = record(entry, line);
            if (r.logical.address != 0 && r.logical.address != line.object &&
                !inCameras(r, r.logical.address)) {
                orphan(r.logical, kCreateOnEmpty, entry.line);
            }
            r.supportPriv = true;
            r.logical = made(line.object, entry);
            r.sameLogical = line.count != 0;
            r.ids.clear();
            r.createLine = entry.line;
            break;
        }
        case Event::CreatePhysical: {
            RecordState& r = record(entry, line);
            r.ids.emplace_back(line.id);
            Ref* held = camera(r, atoi(std::string(line.id).c_str()));
            const Ref fresh = made(line.object, entry);
            if (isCurrent(*held) && held->address != line.object) {
                // Made by this same call: two ids equal after atoi; earlier:
                // private results created twice.
                const MetaState* old = meta(*held);
                orphan(*held, old->madeLine > r.createLine ? kAtoiSharedKey : kCreateOnEmpty,
                       entry.line);
            }
            *held = fresh;
            break;
        }
        case Event::DestroyTuningDone: {
            RecordState& r = record(entry, line);
            if (isCurrent(r.logical) && !inCameras(r, r.logical.address)) {
                orphan(r.logical, r.sameLogical ? kAtoiSharedKey : kLinesMissing, entry.line);
            }
            r.logical = {};
            r.cameras.erase(std::remove_if(r.cameras.begin(), r.cameras.end(),
                                           [this](const auto& c) { return !isCurrent(c.second); }),
                            r.cameras.end());
            break;
        }
        case Event::HandOver: {
            RecordState& r = record(entry, line);
            r.handedOver = true;
            r.handOverLine = entry.line;
            orphan(r.logical, kReleaseHandsOver, entry.line);
            for (const auto& c : r.cameras) {
                orphan(c.second, kReleaseHandsOver, entry.line);
            }
            r.logical = {};
            r.cameras.clear();
            break;
        }
        case Event::Translated:
            record(entry, line).translated = true;
            break;
        case Event::TuningParams:
            record(entry, line);
            break;
        case Event::IqbmAdd: {
            RecordState& r = record(entry, line);
            hold(r, line.record, line.object, HoldKind::Reference, line.count, entry);
            break;
        }
        case Event::Keep: {
            RecordState& r = record(entry, line);
            auto found = mBuffers.find(line.object);
            Holder* h =
                    found == mBuffers.end() ? nullptr : holder(found->second, line.record, r.gen);
            if (line.count == -1) {
                if (h == nullptr) {  // held by a hold the log does not show
                    hold(r, line.record, line.object, HoldKind::Unknown, kNoKeep, entry);
                }
            } else if (h != nullptr && h->awaitsKeep == line.count) {
                h->awaitsKeep = kNoKeep;  // the manager's line told of this add
            } else if (h != nullptr && h->kind == HoldKind::Unknown) {
                // Another thread's keep of the same buffer lost the race to
                // this one and logged first that it was held.
                h->kind = HoldKind::Reference;
                --mProcess.totals.debugData.before;
                ++mProcess.totals.debugData.created;
            } else {
                if (h != nullptr) {
                    // The record's set had let it go without a line: handed
                    // over. A shallow clone's copy was never in it.
                    BufferState& b = found->second;
                    const bool copied = h->kind == HoldKind::Copied;
                    b.holders.erase(b.holders.begin() + (h - b.holders.data()));
                    b.handed += copied ? 0 : 1;
                    b.handedLine = r.handOverLine != 0 ? r.handOverLine : entry.line;
                }
                hold(r, line.record, line.object, HoldKind::Reference, kNoKeep, entry);
            }
            break;
        }
        case Event::Adopt:
            hold(record(entry, line), line.record, line.object, HoldKind::Adopted, kNoKeep, entry);
            break;
        case Event::DebugDec:
        case Event::DebugFree:
            release(record(entry, line), line.record, line.object, line.count,
                    line.event == Event::DebugFree, entry);
            break;
        case Event::Other:
            if (line.function == Fn::Constructor) {
                beginRecord(entry, line.record, true);  // a copy constructor's note
            } else {
                record(entry, line);
            }
            break;
        case Event::NoRecord:
            break;
    }
}

Process Ledger::finish(bool processEnded) {
    while (mSumChecked < mSumsBase + static_cast<int64_t>(mSums.size())) {
        checkChiSum();
    }
    for (auto& [index, finding] : mPending) {
        decide(std::move(finding));
    }
    mPending.clear();
    const size_t decided = mProcess.findings.size();
    for (auto& [address, r] : mRecords) {
        finishRecord(address, r, Finish::LogEnded, mProcess.lastLine);
    }
    // What a live record holds counts with the record.
    std::unordered_set<uint64_t> held;
    std::map<uint64_t, const RecordState*> leaked;
    for (const auto& [address, r] : mRecords) {
        if (r.destructing) {
            continue;
        }
        held.insert(r.logical.address);
        for (const auto& c : r.cameras) {
            held.insert(c.second.address);
        }
        for (Ref p : r.parked) {
            held.insert(p.address);
        }
        if (r.made) {
            leaked.emplace(address, &r);
        }
    }
    for (const auto& [address, r] : leaked) {
        size_t objects = isCurrent(r->logical) && !inCameras(*r, r->logical.address) ? 1 : 0;
        for (const auto& c : r->cameras) {
            objects += isCurrent(c.second) ? 1 : 0;
        }
        for (Ref p : r->parked) {
            objects += isCurrent(p) ? 1 : 0;
        }
        report(Kind::RecordLeak, address, r->tid, {r->firstLine, r->lastLine}, kRecordLifetime,
               "never destroyed; holds " + std::to_string(objects) +
                       " CHI metadata object(s) and " + std::to_string(r->buffers.size()) +
                       " debug buffer(s)");
    }
    std::map<uint64_t, const MetaState*> orphans;
    for (const auto& [address, m] : mMetas) {
        if (m.alive && held.count(address) == 0 &&
            (m.origin != Origin::Before || m.cause != nullptr)) {
            orphans.emplace(address, &m);
        }
    }
    for (const auto& [address, m] : orphans) {
        const bool asserted = m->cause != kLinesMissing && m->cause != kLogEnded && !m->guessed &&
                              m->origin != Origin::Before && (m->cause != nullptr || m->attributed);
        const char* rule = m->cause == kLinesMissing || m->cause == kLogEnded ? nullptr : m->cause;
        std::string detail = m->cause == kLinesMissing ? "its record ended without its Destroy line"
                             : m->cause == kLogEnded
                                     ? "its record's destructor had not finished when the log ended"
                             : m->cause == nullptr
                                     ? "made by createChiMeta for no record the log shows"
                                     : "never destroyed";
        report(Kind::ChiMetaLeak, address, m->tid, {m->madeLine, m->causeLine}, rule,
               std::move(detail), asserted);
    }
    std::map<uint64_t, const BufferState*> buffers;
    for (const auto& [address, b] : mBuffers) {
        if ((b.handed > 0 || b.lostCause != nullptr)) {
            buffers.emplace(address, &b);
        }
    }
    for (const auto& [address, b] : buffers) {
        if (b->handed > 0) {
            report(Kind::DebugDataLeak, address, b->tid, {b->firstLine, b->handedLine},
                   kReleaseHandsOver,
                   "handed over by releaseTuningMetaBufs and given back by nobody");
        } else {
            report(Kind::DebugDataLeak, address, b->tid, {b->firstLine, b->lostLine}, nullptr,
                   b->lostCause == kLogEnded
                           ? "its record's destructor had not finished when the log ended"
                           : "its record ended without its line giving it back",
                   false);
        }
    }
    for (size_t i = decided; i < mProcess.findings.size(); ++i) {
        mProcess.findings[i].processEnded = processEnded;
    }
    mProcess.ended = processEnded;
    return std::move(mProcess);
}

namespace {

// A line that tells of a process's death: libc's fatal signal, the
// tombstone's header (crash_dump's own, at Fatal), init's reaping in every
// wording since Android 8, and ActivityManager's death notice. The pid, or 0.
int32_t deadProcess(const Entry& entry) {
    const std::string_view tag = entry.tag;
    const std::string_view message = entry.message;
    auto numberAfter = [message](size_t at) {
        return at == std::string_view::npos ? 0 : atoi(std::string(message.substr(at, 12)).c_str());
    };
    if (tag == "libc" && entry.priority == 'F' && message.substr(0, 13) == "Fatal signal ") {
        const size_t pid = message.find(", pid ");
        return entry.pid != 0 ? entry.pid : numberAfter(pid == message.npos ? pid : pid + 6);
    }
    if (tag == "DEBUG" && entry.priority == 'F' && message.substr(0, 5) == "pid: " &&
        message.find(", tid: ") != std::string_view::npos) {
        return numberAfter(5);
    }
    if (tag == "init" && (message.find(" exited with status ") != std::string_view::npos ||
                          message.find(" received signal ") != std::string_view::npos ||
                          message.find(" killed by signal ") != std::string_view::npos)) {
        if (message.substr(0, 9) == "Service '") {
            const size_t pid = message.find("' (pid ");
            return numberAfter(pid == message.npos ? pid : pid + 7);
        }
        if (message.substr(0, 14) == "Untracked pid ") {
            return numberAfter(14);
        }
    }
    if (tag == "ActivityManager" && message.substr(0, 8) == "Process " &&
        message.find(" has died") != std::string_view::npos) {
        const size_t pid = message.find("(pid ");
        return numberAfter(pid == message.npos ? pid : pid + 5);
    }
    return 0;
}

bool interesting(std::string_view tag) {
    return tag == "libc" || tag == "DEBUG" || tag == "init" || tag == "chatty" ||
           tag == "ActivityManager";
}

}  // namespace

Checker::Checker(std::function<void(const Finding&)> onFinding)
    : mOnFinding(std::move(onFinding)), mClassifier(std::make_unique<Classifier>()) {}

Checker::~Checker() = default;

Ledger& Checker::ledger(const Entry& entry) {
    if (mLast != nullptr && mLast->pid() == entry.pid && mLast->boot() == mBoot) {
        return *mLast;
    }
    const Key key{mBoot, entry.pid};
    std::unique_ptr<Ledger>& found = mLedgers[key];
    if (!found) {
        found = std::make_unique<Ledger>(entry.pid, mBoot, entry.line, mOnFinding);
        relist();
    }
    return *found;
}

Ledger* Checker::live(int32_t pid) const {
    for (const auto& [livePid, ledger] : mLive) {
        if (livePid == pid) {
            return ledger;
        }
    }
    return nullptr;
}

void Checker::relist() {
    mLive.clear();
    for (const auto& [key, ledger] : mLedgers) {
        if (key.first == mBoot) {
            mLive.emplace_back(key.second, ledger.get());
        }
    }
}

void Checker::add(const Entry& entry) {
    static constexpr std::string_view kTag = "KyCamAdapter";
    const bool library =
            entry.tag == kTag || (entry.tag.empty() && looksLikeLibrary(entry.message));
    if (!library) {
        ++mOtherLines;
        if (interesting(entry.tag)) {
            if (const int32_t dead = deadProcess(entry)) {
                end({mBoot, dead}, true);
                return;
            }
            if (entry.tag == "chatty") {
                chatty(entry);
                return;
            }
        }
        // Another tag of a process the library logs in: its thread's last
        // line is not the library's.
        if (Ledger* ledger = live(entry.pid)) {
            ledger->other(entry.tid);
        }
        return;
    }
    ++mLibraryLines;
    Line line;
    if (!mClassifier->classify(entry.message, &line)) {
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
    mLast = &ledger(entry);
    mLast->add(entry, line);
    mLast->sample(entry);
}

// logd's own lines: "identical N lines" folds copies of the line before on
// that thread; "expire N lines" may have dropped any of that process's.
void Checker::chatty(const Entry& entry) {
    Ledger* ledger = live(entry.pid);
    const std::string_view message = entry.message;
    const size_t identical = message.find(" identical ");
    const size_t expire = message.find(" expire ");
    if (ledger == nullptr ||
        (identical == std::string_view::npos && expire == std::string_view::npos)) {
        return;
    }
    if (identical != std::string_view::npos && entry.tid != 0 &&
        !ledger->foldedALedgerLine(entry.tid)) {
        return;  // copies of another tag's line, or of one that changes nothing
    }
    ledger->mayHaveLost();
    mCaveats.push_back({entry.line, "logd dropped lines of pid " + std::to_string(entry.pid) +
                                            " (chatty): what is found after line " +
                                            std::to_string(entry.line) + " is not asserted"});
}

void Checker::beginBoot(int boot) {
    mBoot = boot;
    relist();
}

void Checker::endBoot(int boot, uint64_t /*line*/) {
    std::vector<Key> ending;
    for (const auto& [key, ledger] : mLedgers) {
        if (key.first == boot) {
            ending.push_back(key);
        }
    }
    for (const Key& key : ending) {
        end(key, true);
    }
}

void Checker::end(Key key, bool processEnded) {
    auto found = mLedgers.find(key);
    if (found != mLedgers.end()) {
        if (mLast == found->second.get()) {
            mLast = nullptr;
        }
        mDone.push_back(found->second->finish(processEnded));
        mLedgers.erase(found);
        relist();
    }
}

void Checker::finish() {
    // A process whose lines stop before another's of the same boot begin was
    // replaced: the camera provider restarted.
    std::vector<Key> replaced;
    for (const auto& [key, ledger] : mLedgers) {
        for (const auto& [other, later] : mLedgers) {
            if (other.first == key.first && later->firstLine() > ledger->lastLine()) {
                replaced.push_back(key);
                break;
            }
        }
    }
    for (const Key& key : replaced) {
        end(key, true);
    }
    while (!mLedgers.empty()) {
        end(mLedgers.begin()->first, false);
    }
    std::stable_sort(mDone.begin(), mDone.end(),
                     [](const Process& a, const Process& b) { return a.firstLine < b.firstLine; });
}

}  // namespace logcheck
