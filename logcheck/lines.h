// SPDX-License-Identifier: Apache-2.0
// The library's own lines, recognised by the function in their prefix and
// their message, and read with the library's own formats. Internal to the
// log checker.
#pragma once

#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

namespace logcheck {

// The library's functions that log, as their prefix names them.
enum class Fn : uint8_t {
    Constructor,  // the default and the copy constructor
    Destructor,
    Clone,
    ShallowClone,
    Reset,
    CreateChiMeta,
    DestroyChiMeta,
    DumpChiMeta,
    AddChiMetasRef,
    ReleaseChiMetasRef,
    ReleaseChiMetasRefWithCameraId,
    IsMetaUsedInQC,
    ResetChiMetas,
    TransToAndroidMeta,
    TransToAndroidMetaWithCameraId,
    SupportSamePhysical,
    CreatePrivResultMeta,
    SetHalRequestPrivResultMeta,
    CheckAndUpdatePrivResult,
    CameraTest,  // reconciliation's local function object, "operator()"
    CreateTuningParams,
    GetTuningMetaBufs,
    SetTuningMetaBufs,
    CreateTuningMetaBufs,
    DestroyTuningMetaBufs,
    ReleaseTuningMetaBufs,
    AddDebugDataAndRef,
    Keep3aDebugData,
    KeepTuningDDArray,
};

enum class Event : uint8_t {
    Construct,         // the default constructor (count: the sum after it)
    CopyPhysical,      // a copy's physical result (number: its index; other: the source's)
    CopySameLogical,   // a copy's logical result is one of its physical ones
    CopyLogical,       // a copy's own logical result
    CopyDone,          // the copy constructor's last line (count: the sum after it)
    Destruct,          // a destructor begins
    ShallowCopy,       // a shallow clone (record) of another (other)
    MetaCreate,        // count: ChimetaSum after it
    MetaDestroy,       // count: ChimetaSum after it
    MetaRefused,       // the record had ended this handle before
    RefAdd,            // addChiMetasRef (count: after it)
    RefRelease,        // releaseChiMetasRef (count: after it)
    RefRead,           // a count read for a test
    TraceAdd,          // reconciliation referenced an object (count: %d)
    TraceRelease,      // reconciliation released a displaced one (count: %d)
    ReconcileStart,    // number: mSupportPrivMeta; object: held logical; other: the result's
    ReconcileLogical,  // object: displaced logical (or null); other: the new one
    ReconcileCamera,   // number: key; object: held; other: the result's
    ReconcileReplace,  // the same, when they differ
    ReconcileRebuild,  // number: the old camera count, -1 when only known non-zero
    ReconcileAdopt,    // number: key; object: taken as the result holds it
    ReconcileSame,     // the logical result is one of the physical ones
    CreatePriv,        // object: the logical result; number: camera count; count: same-logical
    CreatePhysical,    // id, object
    DestroyTuningDone,
    HandOver,      // releaseTuningMetaBufs begins
    Translated,    // the host translated camera by camera
    TuningParams,  // buffers are freed from now on
    IqbmAdd,       // the manager's reference on a buffer (count: after it)
    Keep,          // a keep (count: after it; -1 held already)
    Adopt,         // an import adopted a buffer without a reference
    DebugDec,      // a reference given back (count: after it)
    DebugFree,     // a buffer freed instead
    Other,         // names a record, changes nothing the ledger keeps
    NoRecord,      // names no record, changes nothing
};

struct Line {
    Event event = Event::Other;
    Fn function = Fn::Constructor;
    uint8_t group = 0;  // 64 or 128
    uint64_t record = 0;
    uint64_t object = 0;  // CHI metadata object or debug buffer
    uint64_t other = 0;   // a copy's source, or a second object
    int64_t count = 0;
    int64_t number = 0;   // camera key, index, count of cameras
    std::string_view id;  // a camera id text
};

struct Compiled;

// Reads the prefix "<group> <file>:<line> <function>()" and the message.
// Keeps, per call site, the format it logged last: one per log, not shared
// between threads.
class Classifier {
  public:
    Classifier() : mSites(kSites) {}
    bool classify(std::string_view text, Line* out);

  private:
    static constexpr size_t kSites = 512;
    struct Site {
        uint32_t source;  // the source line
        std::string name;
        const Compiled* pattern;
    };
    std::vector<std::vector<Site>> mSites;
};

// Tagless formats: the message has the library's prefix shape.
bool looksLikeLibrary(std::string_view text);

}  // namespace logcheck
