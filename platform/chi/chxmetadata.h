// SPDX-License-Identifier: Apache-2.0
// Qualcomm CHI metadata object, the members this library calls. The object's
// layout is the platform's; callers only hold pointers to it.
#pragma once

#include <stdint.h>

#include <system/camera_metadata.h>

typedef int32_t CDKResult;

class ChiMetadataManager;
struct MetaToCameraTypeId;

class ChiMetadata {
  public:
    // A new object that the caller owns until Destroy, or null.
    static ChiMetadata* Create(const uint32_t* tagList, uint32_t tagCount, bool isPartial,
                               ChiMetadataManager* manager, uint32_t clientId,
                               int isMultiTypeContextMeta, int isMultiCameraContextMeta,
                               MetaToCameraTypeId* metaToCameraTypeId);

    CDKResult Destroy(bool force);
    uint32_t ReferenceCount();
    // Both return the count after the change.
    uint32_t AddReference(const char* clientName);
    uint32_t ReleaseReference(const char* clientName);
    void Invalidate();
    CDKResult Copy(ChiMetadata& source, bool disjoint);
    CDKResult SetAndroidMetadata(const camera_metadata_t* metadata);
    CDKResult TranslateToCameraMetadata(camera_metadata_t* dst, bool frameworkTagsOnly,
                                        bool filterProperties, uint32_t numTags, uint32_t* tagList);
    CDKResult DumpDetailsToFile(const char* name);

  private:
    ChiMetadata() = delete;
    ChiMetadata(const ChiMetadata&) = delete;
    ChiMetadata& operator=(const ChiMetadata&) = delete;
};
