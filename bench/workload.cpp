// SPDX-License-Identifier: Apache-2.0
#include "workload.h"

#include <QcomPostProcInfo.h>
#include <chi/chxextensionmodule.h>
#include <chi/chxmetadata.h>
#include <dlfcn.h>
#include <iqbm/IQBufMgrIntf.h>
#include <sim/chi.h>
#include <sim/iqbm.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <vector>

namespace workload {

namespace {

using adapter::DebugData;
using adapter::QcomPostProcInfo;

constexpr uint32_t kPrivResultTag = 0x000E001C;
alignas(64) char gBuffers[64][64];  // debug buffers: distinct, in ascending addresses

// The manager's entry points, reached as the record reaches them: through
// pointers, looked up once.
template <typename Fn>
Fn entry(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_DEFAULT, name));
}
const auto gRegister = entry<PFN_IBMIntfRegister>("IBMIntfRegister");
const auto gUnregister = entry<PFN_IBMIntfUnRegister>("IBMIntfUnRegister");
const auto gAddRef = entry<PFN_IBMIntfBufAddRef>("IBMIntfBufAddRef");
const auto gDecRef = entry<PFN_IBMIntfBufDecRef>("IBMIntfBufDecRef");

ChiMetadata* chi(void* meta) {
    return static_cast<ChiMetadata*>(meta);
}

// One capture request and what the HAL brings back.
struct Request {
    explicit Request(const Workload& w) : kind(w.result), cameras(w.cameras) {
        for (int i = 0; i < cameras; ++i) {
            ids.insert(std::to_string(i));
            newIdTexts.push_back(std::to_string(i + 1));
        }
        for (const std::string& id : newIdTexts) {
            newIds.push_back(id.c_str());
        }
        for (int i = 0; i < (w.buffers < 0 ? cameras : w.buffers); ++i) {
            debug.push_back({sizeof(gBuffers[i]), gBuffers[i]});
        }
        metas.resize(static_cast<size_t>(cameras));
    }

    Result kind;
    int cameras;
    std::set<std::string> ids;  // "0" .. "n-1"
    adapter::PostProcInfoMetaAttributes attributes = {};
    std::vector<DebugData> debug;  // the 3A data of camera i on buffer i
    camera3_capture_request hal = {};
    camera3_capture_result result = {};
    std::vector<std::string> newIdTexts;
    std::vector<const char*> newIds;
    std::vector<void*> metas;
};

// The HAL between the request and its result, the same for both forms: it
// keeps a reference on each object its result displaces and makes those it
// brings back itself.
void halFills(Request& rq) {
    camera3_capture_result& res = rq.result;
    res.priv_metadata = rq.hal.priv_result;
    res.num_physcam_metadata = rq.hal.num_priv_physcam_result;
    res.physcam_ids = rq.hal.priv_physcam_id;
    res.priv_physcam_metadata = rq.hal.priv_physcam_result;
    const uint32_t tag = kPrivResultTag;
    for (int i = 0; i < rq.cameras && rq.kind != Result::Same; ++i) {
        rq.metas[i] = rq.hal.priv_physcam_result[i];
        if (rq.kind == Result::NewCameras || i == rq.cameras - 1) {
            chi(rq.metas[i])->AddReference(nullptr);
            rq.metas[i] = ChiMetadata::Create(&tag, 1, false, nullptr, 0xFFFFFFFF, 0, 0, nullptr);
        }
        res.priv_physcam_metadata = rq.metas.data();
    }
    res.physcam_ids = rq.kind == Result::NewCameras ? rq.newIds.data() : res.physcam_ids;
}

// ---------------------------------------------------------------------------
// The floor: the record's data model, and the steps its behaviour forces.

struct Floor {
    void* logical = nullptr;
    std::map<int, void*> phy;
    std::string name{"QcomPostProcInfo"};
    std::set<std::string> ids;
    const char** idArray = nullptr;
    void** results = nullptr;
    std::set<void*> replaced;
    std::set<void*> destroyed;
    std::mutex dd3aMutex;
    std::map<int, DebugData> dd3a;
    std::mutex ddTuningMutex;
    std::map<int, adapter::DebugDataTuningMetaArray> ddTuning;
    std::mutex ddMutex;
    std::set<void*> dd;
};

std::mutex gSumMutex;
uint64_t gSum = 0;
std::atomic<uint64_t> gChiSum{0};

