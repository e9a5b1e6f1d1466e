// SPDX-License-Identifier: Apache-2.0
// Android camera metadata library (system/media/camera), the functions this
// library uses. The buffer is opaque.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct camera_metadata camera_metadata_t;

camera_metadata_t* allocate_camera_metadata(size_t entry_capacity, size_t data_capacity);
void free_camera_metadata(camera_metadata_t* metadata);
size_t get_camera_metadata_size(const camera_metadata_t* metadata);
size_t get_camera_metadata_entry_capacity(const camera_metadata_t* metadata);
size_t get_camera_metadata_data_capacity(const camera_metadata_t* metadata);

#ifdef __cplusplus
}
#endif
