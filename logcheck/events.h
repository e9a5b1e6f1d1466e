// SPDX-License-Identifier: Apache-2.0
// The library's log lines as ledger events: each line is recognised by the
// function in its prefix and its message, read with the library's own
// format.
#pragma once

#include <stdint.h>

#include <string_view>

namespace logcheck {

enum class Event : uint8_t {
    Construct,      // a record made by the default or the copy constructor
    Destruct,       // a record's destructor begins
    ShallowCopy,    // a shallow clone now shares what its source referenced
    MetaCreate,     // a CHI metadata object made (the count is ChimetaSum)
    MetaDestroy,    // one ended (the count is ChimetaSum)
    MetaRefused,    // a destroy the record refused: it had ended the handle
    RefAdd,         // the record took a reference (the count after it)
    RefRelease,     // the record gave one back
    RefRead,        // a count read for a test
    TraceAdd,       // reconciliation referenced a returned object
    TraceRelease,   // reconciliation released and parked a displaced one
    Adopted,        // reconciliation took one over without a reference
    Displacing,     // reconciliation found another logical result
    PrivCreate,     // private results made (the object is the logical one)
    PrivPhy,        // a physical private result made for a camera id
    CopyMeta,       // a deep copy's object (0: the one just created)
    DebugAdd,       // the manager took a reference on a debug buffer
    DebugKeep,      // a keep took one (-1: the buffer was held already)
    DebugAdopt,     // an import adopted a buffer without a reference
    DebugDec,       // a reference given back (the count after it)
    DebugFree,      // a buffer freed instead
    ReleaseTuning,  // releaseTuningMetaBufs: objects and perhaps debug data handed over
    DestroyTuning,  // destroyTuningMetaBufs ended the private results
    Other,          // names a record, nothing more
};

struct LibraryLine {
    Event event = Event::Other;
    uint8_t group = 0;  // 64 or 128
    uint64_t record = 0;
    uint64_t object = 0;  // CHI metadata object or debug buffer
    uint64_t other = 0;   // a copy's source
    int64_t count = 0;
    std::string_view id;  // a camera id text
    std::string_view function;
};

// Reads the prefix "<group> <file>:<line> <function>()" and the message; false
// for a line of the tag that is none of the library's.
bool classify(std::string_view text, LibraryLine* out);

}  // namespace logcheck