void countUp(bool first) {
    std::lock_guard<std::mutex> lock(gSumMutex);
    ++gSum;
    if (first) {
        gRegister("KYHAL");
    }
}

void countDown(bool last) {
    std::lock_guard<std::mutex> lock(gSumMutex);
    --gSum;
    if (last) {
        gUnregister("KYHAL");
    }
}

void* createMeta(bool multiType, bool multiCamera) {
    uint32_t* tags = new uint32_t[1]{kPrivResultTag};
    MetaToCameraTypeId* mapping =
            multiCamera ? &ExtensionModule::GetInstance()->m_metaToCameraTypeId : nullptr;
    void* meta = ChiMetadata::Create(tags, 1, false, nullptr, 0xFFFFFFFF, multiType, multiCamera,
                                     mapping);
    gChiSum.fetch_add(1, std::memory_order_acq_rel);
    delete[] tags;
    return meta;
}

void destroyMeta(Floor& r, void* meta) {
    r.destroyed.insert(meta);
    gChiSum.fetch_sub(1, std::memory_order_acq_rel);
    chi(meta)->Destroy(true);
}

void release(void* meta) {
    if (chi(meta)->ReleaseReference(nullptr) == 0) {
        chi(meta)->Invalidate();
    }
}

// The private results: the logical one, then one per camera in set order.
void createResults(Request& rq, Floor& r) {
    const adapter::PostProcInfoMetaAttributes& a = rq.attributes;
    r.logical = createMeta(a.logicalIsMultiTypeContextMeta, a.logicalIsMultiCameraContextMeta);
    r.results = new void*[r.ids.size()];
    r.idArray = new const char*[r.ids.size()];
    size_t i = 0;
    for (const std::string& id : r.ids) {
        r.results[i] =
                createMeta(a.physicalIsMultiTypeContextMeta, a.physicalIsMultiCameraContextMeta);
        r.idArray[i] = id.c_str();
        r.phy.emplace(atoi(id.c_str()), r.results[i++]);
    }
}

void attach(Request& rq, Floor& r) {
    rq.hal.priv_result = r.logical;
    rq.hal.num_priv_physcam_result = static_cast<uint32_t>(rq.cameras);
    rq.hal.priv_physcam_id = r.idArray;
    rq.hal.priv_physcam_result = r.results;
}

// Beyond comparing: release and park what was displaced, take the
// replacement, rebuild for other cameras.
void reconcile(Request& rq, Floor& r) {
    const camera3_capture_result& res = rq.result;
    if (rq.kind == Result::ReplaceOne) {
        const int i = rq.cameras - 1;
        void* now = res.priv_physcam_metadata[i];
        release(r.results[i]);
        r.replaced.insert(r.results[i]);
        r.phy.find(atoi(res.physcam_ids[i]))->second = now;
        r.results[i] = now;
        chi(now)->AddReference(nullptr);
    } else if (rq.kind == Result::NewCameras) {
        for (const auto& entry : r.phy) {
            release(entry.second);
            r.replaced.insert(entry.second);
        }
        r.phy.clear();
        delete[] r.idArray;
        delete[] r.results;
        r.ids.clear();
        const uint32_t n = res.num_physcam_metadata;
        r.results = new void*[n];
        r.idArray = new const char*[n];
        for (uint32_t i = 0; i < n; ++i) {
            r.ids.emplace(res.physcam_ids[i]);
            r.phy.emplace(atoi(res.physcam_ids[i]), res.priv_physcam_metadata[i]);
            r.results[i] = res.priv_physcam_metadata[i];
        }
        size_t k = 0;
        for (const std::string& id : r.ids) {
            r.idArray[k++] = id.c_str();
        }
    }
}

void keep(Request& rq, Floor& r) {
    for (size_t i = 0; i < rq.debug.size(); ++i) {
        std::lock_guard<std::mutex> lock(r.dd3aMutex);
        r.dd3a.insert_or_assign(static_cast<int>(i), rq.debug[i]);
        std::lock_guard<std::mutex> dataLock(r.ddMutex);
        if (r.dd.insert(rq.debug[i].pData).second) {
            gAddRef(rq.debug[i].pData);
        }
    }
}

