// SPDX-License-Identifier: Apache-2.0
// Host stand-in for the Android camera metadata library: buffers know their
// capacities and carry a content text instead of real entries.
#include <sim/camera_metadata.h>
#include <sim/journal.h>

#include <mutex>
#include <set>

struct camera_metadata {
    size_t entryCapacity;
    size_t dataCapacity;
    std::string content;
};

namespace {

// Size reported for a buffer: a header, the entries and the data, packed.
constexpr size_t kHeaderSize = 64;
constexpr size_t kEntrySize = 20;

std::mutex gMutex;
std::set<const camera_metadata_t*> gAlive;
size_t gAllocated = 0;
size_t gFreed = 0;
size_t gFailures = 0;

bool isAlive(const camera_metadata_t* buffer) {
    std::lock_guard<std::mutex> lock(gMutex);
    return gAlive.count(buffer) != 0;
}

}  // namespace

extern "C" {

camera_metadata_t* allocate_camera_metadata(size_t entry_capacity, size_t data_capacity) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (gFailures > 0) {
        --gFailures;
        sim::record("camera_metadata", "allocate_camera_metadata", nullptr);
        return nullptr;
    }
    camera_metadata_t* buffer = new camera_metadata_t{entry_capacity, data_capacity, {}};
    gAlive.insert(buffer);
    ++gAllocated;
    sim::record("camera_metadata", "allocate_camera_metadata", buffer);
    return buffer;
}

void free_camera_metadata(camera_metadata_t* metadata) {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("camera_metadata", "free_camera_metadata", metadata);
    if (metadata == nullptr) {
        return;
    }
    if (gAlive.erase(metadata) == 0) {
        sim::misuse("camera_metadata free of a buffer that is not alive");
        return;
    }
    ++gFreed;
    delete metadata;
}

// Like the platform's, the queries answer 0 for a null buffer.
size_t get_camera_metadata_size(const camera_metadata_t* metadata) {
    if (metadata == nullptr || !isAlive(metadata)) {
        return 0;
    }
    return kHeaderSize + metadata->entryCapacity * kEntrySize + metadata->dataCapacity;
}

size_t get_camera_metadata_entry_capacity(const camera_metadata_t* metadata) {
    return metadata != nullptr && isAlive(metadata) ? metadata->entryCapacity : 0;
}

size_t get_camera_metadata_data_capacity(const camera_metadata_t* metadata) {
    return metadata != nullptr && isAlive(metadata) ? metadata->dataCapacity : 0;
}

}  // extern "C"

namespace sim {
namespace camera_metadata {

Totals totals() {
    std::lock_guard<std::mutex> lock(gMutex);
    return {gAllocated, gFreed, gAlive.size()};
}

std::string content(const camera_metadata_t* buffer) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (buffer == nullptr || gAlive.count(buffer) == 0) {
        sim::misuse("camera_metadata read of a buffer that is not alive");
        return std::string();
    }
    return buffer->content;
}

void setContent(camera_metadata_t* buffer, const std::string& content) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (buffer == nullptr || gAlive.count(buffer) == 0) {
        sim::misuse("camera_metadata write to a buffer that is not alive");
        return;
    }
    buffer->content = content;
}

void failNextAllocations(size_t n) {
    std::lock_guard<std::mutex> lock(gMutex);
    gFailures = n;
}

void reset() {
    std::lock_guard<std::mutex> lock(gMutex);
    for (const camera_metadata_t* buffer : gAlive) {
        delete buffer;
    }
    gAlive.clear();
    gAllocated = 0;
    gFreed = 0;
    gFailures = 0;
}

}  // namespace camera_metadata
}  // namespace sim
