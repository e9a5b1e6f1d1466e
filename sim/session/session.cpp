// SPDX-License-Identifier: Apache-2.0
#include <QcomPostProcInfo.h>
#include <sim/buffers.h>
#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/hal.h>
#include <sim/iqbm.h>
#include <sim/journal.h>
#include <sim/session.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <thread>

// The manager's entry point, which the host calls too.
extern "C" int IBMIntfBufAddRef(void* buffer);

namespace sim {
namespace session {

namespace {

using adapter::QcomPostProcInfo;
using Record = std::shared_ptr<QcomPostProcInfo>;
using Rng = std::mt19937_64;

// The pipeline's debug buffers: few, so that records share them and their
// addresses come back.
constexpr int kPool = 8;
char gPool[kPool][64];

const char* const kCameras[] = {"0", "1", "2", "3"};

struct Config {
    std::set<std::string> ids;
    bool logical = true;
    adapter::PostProcInfoMetaAttributes attributes = {};
};

struct Request {
    int number = 0;
    bool seeded = false;
    Record record;
    Config config;
    camera3_capture_request hal = {};
    std::vector<void*> halHeld;  // objects the HAL took a reference on
    std::vector<std::shared_ptr<PostProcInfo>> copies;
    std::vector<void*> dedicated;  // the broken rule's own buffers
    bool shared = false;           // shallow-cloned: not reused
};

int roll(Rng& rng, int n) {
    return static_cast<int>(rng() % static_cast<uint64_t>(n));
}

enum class Kind { DoubleDestroy, Underflow, ChiLeak, DebugLeak, RecordLeak };

const char* kindText(Kind kind) {
    static const char* const kTexts[] = {"chi-meta-double-destroy", "reference-underflow",
                                         "chi-meta-leak", "debug-data-leak", "record-leak"};
    return kTexts[static_cast<int>(kind)];
}

class Session {
  public:
    explicit Session(const Options& options) : mOptions(options) {}
    Truth run();

  private:
    void requestThread(int index);
    void resultThread();
    void prepare(Request& request, Rng& rng);
    void keepDebugData(Request& request, Rng& rng);
    enum class Shape { Same, Camera, Logical, Rebuild };
    void hand(Request& request);
    void reconcile(Request& request, Rng& rng, Shape shape, bool reuseDestroyed = false);
    void afterResult(Request& request, Rng& rng);
    void shallowStep(Request& request, Rng& rng);
    void offlineStep(Request& request, bool withParams);
    void end(Request& request, Rng& rng);
    void* halObject(QcomPostProcInfo& record, bool reuseDestroyed);
    Record make() {
        ++mRecordsMade;
        return std::make_shared<QcomPostProcInfo>();
    }
    template <typename T>
    void endRecord(std::shared_ptr<T>& record) {
        if (record) {
            record.reset();
            ++mRecordsEnded;
        }
    }
    bool seeded(const Request& request, Rule rule) const {
        return request.seeded && mOptions.broken == rule;
    }
    void expect(Kind kind, const void* object, Rule rule) {
        std::lock_guard<std::mutex> lock(mMutex);
        mExpected.push_back({kindText(kind), reinterpret_cast<uint64_t>(object), ruleName(rule)});
    }
    bool reusable() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mReusable.size() < 3;
    }
    void* dedicatedBuffer(Request& request) {
        request.dedicated.push_back(calloc(1, 64));
        return request.dedicated.back();
    }

