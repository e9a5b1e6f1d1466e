// SPDX-License-Identifier: Apache-2.0
#include "ledger.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <deque>
#include <unordered_map>

#include "events.h"

namespace logcheck {

namespace {

// Destroyed objects remembered to catch a second destroy: bounded, so that
// memory follows the objects alive rather than the length of the log.
constexpr size_t kDestroyedKept = 4096;
// ChimetaSum is read some time after the thread's own update: another thread
// may have updated it and not logged yet (for thousands of lines, seen here),
// or a reader may print a count that others changed since. Only when one
// thread makes and ends every object does the count tell of lost lines.

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

enum Family { kRecords, kChiMetas, kDebugData, kFamilies };

Family familyOf(Kind kind) {
    switch (kind) {
        case Kind::RecordLeak:
            return kRecords;
        case Kind::DebugDataLeak:
            return kDebugData;
        default:
            return kChiMetas;
    }
}

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
    bool created = false;  // made in the log
    bool holdsPrivate = false;
    bool handedOver = false;                 // releaseTuningMetaBufs ran on it
    bool shallow = false;                    // a shallow clone
    std::unordered_map<int, uint64_t> keys;  // camera key to object
};

struct MetaState {
    Evidence evidence;
    bool created = false;
    uint64_t owner = 0;
    int64_t held = 0;  // references the library took and has not given back
    bool shared = false;
    bool parked = false;
    bool heldAndParked = false;
    bool overwritten = false;
    bool atoiShared = false;
    bool handedOver = false;
    bool underflow = false;
};

struct Holder {
    uint64_t record;
    bool referenced;  // taken by the record, not adopted
};

struct BufferState {
    Evidence evidence;
    std::vector<Holder> holders;
    bool underflow = false;
};

struct ThreadState {
    uint64_t record = 0;       // the record its last line named
    uint64_t created = 0;      // the CHI object its last create made
    uint64_t destructing = 0;  // the record whose destructor runs on it
    RecordState ending;        // and what the ledger knew of it
    bool expectTrace = false;
    // The manager's line of an add, before keep's line of the same add.
    uint64_t addRecord = 0;
    uint64_t addBuffer = 0;
    int64_t addCount = 0;
    std::vector<uint64_t> referenced;  // what addChiMetasRef just referenced
};

}  // namespace

const char* kindName(Kind kind) {
    switch (kind) {
        case Kind::ChiMetaDoubleDestroy:
            return "chi-meta-double-destroy";
        case Kind::ReferenceUnderflow:
            return "reference-underflow";
        case Kind::ChiMetaLeak:
            return "chi-meta-leak";
        case Kind::DebugDataLeak:
            return "debug-data-leak";
        case Kind::RecordLeak:
            return "record-leak";
        case Kind::LinesLost:
            return "lines-lost";
    }
    return "?";
}

Totals& Totals::operator+=(const Totals& other) {
    for (auto [mine, theirs] : {std::pair<Count*, const Count*>{&records, &other.records},
                                {&chiMetas, &other.chiMetas},
                                {&debugData, &other.debugData}}) {
        mine->created += theirs->created;
        mine->before += theirs->before;
        mine->ended += theirs->ended;
    }
    return *this;
}

// The ledger of one process.
class Ledger {
  public:
    Ledger(int32_t pid, uint64_t line, Seen& seen,
           const std::function<void(const Finding&)>& onFinding)
        : mSeen(seen), mOnFinding(onFinding) {
        mProcess.pid = pid;
        mProcess.firstLine = line;
    }

    uint64_t firstLine() const { return mProcess.firstLine; }
    uint64_t lastLine() const { return mProcess.lastLine; }

    void add(const Entry& entry, const LibraryLine& line);

    // logd dropped lines of this process.
    void lost(const Entry& entry, std::string detail) {
        mProcess.lastLine = entry.line;
        linesLost(entry, 0, kFamilies, std::move(detail));
    }

    Process finish(bool processEnded);

