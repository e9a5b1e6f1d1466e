// SPDX-License-Identifier: Apache-2.0
// Qualcomm CHI extension module, the part this library uses.
#pragma once

#include <stdint.h>

// Camera type of each metadata camera id, for multi-camera context metas.
struct MetaToCameraTypeId {
    uint32_t numEntries;
    uint32_t cameraTypeId[16];
};

class ExtensionModule {
  public:
    static ExtensionModule* GetInstance();

    MetaToCameraTypeId m_metaToCameraTypeId;
};