    const Options& mOptions;
    // A broken rule's steps run alone: the addresses it depends on must not
    // be handed out to other threads meanwhile.
    std::shared_mutex mGate;
    std::mutex mMutex;
    std::condition_variable mChanged;
    std::deque<Request> mQueue;
    int mNumbered = 0;
    int mDone = 0;
    std::vector<std::pair<Record, Config>> mReusable;
    std::vector<Record> mLeaked;
    std::vector<void*> mHeapBuffers;  // to free once the log is taken
    std::vector<void*> mQuarantine;   // the HAL's objects kept out of results
    // Arrays a broken rule left to nobody, as the host that broke it ends them.
    std::vector<std::pair<const char**, void**>> mArrays;
    std::vector<Expected> mExpected;
    bool mApplied = true;
    int mSeeded = -1;
    std::atomic<size_t> mRecordsMade{0};
    std::atomic<size_t> mRecordsEnded{0};
    std::atomic<size_t> mHalAdopted{0};
    // Debug buffer references the counters do not see: taken over from the
    // pipeline, adopted from an import (and freed), and the host's own for a
    // shallow clone, which the clone gives back.
    std::atomic<size_t> mTakeovers{0};
    std::atomic<size_t> mImportsMade{0};
    std::atomic<size_t> mImportsFreed{0};
    std::atomic<size_t> mHostReferences{0};
    // The pipeline's own calls on the counters, which are not the library's.
    std::atomic<size_t> mPipelineTaken{0};
    std::atomic<size_t> mPipelineGivenBack{0};
};

// An object of the HAL's own, with its reference: never at an address the
// record refuses, unless that is the point.
void* Session::halObject(QcomPostProcInfo& record, bool reuseDestroyed) {
    for (int attempt = 0; attempt < 64; ++attempt) {
        void* meta = sim::hal::newMeta(true);
        if ((record.mDestroyedChiMetas.count(meta) != 0) == reuseDestroyed) {
            return meta;
        }
        std::lock_guard<std::mutex> lock(mMutex);
        mQuarantine.push_back(meta);
    }
    return nullptr;
}

void Session::keepDebugData(Request& request, Rng& rng) {
    QcomPostProcInfo& record = *request.record;
    const bool own = seeded(request, Rule::TuningParamsFree) ||
                     seeded(request, Rule::ReleaseHandsOver) ||
                     seeded(request, Rule::ShallowCloneDebugData);
    auto buffer = [&]() -> void* {
        return own ? dedicatedBuffer(request) : gPool[roll(rng, kPool)];
    };
    if (seeded(request, Rule::AlreadyReferenced)) {
        record.reset();  // the framework's counters from now on
        adapter::DebugData data = {64, dedicatedBuffer(request)};
        // Handed over as already referenced, though nobody took a reference.
        record.keep3aDebugData(0, &data, true);
        ++mTakeovers;
        expect(Kind::Underflow, data.pData, Rule::AlreadyReferenced);
        return;
    }
    const int keeps = own ? 1 + roll(rng, 2) : roll(rng, 4);
    for (int i = 0; i < keeps; ++i) {
        adapter::DebugData data = {64, buffer()};
        switch (own ? 0 : roll(rng, 4)) {
            case 0:
                record.keep3aDebugData(roll(rng, 4), &data, false);
                break;
            case 1: {
                adapter::DebugDataTuningMetaArray array = {};
                array.count = 1 + static_cast<uint32_t>(roll(rng, 3));
                for (uint32_t k = 0; k < array.count; ++k) {
                    array.entries[k] = {64, buffer()};
                }
                record.keepTuningDDArray(roll(rng, 4), &array, false);
                break;
            }
            case 2:
                // Handed over with the pipeline's reference: the record takes
                // it over unless it holds the buffer already. The manager's
                // mode takes its own, and logs it.
                if (!record.mEnableIQBM) {
                    const bool held = record.mDebugDataSet.count(data.pData) != 0;
                    AddDebugDataReference(&data);
                    ++mPipelineTaken;
                    record.keep3aDebugData(roll(rng, 4), &data, true);
                    mTakeovers += held ? 0 : 1;
                    if (held) {
                        SubDebugDataReference(&data);
                        ++mPipelineGivenBack;
                    }
                } else {
                    record.keep3aDebugData(roll(rng, 4), &data, false);
                }
                break;
            default:
                // Logged only in the manager's mode.
                if (record.mEnableIQBM) {
                    record.addDebugDataAndRef(&data, false);
                }
                break;
        }
    }
    if (!own && roll(rng, 4) == 0) {
        // 3A and tuning debug data arriving on two threads at once.
        std::vector<std::thread> helpers;
        for (int t = 0; t < 2; ++t) {
            helpers.emplace_back([&record, t, seed = rng()] {
                Rng local(seed);
                for (int i = 0; i < 3; ++i) {
                    adapter::DebugData data = {64, gPool[roll(local, kPool)]};
                    if (t == 0) {
                        record.keep3aDebugData(i, &data, false);
                    } else {
                        adapter::DebugDataTuningMetaArray array = {1, {data}};
                        record.keepTuningDDArray(i, &array, false);
                    }
                }
            });
        }
        for (std::thread& helper : helpers) {
            helper.join();
        }
    }
}

void Session::prepare(Request& request, Rng& rng) {
    Config& config = request.config;
    for (const char* id : kCameras) {
        if (roll(rng, 2) == 0) {
            config.ids.insert(id);
        }
    }
    config.logical = roll(rng, 10) < 7;
    config.attributes = {static_cast<uint8_t>(roll(rng, 2)), static_cast<uint8_t>(roll(rng, 2)),
                         static_cast<uint8_t>(roll(rng, 2)), static_cast<uint8_t>(roll(rng, 2))};
    const bool needsPrivate = request.seeded && mOptions.broken != Rule::RecordLifetime &&
                              mOptions.broken != Rule::ImportAdopts &&
                              mOptions.broken != Rule::AlreadyReferenced;
    if (seeded(request, Rule::AtoiSharedKey)) {
        config.ids = {"01", "1"};  // equal after atoi
    } else if (seeded(request, Rule::HeldAndParked)) {
        config.ids = {"0", "1"};
    }
    if (seeded(request, Rule::HalReferences)) {
        config.logical = true;
    } else if (needsPrivate && config.ids.empty()) {
        config.ids = {"0"};
    }
    // A record reset after an earlier request serves one with the same cameras.
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (auto it = mReusable.begin(); it != mReusable.end() && !request.seeded; ++it) {
            if (roll(rng, 2) == 0) {
                request.record = it->first;
                mReusable.erase(it);
                break;
            }
        }
    }
    if (request.record &&
        !request.record->supportSamePhysical(config.ids, config.logical, config.attributes)) {
        endRecord(request.record);
    }
    if (!request.record) {
        request.record = make();
        if (needsPrivate || roll(rng, 7) != 0) {
            request.record->createPrivResultMeta(config.ids, config.logical, config.attributes);
        }
        if (seeded(request, Rule::CreateOnEmpty)) {
            QcomPostProcInfo& r = *request.record;
            if (r.m_pPrivResult != nullptr) {
                expect(Kind::ChiLeak, r.m_pPrivResult, Rule::CreateOnEmpty);
            }
            for (const auto& entry : r.mPrivPhyResultMap) {
                expect(Kind::ChiLeak, entry.second, Rule::CreateOnEmpty);
            }
            {
                std::lock_guard<std::mutex> lock(mMutex);
                mArrays.emplace_back(r.m_pPrivPhyCamIds, r.m_pPrivPhyResults);
            }
            // Made again on a record that holds private results.
            r.createPrivResultMeta(config.ids, config.logical, config.attributes);
        }
        if (seeded(request, Rule::AtoiSharedKey)) {
            // "01" comes first in the set; "1" takes its key.
            expect(Kind::ChiLeak, request.record->m_pPrivPhyResults[0], Rule::AtoiSharedKey);
        }
    }
    QcomPostProcInfo& record = *request.record;
    hand(request);
    keepDebugData(request, rng);
    if (!request.seeded && roll(rng, 6) == 0) {
        ++mRecordsMade;
        request.copies.push_back(record.clone(roll(rng, 2) == 0));
    }
}

// The HAL takes a reference on every object a request hands it.
void Session::hand(Request& request) {
    request.hal = {};
    request.record->setHalRequestPrivResultMeta(&request.hal);
    request.halHeld.clear();
    if (seeded(request, Rule::HalReferences)) {
        return;
    }
    std::vector<void*> handed = {request.hal.priv_result};
    if (request.hal.priv_physcam_result != nullptr) {
        handed.insert(handed.end(), request.hal.priv_physcam_result,
                      request.hal.priv_physcam_result + request.hal.num_priv_physcam_result);
    }
    for (void* meta : handed) {
        if (meta != nullptr) {
            static_cast<ChiMetadata*>(meta)->AddReference(nullptr);
            request.halHeld.push_back(meta);
        }
    }
}

// The HAL's result: mostly the request's own objects; some of its own in
// their place, one camera or the logical one; now and then other cameras.
void Session::reconcile(Request& request, Rng& rng, Shape shape, bool reuseDestroyed) {
    QcomPostProcInfo& record = *request.record;
    const camera3_capture_request& hal = request.hal;
    std::vector<std::pair<std::string, void*>> cameras;
    for (uint32_t i = 0; i < hal.num_priv_physcam_result; ++i) {
        cameras.emplace_back(hal.priv_physcam_id[i], hal.priv_physcam_result[i]);
    }
    void* logical = hal.priv_result;
    std::vector<void*> own;  // the HAL's, referenced by the record itself
    if ((shape == Shape::Camera && cameras.empty()) || (shape == Shape::Logical && !logical)) {
        shape = Shape::Same;
    }
    if (shape == Shape::Camera) {
        auto& replaced = cameras[static_cast<size_t>(roll(rng, static_cast<int>(cameras.size())))];
        void* object = halObject(record, reuseDestroyed);
        replaced.second = object;
        own.push_back(object);
    } else if (shape == Shape::Logical) {
        if (seeded(request, Rule::HalReferences)) {
            // Nobody holds a reference on what the record gives back.
            expect(Kind::Underflow, logical, Rule::HalReferences);
        }
        logical = halObject(record, reuseDestroyed);
        own.push_back(logical);
    } else if (shape == Shape::Rebuild) {
        // Other cameras: the record parks what it held and takes the HAL's
        // objects over with the HAL's references.
        std::vector<std::pair<std::string, void*>> rebuilt;
        if (seeded(request, Rule::HeldAndParked)) {
            // Camera 0 kept with the request's own object: held and parked.
            rebuilt = {{"0", cameras[0].second}, {"3", halObject(record, false)}};
            expect(Kind::DoubleDestroy, cameras[0].second, Rule::HeldAndParked);
        } else if (!seeded(request, Rule::AtoiSharedKey)) {
            for (const char* id : kCameras) {
                if (roll(rng, 3) == 0) {
                    rebuilt.emplace_back(id, halObject(record, false));
                }
            }
            if (rebuilt.size() == cameras.size()) {
                rebuilt.emplace_back("7", halObject(record, false));
            }
        }
        mHalAdopted += std::count_if(rebuilt.begin(), rebuilt.end(), [&hal](const auto& c) {
            return std::find(hal.priv_physcam_result,
                             hal.priv_physcam_result + hal.num_priv_physcam_result,
                             c.second) == hal.priv_physcam_result + hal.num_priv_physcam_result;
        });
        cameras = std::move(rebuilt);
    }
    if (reuseDestroyed) {
        if (own.empty() || own.back() == nullptr) {
            std::lock_guard<std::mutex> lock(mMutex);
            mApplied = false;
        } else {
            expect(Kind::ChiLeak, own.back(), Rule::DestroyedHandlesKept);
        }
    }
    mHalAdopted += own.size();
    sim::hal::Result result(static_cast<uint32_t>(request.number), logical, cameras);
    record.checkAndUpdatePrivResult(result.get());
    // The HAL lets go of what the record still holds and of its own objects
    // the record referenced. What the record displaced it gave back for the
    // HAL, and after other cameras the HAL's references are the record's.
    auto holds = [&record](void* meta) {
        return record.m_pPrivResult == meta ||
               std::any_of(record.mPrivPhyResultMap.begin(), record.mPrivPhyResultMap.end(),
                           [meta](const auto& e) { return e.second == meta; });
    };
    for (void* meta : request.halHeld) {
        if (holds(meta) && (shape != Shape::Rebuild || meta == hal.priv_result)) {
            static_cast<ChiMetadata*>(meta)->ReleaseReference(nullptr);
        }
    }
    for (void* meta : own) {
        static_cast<ChiMetadata*>(meta)->ReleaseReference(nullptr);
    }
    request.halHeld.clear();
}

// Two records share the private results: exactly one ends them, the other
// lets go first. Shared debug data gets references of the host's, or one
// side lets it go too.
void Session::shallowStep(Request& request, Rng& rng) {
    QcomPostProcInfo& record = *request.record;
    const bool shares = record.mSupportPrivMeta && !record.mAndroidMetaTranslated;
    const bool withDebugData = seeded(request, Rule::ShallowCloneDebugData) ||
                               (!seeded(request, Rule::ShallowCloneOwner) && roll(rng, 2) == 0);
    request.shared = true;
    ++mRecordsMade;
    std::shared_ptr<PostProcInfo> twin = record.shallowClone(withDebugData);
    auto& clone = static_cast<QcomPostProcInfo&>(*twin);
    if (seeded(request, Rule::ShallowCloneOwner)) {
        // Neither lets go: both end what they share. The arrays go with the
        // source only, or deleting them twice would end the process first.
        if (record.m_pPrivResult != nullptr && !record.mSamelogical_PhyResult) {
            expect(Kind::DoubleDestroy, record.m_pPrivResult, Rule::ShallowCloneOwner);
        }
        for (const auto& entry : record.mPrivPhyResultMap) {
            expect(Kind::DoubleDestroy, entry.second, Rule::ShallowCloneOwner);
        }
        clone.m_pPrivPhyCamIds = nullptr;
        clone.m_pPrivPhyResults = nullptr;
        endRecord(twin);
        return;
    }
    if (seeded(request, Rule::ShallowCloneDebugData)) {
        // Both give back what only one holds a reference on.
        for (void* buffer : record.mDebugDataSet) {
            expect(Kind::Underflow, buffer, Rule::ShallowCloneDebugData);
        }
        if (shares) {
            clone.releaseTuningMetaBufs(false);
        }
        endRecord(twin);
        return;
    }
    const bool hostReferences = withDebugData && (!shares || roll(rng, 2) == 0);
    if (hostReferences) {
        for (void* buffer : clone.mDebugDataSet) {
            ++mHostReferences;
            ++mPipelineTaken;
            adapter::DebugData data = {64, buffer};
            clone.mEnableIQBM ? IBMIntfBufAddRef(buffer) : AddDebugDataReference(&data);
        }
    }
    if (shares) {
        QcomPostProcInfo& letsGo = roll(rng, 2) == 0 ? clone : record;
        letsGo.releaseTuningMetaBufs(withDebugData && !hostReferences);
    }
    endRecord(twin);
}

void Session::offlineStep(Request& request, bool withParams) {
    QcomPostProcInfo& record = *request.record;
    Record offline = make();
    std::shared_ptr<::kycam::TuningParamsBase> params;
    if (withParams) {
        params = offline->createTuningParams();
        params->mTransAllMetas = true;
        record.getTuningMetaBufs(*params, nullptr, false);
        for (auto& entry : params->mTuningMetas) {
            free_camera_metadata(entry.second);
        }
        params->mTuningMetas.clear();
        offline->mSupportPrivMeta = record.mSupportPrivMeta;
        offline->mPhyCamIdSet = record.mPhyCamIdSet;
        offline->createTuningMetaBufs();
    } else {
        params = std::make_shared<::kycam::TuningParamsBase>();
    }
    // Buffers handed over for good by the algorithm; the record frees them
    // once it has tuning parameters, and gives them back otherwise.
    void* buffer = malloc(128);
    params->mDebug3ABuffers = {{0, {128, buffer}}};
    ++mImportsMade;
    offline->setTuningMetaBufs(*params);
    if (!withParams) {
        expect(Kind::Underflow, buffer, Rule::ImportAdopts);
        std::lock_guard<std::mutex> lock(mMutex);
        mHeapBuffers.push_back(buffer);
    }
    endRecord(offline);
    mImportsFreed += withParams ? 1 : 0;
}

void Session::afterResult(Request& request, Rng& rng) {
    QcomPostProcInfo& record = *request.record;
    if (record.mSupportPrivMeta && roll(rng, 12) == 0 && !request.seeded) {
        camera_metadata_t* meta = record.transToAndroidMetaWithCameraId(-1);
        if (meta != nullptr) {
            free_camera_metadata(meta);
        }
    }
    if (seeded(request, Rule::ImportAdopts)) {
        offlineStep(request, false);
    } else if (!request.seeded && roll(rng, 8) == 0) {
        offlineStep(request, true);
    }
    if (seeded(request, Rule::TuningParamsFree)) {
        // Tuning parameters on a record holding referenced buffers: it frees
        // them, and their references are never given back.
        for (void* buffer : record.mDebugDataSet) {
            expect(Kind::DebugLeak, buffer, Rule::TuningParamsFree);
        }
        request.dedicated.clear();  // the record frees them
        record.createTuningParams();
    }
    if (seeded(request, Rule::ReleaseHandsOver)) {
        // References taken for a consumer, then everything handed over to
        // nobody.
        record.addChiMetasRef();
        if (record.m_pPrivResult != nullptr && !record.mSamelogical_PhyResult) {
            expect(Kind::ChiLeak, record.m_pPrivResult, Rule::ReleaseHandsOver);
        }
        for (const auto& entry : record.mPrivPhyResultMap) {
            expect(Kind::ChiLeak, entry.second, Rule::ReleaseHandsOver);
        }
        for (void* buffer : record.mDebugDataSet) {
            expect(Kind::DebugLeak, buffer, Rule::ReleaseHandsOver);
        }
        {
            std::lock_guard<std::mutex> lock(mMutex);
            mArrays.emplace_back(record.m_pPrivPhyCamIds, record.m_pPrivPhyResults);
        }
        record.releaseTuningMetaBufs(true);
    }
    if (seeded(request, Rule::ShallowCloneOwner) || seeded(request, Rule::ShallowCloneDebugData) ||
        (!request.seeded && roll(rng, 8) == 0)) {
        shallowStep(request, rng);
    }
}

void Session::end(Request& request, Rng& rng) {
    for (auto& copy : request.copies) {
        endRecord(copy);
    }
    if (seeded(request, Rule::RecordLifetime)) {
        expect(Kind::RecordLeak, request.record.get(), Rule::RecordLifetime);
        std::lock_guard<std::mutex> lock(mMutex);
        mLeaked.push_back(std::move(request.record));
    } else if (seeded(request, Rule::HeldAndParked)) {
        request.record->reset();  // ends the held object it also parks
        endRecord(request.record);
    } else if (!request.seeded && !request.shared && roll(rng, 3) == 0 && reusable()) {
        request.record->reset();
        std::lock_guard<std::mutex> lock(mMutex);
        mReusable.emplace_back(std::move(request.record), request.config);
    } else {
        endRecord(request.record);
    }
    std::lock_guard<std::mutex> lock(mMutex);
    mHeapBuffers.insert(mHeapBuffers.end(), request.dedicated.begin(), request.dedicated.end());
}

void Session::requestThread(int index) {
    Rng rng(mOptions.seed * 7919 + static_cast<uint64_t>(index));
    while (true) {
        Request request;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait(lock, [this] {
                return mQueue.size() < static_cast<size_t>(mOptions.inFlight) ||
                       mNumbered == mOptions.requests;
            });
            if (mNumbered == mOptions.requests) {
                return;
            }
            request.number = mNumbered++;
            request.seeded = request.number == mSeeded;
        }
        {
            std::shared_lock<std::shared_mutex> shared(mGate, std::defer_lock);
            std::unique_lock<std::shared_mutex> alone(mGate, std::defer_lock);
            request.seeded ? alone.lock() : shared.lock();
            prepare(request, rng);
        }
        std::lock_guard<std::mutex> lock(mMutex);
        mQueue.push_back(std::move(request));
        mChanged.notify_all();
    }
}

