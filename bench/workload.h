// SPDX-License-Identifier: Apache-2.0
// Workloads of the performance suite. Each one runs in three forms that make
// the same platform calls (CHI metadata, camera metadata, IQ buffer manager,
// debug data counters) in the same order:
//  - Library: the record drives them;
//  - Floor: written by hand, doing on top of the calls only what the
//    record's data model forces: its map and set nodes, its name and id
//    strings, the two new[] arrays, the tag list that createChiMeta must
//    allocate, the counters and the lock/unlock pairs of its locks;
//  - Platform: the calls alone.
// Library / Floor is the figure of merit, Library / Platform the record's own
// share. A Mark hook is called with the name of each step before it runs and
// with null after the last, so that a caller can time, count instructions or
// count allocations per step; NoMark compiles away.
#pragma once

#include <QcomPostProcInfo.h>
#include <chi/chxextensionmodule.h>
#include <chi/chxmetadata.h>
#include <iqbm/IQBufMgrIntf.h>

#include <stdint.h>
#include <stdlib.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace workload {

using adapter::QcomPostProcInfo;

enum class Form { Library, Floor, Platform };
const char* formName(Form form);

struct NoMark {
    void operator()(const char*) const {}
};

constexpr int kMaxCameras = 16;
constexpr int kMaxBuffers = 64;
// The one tag that private result metadata are created with.
constexpr uint32_t kPrivResultTag = 0x000E001C;

// The IQ buffer manager's entry points, reached the way the record reaches
// them: through dlsym on the library it opened.
struct Manager {
    PFN_IBMIntfRegister registerClient;
    PFN_IBMIntfUnRegister unregisterClient;
    PFN_IBMIntfBufAddRef addRef;
    PFN_IBMIntfBufDecRef decRef;
};
extern const Manager gManager;
inline const Manager& manager() {
    return gManager;
}

// What the HAL brings back in the capture result.
enum class ResultKind {
    SameObjects,  // the objects it was given, for the same cameras
    ReplaceOne,   // its own object for the last camera of the request
    NewCameras,   // cameras 1..n instead of 0..n-1, with its own objects
};

// One capture request and what the HAL does with it.
struct Request {
    Request(int cameras, ResultKind kind = ResultKind::SameObjects, int buffers = -1);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    int cameras;
    ResultKind kind;
    // No other record lives, so construction registers with the manager.
    bool firstRecord = true;
    std::set<std::string> ids;  // "0" .. "n-1"
    // Set positions in ascending camera id (the map's order).
    std::vector<int> keyOrder;
    adapter::PostProcInfoMetaAttributes attributes = {};
    // 3A debug data kept per camera id, on distinct buffers in ascending
    // address order (the order of the record's pointer set).
    std::vector<adapter::DebugData> debug;
    std::vector<int> debugCamera;

    camera3_capture_request hal = {};
    camera3_capture_result result = {};
    std::vector<std::string> newIdTexts;
    std::vector<const char*> newIds;
    std::vector<void*> resultMetas;
};

// The HAL between the request and its result (the same in every form): it
// keeps a reference on each object that its result displaces, makes the
// objects it brings back itself, and fills the result.
void halFills(Request& rq);

// The record's createChiMeta line, with its values at hand, and the same
// text made by one bare format: what any written line costs at least.
void createChiMetaLine(void* meta, unsigned ref, int sum);
int createChiMetaText(char* text, size_t size, void* meta, unsigned ref, int sum);

// Balances the simulation's books between batches: forgets destroyed CHI
// objects and the manager's event list, keeping the live references.
void settle();

// Handles of one lifecycle, for the forms that keep no record.
struct Held {
    void* logical = nullptr;
    void* phy[kMaxCameras] = {};  // in set order
    void* replaced[2 * kMaxCameras] = {};
    int replacedCount = 0;
};

// The record's data model, and nothing else.
struct FloorRecord {
    void* logical = nullptr;
    std::map<int, void*> phyResults;
    std::string name{"QcomPostProcInfo"};
    std::set<std::string> ids;
    const char** idArray = nullptr;
    void** resultArray = nullptr;
    std::set<void*> replaced;
    std::set<void*> destroyed;
    std::mutex dd3aMutex;
    std::map<int, adapter::DebugData> dd3a;
    std::mutex ddTuningMutex;
    std::map<int, adapter::DebugDataTuningMetaArray> ddTuning;
    std::mutex ddMutex;
    std::set<void*> ddSet;
};

