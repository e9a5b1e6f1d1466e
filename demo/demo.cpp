// SPDX-License-Identifier: Apache-2.0
// A short host session against the simulated platform: what a camera HAL
// engineer sees of the record, its log lines and the platform's books.
#include <QcomPostProcInfo.h>
#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/hal.h>
#include <sim/iqbm.h>
#include <sim/journal.h>
#include <sim/kycam.h>
#include <sim/logcat.h>

#include <cutils/properties.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <set>
#include <string>

using adapter::QcomPostProcInfo;

namespace {

void heading(const char* title) {
    printf("\n== %s ==\n", title);
}

// The books of every simulated library; balanced means nothing is left
// alive or referenced and no misuse was seen.
bool printLedger() {
    const sim::chi::Totals chi = sim::chi::totals();
    const sim::camera_metadata::Totals meta = sim::camera_metadata::totals();
    const sim::iqbm::Counters iqbm = sim::iqbm::counters();
    printf("-- ledger --\n");
    printf("records alive (mSum)          %llu\n",
           static_cast<unsigned long long>(QcomPostProcInfo::mSum));
    // Objects the HAL made and the record adopted are destroyed by the record
    // too, so the diagnostic count may end below zero.
    printf("mChiMetaSum                   %d\n",
           static_cast<int>(QcomPostProcInfo::mChiMetaSum.load()));
    printf("CHI metas created/destroyed   %zu/%zu, alive %zu\n", chi.created, chi.destroyed,
           chi.alive);
    printf("camera metadata alloc/free    %zu/%zu, alive %zu\n", meta.allocated, meta.freed,
           meta.alive);
    printf("IQBM register/unregister      %zu/%zu, registered %s\n", iqbm.registers,
           iqbm.unregisters, iqbm.registered ? "yes" : "no");
    printf("IQBM add/drop references      %zu/%zu\n", iqbm.addRefs, iqbm.decRefs);
    const std::vector<std::string> misuses = sim::misuses();
    for (const std::string& misuse : misuses) {
        printf("MISUSE: %s\n", misuse.c_str());
    }
    const bool balanced = QcomPostProcInfo::mSum == 0 && chi.alive == 0 && meta.alive == 0 &&
                          !iqbm.registered && iqbm.addRefs == iqbm.decRefs && misuses.empty();
    printf("balanced: %s\n", balanced ? "yes" : "NO");
    return balanced;
}

// Every CHI metadata object of the session with its books.
void printChiObjects(const char* when) {
    printf("-- CHI objects %s --\n", when);
    for (void* meta : sim::chi::objects()) {
        sim::chi::MetaState state;
        sim::chi::state(meta, &state);
        printf("  #%llu %p refs %u invalidated %u %s\n",
               static_cast<unsigned long long>(state.serial), meta, state.refCount,
               state.invalidations, state.destroyed ? "destroyed" : "alive");
    }
}

void twoCameraRequest() {
    heading("two-camera logical request; the result replaces camera 1's object");
    auto record = std::make_unique<QcomPostProcInfo>();
    std::set<std::string> cameras = {"0", "1"};
    adapter::PostProcInfoMetaAttributes attributes = {0, 1, 0, 0};
    record->createPrivResultMeta(cameras, true, attributes);

    camera3_capture_request request = {};
    request.frame_number = 42;
    record->setHalRequestPrivResultMeta(&request);
    // The HAL holds a reference on every object it is handed to fill, and
    // fills one of its own for camera 1 instead.
    sim::hal::reference(request);
    sim::hal::Result result(42, request.priv_result,
                            {{"0", record->mPrivPhyResultMap.at(0)}, {"1", sim::hal::newMeta()}});
    record->checkAndUpdatePrivResult(result.get());
    printf("parked for destruction: %zu object(s)\n", record->mReplacedPrivResults.size());
    printChiObjects("after reconciliation");

    record.reset();
    printChiObjects("after the record is gone");
}

void offlineStep() {
    heading("offline post-processing: keep debug data, export, import, release");
    auto capture = std::make_unique<QcomPostProcInfo>();
    std::set<std::string> cameras = {"0", "1"};
    adapter::PostProcInfoMetaAttributes attributes = {};
    capture->createPrivResultMeta(cameras, true, attributes);
    char aec[64], tuning0[32], tuning1[32];
    adapter::DebugData aecData = {sizeof(aec), aec};
    adapter::DebugDataTuningMetaArray tuning = {
            2, {{sizeof(tuning0), tuning0}, {sizeof(tuning1), tuning1}}};
    capture->keep3aDebugData(0, &aecData, false);
    capture->keep3aDebugData(1, &aecData, false);  // same buffer: one reference
    capture->keepTuningDDArray(1, &tuning, false);
    printf("IQBM references: aec %d, tuning %d/%d\n", sim::iqbm::refCount(aec),
           sim::iqbm::refCount(tuning0), sim::iqbm::refCount(tuning1));

    // The post-processing stage's own record makes the tuning parameters.
    auto offline = std::make_unique<QcomPostProcInfo>();
    std::shared_ptr<kycam::TuningParamsBase> params = offline->createTuningParams();
    params->mTransAllMetas = true;
    capture->getTuningMetaBufs(*params, nullptr, false);
    printf("exported %zu Android metadata buffer(s), %zu 3A debug buffer(s)\n",
           params->mTuningMetas.size(), params->mDebug3ABuffers.size());

    // The algorithm hands back a debug buffer of its own, which the
    // importing record adopts and frees.
    params->mDebug3ABuffers.clear();
    params->mDebug3ABuffers[0] = {128, malloc(128)};
    offline->mSupportPrivMeta = true;
    offline->mPhyCamIdSet = cameras;
    offline->createTuningMetaBufs();
    offline->setTuningMetaBufs(*params);
    for (auto& entry : params->mTuningMetas) {
        free_camera_metadata(entry.second);  // the consumer's buffers
    }
    params->mTuningMetas.clear();

    offline->releaseChiMetasRef();
    offline.reset();
    capture.reset();
    printf("IQBM references after release: aec %d, tuning %d/%d\n", sim::iqbm::refCount(aec),
           sim::iqbm::refCount(tuning0), sim::iqbm::refCount(tuning1));
}

void secondConsumerAndReuse() {
    heading("a second consumer (clone, shallow clone) and a record reused after reset()");
    auto record = std::make_unique<QcomPostProcInfo>();
    std::set<std::string> cameras = {"0"};
    adapter::PostProcInfoMetaAttributes attributes = {};
    record->createPrivResultMeta(cameras, true, attributes);
    char aec[64];
    adapter::DebugData aecData = {sizeof(aec), aec};
    record->keep3aDebugData(0, &aecData, false);

    std::shared_ptr<PostProcInfo> deep = record->clone(true);
    printf("deep clone: own CHI objects, IQBM references on aec %d\n", sim::iqbm::refCount(aec));
    std::shared_ptr<PostProcInfo> shallow = record->shallowClone(false);
    printf("shallow clone: shared logical result, its references %u\n",
           sim::chi::refCount(record->m_pPrivResult));
    // As the host: the shallow clone hands the shared objects back before it
    // goes, so that only the source destroys them.
    shallow->releaseTuningMetaBufs(false);
    shallow.reset();
    deep.reset();

    record->reset();
    printf("after reset: IQBM references on aec %d, keeper now the framework's\n",
           sim::iqbm::refCount(aec));
    record->keep3aDebugData(0, &aecData, false);
    printf("kept again: framework references on aec %d\n", sim::kycam::debugDataRefCount(aec));
    record.reset();
    printf("record gone: framework references on aec %d\n", sim::kycam::debugDataRefCount(aec));
}

void recordsComeAndGo() {
    heading("records come and go: KYHAL registers at the first, unregisters at the last");
    auto first = std::make_unique<QcomPostProcInfo>();
    auto second = std::make_unique<QcomPostProcInfo>();
    printf("two records, IQBM registered: %s\n", sim::iqbm::counters().registered ? "yes" : "no");
    first.reset();
    printf("one record left, IQBM registered: %s\n",
           sim::iqbm::counters().registered ? "yes" : "no");
    second.reset();
    printf("none left, IQBM registered: %s\n", sim::iqbm::counters().registered ? "yes" : "no");
}

}  // namespace