  private:
    void report(Kind kind, uint64_t object, const Evidence& evidence, uint64_t last,
                const char* rule, std::string detail, bool certain = true) {
        Finding finding{kind,           object,
                        mProcess.pid,   evidence.tid,
                        evidence.first, last,
                        rule,           certain && !mLost[familyOf(kind)],
                        false,          std::move(detail)};
        if (mOnFinding) {
            mOnFinding(finding);
        }
        mProcess.findings.push_back(std::move(finding));
    }

    // A sum in a line disagrees with the ledger: the log lost lines, and
    // later findings of the family are no longer asserted.
    void linesLost(const Entry& entry, uint64_t object, int family, std::string detail) {
        Evidence here;
        here.see(entry);
        report(Kind::LinesLost, object, here, entry.line, nullptr, std::move(detail));
        for (int f = 0; f < kFamilies; ++f) {
            mLost[f] = mLost[f] || family == kFamilies || f == family;
        }
    }

    RecordState& record(uint64_t address, const Entry& entry) {
        auto [it, added] = mRecords.try_emplace(address);
        if (added) {
            ++mProcess.totals.records.before;
        }
        it->second.evidence.see(entry);
        return it->second;
    }

    MetaState& meta(uint64_t address, const Entry& entry) {
        auto [it, added] = mMetas.try_emplace(address);
        if (added) {
            ++mProcess.totals.chiMetas.before;
        }
        it->second.evidence.see(entry);
        return it->second;
    }

    BufferState& buffer(uint64_t address, const Entry& entry, bool* added) {
        auto [it, fresh] = mBuffers.try_emplace(address);
        *added = fresh;
        it->second.evidence.see(entry);
        return it->second;
    }

    void construct(const Entry& entry, const LibraryLine& line);
    void recordSum(const Entry& entry, uint64_t object, int64_t before);
    void chiSum(const Entry& entry, uint64_t object, int64_t printed, int delta);
    void metaCount(const Entry& entry, MetaState& state, uint64_t object, int64_t count,
                   bool wraps);
    void destroyed(const Entry& entry, uint64_t object, bool refused);
    void debugAdd(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                  bool referenced);
    void debugRelease(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                      bool freed);
    void destructed(int32_t tid, ThreadState& thread);

    Process mProcess;
    Seen& mSeen;
    const std::function<void(const Finding&)>& mOnFinding;
    bool mLost[kFamilies] = {};
    std::unordered_map<uint64_t, RecordState> mRecords;
    std::unordered_map<uint64_t, MetaState> mMetas;
    std::unordered_map<uint64_t, BufferState> mBuffers;
    std::unordered_map<int32_t, ThreadState> mThreads;
    // Records counted alive, taking every destructor begun as finished; the
    // destructors still running on some thread may not have counted down.
    bool mRecordSumKnown = false;
    int64_t mRecordAlive = 0;
    std::unordered_map<int32_t, int> mRunning;
    // ChimetaSum: the ledger's count, the printed count less it on the first
    // line, and the thread of every such line (-1: more than one).
    int64_t mChiSum = 0;
    bool mChiOffsetKnown = false;
    int64_t mChiOffset = 0;
    int32_t mChiThreads = 0;
    // The first line that differs, and the findings decided before it.
    Entry mDriftEntry;
    uint64_t mDriftObject = 0;
    size_t mDriftFindings = SIZE_MAX;
    struct Destroyed {
        Evidence evidence;
        bool shared;
        uint64_t serial;
    };
    std::unordered_map<uint64_t, Destroyed> mDestroyed;
    std::deque<std::pair<uint64_t, uint64_t>> mDestroyedOrder;  // address, serial
    uint64_t mDestroyedSerial = 0;
};

void Ledger::recordSum(const Entry& entry, uint64_t object, int64_t before) {
    int64_t running = 0;
    for (const auto& [tid, count] : mRunning) {
        running += count;
    }
    if (mRecordSumKnown && (before < mRecordAlive || before > mRecordAlive + running)) {
        linesLost(entry, object, kRecords,
                  "after sum " + std::to_string(before + 1) + ", the ledger counts " +
                          std::to_string(mRecordAlive + 1));
    }
    if (!mRecordSumKnown || before < mRecordAlive || before > mRecordAlive + running) {
        mRecordAlive = before;
        mRecordSumKnown = true;
    }
    ++mRecordAlive;
}

