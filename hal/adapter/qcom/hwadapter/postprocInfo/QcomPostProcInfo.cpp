// SPDX-License-Identifier: Apache-2.0
#define LOG_TAG "KyCamAdapter"

#include "QcomPostProcInfo.h"

#include <dlfcn.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <unordered_map>

#include <AdvancedFeatureConcurrencyParams.h>
#include <android-base/thread_annotations.h>
#include <chi/chxextensionmodule.h>
#include <chi/chxmetadata.h>
#include <cutils/properties.h>
#include <iqbm/IQBufMgrIntf.h>
#include <kydebug/Log.h>

// Activity class names keyed in the per-application tag table; the product
// configuration supplies the real ones.
#ifndef KY_APP_META_CAPTURE_ACTIVITY
#define KY_APP_META_CAPTURE_ACTIVITY "org.example.placeholder.messaging.camera.CaptureUiActivity"
#endif
#ifndef KY_APP_META_LIVEROOM_ACTIVITY
#define KY_APP_META_LIVEROOM_ACTIVITY "org.example.placeholder.livevideo.room.LiveUiActivity"
#endif

#define META KYA_LOG_GROUP_META
#define POSTPROC KYA_LOG_GROUP_POSTPROC

namespace {

// Static initialisation runs top to bottom in this unit: the IQ buffer
// manager switch, the three feature tables, the class counters, and last the
// binding of the IQ buffer manager.

const int32_t gEnableIQBM = property_get_int32("persist.vendor.camera.enableIQBM", 1);

const std::map<std::string, const char*> sAppMetaTagMap = {
        {KY_APP_META_CAPTURE_ACTIVITY, "android.control.aeTargetFpsRange"},
        {KY_APP_META_LIVEROOM_ACTIVITY, "android.control.aeTargetFpsRange"},
};

const std::unordered_map<unsigned int, const char*> sFeatureMaskNames = {
        {0x3, "VIULL_BOKEH"},     {0x5, "VIULL_ZOOM100x"}, {0x9, "VIULL_MFHDR"},
        {0x11, "VIULL_VRT"},      {0x81, "VIULL_FPS60"},   {0x21, "VIULL_SHDR"},
        {0x24, "sHDR_ZOOM100x"},  {0x30, "sHDR_VRT"},      {0x60, "sHDR_FHD60"},
        {0x22, "sHDR_BOKEH"},     {0x300, "HDR10_iFOVC"},  {0x110, "HDR10_VRT"},
        {0x101, "HDR10_VIULL"},   {0x108, "HDR10_MFHDR"},  {0x500, "HDR10_EISv2"},
        {0xc, "MFHDR_ZOOM100x"},  {0x48, "MFHDR_FHD60"},   {0x800, "AutoHDROnly"},
        {0x20, "sHDROnly"},       {0x8, "MFHDROnly"},      {0x1000, "HVXSHDROnly"},
        {0x2000, "HVXMFHDROnly"}, {0x1, "VIULL"},
};

using FeatureConcurrency = std::map<unsigned int, AdvancedFeatureConcurrencyParams>;

// Keyed by the platform name's address: lookups must use these very strings.
std::map<const char*, FeatureConcurrency> buildAdvancedFeatureConcurrency() {
    const FeatureConcurrency shared = {
            {3, {0, 0, 0, 0, 2, 1}},       {5, {1920, 1080, 30, 1, 2, 1}},
            {9, {0, 0, 0, 0, 2, 8}},       {17, {1920, 1080, 30, 1, 2, 16}},
            {129, {0, 0, 60, 0, 2, 1}},    {33, {1920, 1080, 30, 1, 2, 1}},
            {1, {0, 0, 0, 0, 1, 1}},       {36, {1920, 1080, 30, 1, 2, 32}},
            {48, {0, 0, 0, 0, 2, 16}},     {96, {1920, 1080, 60, 0, 2, 32}},
            {34, {0, 0, 0, 0, 2, 32}},     {768, {0, 0, 0, 0, 2, 512}},
            {272, {0, 0, 0, 0, 2, 16}},    {257, {0, 0, 0, 0, 2, 1}},
            {264, {0, 0, 0, 0, 2, 8}},     {1280, {0, 0, 0, 0, 2, 1024}},
            {2048, {0, 0, 0, 0, 3, 2048}}, {32, {0, 0, 0, 0, 1, 32}},
            {8, {0, 0, 0, 0, 3, 8}},       {4096, {0, 0, 0, 0, 3, 4096}},
            {8192, {0, 0, 0, 0, 1, 8192}},
    };
    // sm7750 differs from the others on VIULL_BOKEH, VIULL_FPS60 and
    // AutoHDROnly on purpose.
    const FeatureConcurrency sm7750 = {
            {3, {0, 0, 0, 0, 3, 1}},          {129, {1920, 1080, 60, 1, 2, 1}},
            {96, {1920, 1080, 60, 0, 2, 32}}, {34, {0, 0, 0, 0, 2, 32}},
            {2048, {0, 0, 0, 0, 1, 2048}},    {32, {0, 0, 0, 0, 1, 32}},
            {8, {0, 0, 0, 0, 3, 8}},
    };
    std::map<const char*, FeatureConcurrency> platforms;
    platforms.emplace("pelgra", shared);
    platforms.emplace("sorvi", shared);
    platforms.emplace("sm7750", sm7750);
    return platforms;
}

const std::map<const char*, FeatureConcurrency> sAdvancedFeatureConcurrency =
        buildAdvancedFeatureConcurrency();

}  // namespace

namespace adapter {

uint64_t QcomPostProcInfo::mSum = 0;
std::mutex QcomPostProcInfo::mSumMutex;
std::atomic<uint64_t> QcomPostProcInfo::mChiMetaSum{0};

}  // namespace adapter