void Session::resultThread() {
    Rng rng(mOptions.seed * 104729 + 1);
    while (true) {
        Request request;
        {
            std::unique_lock<std::mutex> lock(mMutex);
            mChanged.wait(lock, [this] { return !mQueue.empty() || mDone == mOptions.requests; });
            if (mQueue.empty()) {
                return;
            }
            // Results come back in any order.
            const size_t at = static_cast<size_t>(roll(rng, static_cast<int>(mQueue.size())));
            request = std::move(mQueue[at]);
            mQueue.erase(mQueue.begin() + static_cast<long>(at));
            ++mDone;
            mChanged.notify_all();
        }
        std::shared_lock<std::shared_mutex> shared(mGate, std::defer_lock);
        std::unique_lock<std::shared_mutex> alone(mGate, std::defer_lock);
        request.seeded ? alone.lock() : shared.lock();
        if (request.record->mSupportPrivMeta) {
            const int pick = roll(rng, 20);
            Shape shape = pick < 12   ? Shape::Same
                          : pick < 15 ? Shape::Camera
                          : pick < 17 ? Shape::Logical
                                      : Shape::Rebuild;
            if (seeded(request, Rule::HalReferences)) {
                // A displaced camera's reference is given back without a
                // line; the logical result's shows.
                shape = Shape::Logical;
            } else if (seeded(request, Rule::DestroyedHandlesKept)) {
                shape = Shape::Camera;
            } else if (seeded(request, Rule::HeldAndParked) ||
                       seeded(request, Rule::AtoiSharedKey)) {
                shape = Shape::Rebuild;
            }
            reconcile(request, rng, shape);
            if (seeded(request, Rule::DestroyedHandlesKept)) {
                // Reset ends the object the result displaced; the record
                // serves another capture, and the HAL's next object comes at
                // that address.
                request.record->reset();
                hand(request);
                reconcile(request, rng, Shape::Camera, true);
            }
        }
        afterResult(request, rng);
        end(request, rng);
    }
}

