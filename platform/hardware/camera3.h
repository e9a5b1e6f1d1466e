// SPDX-License-Identifier: Apache-2.0
// Camera HAL3 capture request and result as extended by the platform vendor
// with private result metadata. Standard members keep their Android names;
// the vendor members follow them. The 64-bit offsets are fixed by the HAL.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <system/camera_metadata.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct camera3_stream_buffer camera3_stream_buffer_t;

typedef struct camera3_capture_request {
    uint32_t frame_number;
    const camera_metadata_t* settings;
    camera3_stream_buffer_t* input_buffer;
    uint32_t num_output_buffers;
    const camera3_stream_buffer_t* output_buffers;
    uint32_t num_physcam_settings;
    const char** physcam_id;
    const camera_metadata_t** physcam_settings;
    // Vendor members.
    const void* vendor_reserved[3];
    void* priv_result;             // logical private result to fill, or null
    const char** priv_physcam_id;  // physical camera ids, or null
    uint32_t num_priv_physcam_result;
    void** priv_physcam_result;  // entry i is filled for priv_physcam_id[i]
} camera3_capture_request_t;

typedef struct camera3_capture_result {
    uint32_t frame_number;
    const camera_metadata_t* result;
    uint32_t num_output_buffers;
    const camera3_stream_buffer_t* output_buffers;
    const camera3_stream_buffer_t* input_buffer;
    uint32_t partial_result;
    uint32_t num_physcam_metadata;
    const char** physcam_ids;
    const camera_metadata_t** physcam_metadata;
    // Vendor members.
    void* priv_metadata;           // logical private result the HAL filled
    void** priv_physcam_metadata;  // entry i is for physcam_ids[i]
} camera3_capture_result_t;

#ifdef __cplusplus
}
#endif

#if defined(__LP64__)
static_assert(offsetof(camera3_capture_request_t, physcam_settings) == 56, "HAL layout");
static_assert(offsetof(camera3_capture_request_t, priv_result) == 88, "HAL layout");
static_assert(offsetof(camera3_capture_request_t, priv_physcam_id) == 96, "HAL layout");
static_assert(offsetof(camera3_capture_request_t, num_priv_physcam_result) == 104, "HAL layout");
static_assert(offsetof(camera3_capture_request_t, priv_physcam_result) == 112, "HAL layout");
static_assert(offsetof(camera3_capture_result_t, frame_number) == 0, "HAL layout");
static_assert(offsetof(camera3_capture_result_t, num_physcam_metadata) == 44, "HAL layout");
static_assert(offsetof(camera3_capture_result_t, physcam_ids) == 48, "HAL layout");
static_assert(offsetof(camera3_capture_result_t, priv_metadata) == 64, "HAL layout");
static_assert(offsetof(camera3_capture_result_t, priv_physcam_metadata) == 72, "HAL layout");
#endif
