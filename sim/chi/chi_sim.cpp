// SPDX-License-Identifier: Apache-2.0
// Host stand-in for the CHI metadata objects and the extension module.
// Every call is journaled; calls on null, unknown or destroyed objects and
// references below zero are reported as misuse instead of crashing.
#include <chi/chxextensionmodule.h>
#include <chi/chxmetadata.h>
#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/journal.h>

#include <stdio.h>

#include <algorithm>
#include <functional>
#include <map>
#include <mutex>

namespace {

struct Object {
    alignas(16) unsigned char identity[16];  // the address handed out
};

std::mutex gMutex;
std::map<const void*, sim::chi::MetaState> gStates;
// Never destroyed, like the objects it lists until reset(): they stay
// reachable for LeakSanitizer while the static destructors run at exit.
std::vector<Object*>& gObjects = *new std::vector<Object*>();
// Objects forgotten by forgetDestroyed(), highest address first: Create hands
// out the lowest, so that a run of Creates sees its handles in the same order
// each time and instruction counts repeat.
std::vector<Object*>& gForgotten = *new std::vector<Object*>();
uint64_t gSerial = 0;
size_t gCreateCalls = 0;
sim::chi::Books gBooks = {};
bool gRecycling = false;
// Destroyed objects whose address the next Create reuses, last freed first.
std::vector<Object*>& gFreed = *new std::vector<Object*>();
std::vector<size_t> gFailAt;
size_t gExtensionRequests = 0;
ExtensionModule gExtensionModule = {{4, {0, 1, 2, 3}}};

std::string describe(const void* meta) {
    char text[32];
    snprintf(text, sizeof(text), "%p", meta);
    return text;
}

// The state of a live object, or null after reporting the misuse.
sim::chi::MetaState* live(const void* meta, const char* op) {
    if (meta == nullptr) {
        sim::misuse(std::string("chi ") + op + " on a null object");
        return nullptr;
    }
    auto found = gStates.find(meta);
    if (found == gStates.end()) {
        sim::misuse(std::string("chi ") + op + " on unknown object " + describe(meta));
        return nullptr;
    }
    if (found->second.destroyed) {
        sim::misuse(std::string("chi ") + op + " after destroy of " + describe(meta));
        return nullptr;
    }
    return &found->second;
}

}  // namespace

ChiMetadata* ChiMetadata::Create(const uint32_t* tagList, uint32_t tagCount, bool isPartial,
                                 ChiMetadataManager* manager, uint32_t clientId,
                                 int isMultiTypeContextMeta, int isMultiCameraContextMeta,
                                 MetaToCameraTypeId* metaToCameraTypeId) {
    std::lock_guard<std::mutex> lock(gMutex);
    ++gCreateCalls;
    if (std::find(gFailAt.begin(), gFailAt.end(), gCreateCalls) != gFailAt.end()) {
        sim::record("chi", "Create", nullptr);
        return nullptr;
    }
    Object* object;
    const bool reused = !gFreed.empty();
    if (reused) {  // still listed in gObjects
        object = gFreed.back();
        gFreed.pop_back();
        gStates.erase(object->identity);
    } else if (!gForgotten.empty()) {
        object = gForgotten.back();
        gForgotten.pop_back();
    } else {
        object = new Object();
    }
    if (!reused) {
        gObjects.push_back(object);
    }
    ++gBooks.created;
    gBooks.libraryCreated += tagCount == 1 && tagList != nullptr && tagList[0] == 0x000E001C;
    sim::chi::MetaState state{};
    state.serial = ++gSerial;
    if (tagList != nullptr) {
        state.args.tags.assign(tagList, tagList + tagCount);
    }
    state.args.tagCount = tagCount;
    state.args.isPartial = isPartial;
    state.args.manager = manager;
    state.args.clientId = clientId;
    state.args.isMultiTypeContextMeta = isMultiTypeContextMeta;
    state.args.isMultiCameraContextMeta = isMultiCameraContextMeta;
    state.args.metaToCameraTypeId = metaToCameraTypeId;
    gStates.emplace(object->identity, state);
    sim::record("chi", "Create", object->identity);
    return reinterpret_cast<ChiMetadata*>(object->identity);
}

