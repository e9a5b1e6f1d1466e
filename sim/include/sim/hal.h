// SPDX-License-Identifier: Apache-2.0
// The HAL's side of a request in the simulation: objects it makes itself,
// the references it holds on what a request hands it to fill, and the
// capture result it returns.
#pragma once

#include <chi/chxmetadata.h>
#include <hardware/camera3.h>

#include <string>
#include <utility>
#include <vector>

namespace sim {
namespace hal {

// A CHI metadata object the HAL made itself, not through a record; with the
// HAL's reference on it when referenced.
inline void* newMeta(bool referenced = false) {
    void* meta = ChiMetadata::Create(nullptr, 0, false, nullptr, 0, 0, 0, nullptr);
    if (referenced) {
        static_cast<ChiMetadata*>(meta)->AddReference(nullptr);
    }
    return meta;
}

// The HAL holds a reference on every object a request hands it to fill.
inline void reference(const camera3_capture_request& request) {
    std::vector<void*> handed = {request.priv_result};
    if (request.priv_physcam_result != nullptr) {
        handed.insert(handed.end(), request.priv_physcam_result,
                      request.priv_physcam_result + request.num_priv_physcam_result);
    }
    for (void* meta : handed) {
        if (meta != nullptr) {
            static_cast<ChiMetadata*>(meta)->AddReference(nullptr);
        }
    }
}

// A capture result whose id texts and arrays live as long as it does.
struct Result {
    std::vector<std::string> idTexts;
    std::vector<const char*> ids;
    std::vector<void*> metas;
    camera3_capture_result result = {};

    Result(uint32_t frame, void* logical, std::vector<std::pair<std::string, void*>> cameras) {
        for (auto& camera : cameras) {
            idTexts.push_back(camera.first);
            metas.push_back(camera.second);
        }
        for (const std::string& id : idTexts) {
            ids.push_back(id.c_str());
        }
        result.frame_number = frame;
        result.num_physcam_metadata = static_cast<uint32_t>(ids.size());
        result.physcam_ids = ids.data();
        result.priv_metadata = logical;
        result.priv_physcam_metadata = metas.data();
    }
    const camera3_capture_result* get() const { return &result; }
};

}  // namespace hal
}  // namespace sim