extern std::mutex gFloorSumMutex;
extern uint64_t gFloorSum;
extern std::atomic<uint64_t> gFloorChiMetaSum;

// ---------------------------------------------------------------------------
// Steps shared by the floor and platform forms; kModel selects the floor.

template <bool kModel>
void* createMeta(bool multiType, bool multiCamera) {
    MetaToCameraTypeId* mapping =
            multiCamera ? &ExtensionModule::GetInstance()->m_metaToCameraTypeId : nullptr;
    if constexpr (kModel) {
        uint32_t* tags = new uint32_t[1]{kPrivResultTag};
        void* meta = ChiMetadata::Create(tags, 1, false, nullptr, 0xFFFFFFFF, multiType,
                                         multiCamera, mapping);
        gFloorChiMetaSum.fetch_add(1, std::memory_order_acq_rel);
        delete[] tags;
        return meta;
    } else {
        const uint32_t tag = kPrivResultTag;
        return ChiMetadata::Create(&tag, 1, false, nullptr, 0xFFFFFFFF, multiType, multiCamera,
                                   mapping);
    }
}

template <bool kModel>
void destroyMeta(FloorRecord* r, void* meta) {
    if constexpr (kModel) {
        gFloorChiMetaSum.fetch_sub(1, std::memory_order_acq_rel);
        static_cast<ChiMetadata*>(meta)->Destroy(true);
        r->destroyed.insert(meta);
    } else {
        static_cast<ChiMetadata*>(meta)->Destroy(true);
    }
}

inline uint32_t releaseMeta(void* meta) {
    uint32_t count = static_cast<ChiMetadata*>(meta)->ReleaseReference(nullptr);
    if (count == 0) {
        static_cast<ChiMetadata*>(meta)->Invalidate();
    }
    return count;
}

template <bool kModel>
void countRecord(bool first) {
    if constexpr (kModel) {
        std::lock_guard<std::mutex> lock(gFloorSumMutex);
        ++gFloorSum;
        if (first) {
            manager().registerClient("KYHAL");
        }
    } else if (first) {
        manager().registerClient("KYHAL");
    }
}

template <bool kModel>
void uncountRecord(bool last) {
    if constexpr (kModel) {
        std::lock_guard<std::mutex> lock(gFloorSumMutex);
        --gFloorSum;
        if (last) {
            manager().unregisterClient("KYHAL");
        }
    } else if (last) {
        manager().unregisterClient("KYHAL");
    }
}

// The private results of a request: the logical one, then one per camera in
// set order, with the arrays and the map.
// A record that already has its camera set (tuning buffers made again)
// keeps it.
template <bool kModel>
void createResults(Request& rq, FloorRecord* r, Held& h, bool setIds = true) {
    const adapter::PostProcInfoMetaAttributes& a = rq.attributes;
    h.logical = createMeta<kModel>(a.logicalIsMultiTypeContextMeta != 0,
                                   a.logicalIsMultiCameraContextMeta != 0);
    const size_t n = rq.ids.size();
    if constexpr (kModel) {
        r->logical = h.logical;
        if (setIds) {
            r->ids = rq.ids;
        }
        r->resultArray = new void*[n];
        r->idArray = new const char*[n];
    }
    int i = 0;
    for (const std::string& id : kModel ? r->ids : rq.ids) {
        h.phy[i] = createMeta<kModel>(a.physicalIsMultiTypeContextMeta != 0,
                                      a.physicalIsMultiCameraContextMeta != 0);
        if constexpr (kModel) {
            r->resultArray[i] = h.phy[i];
            r->idArray[i] = id.c_str();
            r->phyResults.emplace(atoi(id.c_str()), h.phy[i]);
        }
        ++i;
    }
}