void Ledger::chiSum(const Entry& entry, uint64_t object, int64_t printed, int delta) {
    mChiSum += delta;
    mChiThreads = mChiThreads == 0 || mChiThreads == entry.tid ? entry.tid : -1;
    const int64_t offset = printed - mChiSum;
    if (!mChiOffsetKnown) {
        mChiOffset = offset;
        mChiOffsetKnown = true;
    } else if (offset != mChiOffset && mDriftFindings == SIZE_MAX) {
        mDriftEntry = entry;
        mDriftObject = object;
        mDriftFindings = mProcess.findings.size();
    }
}

// A count that went below zero (an unsigned count wraps), or below the
// references the library itself still holds on the object.
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

void Ledger::construct(const Entry& entry, const LibraryLine& line) {
    recordSum(entry, line.record, line.count - 1);
    auto found = mRecords.find(line.record);
    if (found != mRecords.end()) {
        // The same address again without its destructor's line.
        linesLost(entry, line.record, kRecords, "a record made again without being destroyed");
        ++mProcess.totals.records.ended;
        mRecords.erase(found);
    }
    RecordState& state = mRecords[line.record];
    state.created = true;
    state.evidence.see(entry);
    ++mProcess.totals.records.created;
}

void Ledger::destroyed(const Entry& entry, uint64_t object, bool refused) {
    auto live = mMetas.find(object);
    if (!refused && live != mMetas.end()) {
        Destroyed& ended = mDestroyed[object];
        ended = {live->second.evidence, live->second.shared, ++mDestroyedSerial};
        ended.evidence.see(entry);
        mDestroyedOrder.emplace_back(object, ended.serial);
        if (mDestroyedOrder.size() > kDestroyedKept) {
            // Forgotten unless the address was ended again since.
            auto oldest = mDestroyed.find(mDestroyedOrder.front().first);
            if (oldest != mDestroyed.end() &&
                oldest->second.serial == mDestroyedOrder.front().second) {
                mDestroyed.erase(oldest);
            }
            mDestroyedOrder.pop_front();
        }
        mMetas.erase(live);
        ++mProcess.totals.chiMetas.ended;
        return;
    }
    auto ended = mDestroyed.find(object);
    if (ended != mDestroyed.end() || refused) {
        // A shallow clone and its source both ended what they shared; within
        // one record a handle comes back when an object was held and parked.
        Evidence evidence;
        evidence.see(entry);
        if (ended != mDestroyed.end()) {
            evidence = ended->second.evidence;
        }
        const bool shared = ended != mDestroyed.end() && ended->second.shared && !refused;
        report(Kind::ChiMetaDoubleDestroy, object, evidence, entry.line,
               shared ? kShallowCloneOwner : kHeldAndParked,
               refused ? "the record refused a handle it had ended" : "ended twice");
        return;
    }
    // Alive before the log began.
    ++mProcess.totals.chiMetas.before;
    ++mProcess.totals.chiMetas.ended;
}

void Ledger::debugAdd(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                      bool referenced) {
    bool added = false;
    BufferState& state = buffer(object, entry, &added);
    if (added) {
        ++mProcess.totals.debugData.created;
    }
    if (count < 0 && !state.underflow) {
        state.underflow = true;
        report(Kind::ReferenceUnderflow, object, state.evidence, entry.line, kAlreadyReferenced,
               "the count went below zero");
    }
    auto holder = std::find_if(state.holders.begin(), state.holders.end(),
                               [record](const Holder& h) { return h.record == record; });
    if (holder == state.holders.end()) {
        state.holders.push_back({record, referenced});
    }
}

