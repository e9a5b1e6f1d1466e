// SPDX-License-Identifier: Apache-2.0
// Coverage-guided fuzzing of the record as the host framework drives it: each
// input is decoded into a sequence of framework calls on up to four records.
// Afterwards the simulation's ledger must be balanced: no misuse (double
// destroy, use after destroy, reference below zero), no CHI metadata object,
// camera metadata buffer or debug data reference left over, and the class
// counters back where they started.
//
// The decoder keeps the host framework's obligations. What it steers around,
// and why:
// - Private results and tuning buffers are created only on a record that holds
//   none: creating again overwrites objects and arrays without ending them.
// - A record that shares its private results with a shallow clone is not
//   reconciled, and its results are neither created nor destroyed, while the
//   other lives; when one of them goes it first lets go of the shared objects
//   and arrays with releaseTuningMetaBufs, and the last one ends them.
// - A copy's camera id texts point into its source's set: that record is not
//   destroyed, nor its cameras rebuilt, while the copy lives.
// - Only references the record holds are released: the HAL takes one on every
//   object of an attached request and on each object it makes, and hands it
//   over with the result.
// - No platform call gets a null handle: no camera rebuild of a record with a
//   null physical result (ReleaseReference), no reset or in-use test of one
//   (ReferenceCount), no copy of a source whose results have a null entry
//   (Copy), no import into a camera whose result is null (SetAndroidMetadata).
// - A record that holds an object it also parked (a result named it again),
//   in its map or in the part of its array it hands out, is neither reset nor
//   has its tuning buffers destroyed: either ends the object while it is held.
// - No camera comparison on a record whose arrays were released or destroyed:
//   the array is written without a test.
// - A tuning array has at most six entries.
// - A record that made its own tuning parameters frees what it holds: it only
//   gets buffers handed over for good (fresh ones, by import), never pipeline
//   buffers nor a shallow clone with debug data, and its tuning buffers are
//   destroyed only while it holds none, as that path decrements instead.
//   Tuning parameters are made only by a record that holds no buffer yet.
// - A reference handed over (alreadyReferenced) is taken by the host first,
//   only for a buffer the record does not hold yet, in the framework's mode.
// - A shallow clone with debug data gives back references it did not take:
//   the host takes them for it.
// - No export translates two objects under one camera id (a physical id "-1"
//   beside the logical result): the library drops the second buffer.
// - Objects the library leaves by design (the earlier of two cameras equal
//   after atoi lives only in the array; a logical result adopted while
//   mSamelogical_PhyResult is set is never destroyed) are ended by the host
//   at the end of the input. Any object that a record owned before a call and
//   no record owns after it, undestroyed, is a finding.
#include <QcomPostProcInfo.h>
#include <kydebug/Log.h>
#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/hal.h>
#include <sim/iqbm.h>
#include <sim/journal.h>
#include <sim/kycam.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using adapter::QcomPostProcInfo;

void check(bool ok, int line, const char* condition) {
    if (!ok) {
        fprintf(stderr, "check failed at line %d: %s\n", line, condition);
        for (const std::string& misuse : sim::misuses()) {
            fprintf(stderr, "  misuse: %s\n", misuse.c_str());
        }
        abort();
    }
}
#define CHECK(condition) check(condition, __LINE__, #condition)