template <bool kModel>
void attach(Request& rq, FloorRecord* r, Held& h) {
    rq.hal.priv_result = h.logical;
    rq.hal.num_priv_physcam_result = static_cast<uint32_t>(rq.cameras);
    if constexpr (kModel) {
        rq.hal.priv_physcam_id = r->idArray;
        rq.hal.priv_physcam_result = r->resultArray;
    } else {
        // Nothing of this form reads the ids back.
        rq.hal.priv_physcam_id = nullptr;
        rq.hal.priv_physcam_result = h.phy;
    }
}

// What reconciliation must do beyond comparing: release and park displaced
// objects, take the replacements, rebuild for new cameras.
template <bool kModel>
void reconcile(Request& rq, FloorRecord* r, Held& h) {
    const camera3_capture_result& res = rq.result;
    if (rq.kind == ResultKind::ReplaceOne) {
        const int i = rq.cameras - 1;
        void* old = h.phy[i];
        void* now = res.priv_physcam_metadata[i];
        releaseMeta(old);
        h.replaced[h.replacedCount++] = old;
        h.phy[i] = now;
        if constexpr (kModel) {
            r->replaced.insert(old);
            r->phyResults.find(atoi(res.physcam_ids[i]))->second = now;
            r->resultArray[i] = now;
        }
        static_cast<ChiMetadata*>(now)->AddReference(nullptr);
    } else if (rq.kind == ResultKind::NewCameras) {
        for (int k : rq.keyOrder) {
            releaseMeta(h.phy[k]);
            h.replaced[h.replacedCount++] = h.phy[k];
            if constexpr (kModel) {
                r->replaced.insert(h.phy[k]);
            }
        }
        const uint32_t n = res.num_physcam_metadata;
        if constexpr (kModel) {
            r->phyResults.clear();
            delete[] r->idArray;
            delete[] r->resultArray;
            r->ids.clear();
            r->resultArray = new void*[n];
            r->idArray = new const char*[n];
        }
        for (uint32_t i = 0; i < n; ++i) {
            h.phy[i] = res.priv_physcam_metadata[i];
            if constexpr (kModel) {
                r->ids.emplace(res.physcam_ids[i]);
                r->phyResults.emplace(atoi(res.physcam_ids[i]), h.phy[i]);
                r->resultArray[i] = h.phy[i];
            }
        }
        if constexpr (kModel) {
            size_t k = 0;
            for (const std::string& id : r->ids) {
                r->idArray[k++] = id.c_str();
            }
        }
    }
}

template <bool kModel>
void keepDebugData(Request& rq, FloorRecord* r) {
    const Manager& m = manager();
    for (size_t i = 0; i < rq.debug.size(); ++i) {
        void* data = rq.debug[i].pData;
        if constexpr (kModel) {
            std::lock_guard<std::mutex> lock(r->dd3aMutex);
            r->dd3a.insert_or_assign(rq.debugCamera[i], rq.debug[i]);
            std::lock_guard<std::mutex> dataLock(r->ddMutex);
            if (r->ddSet.insert(data).second) {
                m.addRef(data);
            }
        } else {
            m.addRef(data);
        }
    }
}

// The release of held debug data, as the destructor and reset do it.
template <bool kModel>
void releaseDebugData(Request& rq, FloorRecord* r, bool iqbm) {
    auto decrement = [iqbm](void* data) {
        if (iqbm) {
            manager().decRef(data);
        } else {
            adapter::DebugData d = {0, data};
            SubDebugDataReference(&d);
        }
    };
    if constexpr (kModel) {
        {
            std::lock_guard<std::mutex> lock(r->dd3aMutex);
            r->dd3a.clear();
        }
        {
            std::lock_guard<std::mutex> lock(r->ddTuningMutex);
            r->ddTuning.clear();
        }
        std::lock_guard<std::mutex> lock(r->ddMutex);
        for (void* data : r->ddSet) {
            decrement(data);
        }
        r->ddSet.clear();
    } else {
        for (const adapter::DebugData& d : rq.debug) {
            decrement(d.pData);
        }
    }
}