Truth Session::run() {
    sim::chi::reset();
    sim::chi::setRecycling(true);
    sim::camera_metadata::reset();
    sim::iqbm::clearBuffers();
    sim::kycam::resetDebugData();
    sim::kycam::setLogOutput(true, nullptr);
    sim::kycam::setLogConfig(mOptions.traces ? 0 : 3, 64 | 128, 0);
    sim::kycam::clearLines();
    sim::clearJournal();
    Rng rng(mOptions.seed);
    if (mOptions.broken != Rule::None) {
        mSeeded = roll(rng, mOptions.requests);
    }
    std::vector<std::thread> threads;
    for (int i = 0; i < mOptions.requestThreads; ++i) {
        threads.emplace_back([this, i] { requestThread(i); });
    }
    threads.emplace_back([this] { resultThread(); });
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (auto& reusable : mReusable) {
        endRecord(reusable.first);
    }

    Truth truth;
    truth.records = {mRecordsMade, 0, mRecordsEnded};
    const sim::chi::Books chi = sim::chi::books();
    truth.chiMetas = {chi.libraryCreated, mHalAdopted, chi.destroyed};
    const sim::buffers::Books buffers = sim::buffers::books();
    truth.debugData = {buffers.taken - mPipelineTaken + mTakeovers + mImportsMade, mHostReferences,
                       buffers.givenBack - mPipelineGivenBack + mImportsFreed};
    // A shallow clone's copy given back without the host's reference.
    truth.debugDataComparable = mOptions.broken != Rule::ShallowCloneDebugData;
    truth.applied = mApplied;
    truth.findings = mExpected;
    std::sort(truth.findings.begin(), truth.findings.end());
    for (const sim::kycam::LogLine& line : sim::kycam::lines()) {
        if (line.sink == sim::kycam::Sink::Android) {
            truth.lines.push_back(line);
        }
    }
    truth.misuses = sim::misuses();

    // What the session left, ended quietly.
    sim::kycam::setLogOutput(false, nullptr);
    for (Record& leaked : mLeaked) {
        leaked.reset();
    }
    for (void* meta : mQuarantine) {
        static_cast<ChiMetadata*>(meta)->Destroy(true);
    }
    for (void* buffer : mHeapBuffers) {
        free(buffer);
    }
    for (auto& [ids, results] : mArrays) {
        delete[] ids;
        delete[] results;
    }
    sim::chi::setRecycling(false);
    sim::chi::reset();
    sim::clearJournal();
    return truth;
}

}  // namespace

const char* ruleName(Rule rule) {
    static const char* const kNames[] = {"",
                                         "record-lifetime",
                                         "create-on-empty",
                                         "release-hands-over",
                                         "atoi-shared-key",
                                         "tuning-params-free",
                                         "import-adopts",
                                         "hal-references",
                                         "already-referenced",
                                         "held-and-parked",
                                         "shallow-clone-owner",
                                         "shallow-clone-debug-data",
                                         "destroyed-handles-kept"};
    return kNames[static_cast<int>(rule)];
}

Truth run(const Options& options) {
    Session session(options);
    return session.run();
}

}  // namespace session
}  // namespace sim