namespace {

constexpr int kSlots = 4;
char gPipeline[4][32];  // debug buffers the pipeline keeps alive by reference
const char* const kIds[] = {"0", "1", "2", "10", "01", "-1", " 2", "x", "2a", ""};

class Session {
  public:
    Session(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    void run() {
        while (size_ > 0) {
            const int op = byte() % 16;
            const int i = byte() % kSlots;
            if (op == 0 && !slots_[i].record) {
                slots_[i] = {std::make_shared<QcomPostProcInfo>(), -1};
            } else if ((op == 7 || op == 8) && slots_[i].record) {
                const int to = byte() % kSlots;
                if (!slots_[to].record) {
                    guarded([&] { op == 7 ? copy(i, to) : shallow(i, to); });
                }
            } else if (op != 0 && op != 7 && op != 8 && slots_[i].record) {
                guarded([&] { call(op, i); });
            }
        }
        bool progress = true;
        while (progress) {  // sources after their copies
            progress = false;
            for (int i = 0; i < kSlots; ++i) {
                if (slots_[i].record && !pointedAt(i)) {
                    guarded([&] { destroy(i); });
                    progress = true;
                }
            }
        }
        for (int i = 0; i < kSlots; ++i) {
            CHECK(!slots_[i].record);
        }
        QcomPostProcInfo janitor;
        for (void* left : left_) {
            if (!sim::chi::isDestroyed(left)) {
                janitor.destroyChiMeta(left);
            }
        }
    }

    size_t halObjects = 0;
    std::vector<void*> owned;  // buffers handed over for good, by address

  private:
    struct Slot {
        std::shared_ptr<PostProcInfo> record;
        int group;  // records that share private results through shallow clones
    };

    uint8_t byte() { return size_ > 0 ? (--size_, *data_++) : 0; }
    bool bit() { return byte() & 1; }
    QcomPostProcInfo* at(int i) { return static_cast<QcomPostProcInfo*>(slots_[i].record.get()); }

    std::string id() {
        const uint8_t b = byte();
        if (b < 0xC0) {
            return kIds[b % (sizeof(kIds) / sizeof(kIds[0]))];
        }
        std::string text;
        for (int n = b % 4; n > 0; --n) {
            const char c = static_cast<char>(byte());
            text += c != 0 ? c : '7';
        }
        return text;
    }

    // Objects the record will end itself.
    static void ownedBy(QcomPostProcInfo* r, std::set<void*>& out) {
        if (r->m_pPrivResult != nullptr && !r->mSamelogical_PhyResult) {
            out.insert(r->m_pPrivResult);
        }
        for (const auto& entry : r->mPrivPhyResultMap) {
            if (entry.second != nullptr) {
                out.insert(entry.second);
            }
        }
        out.insert(r->mReplacedPrivResults.begin(), r->mReplacedPrivResults.end());
    }

    std::set<void*> ownedAll() {
        std::set<void*> out;
        for (int i = 0; i < kSlots; ++i) {
            if (slots_[i].record) {
                ownedBy(at(i), out);
            }
        }
        return out;
    }

    template <typename Call>
    void guarded(Call call) {
        const std::set<void*> before = ownedAll();
        const size_t made = sim::chi::objects().size();
        call();
        const std::set<void*> after = ownedAll();
        for (void* meta : before) {
            CHECK(sim::chi::isDestroyed(meta) || after.count(meta) != 0);
        }
        const std::vector<void*> objects = sim::chi::objects();
        for (size_t k = made; k < objects.size(); ++k) {
            if (after.count(objects[k]) == 0) {
                left_.push_back(objects[k]);
            }
        }
        CHECK(sim::misuses().empty());
    }

    int sharers(int i) {
        int n = 0;
        for (int j = 0; j < kSlots; ++j) {
            n += j != i && slots_[j].record && slots_[i].group >= 0 &&
                 slots_[j].group == slots_[i].group;
        }
        return n;
    }

    // Does another record's id array point into the set of record i?
    bool pointedAt(int i) {
        for (int j = 0; j < kSlots; ++j) {
            if (j == i || !slots_[j].record || at(j)->m_pPrivPhyCamIds == nullptr) {
                continue;
            }
            for (size_t k = 0; k < at(j)->mPhyCamIdSet.size(); ++k) {
                for (const std::string& text : at(i)->mPhyCamIdSet) {
                    if (at(j)->m_pPrivPhyCamIds[k] == text.c_str()) {
                        return true;
                    }
                }
            }
        }
        return false;
    }

    static bool holdsNothing(QcomPostProcInfo* r) {
        return r->m_pPrivResult == nullptr && r->mPrivPhyResultMap.empty() &&
               r->m_pPrivPhyResults == nullptr && r->m_pPrivPhyCamIds == nullptr;
    }

    static bool nullResult(QcomPostProcInfo* r) {
        const auto& map = r->mPrivPhyResultMap;
        return std::any_of(map.begin(), map.end(), [](const auto& e) { return !e.second; });
    }

    // A result that names again an object the record parks (a camera kept in
    // a rebuild, a camera listed twice, the old logical result kept as a
    // physical one) leaves it held, or handed to the HAL and to copies through
    // the array, and parked at once.
    static bool heldAndParked(QcomPostProcInfo* r) {
        const std::set<void*>& parked = r->mReplacedPrivResults;
        for (const auto& entry : r->mPrivPhyResultMap) {
            if (parked.count(entry.second) != 0) {
                return true;
            }
        }
        for (size_t k = 0; r->m_pPrivPhyResults != nullptr && k < r->mPhyCamIdSet.size(); ++k) {
            if (parked.count(r->m_pPrivPhyResults[k]) != 0) {
                return true;
            }
        }
        return parked.count(r->m_pPrivResult) != 0;
    }

    // Every release the record will make finds a reference to give back.
    static bool referenced(const std::vector<void*>& released) {
        std::map<void*, uint32_t> count;
        return std::all_of(released.begin(), released.end(), [&](void* meta) {
            return meta == nullptr || ++count[meta] <= sim::chi::refCount(meta);
        });
    }

    static void hostReference(QcomPostProcInfo* r, void* buffer) {
        if (r->mEnableIQBM) {
            sim::iqbm::setRefCount(buffer, sim::iqbm::refCount(buffer) + 1);
        } else {
            sim::kycam::setDebugDataRefCount(buffer, sim::kycam::debugDataRefCount(buffer) + 1);
        }
    }

    adapter::DebugData pipeline() {
        const uint8_t b = byte() % 5;
        return {32, b < 4 ? gPipeline[b] : nullptr};
    }

    // Keeps one descriptor or array on a record that holds by reference.
    void keep(QcomPostProcInfo* r, int op) {
        const int cameraId = static_cast<int8_t>(byte());
        bool handedOver = bit();
        const bool none = byte() % 8 == 0;  // a null descriptor or array
        adapter::DebugDataTuningMetaArray array = {byte() % 7u, {}};
        const uint32_t used = op == 5 ? array.count : 1;
        for (uint32_t k = 0; k < used; ++k) {
            array.entries[k] = pipeline();
        }
        // No reference comes with a null buffer.
        handedOver = handedOver && !(op == 6 && array.entries[0].pData == nullptr);
        std::set<void*> fresh;
        for (uint32_t k = 0; !none && handedOver && !r->mEnableIQBM && k < used; ++k) {
            void* buffer = array.entries[k].pData;
            if (buffer != nullptr && r->mDebugDataSet.count(buffer) == 0 &&
                fresh.insert(buffer).second) {
                hostReference(r, buffer);
            }
        }
        if (op == 4) {
            r->keep3aDebugData(cameraId, none ? nullptr : &array.entries[0], handedOver);
        } else if (op == 5) {
            r->keepTuningDDArray(cameraId, none ? nullptr : &array, handedOver);
        } else {
            const bool known = !none && r->mDebugDataSet.count(array.entries[0].pData) != 0;
            const int count = r->addDebugDataAndRef(none ? nullptr : &array.entries[0], handedOver);
            CHECK((none || known) == (count == -1));
        }
    }

    void reconcile(int i) {
        QcomPostProcInfo* r = at(i);
        // The result: the logical object and the cameras, from what the record
        // holds, changed as the input says.
        std::vector<std::string> texts(r->mPhyCamIdSet.begin(), r->mPhyCamIdSet.end());
        const uint8_t change = byte() % 6;
        if (change == 1) {
            texts.assign(texts.rbegin(), texts.rend());
        } else if (change == 2 && !texts.empty()) {
            texts.erase(texts.begin());
        } else if (change == 3) {
            texts.push_back(id());
        } else if (change == 4 && !texts.empty()) {
            texts.push_back(texts.front());
        } else if (change == 5) {
            texts.assign(byte() % 4, std::string());
            for (std::string& text : texts) {
                text = id();
            }
        }
        // Each camera keeps its object, loses it or gets one the HAL made; the
        // logical result may also be the first camera's.
        std::vector<void*> metas;
        auto object = [&](void* current, void* alternative) -> void* {
            const uint8_t b = byte() % 4;
            if (b == 1) {
                return nullptr;
            }
            if (b == 2 || (b == 3 && !r->mSupportPrivMeta)) {
                return b == 2 ? alternative : current;
            }
            if (b == 0) {
                return current;
            }
            ++halObjects;
            return sim::hal::newMeta(true);  // with the HAL's reference, handed over
        };
        void* logical = object(r->m_pPrivResult, r->mPrivPhyResultMap.empty()
                                                         ? nullptr
                                                         : r->mPrivPhyResultMap.begin()->second);
        for (const std::string& text : texts) {
            auto found = r->mPrivPhyResultMap.find(atoi(text.c_str()));
            void* current = found != r->mPrivPhyResultMap.end() ? found->second : nullptr;
            metas.push_back(object(current, current));
        }
        // Which path the record takes, and what it releases on the way.
        bool sameCameras = texts.size() == r->mPhyCamIdSet.size();
        for (const std::string& text : texts) {
            sameCameras = sameCameras && r->mPhyCamIdSet.count(text) != 0;
        }
        std::vector<void*> released;
        if (r->mSupportPrivMeta) {
            if (logical != r->m_pPrivResult) {
                released.push_back(r->m_pPrivResult);
            }
            std::map<int, void*> map = r->mPrivPhyResultMap;
            if (sameCameras) {
                for (size_t k = 0; k < texts.size(); ++k) {
                    void*& entry = map[atoi(texts[k].c_str())];
                    released.push_back(entry != metas[k] ? entry : nullptr);
                    entry = metas[k];
                }
            } else if (!r->mPhyCamIdSet.empty()) {
                for (const auto& entry : map) {
                    released.push_back(entry.second);
                }
            }
            const bool arraysGone = !r->mPhyCamIdSet.empty() && r->m_pPrivPhyResults == nullptr;
            if ((sameCameras && arraysGone) || (!sameCameras && (nullResult(r) || pointedAt(i))) ||
                !referenced(released)) {
                return;  // the made objects are left for the host to end
            }
        }
        std::vector<std::pair<std::string, void*>> cameras;
        for (size_t k = 0; k < texts.size(); ++k) {
            cameras.emplace_back(texts[k], metas[k]);
        }
        const sim::hal::Result result(byte(), logical, cameras);
        r->checkAndUpdatePrivResult(result.get());
        if (!r->mSupportPrivMeta) {
            return;
        }
        // The record now holds what the result names, the later of two
        // cameras equal after atoi winning.
        CHECK(r->m_pPrivResult == logical);
        std::map<int, void*> expected;
        for (size_t k = 0; k < texts.size(); ++k) {
            expected[atoi(texts[k].c_str())] = metas[k];
        }
        for (const auto& entry : expected) {
            CHECK(r->mPrivPhyResultMap.count(entry.first) != 0 &&
                  r->mPrivPhyResultMap.at(entry.first) == entry.second);
        }
        CHECK(!sameCameras ? r->mPrivPhyResultMap == expected
                           : r->mPrivPhyResultMap.size() >= expected.size());
    }

    // Tuning metadata out of the record, or into it.
    void tuning(QcomPostProcInfo* r, bool import) {
        if (!r->mFreeDebugData && !r->mDebugDataSet.empty()) {
            return;
        }
        if (!import && r->m_pPrivResult != nullptr && r->mPrivPhyResultMap.count(-1) != 0) {
            return;
        }
        std::shared_ptr<kycam::TuningParamsBase> params = r->createTuningParams();
        params->mTransAllMetas = bit();
        if (!import) {
            if (bit()) {
                params->mDebug3ABuffers[0] = {32, gPipeline[0]};  // left as it is
            }
            r->getTuningMetaBufs(*params, nullptr, false);
        } else {
            for (int n = byte() % 4; n > 0; --n) {
                const int cameraId = static_cast<int8_t>(byte() % 8) - 1;
                auto found = r->mPrivPhyResultMap.find(cameraId);
                if (((cameraId != -1 || r->m_pPrivResult == nullptr) &&
                     found != r->mPrivPhyResultMap.end() && found->second == nullptr) ||
                    params->mTuningMetas.count(cameraId) != 0) {
                    continue;
                }
                params->mTuningMetas.emplace(cameraId, allocate_camera_metadata(1, 1));
            }
            // Fresh buffers, a null one, or this import's last one again.
            std::vector<void*> fresh;
            for (int n = byte() % 4; n > 0; --n) {
                const int cameraId = static_cast<int8_t>(byte());
                const uint8_t kind = byte() % 3;
                if (params->mDebug3ABuffers.count(cameraId) != 0) {
                    continue;
                }
                if (kind == 1 || (kind == 2 && fresh.empty())) {
                    fresh.push_back(malloc(16));
                    owned.push_back(fresh.back());
                }
                params->mDebug3ABuffers[cameraId] = {16, kind != 0 ? fresh.back() : nullptr};
            }
            r->setTuningMetaBufs(*params);
        }
        for (auto& entry : params->mTuningMetas) {
            free_camera_metadata(entry.second);
        }
        params->mTuningMetas.clear();
        params->mMetaInfos.clear();
        params->mDebug3ABuffers.clear();
    }

    void copy(int i, int to) {
        QcomPostProcInfo* r = at(i);
        if (r->mSupportPrivMeta && !r->mAndroidMetaTranslated) {
            if (!r->mSamelogical_PhyResult && r->m_pPrivResult == nullptr) {
                return;
            }
            for (size_t k = 0; r->m_pPrivPhyResults != nullptr && k < r->mPhyCamIdSet.size(); ++k) {
                if (r->m_pPrivPhyResults[k] == nullptr) {
                    return;
                }
            }
        }
        slots_[to] = {r->clone(bit()), -1};
    }

    void shallow(int i, int to) {
        QcomPostProcInfo* r = at(i);
        const bool withDebugData = bit() && !r->mFreeDebugData;
        const bool shares = r->mSupportPrivMeta && !r->mAndroidMetaTranslated;
        slots_[to] = {r->shallowClone(withDebugData), -1};
        if (shares) {
            if (slots_[i].group < 0) {
                slots_[i].group = nextGroup_++;
            }
            slots_[to].group = slots_[i].group;
        }
        for (void* buffer : withDebugData ? at(to)->mDebugDataSet : std::set<void*>()) {
            hostReference(at(to), buffer);
        }
    }

    void destroy(int i) {
        if (pointedAt(i)) {
            return;
        }
        if (sharers(i) > 0) {
            at(i)->releaseTuningMetaBufs(false);
        }
        slots_[i].record.reset();
    }

    void call(int op, int i) {
        QcomPostProcInfo* r = at(i);
        const bool alone = sharers(i) == 0;
        switch (op) {
            case 1: {
                std::set<std::string> ids;
                for (int n = byte() % 5; n > 0; --n) {
                    ids.insert(id());
                }
                const bool logical = bit();
                const uint8_t b = byte();
                adapter::PostProcInfoMetaAttributes attributes = {uint8_t(b & 1), uint8_t(b & 2),
                                                                  uint8_t(b & 4), uint8_t(b & 8)};
                r->supportSamePhysical(ids, logical, attributes);
                if (alone && holdsNothing(r) && !pointedAt(i)) {
                    r->createPrivResultMeta(ids, logical, attributes);
                }
                break;
            }
            case 2: {
                camera3_capture_request request;
                memset(&request, 0xAB, sizeof(request));
                const camera3_capture_request untouched = request;
                r->setHalRequestPrivResultMeta(&request);
                if (!r->mSupportPrivMeta) {
                    CHECK(memcmp(&request, &untouched, sizeof(request)) == 0);
                    break;
                }
                sim::hal::reference(request);
                break;
            }
            case 3:
                if (alone) {
                    reconcile(i);
                }
                break;
            case 4:
            case 5:
            case 6:
                if (!r->mFreeDebugData) {
                    keep(r, op);
                }
                break;
            case 9:
                if (!nullResult(r) && !heldAndParked(r)) {
                    r->reset();
                }
                break;
            case 10:
                destroy(i);
                break;
            case 11:
            case 12:
                tuning(r, op == 12);
                break;
            case 13:
                if (!alone) {
                    break;
                }
                if (bit()) {
                    if (holdsNothing(r)) {
                        r->createTuningMetaBufs();
                    }
                } else if ((!r->mFreeDebugData || r->mDebugDataSet.empty()) && !heldAndParked(r)) {
                    std::vector<void*> held = {r->m_pPrivResult};
                    for (const auto& entry : r->mPrivPhyResultMap) {
                        held.push_back(entry.second);
                    }
                    if (!r->mSupportPrivMeta || referenced(held)) {
                        r->destroyTuningMetaBufs();
                    }
                }
                break;
            case 14: {
                const int cameraId = static_cast<int8_t>(byte() % 8) - 1;
                free_camera_metadata(r->transToAndroidMetaWithCameraId(cameraId));
                break;
            }
            default:
                r->addChiMetasRef();
                if (!nullResult(r)) {
                    r->isMetaUsedInQC();
                }
                r->releaseChiMetasRef();
                break;
        }
    }

    const uint8_t* data_;
    size_t size_;
    Slot slots_[kSlots];
    int nextGroup_ = 0;
    std::vector<void*> left_;  // objects no record owns, ended by the host
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    sim::setJournalEnabled(false);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    sim::chi::reset();
    sim::camera_metadata::reset();
    sim::kycam::resetDebugData();
    sim::iqbm::clearBuffers();
    sim::clearJournal();
    // With the first byte's low bit, every line is formatted, then dropped;
    // POSTPROC_FUZZ_ECHO=1 prints them all, to follow a crashing input.
    const bool echo = getenv("POSTPROC_FUZZ_ECHO") != nullptr;
    const bool logging = echo || (size > 0 && (data[0] & 1));
    sim::kycam::setLogOutput(false, echo ? stderr : nullptr);
    sim::kycam::setLogConfig(logging ? 0 : 7, logging ? 0xFFFFFFFF : 0, 1);
    const uint64_t sum = QcomPostProcInfo::mSum;
    const uint64_t chiMetaSum = QcomPostProcInfo::mChiMetaSum.load();

    Session session(data, size);
    session.run();

    CHECK(sim::misuses().empty());
    CHECK(sim::chi::totals().alive == 0);
    CHECK(sim::camera_metadata::totals().alive == 0);
    CHECK(QcomPostProcInfo::mSum == sum);
    CHECK(!sim::iqbm::counters().registered);
    // Objects the HAL made are counted down when a record ends them.
    CHECK(QcomPostProcInfo::mChiMetaSum.load() == chiMetaSum - session.halObjects);
    for (const char* buffer : gPipeline) {
        CHECK(sim::iqbm::refCount(buffer) == 0 && sim::kycam::debugDataRefCount(buffer) == 0);
    }
    CHECK(sim::iqbm::refCount(nullptr) == 0 && sim::kycam::debugDataRefCount(nullptr) == 0);
    for (void* buffer : session.owned) {
        CHECK(sim::iqbm::refCount(buffer) == 0 && sim::kycam::debugDataRefCount(buffer) == 0);
    }
    return 0;
}
