// SPDX-License-Identifier: Apache-2.0
// Tuning parameters exchanged between a post-processing info record and the
// post-processing algorithms. The maps own their nodes only: neither the
// camera metadata nor the debug buffers are freed with the object.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <map>
#include <memory>

#include <system/camera_metadata.h>

namespace kycam {

enum class TuningMetasTpye : int32_t {
    TUNING_META_LOGICAL = 0,
    TUNING_META_PHYSICAL = 1,
    TUNING_META_DEBUG_3A = 2,
};

struct TuningParamsDebugData {
    uint64_t size;
    void* buffer;
};

struct TuningParamsMetaInfos {
    size_t metaSize;       // get_camera_metadata_size
    size_t dataCapacity;   // get_camera_metadata_data_capacity
    size_t entryCapacity;  // get_camera_metadata_entry_capacity
};

class TuningParamsBase {
  public:
    TuningParamsBase();
    virtual ~TuningParamsBase();
    // Number of entries of mTuningMetas.
    virtual int32_t getTuningMetasSize();

    int32_t mCameraId;
    uint64_t mFrameNumber;
    uint64_t mTimestamp;
    uint64_t mSessionId;
    int64_t mReserved;
    std::map<TuningMetasTpye, unsigned long> mTuningMetaBufSizes;
    std::map<int, camera_metadata_t*> mTuningMetas;  // -1 is the logical camera
    std::map<int, std::shared_ptr<TuningParamsMetaInfos>> mMetaInfos;
    std::map<int, TuningParamsDebugData> mDebug3ABuffers;
    bool mTransAllMetas;
};

}  // namespace kycam