// The release of held debug data, as the destructor and reset do it.
void releaseDebugData(Floor& r) {
    {
        std::lock_guard<std::mutex> lock(r.dd3aMutex);
        r.dd3a.clear();
    }
    {
        std::lock_guard<std::mutex> lock(r.ddTuningMutex);
        r.ddTuning.clear();
    }
    std::lock_guard<std::mutex> lock(r.ddMutex);
    for (void* data : r.dd) {
        gDecRef(data);
    }
    r.dd.clear();
}

// Destruction of the private results: the logical one, the map in key
// order, the displaced ones in pointer order.
void destroyResults(Floor& r) {
    destroyMeta(r, r.logical);
    for (const auto& entry : r.phy) {
        destroyMeta(r, entry.second);
    }
    r.phy.clear();
    delete[] r.idArray;
    delete[] r.results;
    r.ids.clear();
    for (void* meta : r.replaced) {
        destroyMeta(r, meta);
    }
    r.replaced.clear();
}

// ---------------------------------------------------------------------------
// The workloads.

// A request, or with full false an empty record: construct and destroy.
void libraryRequest(Request& rq, Marks& m, bool full) {
    alignas(QcomPostProcInfo) unsigned char place[sizeof(QcomPostProcInfo)];
    m("construct");
    QcomPostProcInfo* r = new (place) QcomPostProcInfo();
    if (full) {
        m("createPrivResultMeta");
        r->createPrivResultMeta(rq.ids, true, rq.attributes);
        m("setHalRequestPrivResultMeta");
        r->setHalRequestPrivResultMeta(&rq.hal);
        m("(HAL)");
        halFills(rq);
        m("checkAndUpdatePrivResult");
        r->checkAndUpdatePrivResult(&rq.result);
        m("keep3aDebugData");
        for (size_t i = 0; i < rq.debug.size(); ++i) {
            r->keep3aDebugData(static_cast<int>(i), &rq.debug[i], false);
        }
    }
    m("destroy");
    r->~QcomPostProcInfo();
    m(nullptr);
}

void floorRequest(Request& rq, Marks& m, bool full, bool first) {
    std::optional<Floor> record;
    m("construct");
    Floor& r = record.emplace();
    countUp(first);
    if (full) {
        m("createPrivResultMeta");
        r.ids = rq.ids;
        createResults(rq, r);
        m("setHalRequestPrivResultMeta");
        attach(rq, r);
        m("(HAL)");
        halFills(rq);
        m("checkAndUpdatePrivResult");
        reconcile(rq, r);
        m("keep3aDebugData");
        keep(rq, r);
    }
    m("destroy");
    releaseDebugData(r);
    if (full) {
        destroyResults(r);
    }
    countDown(first);
    record.reset();
    m(nullptr);
}

}  // namespace

std::string describe(const Workload& w) {
    static const char* const kKinds[] = {"empty record", "request"};
    static const char* const kResults[] = {"", ", result replaces one object",
                                           ", result brings other cameras"};
    std::string text = std::string(kKinds[static_cast<int>(w.kind)]) + ", " +
                       std::to_string(w.cameras) + (w.cameras == 1 ? " camera" : " cameras") +
                       kResults[static_cast<int>(w.result)];
    text += w.buffers >= 0 ? ", " + std::to_string(w.buffers) + " buffers" : "";
    return text + (w.others != 0 ? ", " + std::to_string(w.others) + " other records" : "");
}

void runLibrary(const Workload& w, Marks& marks) {
    std::vector<QcomPostProcInfo> others(static_cast<size_t>(w.others));
    Request rq(w);
    libraryRequest(rq, marks, w.kind == Kind::Request);
}

void runFloor(const Workload& w, Marks& marks) {
    std::vector<QcomPostProcInfo> others(static_cast<size_t>(w.others));
    Request rq(w);
    // The manager is registered with the first record.
    floorRequest(rq, marks, w.kind == Kind::Request, w.others == 0);
}

void settle() {
    sim::chi::forgetDestroyed();
    // The manager's event list grows with every call; the counts of buffers
    // that records still hold must survive the clearing.
    int counts[64];
    for (int i = 0; i < 64; ++i) {
        counts[i] = sim::iqbm::refCount(gBuffers[i]);
    }
    sim::iqbm::clearBuffers();
    for (int i = 0; i < 64; ++i) {
        if (counts[i] != 0) {
            sim::iqbm::setRefCount(gBuffers[i], counts[i]);
        }
    }
}

}  // namespace workload
