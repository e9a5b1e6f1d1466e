// SPDX-License-Identifier: Apache-2.0
// Ledger of the simulated CHI metadata objects.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace sim {
namespace chi {

struct CreateArgs {
    std::vector<uint32_t> tags;  // copied from the caller's list at the call
    uint32_t tagCount;
    bool isPartial;
    const void* manager;
    uint32_t clientId;
    int isMultiTypeContextMeta;
    int isMultiCameraContextMeta;
    const void* metaToCameraTypeId;
};

struct MetaState {
    uint64_t serial;  // 1 for the first object made since the last reset
    uint32_t refCount;
    uint32_t invalidations;
    bool destroyed;
    std::string content;  // what Copy, SetAndroidMetadata and Translate move
    CreateArgs args;
    // Arguments of each Copy into it, each translation, dump and its
    // destruction, in call order: "Copy 0" (disjoint), "Translate 1 0 0
    // (nil)" (frameworkTagsOnly, filterProperties, numTags, tagList),
    // "Dump meta[0x...]" (the file name), "Destroy 1" (force).
    std::vector<std::string> arguments;
};

struct Totals {
    size_t created;
    size_t destroyed;
    size_t alive;
};

Totals totals();
// Every object made since the last reset, in creation order.
std::vector<void*> objects();
// State of an object made since the last reset; false if unknown.
bool state(const void* meta, MetaState* out);
uint32_t refCount(const void* meta);
uint32_t invalidations(const void* meta);
bool isDestroyed(const void* meta);
void setContent(void* meta, const std::string& content);
std::string content(const void* meta);
// The address of the extension module's mapping, as Create should receive it.
const void* extensionMapping();
// How often ExtensionModule::GetInstance() was asked.
size_t extensionModuleRequests();

// Fault injection: the n-th Create from now (1-based) returns null.
void failCreateAt(std::vector<size_t> ordinals);

// Forgets every object (their memory is only given back here, so that a
// stale handle is never reused by a later Create) and the fault plan.
void reset();

// Objects made and ended since the last reset, by every lifetime at every
// address (a reused address counts again).
struct Books {
    size_t created;         // every Create that made an object
    size_t libraryCreated;  // those with the library's one tag (createChiMeta's)
    size_t destroyed;       // every Destroy that ended one
};
Books books();

// As a phone's allocator does: a destroyed object's address is handed out
// again by the next Create (the last freed first). Its state is then the new
// object's; books() keeps the count of both.
void setRecycling(bool recycle);

// Forgets destroyed objects, keeping the live ones and the fault plan, so
// that long benchmark runs stay bounded while records hold objects. Later
// Creates hand the forgotten handle values out again, lowest first (the same
// order every time), so call it only when no record still has such a value.
void forgetDestroyed();

}  // namespace chi
}  // namespace sim