int main(int argc, char** argv) {
    // Every group and level, echoed here: the Android log, and with --both
    // the framework's log system too. --logcat FILE also writes the Android
    // log as logcat -v threadtime prints it, for postproc-logcheck.
    bool both = false;
    const char* logcatFile = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--both") == 0) {
            both = true;
        } else if (strcmp(argv[i], "--logcat") == 0 && i + 1 < argc) {
            logcatFile = argv[++i];
        } else {
            fprintf(stderr, "usage: %s [--both] [--logcat FILE]\n", argv[0]);
            return 2;
        }
    }
    sim::kycam::setLogConfig(0, 0xFFFFFFFF, both ? 1 : 0);
    sim::kycam::setLogOutput(logcatFile != nullptr, stdout, both);
    char enableIQBM[PROPERTY_VALUE_MAX];
    property_get("persist.vendor.camera.enableIQBM", enableIQBM, "");
    const char* seeded = getenv("SIM_PROPERTIES");
    printf("persist.vendor.camera.enableIQBM = %s (SIM_PROPERTIES=\"%s\")\n",
           enableIQBM[0] != '\0' ? enableIQBM : "unset, so 1", seeded != nullptr ? seeded : "");

    recordsComeAndGo();
    twoCameraRequest();
    offlineStep();
    secondConsumerAndReuse();

    heading("end of session");
    const bool balanced = printLedger();
    if (logcatFile != nullptr) {
        const std::string log = sim::logcat::write(sim::logcat::androidLines());
        FILE* file = fopen(logcatFile, "w");
        if (file == nullptr || fwrite(log.data(), 1, log.size(), file) != log.size() ||
            fclose(file) != 0) {
            fprintf(stderr, "%s: %s\n", logcatFile, strerror(errno));
            return 2;
        }
        printf("Android log written to %s; check it with postproc-logcheck %s\n", logcatFile,
               logcatFile);
    }
    return balanced ? 0 : 1;
}