CDKResult ChiMetadata::Destroy(bool force) {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("chi", "Destroy", this);
    auto found = gStates.find(this);
    if (found != gStates.end() && found->second.destroyed) {
        sim::misuse("chi double destroy of " + describe(this));
        return -1;
    }
    sim::chi::MetaState* state = live(this, "Destroy");
    if (state == nullptr) {
        return -1;
    }
    state->destroyed = true;
    state->arguments.push_back(force ? "Destroy 1" : "Destroy 0");
    ++gBooks.destroyed;
    if (gRecycling) {
        gFreed.push_back(reinterpret_cast<Object*>(this));
    }
    return 0;
}

uint32_t ChiMetadata::ReferenceCount() {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::chi::MetaState* state = live(this, "ReferenceCount");
    uint32_t count = state != nullptr ? state->refCount : 0;
    sim::record("chi", "ReferenceCount", this, count);
    return count;
}

uint32_t ChiMetadata::AddReference(const char* clientName) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (clientName != nullptr) {
        sim::misuse("chi AddReference with a client name");
    }
    sim::chi::MetaState* state = live(this, "AddReference");
    uint32_t count = state != nullptr ? ++state->refCount : 0;
    sim::record("chi", "AddReference", this, count);
    return count;
}

uint32_t ChiMetadata::ReleaseReference(const char* clientName) {
    std::lock_guard<std::mutex> lock(gMutex);
    if (clientName != nullptr) {
        sim::misuse("chi ReleaseReference with a client name");
    }
    sim::chi::MetaState* state = live(this, "ReleaseReference");
    uint32_t count = 0;
    if (state != nullptr) {
        if (state->refCount == 0) {
            // The books stay at zero; the caller sees the unsigned count
            // wrapped, as the platform's would.
            sim::misuse("chi reference below zero on " + describe(this));
            count = UINT32_MAX;
        } else {
            count = --state->refCount;
        }
    }
    sim::record("chi", "ReleaseReference", this, count);
    return count;
}

void ChiMetadata::Invalidate() {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("chi", "Invalidate", this);
    if (sim::chi::MetaState* state = live(this, "Invalidate")) {
        ++state->invalidations;
    }
}

CDKResult ChiMetadata::Copy(ChiMetadata& source, bool disjoint) {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("chi", "Copy", this);
    sim::chi::MetaState* from = live(&source, "Copy (source)");
    sim::chi::MetaState* to = live(this, "Copy");
    if (from == nullptr || to == nullptr) {
        return -1;
    }
    to->content = from->content;
    to->arguments.push_back(disjoint ? "Copy 1" : "Copy 0");
    return 0;
}

CDKResult ChiMetadata::SetAndroidMetadata(const camera_metadata_t* metadata) {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("chi", "SetAndroidMetadata", this);
    sim::chi::MetaState* state = live(this, "SetAndroidMetadata");
    if (state == nullptr) {
        return -1;
    }
    state->content = sim::camera_metadata::content(metadata);
    return 0;
}

CDKResult ChiMetadata::TranslateToCameraMetadata(camera_metadata_t* dst, bool frameworkTagsOnly,
                                                 bool filterProperties, uint32_t numTags,
                                                 uint32_t* tagList) {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("chi", "TranslateToCameraMetadata", this);
    sim::chi::MetaState* state = live(this, "TranslateToCameraMetadata");
    if (state == nullptr) {
        return -1;
    }
    sim::camera_metadata::setContent(dst, state->content);
    char arguments[64];
    snprintf(arguments, sizeof(arguments), "Translate %d %d %u %p", frameworkTagsOnly,
             filterProperties, numTags, static_cast<void*>(tagList));
    state->arguments.push_back(arguments);
    return 0;
}

