// SPDX-License-Identifier: Apache-2.0
// Random camera sessions as a phone runs them, against the record and the
// simulation: request threads make and fill records, a result thread
// reconciles and ends them, records are reused through reset(), cloned and
// shallow-cloned with their hand-over, debug buffers come from a small pool,
// and addresses are reused at once. Zero or one host rule is broken on
// purpose. The books are the simulation's own, not the log's.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <sim/kycam.h>

#include <string>
#include <vector>

namespace sim {
namespace session {

// The host rules a session can break, as the README names them.
enum class Rule {
    None,
    RecordLifetime,
    CreateOnEmpty,
    ReleaseHandsOver,
    AtoiSharedKey,
    TuningParamsFree,
    ImportAdopts,
    HalReferences,
    AlreadyReferenced,
    HeldAndParked,
    ShallowCloneOwner,
    ShallowCloneDebugData,
    DestroyedHandlesKept,
};
constexpr int kRules = static_cast<int>(Rule::DestroyedHandlesKept) + 1;
const char* ruleName(Rule rule);  // "" for None

struct Options {
    uint64_t seed = 1;
    Rule broken = Rule::None;
    int requestThreads = 2;  // and one result thread
    int inFlight = 2;        // requests between the two
    int requests = 16;
    bool traces = true;  // reconciliation's reference traces logged (level below 3)
};

// A finding the broken rule must bring, on its object.
struct Expected {
    std::string kind;
    uint64_t object;
    std::string rule;
    bool operator<(const Expected& o) const {
        return kind != o.kind       ? kind < o.kind
               : object != o.object ? object < o.object
                                    : rule < o.rule;
    }
    bool operator==(const Expected& o) const {
        return kind == o.kind && object == o.object && rule == o.rule;
    }
};

// As the log's totals count them: records and CHI metadata objects made in
// the session, made elsewhere and taken on (the HAL's objects), ended; debug
// buffer references taken by the library, given back without being taken
// (the host's, for a shallow clone), given back.
struct Books {
    size_t created = 0;
    size_t before = 0;
    size_t ended = 0;
};

struct Truth {
    Books records;
    Books chiMetas;
    Books debugData;
    // Whether the counters' books can agree with the log: a shallow clone
    // giving back a copy nobody referenced leaves them apart.
    bool debugDataComparable = true;
    bool applied = true;                // the rule could be broken (an address was there to reuse)
    std::vector<Expected> findings;     // sorted
    std::vector<kycam::LogLine> lines;  // the Android log, as the process wrote it
    std::vector<std::string> misuses;   // what the simulation caught
};

// Runs one session from fresh books and ends every object it left once the
// log is taken.
Truth run(const Options& options);

}  // namespace session
}  // namespace sim