void Ledger::debugRelease(const Entry& entry, uint64_t record, uint64_t object, int64_t count,
                          bool freed) {
    bool added = false;
    BufferState& state = buffer(object, entry, &added);
    if (added) {
        ++mProcess.totals.debugData.before;
    }
    auto holder = std::find_if(state.holders.begin(), state.holders.end(),
                               [record](const Holder& h) { return h.record == record; });
    const bool adopted = holder != state.holders.end() && !holder->referenced;
    if (freed && holder != state.holders.end() && holder->referenced) {
        report(Kind::DebugDataLeak, object, state.evidence, entry.line, kTuningParamsFree,
               "freed by a record that had taken a reference on it");
    }
    if (!freed && count < 0 && !state.underflow) {
        state.underflow = true;
        auto clone = mRecords.find(record);
        const bool shallow = clone != mRecords.end() && clone->second.shallow;
        report(Kind::ReferenceUnderflow, object, state.evidence, entry.line,
               adopted   ? kImportAdopts
               : shallow ? kShallowCloneDebugData
                         : kAlreadyReferenced,
               "the count went below zero");
    }
    if (holder != state.holders.end()) {
        state.holders.erase(holder);
    }
    if (state.holders.empty() || freed) {
        mBuffers.erase(object);
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
                                   [address](const Holder& h) { return h.record == address; });
        if (holder != holders.end()) {
            // Asserted when a releaseTuningMetaBufs line explains it.
            report(Kind::DebugDataLeak, it->first, it->second.evidence, mProcess.lastLine,
                   kReleaseHandsOver, "its record ended without giving it back",
                   thread.ending.handedOver);
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

void Ledger::add(const Entry& entry, const LibraryLine& line) {
    mProcess.lastLine = entry.line;
    ThreadState& thread = mThreads[entry.tid];
    if (thread.destructing != 0 && line.function != "~QcomPostProcInfo" &&
        line.function != "destroyChiMeta") {
        destructed(entry.tid, thread);
    }
    if (thread.expectTrace && line.event != Event::TraceAdd && line.event != Event::TraceRelease) {
        mSeen.tracesOff = true;
    }
    if (line.event != Event::RefAdd && line.event != Event::ShallowCopy) {
        thread.referenced.clear();
    }
    if (line.event != Event::DebugKeep) {
        thread.addBuffer = 0;
    }
    // A copy's lines name it before its constructor's line; a destructor's
    // name the record already ended.
    if (line.record != 0 && line.event != Event::CopyMeta) {
        thread.record = line.record;
        if (line.event != Event::Construct && line.record != thread.destructing) {
            record(line.record, entry);
        }
    }
    switch (line.event) {
        case Event::Construct:
            construct(entry, line);
            break;
        case Event::Destruct: {
            if (thread.destructing != 0) {
                destructed(entry.tid, thread);  // one destructor after another
            }
            ++mProcess.totals.records.ended;
            --mRecordAlive;
            ++mRunning[entry.tid];
            // Known by now, but for one ending twice on this thread.
            auto found = mRecords.find(line.record);
            if (found == mRecords.end()) {
                ++mProcess.totals.records.before;
                thread.ending = RecordState{};
            } else {
                thread.ending = found->second;
                mRecords.erase(found);
            }
            thread.destructing = line.record;
            break;
        }
        case Event::ShallowCopy: {
            record(line.record, entry).shallow = true;
            for (uint64_t object : thread.referenced) {
                meta(object, entry).shared = true;
            }
            thread.referenced.clear();
            break;
        }
        case Event::MetaCreate:
            chiSum(entry, line.object, line.count, 1);
            thread.created = line.object;
            if (line.object != 0) {
                mDestroyed.erase(line.object);
                // An address seen before belonged to an object ended outside
                // the log (the host ends what the record leaves).
                auto [it, fresh] = mMetas.try_emplace(line.object);
                mProcess.totals.chiMetas.ended += fresh ? 0 : 1;
                MetaState& state = it->second;
                state = MetaState{};
                state.created = true;
                state.evidence.see(entry);
                ++mProcess.totals.chiMetas.created;
            }
            break;
        case Event::MetaDestroy:
            chiSum(entry, line.object, line.count, -1);
            destroyed(entry, line.object, false);
            break;
        case Event::MetaRefused:
            destroyed(entry, line.object, true);
            break;
        case Event::RefAdd: {
            MetaState& state = meta(line.object, entry);
            ++state.held;
            state.owner = state.owner != 0 ? state.owner : line.record;
            thread.referenced.push_back(line.object);
            metaCount(entry, state, line.object, line.count, true);
            break;
        }
        case Event::RefRelease:
        case Event::RefRead:
        case Event::TraceRelease: {
            MetaState& state = meta(line.object, entry);
            if (line.event != Event::RefRead) {
                state.held = std::max<int64_t>(0, state.held - 1);
            }
            state.parked = state.parked || line.event == Event::TraceRelease;
            metaCount(entry, state, line.object, line.count, line.event != Event::TraceRelease);
            break;
        }
        case Event::TraceAdd: {
            MetaState& state = meta(line.object, entry);
            ++state.held;
            state.owner = line.record;
            state.heldAndParked = state.heldAndParked || state.parked;
            metaCount(entry, state, line.object, line.count, false);
            break;
        }
        case Event::Adopted:
            if (line.object != 0) {
                MetaState& state = meta(line.object, entry);
                state.owner = line.record;
                state.heldAndParked = state.heldAndParked || state.parked;
            }
            break;
        case Event::PrivCreate: {
            RecordState& owner = record(line.record, entry);
            if (owner.holdsPrivate) {
                // Overwritten, not ended.
                for (auto& [address, state] : mMetas) {
                    state.overwritten = state.overwritten || state.owner == line.record;
                }
            }
            owner.holdsPrivate = true;
            owner.keys.clear();
            if (line.object != 0) {
                meta(line.object, entry).owner = line.record;
            }
            break;
        }
        case Event::PrivPhy: {
            RecordState& owner = record(line.record, entry);
            const int key = atoi(std::string(line.id).c_str());
            auto [slot, fresh] = owner.keys.try_emplace(key, line.object);
            if (!fresh) {
                // The later id takes the key; the earlier object is left.
                meta(slot->second, entry).atoiShared = true;
                slot->second = line.object;
            }
            if (line.object != 0) {
                meta(line.object, entry).owner = line.record;
            }
            break;
        }
        case Event::CopyMeta: {
            const uint64_t object = line.object != 0 ? line.object : thread.created;
            if (object != 0) {
                meta(object, entry).owner = line.record;
            }
            break;
        }
        case Event::ReleaseTuning: {
            RecordState& owner = record(line.record, entry);
            owner.handedOver = true;
            owner.holdsPrivate = false;
            for (auto& [address, state] : mMetas) {
                state.handedOver = state.handedOver || state.owner == line.record;
            }
            break;
        }
        case Event::DestroyTuning:
            record(line.record, entry).holdsPrivate = false;
            break;
        case Event::DebugAdd:
            thread.addRecord = line.record;
            thread.addBuffer = line.object;
            thread.addCount = line.count;
            debugAdd(entry, line.record, line.object, line.count, true);
            break;
        case Event::DebugKeep:
            // -1: held already. The manager's own line told of this add.
            if (line.count != -1 &&
                !(thread.addBuffer == line.object && thread.addRecord == line.record &&
                  thread.addCount == line.count)) {
                debugAdd(entry, line.record, line.object, line.count, true);
            }
            thread.addBuffer = 0;
            break;
        case Event::DebugAdopt:
            debugAdd(entry, line.record, line.object, 0, false);
            break;
        case Event::DebugDec:
        case Event::DebugFree:
            debugRelease(entry, line.record, line.object, line.count,
                         line.event == Event::DebugFree);
            break;
        case Event::Displacing:
            thread.expectTrace = line.object != 0 || line.other != 0;
            return;
        case Event::Other:
            break;
    }
    thread.expectTrace = false;
}

Process Ledger::finish(bool processEnded) {
    for (auto& [tid, thread] : mThreads) {
        if (thread.destructing != 0) {
            destructed(tid, thread);
        }
    }
    if (mChiThreads > 0 && mDriftFindings != SIZE_MAX) {
        // Lost CHI lines: what was decided since is no longer asserted.
        for (size_t i = mDriftFindings; i < mProcess.findings.size(); ++i) {
            Finding& finding = mProcess.findings[i];
            finding.certain = finding.certain && familyOf(finding.kind) != kChiMetas;
        }
        linesLost(mDriftEntry, mDriftObject, kChiMetas,
                  "ChimetaSum off the ledger's count from here on");
    }
    const size_t decided = mProcess.findings.size();
    std::vector<uint64_t> leaked;
    for (const auto& [address, state] : mRecords) {
        if (state.created) {
            leaked.push_back(address);
        }
    }
    std::sort(leaked.begin(), leaked.end());
    for (uint64_t address : leaked) {
        const RecordState& state = mRecords[address];
        size_t metas = 0;
        size_t buffers = 0;
        for (const auto& [object, meta] : mMetas) {
            metas += meta.owner == address;
        }
        for (const auto& [object, buffer] : mBuffers) {
            for (const Holder& holder : buffer.holders) {
                buffers += holder.record == address;
            }
        }
        report(Kind::RecordLeak, address, state.evidence, state.evidence.last, kRecordLifetime,
               "never destroyed; holds " + std::to_string(metas) + " CHI metadata object(s) and " +
                       std::to_string(buffers) + " debug buffer(s)");
    }
    std::vector<uint64_t> orphans;
    for (const auto& [address, state] : mMetas) {
        // What a live record holds is its record's; it counts with the record.
        if (state.created && mRecords.find(state.owner) == mRecords.end()) {
            orphans.push_back(address);
        }
    }
    std::sort(orphans.begin(), orphans.end());
    for (uint64_t address : orphans) {
        const MetaState& state = mMetas[address];
        const char* rule = state.handedOver   ? kReleaseHandsOver
                           : state.atoiShared ? kAtoiSharedKey
                                              : kCreateOnEmpty;
        report(Kind::ChiMetaLeak, address, state.evidence, state.evidence.last, rule,
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
// header, init's service exit and ActivityManager's death notice. Returns the
// pid, or 0.
int32_t deadProcess(const Entry& entry) {
    struct Sign {
        const char* tag;
        const char* words;
        const char* pid;
    };
    static const Sign kSigns[] = {
            {"libc", "Fatal signal", ", pid "},
            {"DEBUG", "pid: ", "pid: "},
            {"init", "(pid ", "(pid "},
            {"init", "Untracked pid ", "Untracked pid "},
            {"ActivityManager", "has died", "(pid "},
    };
    for (const Sign& sign : kSigns) {
        if (entry.tag != sign.tag || entry.message.find(sign.words) == std::string_view::npos) {
            continue;
        }
        const size_t at = entry.message.find(sign.pid);
        if (at == std::string_view::npos) {
            continue;
        }
        const bool init = entry.tag == "init";
        if (init && entry.message.find("exited") == std::string_view::npos &&
            entry.message.find("killed") == std::string_view::npos) {
            continue;
        }
        return atoi(std::string(entry.message.substr(at + strlen(sign.pid), 10)).c_str());
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
            mLedgers[entry.pid]->lost(entry, std::string(entry.message));
        }
        return;
    }
    ++mLibraryLines;
    LibraryLine line;
    if (!classify(entry.message, &line)) {
        ++mUnknownLines;
        return;
    }
    const bool debug = entry.priority == 'D';
    mSeen.lifetime = mSeen.lifetime || (line.group == 128 && debug);
    mSeen.metaInfo = mSeen.metaInfo || (line.group == 64 && !debug);
    const bool trace = line.event == Event::TraceAdd || line.event == Event::TraceRelease;
    mSeen.metaDebug = mSeen.metaDebug || (line.group == 64 && debug && !trace);
    mSeen.traces = mSeen.traces || trace;
    std::unique_ptr<Ledger>& ledger = mLedgers[entry.pid];
    if (!ledger) {
        ledger = std::make_unique<Ledger>(entry.pid, entry.line, mSeen, mOnFinding);
    }
    ledger->add(entry, line);
}

void Checker::end(int32_t pid, bool processEnded) {
    auto found = mLedgers.find(pid);
    if (found == mLedgers.end()) {
        return;
    }
    mDone.push_back(found->second->finish(processEnded));
    mLedgers.erase(found);
}

void Checker::finish() {
    // A process whose lines stop before another's begin was replaced: the
    // camera provider restarted.
    std::vector<int32_t> replaced;
    for (const auto& [pid, ledger] : mLedgers) {
        for (const auto& [other, later] : mLedgers) {
            if (other != pid && later->firstLine() > ledger->lastLine()) {
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