// Destruction of the private results: the logical one, the map in key
// order, the displaced ones in pointer order.
template <bool kModel>
void destroyResults(Request& rq, FloorRecord* r, Held& h) {
    destroyMeta<kModel>(r, h.logical);
    if constexpr (kModel) {
        for (const auto& entry : r->phyResults) {
            destroyMeta<kModel>(r, entry.second);
        }
        r->phyResults.clear();
        delete[] r->idArray;
        delete[] r->resultArray;
        r->ids.clear();
        for (void* meta : r->replaced) {
            destroyMeta<kModel>(r, meta);
        }
        r->replaced.clear();
    } else {
        if (rq.kind == ResultKind::NewCameras) {
            for (int i = 0; i < rq.cameras; ++i) {
                destroyMeta<kModel>(r, h.phy[i]);
            }
        } else {
            for (int k : rq.keyOrder) {
                destroyMeta<kModel>(r, h.phy[k]);
            }
        }
        for (int i = 0; i < h.replacedCount; ++i) {
            destroyMeta<kModel>(r, h.replaced[i]);
        }
    }
}

// ---------------------------------------------------------------------------
// A record made and destroyed with nothing in it.

template <Form F, class Mark>
void emptyRecord(Mark&& mark) {
    if constexpr (F == Form::Library) {
        std::optional<QcomPostProcInfo> record;
        mark("construct");
        record.emplace();
        mark("destroy");
        record.reset();
    } else {
        constexpr bool kModel = F == Form::Floor;
        std::optional<FloorRecord> record;
        mark("construct");
        if constexpr (kModel) {
            record.emplace();
        }
        countRecord<kModel>(true);
        mark("destroy");
        if constexpr (kModel) {
            { std::lock_guard<std::mutex> lock(record->dd3aMutex); }
            { std::lock_guard<std::mutex> lock(record->ddTuningMutex); }
            { std::lock_guard<std::mutex> lock(record->ddMutex); }
        }
        uncountRecord<kModel>(true);
        record.reset();
    }
    mark(nullptr);
}

// ---------------------------------------------------------------------------
// A capture request: construct, createPrivResultMeta,
// setHalRequestPrivResultMeta, the HAL, checkAndUpdatePrivResult,
// keep3aDebugData per camera, destroy.

template <class Mark>
void libraryRequest(Request& rq, Mark&& mark) {
    std::optional<QcomPostProcInfo> record;
    mark("construct");
    record.emplace();
    mark("createPrivResultMeta");
    record->createPrivResultMeta(rq.ids, true, rq.attributes);
    mark("setHalRequestPrivResultMeta");
    record->setHalRequestPrivResultMeta(&rq.hal);
    mark("(HAL)");
    halFills(rq);
    mark("checkAndUpdatePrivResult");
    record->checkAndUpdatePrivResult(&rq.result);
    mark("keep3aDebugData");
    for (size_t i = 0; i < rq.debug.size(); ++i) {
        record->keep3aDebugData(rq.debugCamera[i], &rq.debug[i], false);
    }
    mark("destroy");
    record.reset();
    mark(nullptr);
}

template <bool kModel, class Mark>
void floorRequest(Request& rq, Mark&& mark) {
    Held h;
    std::optional<FloorRecord> record;
    FloorRecord* r = nullptr;
    mark("construct");
    if constexpr (kModel) {
        r = &record.emplace();
    }
    countRecord<kModel>(rq.firstRecord);
    mark("createPrivResultMeta");
    createResults<kModel>(rq, r, h);
    mark("setHalRequestPrivResultMeta");
    attach<kModel>(rq, r, h);
    mark("(HAL)");
    halFills(rq);
    mark("checkAndUpdatePrivResult");
    reconcile<kModel>(rq, r, h);
    mark("keep3aDebugData");
    keepDebugData<kModel>(rq, r);
    mark("destroy");
    releaseDebugData<kModel>(rq, r, true);
    destroyResults<kModel>(rq, r, h);
    uncountRecord<kModel>(rq.firstRecord);
    record.reset();
    mark(nullptr);
}

template <Form F, class Mark>
void request(Request& rq, Mark&& mark) {
    if constexpr (F == Form::Library) {
        libraryRequest(rq, mark);
    } else {
        floorRequest<F == Form::Floor>(rq, mark);
    }
}