CDKResult ChiMetadata::DumpDetailsToFile(const char* name) {
    std::lock_guard<std::mutex> lock(gMutex);
    sim::record("chi", "DumpDetailsToFile", this);
    sim::chi::MetaState* state = live(this, "DumpDetailsToFile");
    if (state == nullptr) {
        return -1;
    }
    state->arguments.push_back(std::string("Dump ") + (name != nullptr ? name : ""));
    return 0;
}

ExtensionModule* ExtensionModule::GetInstance() {
    std::lock_guard<std::mutex> lock(gMutex);
    ++gExtensionRequests;
    sim::record("chi", "ExtensionModule::GetInstance", &gExtensionModule);
    return &gExtensionModule;
}

namespace sim {
namespace chi {

Totals totals() {
    std::lock_guard<std::mutex> lock(gMutex);
    Totals totals{gStates.size(), 0, 0};
    for (const auto& entry : gStates) {
        if (entry.second.destroyed) {
            ++totals.destroyed;
        }
    }
    totals.alive = totals.created - totals.destroyed;
    return totals;
}

std::vector<void*> objects() {
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<void*> handles;
    for (Object* object : gObjects) {
        handles.push_back(object->identity);
    }
    return handles;
}

bool state(const void* meta, MetaState* out) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto found = gStates.find(meta);
    if (found == gStates.end()) {
        return false;
    }
    *out = found->second;
    return true;
}

uint32_t refCount(const void* meta) {
    MetaState s;
    return state(meta, &s) ? s.refCount : 0;
}

uint32_t invalidations(const void* meta) {
    MetaState s;
    return state(meta, &s) ? s.invalidations : 0;
}

bool isDestroyed(const void* meta) {
    MetaState s;
    return state(meta, &s) && s.destroyed;
}

void setContent(void* meta, const std::string& content) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto found = gStates.find(meta);
    if (found != gStates.end()) {
        found->second.content = content;
    }
}

std::string content(const void* meta) {
    MetaState s;
    return state(meta, &s) ? s.content : std::string();
}

const void* extensionMapping() {
    return &gExtensionModule.m_metaToCameraTypeId;
}

size_t extensionModuleRequests() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gExtensionRequests;
}

void failCreateAt(std::vector<size_t> ordinals) {
    std::lock_guard<std::mutex> lock(gMutex);
    for (size_t& ordinal : ordinals) {
        ordinal += gCreateCalls;
    }
    gFailAt = std::move(ordinals);
}

Books books() {
    std::lock_guard<std::mutex> lock(gMutex);
    return gBooks;
}

void setRecycling(bool recycle) {
    std::lock_guard<std::mutex> lock(gMutex);
    gRecycling = recycle;
}

void forgetDestroyed() {
    std::lock_guard<std::mutex> lock(gMutex);
    size_t kept = 0;
    for (Object* object : gObjects) {
        auto found = gStates.find(object->identity);
        if (found != gStates.end() && found->second.destroyed) {
            gStates.erase(found);
            gForgotten.push_back(object);
        } else {
            gObjects[kept++] = object;
        }
    }
    gObjects.resize(kept);
    std::sort(gForgotten.begin(), gForgotten.end(), std::greater<Object*>());
}

void reset() {
    std::lock_guard<std::mutex> lock(gMutex);
    for (Object* object : gObjects) {
        delete object;
    }
    gObjects.clear();
    for (Object* object : gForgotten) {
        delete object;
    }
    gForgotten.clear();
    gFreed.clear();
    gStates.clear();
    gBooks = {};
    gSerial = 0;
    gCreateCalls = 0;
    gFailAt.clear();
    gExtensionRequests = 0;
}

}  // namespace chi
}  // namespace sim
