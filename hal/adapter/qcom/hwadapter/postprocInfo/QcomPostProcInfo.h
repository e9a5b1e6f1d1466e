// SPDX-License-Identifier: Apache-2.0
// Post-processing info record of the Qualcomm CHI adapter: one per
// post-processed capture request. It holds the request's private result
// metadata, keeps the frame's debug data alive by reference and exchanges
// tuning metadata with post-processing algorithms.
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include <PostProcInfo.h>
#include <adapter/DebugData.h>
#include <adapter/PostProcInfoMetaAttributes.h>
#include <android-base/thread_annotations.h>
#include <hardware/camera3.h>
#include <kycam/IMediator.h>
#include <kycam/TuningParamsBase.h>
#include <system/camera_metadata.h>

#ifndef __clang__
// The lock table's annotations are clang's thread-safety attributes; GCC has
// no such analysis and would reject their arguments, so under GCC libbase's
// macros expand to nothing.
#undef THREAD_ANNOTATION_ATTRIBUTE__
#define THREAD_ANNOTATION_ATTRIBUTE__(x)
#endif

#define QCOM_POSTPROC_EXPORT __attribute__((visibility("default")))

namespace adapter {

// Tuning parameters made by this adapter; the base class carries everything.
class QCOMTuningParams : public kycam::TuningParamsBase {
  public:
    QCOMTuningParams();
    ~QCOMTuningParams() override;
    int32_t getTuningMetasSize() override;
};

class QCOM_POSTPROC_EXPORT QcomPostProcInfo : public PostProcInfo {
  public:
    QcomPostProcInfo();
    // "Deep Construct": private results become new CHI metadata objects with
    // the source's contents; debug data is not copied.
    QcomPostProcInfo(const QcomPostProcInfo& other);
    QcomPostProcInfo& operator=(const QcomPostProcInfo&) = delete;
    ~QcomPostProcInfo() override;

    // PostProcInfo, in slot order.
    void setName(std::string name) override;
    void setMediator(std::shared_ptr<kycam::IMediator> mediator) override;
    std::string getName() const override;
    std::shared_ptr<PostProcInfo> clone(bool needOwnDebugData) override
            EXCLUDES(m3aDebugDataMutex, mTuningDDArrayMutex);
    std::shared_ptr<PostProcInfo> shallowClone(bool withDebugData) override
            EXCLUDES(m3aDebugDataMutex, mTuningDDArrayMutex, mDebugDataMutex);
    bool needUpdateToKymeta() override;
    std::shared_ptr<kycam::TuningParamsBase> createTuningParams() override;
    void getTuningMetaBufs(kycam::TuningParamsBase& params, std::function<std::string()> nameFn,
                           bool flag) override;
    void setTuningMetaBufs(kycam::TuningParamsBase& params) override
            EXCLUDES(m3aDebugDataMutex, mDebugDataMutex);
    void destroyTuningMetaBufs() override
            EXCLUDES(m3aDebugDataMutex, mTuningDDArrayMutex, mDebugDataMutex);
    void releaseTuningMetaBufs(bool releaseDebugData) override
            EXCLUDES(m3aDebugDataMutex, mTuningDDArrayMutex, mDebugDataMutex);
    void createTuningMetaBufs() override;

    // CHI metadata objects.
    void* createChiMeta(bool isMultiTypeContextMeta, bool isMultiCameraContextMeta);
    void destroyChiMeta(void*& chiMetaHandle);
    void dumpChiMeta(void*& chiMetaHandle);

    // References on the CHI metadata objects the record holds.
    void addChiMetasRef();
    void releaseChiMetasRef();
    void releaseChiMetasRefWithCameraId(int cameraId);
    bool isMetaUsedInQC();
    void resetChiMetas();

    // Translation to Android camera metadata; buffers returned belong to the
    // caller.
    camera_metadata_t* transToAndroidMeta(void* chiMeta, bool translateFlag1, bool translateFlag2,
                                          uint32_t translateCount, uint32_t* translateList,
                                          bool largeMeta);
    camera_metadata_t* transToAndroidMetaWithCameraId(int cameraId);
    void transAllToAndroidMetas(QCOMTuningParams& tuningParams, bool translateFlag1,
                                bool translateFlag2, uint32_t translateCount,
                                uint32_t* translateList, bool largeMeta);

    // Private result metadata of the request.
    bool supportSamePhysical(std::set<std::string>& phyCamIdSet, bool needPrivLogicalMeta,
                             PostProcInfoMetaAttributes& attributes);
    void createPrivResultMeta(std::set<std::string>& phyCamIdSet, bool needPrivLogicalMeta,
                              PostProcInfoMetaAttributes& attributes);
    void destroyPrivResultMeta();
    void setHalRequestPrivResultMeta(camera3_capture_request* halRequest);
    void checkAndUpdatePrivResult(const camera3_capture_result* result);

    // Debug data kept alive by reference; these three may run on several
    // threads at once.
    void keep3aDebugData(int cameraId, DebugData* debugData, bool alreadyReferenced)
            EXCLUDES(m3aDebugDataMutex, mDebugDataMutex);
    void keepTuningDDArray(int cameraId, DebugDataTuningMetaArray* array, bool alreadyReferenced)
            EXCLUDES(mTuningDDArrayMutex, mDebugDataMutex);
    int addDebugDataAndRef(DebugData* debugData, bool alreadyReferenced) EXCLUDES(mDebugDataMutex);

    // Lets go of debug data and readies the CHI metadata for another request.
    void reset() EXCLUDES(m3aDebugDataMutex, mTuningDDArrayMutex, mDebugDataMutex);

    static uint64_t mSum GUARDED_BY(mSumMutex);  // live records
    static std::mutex mSumMutex;
    static std::atomic<uint64_t> mChiMetaSum;  // live CHI metadata objects

    bool mEnableIQBM;
    bool mSupportPrivMeta;
    bool mAndroidMetaTranslated;
    std::atomic<bool> mHostFlag0;
    std::atomic<bool> mHostFlag1;
    void* m_pPrivResult;
    std::map<int, void*> mPrivPhyResultMap;
    std::string mName;
    std::set<std::string> mPhyCamIdSet;
    const char** m_pPrivPhyCamIds;
    void** m_pPrivPhyResults;
    std::set<void*> mReplacedPrivResults;
    std::set<void*> mDestroyedChiMetas;
    std::atomic<bool> mSamelogical_PhyResult;
    std::mutex m3aDebugDataMutex;
    std::map<int, DebugData> m3aDebugDataMap GUARDED_BY(m3aDebugDataMutex);
    std::mutex mTuningDDArrayMutex;
    std::map<int, DebugDataTuningMetaArray> mTuningDDArrayMap GUARDED_BY(mTuningDDArrayMutex);
    // Taken inside either map's mutex when a kept buffer joins the set.
    std::mutex mDebugDataMutex ACQUIRED_AFTER(m3aDebugDataMutex, mTuningDDArrayMutex);
    std::set<void*> mDebugDataSet GUARDED_BY(mDebugDataMutex);
    bool mFreeDebugData;
    std::shared_ptr<QCOMTuningParams> mTuningParam;
    PostProcInfoMetaAttributes mPrivMetaAttributes;
};

}  // namespace adapter