// ---------------------------------------------------------------------------
// The offline path on one record: private results asked for n cameras,
// createTuningParams, createTuningMetaBufs, keep3aDebugData per camera,
// getTuningMetaBufs with translation, setTuningMetaBufs,
// destroyTuningMetaBufs, the consumer frees the translations, destroy.

template <class Mark>
void libraryOffline(Request& rq, Mark&& mark) {
    std::optional<QcomPostProcInfo> record;
    mark("construct");
    record.emplace();
    record->mSupportPrivMeta = true;
    record->mPhyCamIdSet = rq.ids;
    mark("createTuningParams");
    std::shared_ptr<kycam::TuningParamsBase> params = record->createTuningParams();
    mark("createTuningMetaBufs");
    record->createTuningMetaBufs();
    mark("keep3aDebugData");
    for (size_t i = 0; i < rq.debug.size(); ++i) {
        record->keep3aDebugData(rq.debugCamera[i], &rq.debug[i], false);
    }
    mark("getTuningMetaBufs");
    params->mTransAllMetas = true;
    record->getTuningMetaBufs(*params, std::function<std::string()>(), false);
    mark("setTuningMetaBufs");
    record->setTuningMetaBufs(*params);
    mark("destroyTuningMetaBufs");
    record->destroyTuningMetaBufs();
    mark("(consumer)");
    for (const auto& entry : params->mTuningMetas) {
        free_camera_metadata(entry.second);
    }
    params.reset();
    mark("destroy");
    record.reset();
    mark(nullptr);
}

// Translation of one CHI metadata object into a new Android buffer and its
// description.
template <bool kModel>
void exportMeta(kycam::TuningParamsBase* params, int cameraId, void* meta,
                camera_metadata_t** out) {
    camera_metadata_t* android = allocate_camera_metadata(1024, 2252800);
    static_cast<ChiMetadata*>(meta)->TranslateToCameraMetadata(android, false, false, 0, nullptr);
    const size_t size = get_camera_metadata_size(android);
    const size_t data = get_camera_metadata_data_capacity(android);
    const size_t entries = get_camera_metadata_entry_capacity(android);
    *out = android;
    if constexpr (kModel) {
        params->mTuningMetas.emplace_hint(params->mTuningMetas.end(), cameraId, android);
        auto infos = std::make_shared<kycam::TuningParamsMetaInfos>();
        infos->metaSize = size;
        infos->dataCapacity = data;
        infos->entryCapacity = entries;
        params->mMetaInfos.emplace_hint(params->mMetaInfos.end(), cameraId, std::move(infos));
    }
}