namespace {

// The manager is opened whatever the switch says; neither the handle nor the
// entry points are checked: the switch is the only guard.
void* const gIQBMHandle = dlopen("libiqdbgmgr.so", RTLD_NOW);

template <typename Fn>
Fn bindIQBM(const char* name) {
    return reinterpret_cast<Fn>(dlsym(gIQBMHandle, name));
}

const PFN_IBMIntfRegister IBMIntfRegister = bindIQBM<PFN_IBMIntfRegister>("IBMIntfRegister");
const PFN_IBMIntfUnRegister IBMIntfUnRegister =
        bindIQBM<PFN_IBMIntfUnRegister>("IBMIntfUnRegister");
const PFN_IBMIntfBufAddRef IBMIntfBufAddRef = bindIQBM<PFN_IBMIntfBufAddRef>("IBMIntfBufAddRef");
const PFN_IBMIntfBufDecRef IBMIntfBufDecRef = bindIQBM<PFN_IBMIntfBufDecRef>("IBMIntfBufDecRef");

constexpr const char* kIQBMClientName = "KYHAL";
// The one tag that private result metadata are created with.
constexpr uint32_t kPrivResultTag = 0x000E001C;

// A counter that leaves its range means the books are wrong: stop at once.
uint64_t checkedIncrement(uint64_t value) {
    uint64_t next;
    if (__builtin_add_overflow(value, 1u, &next)) {
        abort();
    }
    return next;
}

uint64_t checkedDecrement(uint64_t value) {
    uint64_t next;
    if (__builtin_sub_overflow(value, 1u, &next)) {
        abort();
    }
    return next;
}

ChiMetadata* asChiMeta(void* handle) {
    return static_cast<ChiMetadata*>(handle);
}

int chiMetaSumForLog() {
    return static_cast<int>(adapter::QcomPostProcInfo::mChiMetaSum.load(std::memory_order_acquire));
}

// Gives back one reference; the last one marks the content stale at once.
uint32_t releaseReference(void* handle) {
    uint32_t count = asChiMeta(handle)->ReleaseReference(nullptr);
    if (count == 0) {
        asChiMeta(handle)->Invalidate();
    }
    return count;
}

// A meta with references is still used by the pipeline; one without is
// invalidated. Returns whether it is in use.
bool checkInUse(const void* record, void* handle, const char* function) {
    KYA_LOGI_IN(function, META, "PostProcInfo %p ChiMeta %p ref %u", record, handle,
                asChiMeta(handle)->ReferenceCount());
    if (asChiMeta(handle)->ReferenceCount() != 0) {
        return true;
    }
    asChiMeta(handle)->Invalidate();
    return false;
}

// Invalidates a meta that nobody references; one in use is left alone.
// Returns whether it is in use.
bool resetIfFree(const void* record, void* handle, const char* function) {
    // The count is read once for the test and again by each sink that
    // writes the line.
    if (asChiMeta(handle)->ReferenceCount() != 0) {
        KYA_LOGW_IN(function, META,
                    "PostProcInfo %p ChiMeta %p ref %u still in use, cannot be reset!", record,
                    handle, asChiMeta(handle)->ReferenceCount());
        return true;
    }
    KYA_LOGI_IN(function, META, "PostProcInfo %p ChiMeta %p ref %u be reset!", record, handle,
                asChiMeta(handle)->ReferenceCount());
    asChiMeta(handle)->Invalidate();
    return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// Helpers of the record's operations. They stay in this unit, out of the
// class, so that the exported interface is the record's and nothing more.

namespace {

using adapter::DebugData;
using adapter::QcomPostProcInfo;

// Which operation gives back the held debug data: each has its own log
// text, and only the destructor and reset() honour mFreeDebugData.
enum class DebugDataRelease { Destruct, Reset, DestroyTuning };

// The count of live records for the destructor's log line, read without
// mSumMutex: a racy read for information only.
int liveRecordsForLog() NO_THREAD_SAFETY_ANALYSIS {
    return static_cast<int>(QcomPostProcInfo::mSum);
}

// The export walks the 3A map without its mutex: it runs on the thread that
// owns the record, and keeping debug data must not overlap it.
const std::map<int, DebugData>& unguarded3aDebugDataMap(const QcomPostProcInfo& record)
        NO_THREAD_SAFETY_ANALYSIS {
    return record.m3aDebugDataMap;
}

// Fills a container of a record that no other thread can see yet, so its own
// mutex need not be taken.
template <typename Container>
void fillFresh(QcomPostProcInfo& fresh, Container QcomPostProcInfo::*member,
               const Container& value) NO_THREAD_SAFETY_ANALYSIS {
    fresh.*member = value;
}

// Buffers are given back under the set's lock.
int decDebugDataRef(const QcomPostProcInfo& record, void* data) REQUIRES(record.mDebugDataMutex) {
    if (record.mEnableIQBM) {
        return IBMIntfBufDecRef(data);
    }
    // The framework finds the buffer by pData alone.
    DebugData debugData = {0, data};
    return SubDebugDataReference(&debugData);
}

void releaseHeldDebugData(QcomPostProcInfo& record, DebugDataRelease how, const char* function)
        EXCLUDES(record.m3aDebugDataMutex, record.mTuningDDArrayMutex, record.mDebugDataMutex) {
    // The maps only describe; the references belong to mDebugDataSet.
    {
        std::lock_guard<std::mutex> lock(record.m3aDebugDataMutex);
        record.m3aDebugDataMap.clear();
    }
    {
        std::lock_guard<std::mutex> lock(record.mTuningDDArrayMutex);
        record.mTuningDDArrayMap.clear();
    }
    std::lock_guard<std::mutex> lock(record.mDebugDataMutex);
    // destroyTuningMetaBufs() always decrements, even on a record that owns
    // its buffers.
    const bool freeData = record.mFreeDebugData && how != DebugDataRelease::DestroyTuning;
    for (void* data : record.mDebugDataSet) {
        if (freeData) {
            KYA_LOGD_IN(function, META, "PostProcsInfo %p free data:%p", &record, data);
            free(data);
            continue;
        }
        int count = decDebugDataRef(record, data);
        if (how == DebugDataRelease::Reset) {
            KYA_LOGD_IN(function, POSTPROC,
                        "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d reset debugData "
                        "pData:%p after dec ref is %d",
                        &record, record.mEnableIQBM, data, count);
        } else {
            KYA_LOGD_IN(function, how == DebugDataRelease::Destruct ? POSTPROC : META,
                        "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d destruct debugData "
                        "pData:%p after dec ref is %d",
                        &record, record.mEnableIQBM, data, count);
        }
    }
    record.mDebugDataSet.clear();
}

void createPhysicalResults(QcomPostProcInfo& record, const char* function) {
    const size_t count = record.mPhyCamIdSet.size();
    record.m_pPrivPhyResults = new void*[count]();
    record.m_pPrivPhyCamIds = new const char*[count]();
    const adapter::PostProcInfoMetaAttributes& attributes = record.mPrivMetaAttributes;
    size_t i = 0;
    for (const std::string& id : record.mPhyCamIdSet) {
        record.m_pPrivPhyResults[i] =
                record.createChiMeta(attributes.physicalIsMultiTypeContextMeta != 0,
                                     attributes.physicalIsMultiCameraContextMeta != 0);
        record.m_pPrivPhyCamIds[i] = id.c_str();
        // Ids equal after atoi share one key; the later one wins.
        record.mPrivPhyResultMap[atoi(id.c_str())] = record.m_pPrivPhyResults[i];
        KYA_LOGI_IN(function, META, "PostProcsInfo %p PrivPhyCamId %s PrivPhyResult %p", &record,
                    id.c_str(), record.m_pPrivPhyResults[i]);
        ++i;
    }
    // Only the first entry is judged; the HAL request attachment refuses the
    // physical results on the same test.
    if (record.m_pPrivPhyResults[0] == nullptr) {
        KYA_LOGE_IN(function, META, "Create priv_physcam_result failed");
    }
}

void destroyPrivResults(QcomPostProcInfo& record) {
    if (record.m_pPrivResult != nullptr) {
        // A logical result that is one of the physical ones dies with them.
        if (!record.mSamelogical_PhyResult) {
            record.destroyChiMeta(record.m_pPrivResult);
        }
        record.m_pPrivResult = nullptr;
    }
    if (record.mPhyCamIdSet.empty()) {
        return;
    }
    // The map is the owning view; the array entries are not destroyed.
    for (const auto& entry : record.mPrivPhyResultMap) {
        void* handle = entry.second;
        record.destroyChiMeta(handle);
    }
    record.mPrivPhyResultMap.clear();
    delete[] record.m_pPrivPhyCamIds;
    record.m_pPrivPhyCamIds = nullptr;
    delete[] record.m_pPrivPhyResults;
    record.m_pPrivPhyResults = nullptr;
}

// Releases the record's reference on an object a capture result displaced
// and parks it for destruction with the private results.
uint32_t retireDisplaced(QcomPostProcInfo& record, void* chiMeta) {
    uint32_t count = releaseReference(chiMeta);
    record.mReplacedPrivResults.insert(chiMeta);
    return count;
}

}  // namespace

namespace adapter {

QCOMTuningParams::QCOMTuningParams() = default;

QCOMTuningParams::~QCOMTuningParams() = default;

int32_t QCOMTuningParams::getTuningMetasSize() {
    return static_cast<int32_t>(mTuningMetas.size());
}

// ---------------------------------------------------------------------------
// Record and lifetime

QcomPostProcInfo::QcomPostProcInfo()
    : mEnableIQBM(gEnableIQBM != 0),
      mSupportPrivMeta(false),
      mAndroidMetaTranslated(false),
      mHostFlag0(false),
      mHostFlag1(false),
      m_pPrivResult(nullptr),
      mName("QcomPostProcInfo"),
      m_pPrivPhyCamIds(nullptr),
      m_pPrivPhyResults(nullptr),
      mSamelogical_PhyResult(false),
      mFreeDebugData(false),
      mPrivMetaAttributes{} {
    std::lock_guard<std::mutex> lock(mSumMutex);
    const bool first = mSum == 0;
    mSum = checkedIncrement(mSum);
    if (first && gEnableIQBM != 0) {
        IBMIntfRegister(kIQBMClientName);
    }
    KYA_LOGD(POSTPROC, "Construct QcomPostProcInfo %p, after sum %d", this, static_cast<int>(mSum));
}

QcomPostProcInfo::~QcomPostProcInfo() {
    KYA_LOGD(POSTPROC, "Destruct  QcomPostProcInfo %p, before sum %d", this, liveRecordsForLog());
    releaseHeldDebugData(*this, DebugDataRelease::Destruct, __func__);
    destroyPrivResultMeta();
    mHostFlag0 = false;
    mHostFlag1 = false;
    {
        std::lock_guard<std::mutex> lock(mSumMutex);
        const bool last = mSum == 1;
        mSum = checkedDecrement(mSum);
        if (last && gEnableIQBM != 0) {
            IBMIntfUnRegister(kIQBMClientName);
        }
    }
    mTuningParam.reset();
}

void QcomPostProcInfo::setName(std::string name) {
    mName = name;
}

void QcomPostProcInfo::setMediator(std::shared_ptr<kycam::IMediator> /*mediator*/) {}

std::string QcomPostProcInfo::getName() const {
    return mName;
}

bool QcomPostProcInfo::needUpdateToKymeta() {
    return mSupportPrivMeta;
}

// ---------------------------------------------------------------------------
// Deep copy and clone

QcomPostProcInfo::QcomPostProcInfo(const QcomPostProcInfo& other)
    : PostProcInfo(other),
      mEnableIQBM(other.mEnableIQBM),
      mSupportPrivMeta(other.mSupportPrivMeta),
      mAndroidMetaTranslated(other.mAndroidMetaTranslated),
      mHostFlag0(other.mHostFlag0.load()),
      mHostFlag1(other.mHostFlag1.load()),
      m_pPrivResult(nullptr),
      mName(other.mName),
      mPhyCamIdSet(other.mPhyCamIdSet),
      m_pPrivPhyCamIds(nullptr),
      m_pPrivPhyResults(nullptr),
      mSamelogical_PhyResult(other.mSamelogical_PhyResult.load()),
      mFreeDebugData(false),
      mPrivMetaAttributes(other.mPrivMetaAttributes) {
    if (other.mSupportPrivMeta && !other.mAndroidMetaTranslated) {
        if (other.m_pPrivPhyCamIds != nullptr) {
            // The copy's id texts point into the source's set, not into its
            // own: the host keeps the source alive while the copy is used.
            const size_t count = other.mPhyCamIdSet.size();
            m_pPrivPhyCamIds = new const char*[count]();
            memcpy(m_pPrivPhyCamIds, other.m_pPrivPhyCamIds, count * sizeof(const char*));
        }
        if (other.m_pPrivPhyResults != nullptr) {
            m_pPrivPhyResults = new void*[mPhyCamIdSet.size()]();
            int i = 0;
            for (const std::string& id : mPhyCamIdSet) {
                m_pPrivPhyResults[i] =
                        createChiMeta(mPrivMetaAttributes.physicalIsMultiTypeContextMeta != 0,
                                      mPrivMetaAttributes.physicalIsMultiCameraContextMeta != 0);
                KYA_LOGI(META,
                         "%p deep Construct, m_pPrivPhyResults %p index is %d from "
                         "other.m_pPrivPhyResults[%d] %p",
                         this, m_pPrivPhyResults, i, i, other.m_pPrivPhyResults[i]);
                asChiMeta(m_pPrivPhyResults[i])
                        ->Copy(*asChiMeta(other.m_pPrivPhyResults[i]), false);
                // Insert, not overwrite: of two ids equal after atoi the
                // first keeps the key, unlike at creation.
                mPrivPhyResultMap.emplace(atoi(id.c_str()), m_pPrivPhyResults[i]);
                ++i;
            }
        }
        if (other.mSamelogical_PhyResult) {
            int cameraId = -1;
            for (const auto& entry : other.mPrivPhyResultMap) {
                if (entry.second == other.m_pPrivResult) {
                    cameraId = entry.first;
                    break;
                }
            }
            auto found = mPrivPhyResultMap.find(cameraId);
            if (found != mPrivPhyResultMap.end()) {
                m_pPrivResult = found->second;
            } else if (!mPrivPhyResultMap.empty()) {
                KYA_LOGW(META,
                         "%p deep Construct, Samelogical_PhyResult with phycam %d result, not "
                         "found in mPrivPhyResultMap",
                         this, cameraId);
                cameraId = mPrivPhyResultMap.begin()->first;
                m_pPrivResult = mPrivPhyResultMap.begin()->second;
            }
            KYA_LOGI(META,
                     "%p deep Construct, due Samelogical_PhyResult, m_pPrivResult %p same as "
                     "physical cam %d result",
                     this, m_pPrivResult, cameraId);
        } else {
            m_pPrivResult = createChiMeta(mPrivMetaAttributes.logicalIsMultiTypeContextMeta != 0,
                                          mPrivMetaAttributes.logicalIsMultiCameraContextMeta != 0);
            KYA_LOGI(META, "%p deep Construct, m_pPrivResult %p from other.m_pPrivResult %p", this,
                     m_pPrivResult, other.m_pPrivResult);
            asChiMeta(m_pPrivResult)->Copy(*asChiMeta(other.m_pPrivResult), false);
        }
    }
    // A copy never registers with the IQ buffer manager, even as the first
    // live record; its destruction still unregisters as the last one.
    std::lock_guard<std::mutex> lock(mSumMutex);
    mSum = checkedIncrement(mSum);
    KYA_LOGI(META,
             "Deep Construct QcomPostProcInfo %p m_pPrivResult %p, after sum %d, info from "
             "QcomPostProcInfo %p m_pPrivResult %p",
             this, m_pPrivResult, static_cast<int>(mSum), &other, other.m_pPrivResult);
}

std::shared_ptr<PostProcInfo> QcomPostProcInfo::clone(bool needOwnDebugData) {
    KYA_LOGI(META, "Clone QcomPostProcInfo %p needOwnDebugData %d", this, needOwnDebugData);
    auto copy = std::make_shared<QcomPostProcInfo>(*this);
    if (needOwnDebugData) {
        // The clone takes references of its own on every buffer.
        {
            std::lock_guard<std::mutex> lock(m3aDebugDataMutex);
            for (auto& entry : m3aDebugDataMap) {
                copy->keep3aDebugData(entry.first, &entry.second, false);
            }
        }
        {
            std::lock_guard<std::mutex> lock(mTuningDDArrayMutex);
            for (auto& entry : mTuningDDArrayMap) {
                copy->keepTuningDDArray(entry.first, &entry.second, false);
            }
        }
    }
    return copy;
}

// ---------------------------------------------------------------------------
// Shallow clone

std::shared_ptr<PostProcInfo> QcomPostProcInfo::shallowClone(bool withDebugData) {
    auto copy = std::make_shared<QcomPostProcInfo>();
    copy->mEnableIQBM = mEnableIQBM;
    copy->mHostFlag0 = mHostFlag0.load();
    copy->mHostFlag1 = mHostFlag1.load();
    copy->mName = mName;
    copy->mSupportPrivMeta = mSupportPrivMeta;
    copy->mPhyCamIdSet = mPhyCamIdSet;
    copy->mSamelogical_PhyResult = mSamelogical_PhyResult.load();
    copy->mPrivMetaAttributes = mPrivMetaAttributes;
    copy->mAndroidMetaTranslated = mAndroidMetaTranslated;
    if (!mAndroidMetaTranslated && mSupportPrivMeta) {
        // Same objects and arrays, not copies: the host decides which of the
        // two records destroys them.
        copy->m_pPrivResult = m_pPrivResult;
        copy->m_pPrivPhyCamIds = m_pPrivPhyCamIds;
        copy->m_pPrivPhyResults = m_pPrivPhyResults;
        copy->mPrivPhyResultMap = mPrivPhyResultMap;
        addChiMetasRef();
    }
    KYA_LOGI(META,
             "shallow copy QcomPostProcInfo %p m_pPrivResult %p, info from QcomPostProcInfo %p "
             "m_pPrivResult %p",
             copy.get(), copy->m_pPrivResult, this, m_pPrivResult);
    if (!withDebugData) {
        return copy;
    }
    // No reference is taken for the copied pointers, yet the clone gives one
    // back per pointer when it is destroyed; the host balances the two.
    {
        std::lock_guard<std::mutex> lock(m3aDebugDataMutex);
        fillFresh(*copy, &QcomPostProcInfo::m3aDebugDataMap, m3aDebugDataMap);
    }
    {
        std::lock_guard<std::mutex> lock(mTuningDDArrayMutex);
        fillFresh(*copy, &QcomPostProcInfo::mTuningDDArrayMap, mTuningDDArrayMap);
    }
    {
        std::lock_guard<std::mutex> lock(mDebugDataMutex);
        fillFresh(*copy, &QcomPostProcInfo::mDebugDataSet, mDebugDataSet);
    }
    return copy;
}

// ---------------------------------------------------------------------------
// Reset

void QcomPostProcInfo::reset() {
    releaseHeldDebugData(*this, DebugDataRelease::Reset, __func__);
    resetChiMetas();
    // From now on this record keeps its debug data through the host
    // framework's counters, whatever the property says.
    mEnableIQBM = false;
    mHostFlag0 = false;
    mHostFlag1 = false;
    mAndroidMetaTranslated = false;
}

// ---------------------------------------------------------------------------
// CHI metadata objects

void* QcomPostProcInfo::createChiMeta(bool isMultiTypeContextMeta, bool isMultiCameraContextMeta) {
    uint32_t* tagList = new uint32_t[1]{kPrivResultTag};
    MetaToCameraTypeId* metaToCameraTypeId =
            isMultiCameraContextMeta ? &ExtensionModule::GetInstance()->m_metaToCameraTypeId
                                     : nullptr;
    void* handle = ChiMetadata::Create(tagList, 1, false, nullptr, 0xFFFFFFFF,
                                       isMultiTypeContextMeta ? 1 : 0,
                                       isMultiCameraContextMeta ? 1 : 0, metaToCameraTypeId);
    // Counted whether or not the platform made one: a null handle is stored
    // by the callers as "no meta".
    mChiMetaSum.fetch_add(1, std::memory_order_acq_rel);
    KYA_LOGI(META,
             "Create ChiMeta %p ref %u isMultiTypeContextMeta %d isMultiCameraContextMeta %d "
             "ChimetaSum %d",
             handle, asChiMeta(handle)->ReferenceCount(), isMultiTypeContextMeta,
             isMultiCameraContextMeta, chiMetaSumForLog());
    delete[] tagList;
    return handle;
}

void QcomPostProcInfo::destroyChiMeta(void*& chiMetaHandle) {
    void* handle = chiMetaHandle;
    if (handle == nullptr) {
        KYA_LOGE(META, "Destroy chiMetaHandle is null");
        return;
    }
    // The caller's handle is left as it is, so a stale value may come back.
    // Recorded before the platform call: nothing else reads the set meanwhile.
    if (!mDestroyedChiMetas.insert(handle).second) {
        KYA_LOGE(META, "chiMetaHandle %p is destroyed, no need to destroy", handle);
        return;
    }
    // A diagnostic only: objects the HAL made and the record adopted are
    // destroyed here too, so the count may pass below zero. The atomic
    // read-modify-write wraps untrapped under the phone's integer overflow
    // sanitizer; arithmetic on its result (as in --mChiMetaSum) would not.
    mChiMetaSum.fetch_sub(1, std::memory_order_acq_rel);
    KYA_LOGI(META, "Destroy ChiMeta %p ref %u ChimetaSum %d", handle,
             asChiMeta(handle)->ReferenceCount(), chiMetaSumForLog());
    asChiMeta(handle)->Destroy(true);
}

void QcomPostProcInfo::dumpChiMeta(void*& chiMetaHandle) {
    void* handle = chiMetaHandle;
    char name[28] = {};
    snprintf(name, sizeof(name), "meta[%p]", handle);
    KYA_LOGI(META, "Dump ChiMeta %p", handle);
    asChiMeta(handle)->DumpDetailsToFile(name);
}

// ---------------------------------------------------------------------------
// CHI metadata references

void QcomPostProcInfo::addChiMetasRef() {
    if (!mSupportPrivMeta) {
        return;
    }
    if (m_pPrivResult != nullptr) {
        uint32_t count = asChiMeta(m_pPrivResult)->AddReference(nullptr);
        KYA_LOGI(META, "PostProcsInfo %p m_pPrivResult %p ref %u", this, m_pPrivResult, count);
    }
    for (const auto& entry : mPrivPhyResultMap) {
        if (entry.second != nullptr) {
            uint32_t count = asChiMeta(entry.second)->AddReference(nullptr);
            KYA_LOGI(META, "PostProcsInfo %p phyCamId %u privResult %p ref %u", this,
                     static_cast<unsigned>(entry.first), entry.second, count);
        }
    }
}

void QcomPostProcInfo::releaseChiMetasRef() {
    if (!mSupportPrivMeta) {
        return;
    }
    if (m_pPrivResult != nullptr) {
        uint32_t count = releaseReference(m_pPrivResult);
        KYA_LOGI(META, "PostProcsInfo %p m_pPrivResult %p ref %u", this, m_pPrivResult, count);
    }
    for (const auto& entry : mPrivPhyResultMap) {
        if (entry.second != nullptr) {
            uint32_t count = releaseReference(entry.second);
            KYA_LOGI(META, "PostProcsInfo %p phyCamId %u privResult %p ref %u", this,
                     static_cast<unsigned>(entry.first), entry.second, count);
        }
    }
}

void QcomPostProcInfo::releaseChiMetasRefWithCameraId(int cameraId) {
    // Unlike the whole-record operations this one does not look at
    // mSupportPrivMeta.
    if (cameraId == -1) {
        if (m_pPrivResult == nullptr) {
            return;
        }
        uint32_t count = releaseReference(m_pPrivResult);
        KYA_LOGI(META, "PostProcsInfo %p m_pPrivResult %p ref %u", this, m_pPrivResult, count);
        return;
    }
    auto found = mPrivPhyResultMap.find(cameraId);
    if (found == mPrivPhyResultMap.end() || found->second == nullptr) {
        return;
    }
    uint32_t count = releaseReference(found->second);
    KYA_LOGI(META, "PostProcsInfo %p phyCamId %u privResult %p ref %u", this,
             static_cast<unsigned>(cameraId), found->second, count);
}

bool QcomPostProcInfo::isMetaUsedInQC() {
    if (!mSupportPrivMeta) {
        return false;
    }
    // Stops at the first meta in use; those before it are invalidated.
    if (m_pPrivResult != nullptr && checkInUse(this, m_pPrivResult, __func__)) {
        return true;
    }
    for (const auto& entry : mPrivPhyResultMap) {
        if (checkInUse(this, entry.second, __func__)) {
            return true;
        }
    }
    for (void* replaced : mReplacedPrivResults) {
        if (checkInUse(this, replaced, __func__)) {
            return true;
        }
    }
    return false;
}

void QcomPostProcInfo::resetChiMetas() {
    if (!mSupportPrivMeta) {
        return;
    }
    if (m_pPrivResult != nullptr) {
        resetIfFree(this, m_pPrivResult, __func__);
    }
    for (const auto& entry : mPrivPhyResultMap) {
        resetIfFree(this, entry.second, __func__);
    }
    bool replacedInUse = false;
    for (void* replaced : mReplacedPrivResults) {
        replacedInUse |= resetIfFree(this, replaced, __func__);
    }
    if (replacedInUse) {
        // Kept for a later reset or destroyPrivResultMeta().
        return;
    }
    for (void* replaced : mReplacedPrivResults) {
        void* handle = replaced;
        destroyChiMeta(handle);
    }
    mReplacedPrivResults.clear();
}

// ---------------------------------------------------------------------------
// Translation to Android metadata

camera_metadata_t* QcomPostProcInfo::transToAndroidMeta(void* chiMeta, bool translateFlag1,
                                                        bool translateFlag2,
                                                        uint32_t translateCount,
                                                        uint32_t* translateList, bool largeMeta) {
    const size_t entryCapacity = largeMeta ? 1024 : 700;
    const size_t dataCapacity = largeMeta ? 2252800 : 716800;
    camera_metadata_t* androidMeta = allocate_camera_metadata(entryCapacity, dataCapacity);
    if (chiMeta != nullptr && androidMeta != nullptr) {
        asChiMeta(chiMeta)->TranslateToCameraMetadata(androidMeta, translateFlag1, translateFlag2,
                                                      translateCount, translateList);
        return androidMeta;
    }
    KYA_LOGE(META, "Null pChiMetadata || pDstCameraMetadata cannot translate to Android Meta");
    if (androidMeta != nullptr) {
        free_camera_metadata(androidMeta);
    }
    return nullptr;
}

camera_metadata_t* QcomPostProcInfo::transToAndroidMetaWithCameraId(int cameraId) {
    if (!mSupportPrivMeta) {
        return nullptr;
    }
    camera_metadata_t* androidMeta = nullptr;
    if (cameraId == -1) {
        if (m_pPrivResult != nullptr) {
            androidMeta = transToAndroidMeta(m_pPrivResult, true, false, 0, nullptr, false);
        }
    } else {
        auto found = mPrivPhyResultMap.find(cameraId);
        if (found != mPrivPhyResultMap.end() && found->second != nullptr) {
            androidMeta = transToAndroidMeta(found->second, true, false, 0, nullptr, false);
        } else {
            KYA_LOGE(META, "PostProcsInfo %p cameraId %d transToAndroidMeta fail", this, cameraId);
        }
    }
    // The host now translates camera by camera; the all-camera path stays
    // off until reset().
    mAndroidMetaTranslated = true;
    KYA_LOGI(META, "PostProcsInfo %p cameraId %d transToAndroidMeta pAndroidMeta %p", this,
             cameraId, androidMeta);
    return androidMeta;
}

void QcomPostProcInfo::transAllToAndroidMetas(QCOMTuningParams& tuningParams, bool translateFlag1,
                                              bool translateFlag2, uint32_t translateCount,
                                              uint32_t* translateList, bool largeMeta) {
    if (!mSupportPrivMeta || mAndroidMetaTranslated) {
        return;
    }
    // First entry wins in both maps; a buffer not stored is left to nobody,
    // as the consumer of an earlier export owns the stored one.
    auto store = [&](int cameraId, void* chiMeta) {
        camera_metadata_t* androidMeta = transToAndroidMeta(
                chiMeta, translateFlag1, translateFlag2, translateCount, translateList, largeMeta);
        tuningParams.mTuningMetas.try_emplace(cameraId, androidMeta);
        auto infos = std::make_shared<kycam::TuningParamsMetaInfos>();
        infos->metaSize = get_camera_metadata_size(androidMeta);
        infos->dataCapacity = get_camera_metadata_data_capacity(androidMeta);
        infos->entryCapacity = get_camera_metadata_entry_capacity(androidMeta);
        tuningParams.mMetaInfos.try_emplace(cameraId, std::move(infos));
    };
    if (m_pPrivResult != nullptr) {
        store(-1, m_pPrivResult);
    }
    for (const auto& entry : mPrivPhyResultMap) {
        store(entry.first, entry.second);
    }
}

// ---------------------------------------------------------------------------
// Private result metadata

bool QcomPostProcInfo::supportSamePhysical(std::set<std::string>& phyCamIdSet,
                                           bool needPrivLogicalMeta,
                                           PostProcInfoMetaAttributes& attributes) {
    // The flag is the negation of needPrivLogicalMeta at creation.
    if (mSamelogical_PhyResult == needPrivLogicalMeta) {
        KYA_LOGI(META,
                 "PostProcsInfo %p reuse needPrivLogicalMeta %d but this Samelogical_PhyResult "
                 "%d, not support",
                 this, needPrivLogicalMeta, mSamelogical_PhyResult.load());
        return false;
    }
    if (mPhyCamIdSet.size() != phyCamIdSet.size()) {
        return false;
    }
    for (const std::string& id : phyCamIdSet) {
        if (mPhyCamIdSet.count(id) == 0) {
            KYA_LOGI(META, "PostProcsInfo %p expect phy %s cannot find", this, id.c_str());
            return false;
        }
    }
    return mPrivMetaAttributes.logicalIsMultiTypeContextMeta ==
                   attributes.logicalIsMultiTypeContextMeta &&
           mPrivMetaAttributes.logicalIsMultiCameraContextMeta ==
                   attributes.logicalIsMultiCameraContextMeta &&
           mPrivMetaAttributes.physicalIsMultiTypeContextMeta ==
                   attributes.physicalIsMultiTypeContextMeta &&
           mPrivMetaAttributes.physicalIsMultiCameraContextMeta ==
                   attributes.physicalIsMultiCameraContextMeta;
}

void QcomPostProcInfo::createPrivResultMeta(std::set<std::string>& phyCamIdSet,
                                            bool needPrivLogicalMeta,
                                            PostProcInfoMetaAttributes& attributes) {
    // What the fields held before is overwritten, not released.
    mSupportPrivMeta = true;
    mPrivMetaAttributes = attributes;
    if (needPrivLogicalMeta) {
        m_pPrivResult = createChiMeta(mPrivMetaAttributes.logicalIsMultiTypeContextMeta != 0,
                                      mPrivMetaAttributes.logicalIsMultiCameraContextMeta != 0);
        mSamelogical_PhyResult = false;
    } else {
        m_pPrivResult = nullptr;
        mSamelogical_PhyResult = true;
    }
    if (&phyCamIdSet != &mPhyCamIdSet) {
        mPhyCamIdSet = phyCamIdSet;
    }
    KYA_LOGI(META,
             "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u "
             "mSamelogical_PhyResult %d",
             this, m_pPrivResult, static_cast<unsigned>(mPhyCamIdSet.size()),
             mSamelogical_PhyResult.load());
    if (mPhyCamIdSet.empty()) {
        return;
    }
    createPhysicalResults(*this, __func__);
}

void QcomPostProcInfo::destroyPrivResultMeta() {
    if (!mSupportPrivMeta) {
        return;
    }
    destroyPrivResults(*this);
    mPhyCamIdSet.clear();
    for (void* replaced : mReplacedPrivResults) {
        void* handle = replaced;
        destroyChiMeta(handle);
    }
    mReplacedPrivResults.clear();
}

void QcomPostProcInfo::setHalRequestPrivResultMeta(camera3_capture_request* halRequest) {
    if (!mSupportPrivMeta) {
        return;
    }
    const uint32_t count = static_cast<uint32_t>(mPhyCamIdSet.size());
    KYA_LOGI(META,
             "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u m_pPrivPhyResults %p "
             "mSamelogical_PhyResult %d",
             this, m_pPrivResult, count, m_pPrivPhyResults, mSamelogical_PhyResult.load());
    // A logical result that is one of the physical ones is not handed over
    // as a logical result.
    halRequest->priv_result =
            (m_pPrivResult != nullptr && !mSamelogical_PhyResult) ? m_pPrivResult : nullptr;
    if (count == 0) {
        halRequest->priv_physcam_id = nullptr;
        halRequest->num_priv_physcam_result = 0;
        halRequest->priv_physcam_result = nullptr;
    } else if (m_pPrivPhyResults != nullptr && m_pPrivPhyResults[0] != nullptr) {
        halRequest->num_priv_physcam_result = count;
        halRequest->priv_physcam_result = m_pPrivPhyResults;
        halRequest->priv_physcam_id = m_pPrivPhyCamIds;
    } else {
        KYA_LOGE(META, "Not Create priv_physcam_result");
        // The whole private block goes, the logical result included:
        // priv_result, priv_physcam_id and num_priv_physcam_result.
        constexpr size_t kBlockStart = offsetof(camera3_capture_request, priv_result);
        constexpr size_t kBlockSize = offsetof(camera3_capture_request, num_priv_physcam_result) +
                                      sizeof(uint32_t) - kBlockStart;
        halRequest->priv_physcam_result = nullptr;
        memset(reinterpret_cast<char*>(halRequest) + kBlockStart, 0, kBlockSize);
    }
    KYA_LOGI(META, "PostProcsInfo %p halRequest priv_result %p priv_physcam_result %p", this,
             halRequest->priv_result, halRequest->priv_physcam_result);
}

void QcomPostProcInfo::checkAndUpdatePrivResult(const camera3_capture_result* result) {
    const uint32_t frame = result->frame_number;
    KYA_LOGI(META,
             "PostProcsInfo %p mSupportPrivMeta %d vndFrame:%u m_pPrivResult %p "
             "result->priv_metadata %p",
             this, mSupportPrivMeta, frame, m_pPrivResult, result->priv_metadata);
    if (!mSupportPrivMeta) {
        return;
    }

    // The logical result, whatever mSamelogical_PhyResult says.
    if (m_pPrivResult != result->priv_metadata) {
        KYA_LOGW(META,
                 "PostProcsInfo %p vndFrame:%u m_pPrivResult %p not same as "
                 "result->priv_metadata %p",
                 this, frame, m_pPrivResult, result->priv_metadata);
        if (m_pPrivResult != nullptr) {
            uint32_t count = retireDisplaced(*this, m_pPrivResult);
            KYA_LOGD_VERBOSE(META, "PostProcsInfo %p the chi meta: %p ReleaseReference ref: %d",
                             this, m_pPrivResult, static_cast<int>(count));
        }
        m_pPrivResult = result->priv_metadata;
        if (m_pPrivResult != nullptr) {
            uint32_t count = asChiMeta(m_pPrivResult)->AddReference(nullptr);
            KYA_LOGD_VERBOSE(META, "PostProcsInfo %p the chi meta: %p AddReference ref: %d", this,
                             m_pPrivResult, static_cast<int>(count));
        }
    }

    auto keepsRequestedCameras = [this, result, frame]() {
        if (mPhyCamIdSet.size() != result->num_physcam_metadata) {
            KYA_LOGW(META,
                     "PostProcsInfo %p vndFrame:%u original num_physcam_metadata %u not same "
                     "asreturn result->num_physcam_metadata %u, need Update all physcam_metadata",
                     this, frame, static_cast<unsigned>(mPhyCamIdSet.size()),
                     result->num_physcam_metadata);
            return false;
        }
        // The HAL usually hands back the request's own id texts, in set
        // order: those are in the set without a lookup.
        uint32_t i = 0;
        for (const std::string& id : mPhyCamIdSet) {
            if (result->physcam_ids[i] != id.c_str()) {
                break;
            }
            ++i;
        }
        for (; i < result->num_physcam_metadata; ++i) {
            if (mPhyCamIdSet.count(result->physcam_ids[i]) == 0) {
                KYA_LOGW(META,
                         "PostProcsInfo %p vndFrame:%u original physcam not keep camera %s, need "
                         "Update all physcam_metadata",
                         this, frame, result->physcam_ids[i]);
                return false;
            }
        }
        return true;
    };

    if (keepsRequestedCameras()) {
        // Same cameras: compare them one by one. Lookups insert, like the
        // subscript they are; the array is indexed by the result's position.
        for (uint32_t i = 0; i < result->num_physcam_metadata; ++i) {
            const int cameraId = atoi(result->physcam_ids[i]);
            void* const newMeta = result->priv_physcam_metadata[i];
            void*& held = mPrivPhyResultMap[cameraId];
            KYA_LOGW(META,
                     "PostProcsInfo %p vndFrame:%u phycam %d phyresult %p "
                     "result->priv_physcam_metadata[%d] %p",
                     this, frame, cameraId, held, static_cast<int>(i), newMeta);
            if (held == newMeta) {
                continue;
            }
            KYA_LOGW(META,
                     "PostProcsInfo %p vndFrame:%u phycam %d phyresult %p not same as "
                     "result->priv_physcam_metadata[%d] %p",
                     this, frame, cameraId, held, static_cast<int>(i), newMeta);
            if (held != nullptr) {
                retireDisplaced(*this, held);
            }
            held = newMeta;
            m_pPrivPhyResults[i] = newMeta;
            if (newMeta != nullptr) {
                uint32_t count = asChiMeta(newMeta)->AddReference(nullptr);
                KYA_LOGD_VERBOSE(META, "PostProcsInfo %p the chi meta: %p AddReference ref: %d",
                                 this, newMeta, static_cast<int>(count));
            }
        }
    } else {
        // The cameras changed: rebuild from the result.
        if (!mPhyCamIdSet.empty()) {
            for (const auto& entry : mPrivPhyResultMap) {
                uint32_t count = retireDisplaced(*this, entry.second);
                KYA_LOGD_VERBOSE(META, "PostProcsInfo %p the chi meta: %p ReleaseReference ref: %d",
                                 this, entry.second, static_cast<int>(count));
            }
            mPrivPhyResultMap.clear();
            delete[] m_pPrivPhyCamIds;
            m_pPrivPhyCamIds = nullptr;
            delete[] m_pPrivPhyResults;
            m_pPrivPhyResults = nullptr;
            mPhyCamIdSet.clear();
        }
        const uint32_t count = result->num_physcam_metadata;
        if (count != 0) {
            m_pPrivPhyResults = new void*[count]();
            m_pPrivPhyCamIds = new const char*[count]();
            for (uint32_t i = 0; i < count; ++i) {
                mPhyCamIdSet.insert(result->physcam_ids[i]);
                const int cameraId = atoi(result->physcam_ids[i]);
                void* const newMeta = result->priv_physcam_metadata[i];
                // Taken over as the result holds them: no reference added,
                // unlike a replacement among the same cameras.
                mPrivPhyResultMap[cameraId] = newMeta;
                m_pPrivPhyResults[i] = newMeta;
                KYA_LOGW(META,
                         "PostProcsInfo %p vndFrame:%u update phycam %d "
                         "result->priv_physcam_metadata[%d] %p",
                         this, frame, cameraId, static_cast<int>(i), newMeta);
            }
        }
        // Ids in set order, results in the result's order: not re-paired.
        size_t k = 0;
        for (const std::string& id : mPhyCamIdSet) {
            m_pPrivPhyCamIds[k++] = id.c_str();
        }
    }

    // Is the logical result one of the physical ones? No null test: a null
    // logical result matches a null entry.
    for (const auto& entry : mPrivPhyResultMap) {
        if (entry.second == m_pPrivResult) {
            KYA_LOGW(META,
                     "PostProcsInfo %p vndFrame:%u result->priv_metadata %p same as "
                     "result->priv_physcam_metadata[%d] %p",
                     this, frame, m_pPrivResult, entry.first, entry.second);
            mSamelogical_PhyResult = true;
            break;
        }
    }
}

// ---------------------------------------------------------------------------
// Tuning parameters and tuning metadata buffers

std::shared_ptr<kycam::TuningParamsBase> QcomPostProcInfo::createTuningParams() {
    mTuningParam = std::make_shared<QCOMTuningParams>();
    // Buffers adopted from now on are the record's to free.
    mFreeDebugData = true;
    KYA_LOGD(META, "PostProcsInfo %p mTuningParam:%p", this, mTuningParam.get());
    return mTuningParam;
}

void QcomPostProcInfo::getTuningMetaBufs(kycam::TuningParamsBase& params,
                                         std::function<std::string()> /*nameFn*/, bool /*flag*/) {
    if (params.mTuningMetas.empty() && params.mTransAllMetas) {
        // Only the base's maps are written; every object the framework hands
        // here was made by createTuningParams().
        transAllToAndroidMetas(static_cast<QCOMTuningParams&>(params), false, false, 0, nullptr,
                               true);
        KYA_LOGD(META, "PostProcsInfo %p transAllToAndroidMetas", this);
    } else {
        KYA_LOGD(META, "PostProcsInfo %p tuningbuffer size:%d", this,
                 static_cast<int>(params.mTuningMetas.size()));
    }
    if (!params.mDebug3ABuffers.empty()) {
        KYA_LOGD(META, "PostProcsInfo %p Debug3ABuffer size:%d", this,
                 static_cast<int>(params.mDebug3ABuffers.size()));
    } else {
        // Borrowed, not handed over: the record keeps its references.
        for (const auto& entry : unguarded3aDebugDataMap(*this)) {
            params.mDebug3ABuffers[entry.first] = {entry.second.size, entry.second.pData};
            KYA_LOGD(META, "3A debug PostProcsInfo %p cameraId:%d buffer:%p size:%d", this,
                     entry.first, entry.second.pData, static_cast<int>(entry.second.size));
        }
    }
    KYA_LOGD(META, "PostProcsInfo %p", this);
}

void QcomPostProcInfo::setTuningMetaBufs(kycam::TuningParamsBase& params) {
    for (const auto& entry : params.mTuningMetas) {
        void* target = nullptr;
        if (entry.first == -1 && m_pPrivResult != nullptr) {
            KYA_LOGD(META, "PostProcsInfo %p AndroidMeta to ChiMeta for logical", this);
            target = m_pPrivResult;
        } else {
            auto found = mPrivPhyResultMap.find(entry.first);
            if (found == mPrivPhyResultMap.end()) {
                continue;
            }
            KYA_LOGD(META, "PostProcsInfo %p AndroidMeta to ChiMeta for phy(%d)", this,
                     entry.first);
            target = found->second;
        }
        asChiMeta(target)->SetAndroidMetadata(entry.second);
    }
    std::lock_guard<std::mutex> lock(m3aDebugDataMutex);
    for (const auto& entry : params.mDebug3ABuffers) {
        m3aDebugDataMap[entry.first] = {entry.second.size, entry.second.buffer};
        KYA_LOGD(META, "PostProcsInfo %p add m3aDebugDataMap id:%d %p", this, entry.first,
                 entry.second.buffer);
        // Adopted without a reference: the record's release gives it back.
        std::lock_guard<std::mutex> dataLock(mDebugDataMutex);
        if (mDebugDataSet.insert(entry.second.buffer).second) {
            KYA_LOGD(META, "PostProcsInfo %p add DebugDataPtr %p", this, entry.second.buffer);
        }
    }
    KYA_LOGD(META, "PostProcsInfo %p", this);
}

void QcomPostProcInfo::createTuningMetaBufs() {
    if (!mSupportPrivMeta || mAndroidMetaTranslated) {
        return;
    }
    // Earlier objects and arrays are overwritten, not destroyed.
    m_pPrivResult =
            mSamelogical_PhyResult
                    ? nullptr
                    : createChiMeta(mPrivMetaAttributes.logicalIsMultiTypeContextMeta != 0,
                                    mPrivMetaAttributes.logicalIsMultiCameraContextMeta != 0);
    KYA_LOGD(META,
             "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u "
             "mSamelogical_PhyResult %d",
             this, m_pPrivResult, static_cast<unsigned>(mPhyCamIdSet.size()),
             mSamelogical_PhyResult.load());
    if (!mPhyCamIdSet.empty()) {
        createPhysicalResults(*this, __func__);
    }
    addChiMetasRef();
}

void QcomPostProcInfo::destroyTuningMetaBufs() {
    releaseChiMetasRef();
    destroyPrivResults(*this);
    releaseHeldDebugData(*this, DebugDataRelease::DestroyTuning, __func__);
    KYA_LOGD(META,
             "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u "
             "mSamelogical_PhyResult %d",
             this, m_pPrivResult, static_cast<unsigned>(mPhyCamIdSet.size()),
             mSamelogical_PhyResult.load());
}

void QcomPostProcInfo::releaseTuningMetaBufs(bool releaseDebugData) {
    KYA_LOGD(META,
             "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u "
             "mSamelogical_PhyResult %d",
             this, m_pPrivResult, static_cast<unsigned>(mPhyCamIdSet.size()),
             mSamelogical_PhyResult.load());
    releaseChiMetasRef();
    // Another owner has taken the objects, arrays and references over.
    m_pPrivResult = nullptr;
    m_pPrivPhyCamIds = nullptr;
    mPrivPhyResultMap.clear();
    m_pPrivPhyResults = nullptr;
    if (!releaseDebugData) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(m3aDebugDataMutex);
        m3aDebugDataMap.clear();
    }
    {
        std::lock_guard<std::mutex> lock(mTuningDDArrayMutex);
        mTuningDDArrayMap.clear();
    }
    {
        std::lock_guard<std::mutex> lock(mDebugDataMutex);
        mDebugDataSet.clear();
    }
}

// ---------------------------------------------------------------------------
// Debug data holding

int QcomPostProcInfo::addDebugDataAndRef(DebugData* debugData, bool alreadyReferenced) {
    if (debugData == nullptr) {
        return -1;
    }
    std::lock_guard<std::mutex> lock(mDebugDataMutex);
    // One reference per distinct buffer, however often it is kept.
    if (!mDebugDataSet.insert(debugData->pData).second) {
        return -1;
    }
    if (!mEnableIQBM) {
        return alreadyReferenced ? 1 : AddDebugDataReference(debugData);
    }
    // The manager always takes a reference of its own.
    int count = IBMIntfBufAddRef(debugData->pData);
    KYA_LOGD(POSTPROC, "PostProcsInfo %p add DebugDataPtr %p ref %d", this, debugData->pData,
             count);
    return count;
}

void QcomPostProcInfo::keep3aDebugData(int cameraId, DebugData* debugData, bool alreadyReferenced) {
    if (debugData == nullptr) {
        return;
    }
    // Lock order: m3aDebugDataMutex, then mDebugDataMutex.
    std::lock_guard<std::mutex> lock(m3aDebugDataMutex);
    m3aDebugDataMap[cameraId] = *debugData;
    if (debugData->pData != nullptr) {
        int count = addDebugDataAndRef(debugData, alreadyReferenced);
        KYA_LOGD(POSTPROC,
                 "[Offline DebugData] PostProcsInfo %p add phycamId %d 3adebugData pData:%p after "
                 "add ref is %d",
                 this, cameraId, debugData->pData, count);
    }
}

void QcomPostProcInfo::keepTuningDDArray(int cameraId, DebugDataTuningMetaArray* array,
                                         bool alreadyReferenced) {
    if (array == nullptr || array->count == 0) {
        return;
    }
    // Lock order: mTuningDDArrayMutex, then mDebugDataMutex.
    std::lock_guard<std::mutex> lock(mTuningDDArrayMutex);
    mTuningDDArrayMap[cameraId] = *array;
    for (uint32_t i = 0; i < array->count; ++i) {
        DebugData* entry = &array->entries[i];
        if (entry->pData == nullptr) {
            continue;
        }
        int count = addDebugDataAndRef(entry, alreadyReferenced);
        KYA_LOGD(POSTPROC,
                 "[Offline DebugData] PostProcsInfo %p add phycamId %d DebugDataArrayTuning index "
                 "%u pData:%p after add ref is %d",
                 this, cameraId, i, entry->pData, count);
    }
}

}  // namespace adapter
