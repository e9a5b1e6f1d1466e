// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "KyCamAdapter"

#include "workload.h"

#include <dlfcn.h>
#include <stdio.h>

#include <algorithm>
#include <numeric>

#include <kydebug/Log.h>
#include <sim/chi.h>
#include <sim/iqbm.h>

namespace workload {

namespace {

// Debug data buffers: distinct, in ascending addresses.
alignas(64) char gBuffers[kMaxBuffers][64];

template <typename Fn>
Fn bind(void* library, const char* name) {
    Fn fn = reinterpret_cast<Fn>(dlsym(library, name));
    if (fn == nullptr) {
        fprintf(stderr, "workload: %s not found in libiqdbgmgr.so\n", name);
        abort();
    }
    return fn;
}

// The record opened the manager when it was loaded, before this runs.
Manager bindManager() {
    void* library = dlopen("libiqdbgmgr.so", RTLD_NOW | RTLD_NOLOAD);
    if (library == nullptr) {
        fprintf(stderr, "workload: libiqdbgmgr.so is not loaded\n");
        abort();
    }
    return {bind<PFN_IBMIntfRegister>(library, "IBMIntfRegister"),
            bind<PFN_IBMIntfUnRegister>(library, "IBMIntfUnRegister"),
            bind<PFN_IBMIntfBufAddRef>(library, "IBMIntfBufAddRef"),
            bind<PFN_IBMIntfBufDecRef>(library, "IBMIntfBufDecRef")};
}

// An object the HAL makes itself for a result.
void* halMeta() {
    const uint32_t tag = kPrivResultTag;
    return ChiMetadata::Create(&tag, 1, false, nullptr, 0xFFFFFFFF, 0, 0, nullptr);
}

}  // namespace

const Manager gManager = bindManager();
std::mutex gFloorSumMutex;
uint64_t gFloorSum = 0;
std::atomic<uint64_t> gFloorChiMetaSum{0};

const char* formName(Form form) {
    switch (form) {
        case Form::Library:
            return "library";
        case Form::Floor:
            return "floor";
        case Form::Platform:
            return "platform";
    }
    return "?";
}

Request::Request(int cameras, ResultKind kind, int buffers) : cameras(cameras), kind(kind) {
    if (cameras < 1 || cameras > kMaxCameras || buffers > kMaxBuffers) {
        fprintf(stderr, "workload: 1 to %d cameras and at most %d buffers\n", kMaxCameras,
                kMaxBuffers);
        abort();
    }
    for (int i = 0; i < cameras; ++i) {
        ids.insert(std::to_string(i));
    }
    std::vector<std::string> inSetOrder(ids.begin(), ids.end());
    keyOrder.resize(inSetOrder.size());
    std::iota(keyOrder.begin(), keyOrder.end(), 0);
    std::sort(keyOrder.begin(), keyOrder.end(), [&](int a, int b) {
        return atoi(inSetOrder[a].c_str()) < atoi(inSetOrder[b].c_str());
    });
    const int count = buffers < 0 ? cameras : buffers;
    for (int i = 0; i < count; ++i) {
        debug.push_back({sizeof(gBuffers[i]), gBuffers[i]});
        debugCamera.push_back(i);
    }
    for (int i = 1; i <= cameras; ++i) {
        newIdTexts.push_back(std::to_string(i));
    }
    for (const std::string& id : newIdTexts) {
        newIds.push_back(id.c_str());
    }
    resultMetas.resize(cameras);
    hal.frame_number = 1;
    result.frame_number = 1;
}

void halFills(Request& rq) {
    camera3_capture_result& res = rq.result;
    res.priv_metadata = rq.hal.priv_result;
    res.num_physcam_metadata = rq.hal.num_priv_physcam_result;
    res.physcam_ids = rq.hal.priv_physcam_id;
    res.priv_physcam_metadata = rq.hal.priv_physcam_result;
    const int n = rq.cameras;
    if (rq.kind == ResultKind::ReplaceOne) {
        std::copy(rq.hal.priv_physcam_result, rq.hal.priv_physcam_result + n,
                  rq.resultMetas.begin());
        // The pipeline still holds the object that its own replaces.
        static_cast<ChiMetadata*>(rq.resultMetas[n - 1])->AddReference(nullptr);
        rq.resultMetas[n - 1] = halMeta();
        res.priv_physcam_metadata = rq.resultMetas.data();
    } else if (rq.kind == ResultKind::NewCameras) {
        for (int i = 0; i < n; ++i) {
            static_cast<ChiMetadata*>(rq.hal.priv_physcam_result[i])->AddReference(nullptr);
            rq.resultMetas[i] = halMeta();
        }
        res.physcam_ids = rq.newIds.data();
        res.priv_physcam_metadata = rq.resultMetas.data();
    }
}

__attribute__((noinline)) void createChiMetaLine(void* meta, unsigned ref, int sum) {
    KYA_LOGI(KYA_LOG_GROUP_META,
             "Create ChiMeta %p ref %u isMultiTypeContextMeta %d isMultiCameraContextMeta %d "
             "ChimetaSum %d",
             meta, ref, 0, 0, sum);
}

__attribute__((noinline)) int createChiMetaText(char* text, size_t size, void* meta, unsigned ref,
                                                int sum) {
    return snprintf(text, size,
                    "%s %s:%d %s() Create ChiMeta %p ref %u isMultiTypeContextMeta %d "
                    "isMultiCameraContextMeta %d ChimetaSum %d",
                    "KYA_META", "QcomPostProcInfo.cpp", 433, "createChiMeta", meta, ref, 0, 0, sum);
}

void settle() {
    sim::chi::forgetDestroyed();
    // The manager's event list grows with every call; its reference counts
    // of buffers that records still hold must survive the clearing.
    int counts[kMaxBuffers];
    for (int i = 0; i < kMaxBuffers; ++i) {
        counts[i] = sim::iqbm::refCount(gBuffers[i]);
    }
    sim::iqbm::clearBuffers();
    for (int i = 0; i < kMaxBuffers; ++i) {
        if (counts[i] != 0) {
            sim::iqbm::setRefCount(gBuffers[i], counts[i]);
        }
    }
}

SourceRecord::SourceRecord(Form form, Request& rq, Copy copy) : form_(form), rq_(rq), copy_(copy) {
    if (form == Form::Library) {
        record_.emplace();
        record_->createPrivResultMeta(rq.ids, true, rq.attributes);
        record_->setHalRequestPrivResultMeta(&rq.hal);
        halFills(rq);
        record_->checkAndUpdatePrivResult(&rq.result);
        for (size_t i = 0; i < rq.debug.size(); ++i) {
            record_->keep3aDebugData(rq.debugCamera[i], &rq.debug[i], false);
        }
        if (copy == Copy::Reset) {
            // From the first reset on, a record keeps its debug data through
            // the framework's counters.
            record_->reset();
            for (size_t i = 0; i < rq.debug.size(); ++i) {
                record_->keep3aDebugData(rq.debugCamera[i], &rq.debug[i], false);
            }
        }
        return;
    }
    // Sources of the other forms are made while the library's lives, so they
    // never register with the manager.
    FloorRecord* r = nullptr;
    if (form == Form::Floor) {
        r = &floor_.emplace();
        countRecord<true>(false);
        createResults<true>(rq, r, held_);
        attach<true>(rq, r, held_);
    } else {
        createResults<false>(rq, r, held_);
        attach<false>(rq, r, held_);
    }
    halFills(rq);
    for (size_t i = 0; i < rq.debug.size(); ++i) {
        adapter::DebugData& d = rq.debug[i];
        if (r != nullptr) {
            r->dd3a.insert_or_assign(rq.debugCamera[i], d);
            r->ddSet.insert(d.pData);
        }
        if (copy == Copy::Reset) {
            AddDebugDataReference(&d);
        } else {
            manager().addRef(d.pData);
        }
    }
}

SourceRecord::~SourceRecord() {
    if (form_ == Form::Library) {
        record_.reset();
        return;
    }
    const bool iqbm = copy_ != Copy::Reset;
    if (form_ == Form::Floor) {
        releaseDebugData<true>(rq_, &*floor_, iqbm);
        destroyResults<true>(rq_, &*floor_, held_);
        uncountRecord<true>(false);
        floor_.reset();
    } else {
        releaseDebugData<false>(rq_, nullptr, iqbm);
        destroyResults<false>(rq_, nullptr, held_);
    }
}

}  // namespace workload