template <bool kModel, class Mark>
void floorOffline(Request& rq, Mark&& mark) {
    Held h;
    std::optional<FloorRecord> record;
    FloorRecord* r = nullptr;
    std::shared_ptr<kycam::TuningParamsBase> params;
    camera_metadata_t* translated[kMaxCameras + 1] = {};
    mark("construct");
    if constexpr (kModel) {
        r = &record.emplace();
        r->ids = rq.ids;
    }
    countRecord<kModel>(rq.firstRecord);
    mark("createTuningParams");
    if constexpr (kModel) {
        params = std::make_shared<kycam::TuningParamsBase>();
    }
    mark("createTuningMetaBufs");
    {
        createResults<kModel>(rq, r, h, false);
        static_cast<ChiMetadata*>(h.logical)->AddReference(nullptr);
        for (int k : rq.keyOrder) {
            static_cast<ChiMetadata*>(h.phy[k])->AddReference(nullptr);
        }
    }
    mark("keep3aDebugData");
    keepDebugData<kModel>(rq, r);
    mark("getTuningMetaBufs");
    exportMeta<kModel>(params.get(), -1, h.logical, &translated[0]);
    for (size_t j = 0; j < rq.keyOrder.size(); ++j) {
        const int k = rq.keyOrder[j];
        exportMeta<kModel>(params.get(), static_cast<int>(j), h.phy[k], &translated[j + 1]);
    }
    if constexpr (kModel) {
        for (const auto& entry : r->dd3a) {
            params->mDebug3ABuffers.emplace_hint(
                    params->mDebug3ABuffers.end(), entry.first,
                    kycam::TuningParamsDebugData{entry.second.size, entry.second.pData});
        }
    }
    mark("setTuningMetaBufs");
    // The exported maps and the record's run in the same camera order.
    static_cast<ChiMetadata*>(h.logical)->SetAndroidMetadata(translated[0]);
    for (size_t j = 0; j < rq.keyOrder.size(); ++j) {
        static_cast<ChiMetadata*>(h.phy[rq.keyOrder[j]])->SetAndroidMetadata(translated[j + 1]);
    }
    if constexpr (kModel) {
        std::lock_guard<std::mutex> lock(r->dd3aMutex);
        auto held = r->dd3a.begin();
        for (const auto& entry : params->mDebug3ABuffers) {
            held->second = {entry.second.size, entry.second.buffer};
            ++held;
            std::lock_guard<std::mutex> dataLock(r->ddMutex);
        }
    }
    mark("destroyTuningMetaBufs");
    releaseMeta(h.logical);
    for (int k : rq.keyOrder) {
        releaseMeta(h.phy[k]);
    }
    destroyMeta<kModel>(r, h.logical);
    if constexpr (kModel) {
        for (const auto& entry : r->phyResults) {
            destroyMeta<kModel>(r, entry.second);
        }
        r->phyResults.clear();
        delete[] r->idArray;
        delete[] r->resultArray;
    } else {
        for (int k : rq.keyOrder) {
            destroyMeta<kModel>(r, h.phy[k]);
        }
    }
    releaseDebugData<kModel>(rq, r, true);
    mark("(consumer)");
    for (int j = 0; j <= rq.cameras; ++j) {
        free_camera_metadata(translated[j]);
    }
    mark("destroy");
    if constexpr (kModel) {
        // What the destructor still finds: empty containers, the id set.
        { std::lock_guard<std::mutex> lock(r->dd3aMutex); }
        { std::lock_guard<std::mutex> lock(r->ddTuningMutex); }
        { std::lock_guard<std::mutex> lock(r->ddMutex); }
        r->ids.clear();
    }
    uncountRecord<kModel>(rq.firstRecord);
    params.reset();
    record.reset();
    mark(nullptr);
}

template <Form F, class Mark>
void offline(Request& rq, Mark&& mark) {
    if constexpr (F == Form::Library) {
        libraryOffline(rq, mark);
    } else {
        floorOffline<F == Form::Floor>(rq, mark);
    }
}

// ---------------------------------------------------------------------------
// Operations on a record that has served a request (private results for n
// cameras, 3A debug data kept per camera): clone(true) and the clone's end,
// shallowClone(true) and the clone's end (releaseTuningMetaBufs(true) first,
// as the clone shares the source's objects and arrays), reset and keeping
// the debug data again.

enum class Copy { Clone, ShallowClone, Reset };

class SourceRecord {
  public:
    SourceRecord(Form form, Request& rq, Copy copy);
    ~SourceRecord();
    SourceRecord(const SourceRecord&) = delete;
    SourceRecord& operator=(const SourceRecord&) = delete;

    template <class Mark>
    void run(Mark&& mark);

  private:
    template <bool kModel, class Mark>
    void runFloor(Mark&& mark);

    Form form_;
    Request& rq_;
    Copy copy_;
    std::optional<QcomPostProcInfo> record_;
    std::optional<FloorRecord> floor_;
    Held held_;
};

template <class Mark>
void SourceRecord::run(Mark&& mark) {
    if (form_ == Form::Floor) {
        runFloor<true>(mark);
        return;
    }
    if (form_ == Form::Platform) {
        runFloor<false>(mark);
        return;
    }
    QcomPostProcInfo& source = *record_;
    switch (copy_) {
        case Copy::Clone: {
            mark("clone(true)");
            std::shared_ptr<PostProcInfo> copy = source.clone(true);
            mark("destroy clone");
            copy.reset();
            break;
        }
        case Copy::ShallowClone: {
            mark("shallowClone(true)");
            std::shared_ptr<PostProcInfo> copy = source.shallowClone(true);
            mark("releaseTuningMetaBufs(true)");
            copy->releaseTuningMetaBufs(true);
            mark("destroy clone");
            copy.reset();
            break;
        }
        case Copy::Reset:
            mark("reset");
            source.reset();
            mark("keep3aDebugData");
            for (size_t i = 0; i < rq_.debug.size(); ++i) {
                source.keep3aDebugData(rq_.debugCamera[i], &rq_.debug[i], false);
            }
            break;
    }
    mark(nullptr);
}

template <bool kModel, class Mark>
void SourceRecord::runFloor(Mark&& mark) {
    FloorRecord* src = kModel ? &*floor_ : nullptr;
    Held& h = held_;
    const Manager& m = manager();
    const int n = rq_.cameras;
    switch (copy_) {
        case Copy::Clone: {
            mark("clone(true)");
            std::shared_ptr<FloorRecord> copy;
            Held c;
            FloorRecord* r = nullptr;
            if constexpr (kModel) {
                copy = std::make_shared<FloorRecord>();
                r = copy.get();
                r->name = src->name;
                r->ids = src->ids;
                r->idArray = new const char*[n];
                for (int i = 0; i < n; ++i) {
                    r->idArray[i] = src->idArray[i];
                }
                r->resultArray = new void*[n];
            }
            const adapter::PostProcInfoMetaAttributes& a = rq_.attributes;
            int i = 0;
            for (const std::string& id : kModel ? r->ids : rq_.ids) {
                c.phy[i] = createMeta<kModel>(a.physicalIsMultiTypeContextMeta != 0,
                                              a.physicalIsMultiCameraContextMeta != 0);
                static_cast<ChiMetadata*>(c.phy[i])->Copy(*static_cast<ChiMetadata*>(h.phy[i]),
                                                          false);
                if constexpr (kModel) {
                    r->resultArray[i] = c.phy[i];
                    r->phyResults.emplace(atoi(id.c_str()), c.phy[i]);
                }
                ++i;
            }
            c.logical = createMeta<kModel>(a.logicalIsMultiTypeContextMeta != 0,
                                           a.logicalIsMultiCameraContextMeta != 0);
            static_cast<ChiMetadata*>(c.logical)->Copy(*static_cast<ChiMetadata*>(h.logical),
                                                       false);
            if constexpr (kModel) {
                r->logical = c.logical;
                {
                    std::lock_guard<std::mutex> lock(gFloorSumMutex);
                    ++gFloorSum;
                }
                std::lock_guard<std::mutex> lock(src->dd3aMutex);
                for (auto& entry : src->dd3a) {
                    std::lock_guard<std::mutex> cloneLock(r->dd3aMutex);
                    r->dd3a.insert_or_assign(entry.first, entry.second);
                    std::lock_guard<std::mutex> dataLock(r->ddMutex);
                    if (r->ddSet.insert(entry.second.pData).second) {
                        m.addRef(entry.second.pData);
                    }
                }
            } else {
                for (const adapter::DebugData& d : rq_.debug) {
                    m.addRef(d.pData);
                }
            }
            if constexpr (kModel) {
                std::lock_guard<std::mutex> lock(src->ddTuningMutex);
            }
            mark("destroy clone");
            releaseDebugData<kModel>(rq_, r, true);
            destroyMeta<kModel>(r, c.logical);
            if constexpr (kModel) {
                for (const auto& entry : r->phyResults) {
                    destroyMeta<kModel>(r, entry.second);
                }
                r->phyResults.clear();
                delete[] r->idArray;
                delete[] r->resultArray;
                r->ids.clear();
            } else {
                for (int k : rq_.keyOrder) {
                    destroyMeta<kModel>(r, c.phy[k]);
                }
            }
            uncountRecord<kModel>(false);
            copy.reset();
            break;
        }
        case Copy::ShallowClone: {
            mark("shallowClone(true)");
            std::shared_ptr<FloorRecord> copy;
            FloorRecord* r = nullptr;
            if constexpr (kModel) {
                copy = std::make_shared<FloorRecord>();
                r = copy.get();
            }
            countRecord<kModel>(false);
            if constexpr (kModel) {
                r->name = src->name;
                r->ids = src->ids;
                r->logical = src->logical;
                r->idArray = src->idArray;
                r->resultArray = src->resultArray;
                r->phyResults = src->phyResults;
            }
            static_cast<ChiMetadata*>(h.logical)->AddReference(nullptr);
            for (int k : rq_.keyOrder) {
                static_cast<ChiMetadata*>(h.phy[k])->AddReference(nullptr);
            }
            if constexpr (kModel) {
                {
                    std::lock_guard<std::mutex> lock(src->dd3aMutex);
                    r->dd3a = src->dd3a;
                }
                {
                    std::lock_guard<std::mutex> lock(src->ddTuningMutex);
                    r->ddTuning = src->ddTuning;
                }
                std::lock_guard<std::mutex> lock(src->ddMutex);
                r->ddSet = src->ddSet;
            }
            mark("releaseTuningMetaBufs(true)");
            releaseMeta(h.logical);
            for (int k : rq_.keyOrder) {
                releaseMeta(h.phy[k]);
            }
            if constexpr (kModel) {
                r->logical = nullptr;
                r->idArray = nullptr;
                r->phyResults.clear();
                r->resultArray = nullptr;
                {
                    std::lock_guard<std::mutex> lock(r->dd3aMutex);
                    r->dd3a.clear();
                }
                {
                    std::lock_guard<std::mutex> lock(r->ddTuningMutex);
                    r->ddTuning.clear();
                }
                std::lock_guard<std::mutex> lock(r->ddMutex);
                r->ddSet.clear();
            }
            mark("destroy clone");
            if constexpr (kModel) {
                { std::lock_guard<std::mutex> lock(r->dd3aMutex); }
                { std::lock_guard<std::mutex> lock(r->ddTuningMutex); }
                { std::lock_guard<std::mutex> lock(r->ddMutex); }
                r->ids.clear();
            }
            uncountRecord<kModel>(false);
            copy.reset();
            break;
        }
        case Copy::Reset: {
            mark("reset");
            releaseDebugData<kModel>(rq_, src, false);
            // Each object is tested and, with no reference left, invalidated.
            auto resetMeta = [](void* meta) {
                if (static_cast<ChiMetadata*>(meta)->ReferenceCount() == 0) {
                    static_cast<ChiMetadata*>(meta)->Invalidate();
                }
            };
            resetMeta(h.logical);
            if constexpr (kModel) {
                for (const auto& entry : src->phyResults) {
                    resetMeta(entry.second);
                }
            } else {
                for (int k : rq_.keyOrder) {
                    resetMeta(h.phy[k]);
                }
            }
            mark("keep3aDebugData");
            for (adapter::DebugData& d : rq_.debug) {
                if constexpr (kModel) {
                    std::lock_guard<std::mutex> lock(src->dd3aMutex);
                    src->dd3a.insert_or_assign(rq_.debugCamera[&d - rq_.debug.data()], d);
                    std::lock_guard<std::mutex> dataLock(src->ddMutex);
                    if (src->ddSet.insert(d.pData).second) {
                        AddDebugDataReference(&d);
                    }
                } else {
                    AddDebugDataReference(&d);
                }
            }
            break;
        }
    }
    mark(nullptr);
}

// ---------------------------------------------------------------------------
// The workloads as callables w(FormTag<F>{}, mark) (steps.h).

inline auto requestWorkload(Request& rq) {
    return [&rq](auto form, auto&& mark) { request<decltype(form)::value>(rq, mark); };
}

inline auto offlineWorkload(Request& rq) {
    return [&rq](auto form, auto&& mark) { offline<decltype(form)::value>(rq, mark); };
}

inline auto emptyRecordWorkload() {
    return [](auto form, auto&& mark) { emptyRecord<decltype(form)::value>(mark); };
}

// The sources of the three forms. The library's is made first and ended
// last: it holds the manager's registration.
struct Sources {
    Sources(Request& rq, Copy copy)
        : library(Form::Library, rq, copy),
          floor(Form::Floor, rq, copy),
          platform(Form::Platform, rq, copy) {}

    auto workload() {
        return [this](auto form, auto&& mark) {
            constexpr Form f = decltype(form)::value;
            (f == Form::Library ? library : f == Form::Floor ? floor : platform).run(mark);
        };
    }

    SourceRecord library;
    SourceRecord floor;
    SourceRecord platform;
};

}  // namespace workload
