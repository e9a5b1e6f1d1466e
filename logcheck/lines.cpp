// SPDX-License-Identifier: Apache-2.0
#include "lines.h"

#include <string.h>

#include <algorithm>
#include <vector>

namespace logcheck {

namespace {

constexpr struct {
    std::string_view name;
    Fn function;
} kFunctions[] = {
        {"QcomPostProcInfo", Fn::Constructor},
        {"~QcomPostProcInfo", Fn::Destructor},
        {"clone", Fn::Clone},
        {"shallowClone", Fn::ShallowClone},
        {"reset", Fn::Reset},
        {"createChiMeta", Fn::CreateChiMeta},
        {"destroyChiMeta", Fn::DestroyChiMeta},
        {"dumpChiMeta", Fn::DumpChiMeta},
        {"addChiMetasRef", Fn::AddChiMetasRef},
        {"releaseChiMetasRef", Fn::ReleaseChiMetasRef},
        {"releaseChiMetasRefWithCameraId", Fn::ReleaseChiMetasRefWithCameraId},
        {"isMetaUsedInQC", Fn::IsMetaUsedInQC},
        {"resetChiMetas", Fn::ResetChiMetas},
        {"transToAndroidMeta", Fn::TransToAndroidMeta},
        {"transToAndroidMetaWithCameraId", Fn::TransToAndroidMetaWithCameraId},
        {"supportSamePhysical", Fn::SupportSamePhysical},
        {"createPrivResultMeta", Fn::CreatePrivResultMeta},
        {"setHalRequestPrivResultMeta", Fn::SetHalRequestPrivResultMeta},
        {"checkAndUpdatePrivResult", Fn::CheckAndUpdatePrivResult},
        {"operator()", Fn::CameraTest},
        {"createTuningParams", Fn::CreateTuningParams},
        {"getTuningMetaBufs", Fn::GetTuningMetaBufs},
        {"setTuningMetaBufs", Fn::SetTuningMetaBufs},
        {"createTuningMetaBufs", Fn::CreateTuningMetaBufs},
        {"destroyTuningMetaBufs", Fn::DestroyTuningMetaBufs},
        {"releaseTuningMetaBufs", Fn::ReleaseTuningMetaBufs},
        {"addDebugDataAndRef", Fn::AddDebugDataAndRef},
        {"keep3aDebugData", Fn::Keep3aDebugData},
        {"keepTuningDDArray", Fn::KeepTuningDDArray},
};

// How the conversions of a format land in a Line: R record, O object, P
// other object, T other record, C count, N number, S id, x not kept.
struct Pattern {
    Fn function;
    const char* format;
    Event event;
    uint8_t group;
    const char* fields;
};

constexpr const char* kPrivResults =
        "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u mSamelogical_PhyResult %d";
constexpr const char* kPhysical = "PostProcsInfo %p PrivPhyCamId %s PrivPhyResult %p";
constexpr const char* kRefLogical = "PostProcsInfo %p m_pPrivResult %p ref %u";
constexpr const char* kRefPhysical = "PostProcsInfo %p phyCamId %u privResult %p ref %u";
constexpr const char* kDestructData =
        "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d destruct debugData pData:%p after dec "
        "ref is %d";
constexpr const char* kFree = "PostProcsInfo %p free data:%p";

const Pattern kPatterns[] = {
        {Fn::Constructor, "Construct QcomPostProcInfo %p, after sum %d", Event::Construct, 128,
         "RC"},
        {Fn::Constructor,
         "%p deep Construct, m_pPrivPhyResults %p index is %d from other.m_pPrivPhyResults[%d] %p",
         Event::CopyPhysical, 64, "RxNxP"},
        {Fn::Constructor,
         "%p deep Construct, Samelogical_PhyResult with phycam %d result, not found in "
         "mPrivPhyResultMap",
         Event::Other, 64, "R"},
        {Fn::Constructor,
         "%p deep Construct, due Samelogical_PhyResult, m_pPrivResult %p same as physical cam %d "
         "result",
         Event::CopySameLogical, 64, "RON"},
        {Fn::Constructor, "%p deep Construct, m_pPrivResult %p from other.m_pPrivResult %p",
         Event::CopyLogical, 64, "ROP"},
        {Fn::Constructor,
         "Deep Construct QcomPostProcInfo %p m_pPrivResult %p, after sum %d, info from "
         "QcomPostProcInfo %p m_pPrivResult %p",
         Event::CopyDone, 64, "ROCTx"},
        {Fn::Destructor, "Destruct  QcomPostProcInfo %p, before sum %d", Event::Destruct, 128,
         "RC"},
        {Fn::Destructor, kDestructData, Event::DebugDec, 128, "RNOC"},
        {Fn::Destructor, kFree, Event::DebugFree, 64, "RO"},
        {Fn::Clone, "Clone QcomPostProcInfo %p needOwnDebugData %d", Event::Other, 64, "R"},
        {Fn::ShallowClone,
         "shallow copy QcomPostProcInfo %p m_pPrivResult %p, info from QcomPostProcInfo %p "
         "m_pPrivResult %p",
         Event::ShallowCopy, 64, "RxTx"},
        {Fn::Reset,
         "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d reset debugData pData:%p after dec "
         "ref is %d",
         Event::DebugDec, 128, "RNOC"},
        {Fn::Reset, kFree, Event::DebugFree, 64, "RO"},
        {Fn::CreateChiMeta,
         "Create ChiMeta %p ref %u isMultiTypeContextMeta %d isMultiCameraContextMeta %d "
         "ChimetaSum %d",
         Event::MetaCreate, 64, "OxxxC"},
        {Fn::DestroyChiMeta, "Destroy ChiMeta %p ref %u ChimetaSum %d", Event::MetaDestroy, 64,
         "OxC"},
        {Fn::DestroyChiMeta, "chiMetaHandle %p is destroyed, no need to destroy",
         Event::MetaRefused, 64, "O"},
        {Fn::DestroyChiMeta, "Destroy chiMetaHandle is null", Event::NoRecord, 64, ""},
        {Fn::DumpChiMeta, "Dump ChiMeta %p", Event::NoRecord, 64, ""},
        {Fn::AddChiMetasRef, kRefLogical, Event::RefAdd, 64, "ROC"},
        {Fn::AddChiMetasRef, kRefPhysical, Event::RefAdd, 64, "RNOC"},
        {Fn::ReleaseChiMetasRef, kRefLogical, Event::RefRelease, 64, "ROC"},
        {Fn::ReleaseChiMetasRef, kRefPhysical, Event::RefRelease, 64, "RNOC"},
        {Fn::ReleaseChiMetasRefWithCameraId, kRefLogical, Event::RefRelease, 64, "ROC"},
        {Fn::ReleaseChiMetasRefWithCameraId, kRefPhysical, Event::RefRelease, 64, "RNOC"},
        {Fn::IsMetaUsedInQC, "PostProcInfo %p ChiMeta %p ref %u", Event::RefRead, 64, "ROC"},
        {Fn::ResetChiMetas, "PostProcInfo %p ChiMeta %p ref %u be reset!", Event::RefRead, 64,
         "ROC"},
        {Fn::ResetChiMetas, "PostProcInfo %p ChiMeta %p ref %u still in use, cannot be reset!",
         Event::RefRead, 64, "ROC"},
        {Fn::TransToAndroidMeta,
         "Null pChiMetadata || pDstCameraMetadata cannot translate to Android Meta",
         Event::NoRecord, 64, ""},
        {Fn::TransToAndroidMetaWithCameraId, "PostProcsInfo %p cameraId %d transToAndroidMeta fail",
         Event::Other, 64, "R"},
        {Fn::TransToAndroidMetaWithCameraId,
         "PostProcsInfo %p cameraId %d transToAndroidMeta pAndroidMeta %p", Event::Translated, 64,
         "R"},
        {Fn::SupportSamePhysical,
         "PostProcsInfo %p reuse needPrivLogicalMeta %d but this Samelogical_PhyResult %d, not "
         "support",
         Event::Other, 64, "R"},
        {Fn::SupportSamePhysical, "PostProcsInfo %p expect phy %s cannot find", Event::Other, 64,
         "R"},
        {Fn::CreatePrivResultMeta, kPrivResults, Event::CreatePriv, 64, "RONC"},
        {Fn::CreatePrivResultMeta, kPhysical, Event::CreatePhysical, 64, "RSO"},
        {Fn::CreatePrivResultMeta, "Create priv_physcam_result failed", Event::NoRecord, 64, ""},
        {Fn::SetHalRequestPrivResultMeta,
         "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u m_pPrivPhyResults %p "
         "mSamelogical_PhyResult %d",
         Event::Other, 64, "R"},
        {Fn::SetHalRequestPrivResultMeta, "Not Create priv_physcam_result", Event::NoRecord, 64,
         ""},
        {Fn::SetHalRequestPrivResultMeta,
         "PostProcsInfo %p halRequest priv_result %p priv_physcam_result %p", Event::Other, 64,
         "R"},
        {Fn::CheckAndUpdatePrivResult,
         "PostProcsInfo %p mSupportPrivMeta %d vndFrame:%u m_pPrivResult %p result->priv_metadata "
         "%p",
         Event::ReconcileStart, 64, "RNxOP"},
        {Fn::CheckAndUpdatePrivResult,
         "PostProcsInfo %p vndFrame:%u m_pPrivResult %p not same as result->priv_metadata %p",
         Event::ReconcileLogical, 64, "RxOP"},
        {Fn::CheckAndUpdatePrivResult, "PostProcsInfo %p the chi meta: %p ReleaseReference ref: %d",
         Event::TraceRelease, 64, "ROC"},
        {Fn::CheckAndUpdatePrivResult, "PostProcsInfo %p the chi meta: %p AddReference ref: %d",
         Event::TraceAdd, 64, "ROC"},
        {Fn::CheckAndUpdatePrivResult,
         "PostProcsInfo %p vndFrame:%u phycam %d phyresult %p result->priv_physcam_metadata[%d] %p",
         Event::ReconcileCamera, 64, "RxNOxP"},
        {Fn::CheckAndUpdatePrivResult,
         "PostProcsInfo %p vndFrame:%u phycam %d phyresult %p not same as "
         "result->priv_physcam_metadata[%d] %p",
         Event::ReconcileReplace, 64, "RxNOxP"},
        {Fn::CheckAndUpdatePrivResult,
         "PostProcsInfo %p vndFrame:%u update phycam %d result->priv_physcam_metadata[%d] %p",
         Event::ReconcileAdopt, 64, "RxNxO"},
        {Fn::CheckAndUpdatePrivResult,
         "PostProcsInfo %p vndFrame:%u result->priv_metadata %p same as "
         "result->priv_physcam_metadata[%d] %p",
         Event::ReconcileSame, 64, "RxOxP"},
        {Fn::CameraTest,
         "PostProcsInfo %p vndFrame:%u original num_physcam_metadata %u not same asreturn "
         "result->num_physcam_metadata %u, need Update all physcam_metadata",
         Event::ReconcileRebuild, 64, "RxNx"},
        {Fn::CameraTest,
         "PostProcsInfo %p vndFrame:%u original physcam not keep camera %s, need Update all "
         "physcam_metadata",
         Event::ReconcileRebuild, 64, "Rx"},
        {Fn::CreateTuningParams, "PostProcsInfo %p mTuningParam:%p", Event::TuningParams, 64, "R"},
        {Fn::GetTuningMetaBufs, "PostProcsInfo %p transAllToAndroidMetas", Event::Other, 64, "R"},
        {Fn::GetTuningMetaBufs, "PostProcsInfo %p tuningbuffer size:%d", Event::Other, 64, "R"},
        {Fn::GetTuningMetaBufs, "PostProcsInfo %p Debug3ABuffer size:%d", Event::Other, 64, "R"},
        {Fn::GetTuningMetaBufs, "3A debug PostProcsInfo %p cameraId:%d buffer:%p size:%d",
         Event::Other, 64, "R"},
        {Fn::GetTuningMetaBufs, "PostProcsInfo %p", Event::Other, 64, "R"},
        {Fn::SetTuningMetaBufs, "PostProcsInfo %p AndroidMeta to ChiMeta for logical", Event::Other,
         64, "R"},
        {Fn::SetTuningMetaBufs, "PostProcsInfo %p AndroidMeta to ChiMeta for phy(%d)", Event::Other,
         64, "R"},
        {Fn::SetTuningMetaBufs, "PostProcsInfo %p add m3aDebugDataMap id:%d %p", Event::Other, 64,
         "R"},
        {Fn::SetTuningMetaBufs, "PostProcsInfo %p add DebugDataPtr %p", Event::Adopt, 64, "RO"},
        {Fn::SetTuningMetaBufs, "PostProcsInfo %p", Event::Other, 64, "R"},
        {Fn::CreateTuningMetaBufs, kPrivResults, Event::CreatePriv, 64, "RONC"},
        {Fn::CreateTuningMetaBufs, kPhysical, Event::CreatePhysical, 64, "RSO"},
        {Fn::CreateTuningMetaBufs, "Create priv_physcam_result failed", Event::NoRecord, 64, ""},
        {Fn::DestroyTuningMetaBufs, kPrivResults, Event::DestroyTuningDone, 64, "R"},
        {Fn::DestroyTuningMetaBufs, kDestructData, Event::DebugDec, 64, "RNOC"},
        {Fn::ReleaseTuningMetaBufs, kPrivResults, Event::HandOver, 64, "R"},
        {Fn::AddDebugDataAndRef, "PostProcsInfo %p add DebugDataPtr %p ref %d", Event::IqbmAdd, 128,
         "ROC"},
        {Fn::Keep3aDebugData,
         "[Offline DebugData] PostProcsInfo %p add phycamId %d 3adebugData pData:%p after add ref "
         "is %d",
         Event::Keep, 128, "RxOC"},
        {Fn::KeepTuningDDArray,
         "[Offline DebugData] PostProcsInfo %p add phycamId %d DebugDataArrayTuning index %u "
         "pData:%p after add ref is %d",
         Event::Keep, 128, "RxxOC"},
};

// One conversion at text[*pos]; glibc prints a null pointer as "(nil)",
// bionic as "0x0". An unsigned count read back as signed (a wrapped count
// is below zero).
// Digit values: 0-9 for both, a-f for hexadecimal only; 0xff for neither.
struct Digits {
    uint8_t value[256];
    constexpr Digits() : value() {
        for (int c = 0; c < 256; ++c) {
            value[c] = c >= '0' && c <= '9'   ? static_cast<uint8_t>(c - '0')
                       : c >= 'a' && c <= 'f' ? static_cast<uint8_t>(c - 'a' + 10)
                                              : 0xff;
        }
    }
};
constexpr Digits kDigits;

bool convert(char conversion, std::string_view text, size_t* pos, int64_t* number,
             std::string_view* word) {
    size_t i = *pos;
    const size_t n = text.size();
    if (conversion == 's') {
        *pos = std::min(text.find(' ', i), n);
        *word = text.substr(i, *pos - i);
        return *pos > i;
    }
    const bool hex = conversion == 'p';
    if (hex) {
        if (i + 1 < n && text[i] == '(' && text.compare(i, 5, "(nil)") == 0) {
            *number = 0;
            *pos = i + 5;
            return true;
        }
        if (i + 1 >= n || text[i] != '0' || text[i + 1] != 'x') {
            return false;
        }
        i += 2;
    }
    const bool negative = conversion == 'd' && i < n && text[i] == '-';
    i += negative ? 1 : 0;
    const size_t start = i;
    const size_t end = std::min(n, start + (hex ? 16 : 10));
    const unsigned base = hex ? 16 : 10;
    uint64_t value = 0;
    for (; i < end; ++i) {
        const unsigned digit = kDigits.value[static_cast<unsigned char>(text[i])];
        if (digit >= base) {
            break;
        }
        value = value * base + digit;
    }
    if (conversion == 'u' && value > INT32_MAX && value <= UINT32_MAX) {
        value -= UINT64_C(1) << 32;
    }
    *number = negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
    *pos = i;
    return i > start;
}

}  // namespace

// A pattern read once into its literal runs and conversions, and the
// patterns of each function: a line is matched against its function's only.
struct Compiled {
    struct Step {
        std::string_view literal;  // compared at once
        char conversion;           // then this, or '\0' at the end
        char field;
    };
    const Pattern* pattern;
    std::vector<Step> steps;
};

namespace {

struct Table {
    std::vector<Compiled> byFunction[static_cast<int>(Fn::KeepTuningDDArray) + 1];
    Table() {
        for (const Pattern& pattern : kPatterns) {
            Compiled compiled{&pattern, {}};
            const std::string_view format = pattern.format;
            const std::string_view fields = pattern.fields;
            size_t k = 0;
            for (size_t at = 0; at <= format.size();) {
                const size_t percent = std::min(format.find('%', at), format.size());
                const char conversion = percent < format.size() ? format[percent + 1] : '\0';
                const char field = conversion == '\0' ? 'x' : k < fields.size() ? fields[k] : 'x';
                compiled.steps.push_back({format.substr(at, percent - at), conversion, field});
                k += conversion != '\0' ? 1 : 0;
                at = percent + 2;
            }
            byFunction[static_cast<int>(pattern.function)].push_back(std::move(compiled));
        }
    }
};

bool match(const Compiled& compiled, std::string_view message, Line* line) {
    size_t pos = 0;
    for (const Compiled::Step& step : compiled.steps) {
        const size_t length = step.literal.size();
        if (message.size() - pos < length) {
            return false;
        }
        if (memcmp(message.data() + pos, step.literal.data(), length) != 0) {
            return false;
        }
        pos += step.literal.size();
        if (step.conversion == '\0') {
            break;
        }
        int64_t number = 0;
        std::string_view word;
        if (!convert(step.conversion, message, &pos, &number, &word)) {
            return false;
        }
        const uint64_t pointer = static_cast<uint64_t>(number);
        switch (step.field) {
            case 'R':
                line->record = pointer;
                break;
            case 'O':
                line->object = pointer;
                break;
            case 'P':
            case 'T':
                line->other = pointer;
                break;
            case 'C':
                line->count = number;
                break;
            case 'N':
                line->number = number;
                break;
            case 'S':
                line->id = word;
                break;
            default:
                break;
        }
    }
    return pos == message.size();
}

}  // namespace

namespace {

const Table& table() {
    static const Table kTable;
    return kTable;
}

void fill(const Compiled& compiled, Line* line) {
    const Pattern& pattern = *compiled.pattern;
    line->event = pattern.event;
    line->function = pattern.function;
    line->group = pattern.group;
    if (strchr(pattern.fields, 'N') == nullptr) {
        line->number = -1;  // the logical result; for a rebuild, some cameras
    }
}

}  // namespace

bool Classifier::classify(std::string_view text, Line* out) {
    // "<group> <file>:<line> <function>()<message>"; a function object's
    // function is "operator()".
    const size_t first = text.find(' ');
    const size_t at = first == std::string_view::npos ? first : text.find(' ', first + 1);
    if (at == std::string_view::npos) {
        return false;
    }
    uint32_t source = 0;
    for (size_t i = text.rfind(':', at) + 1; i < at && text[i] >= '0' && text[i] <= '9'; ++i) {
        source = source * 10 + static_cast<uint32_t>(text[i] - '0');
    }
    const size_t from = text.compare(at + 1, 10, "operator()") == 0 ? at + 11 : at + 1;
    const size_t parens = text.find("()", from);
    if (parens == std::string_view::npos) {
        return false;
    }
    const std::string_view name = text.substr(at + 1, parens - at - 1);
    const std::string_view message = text.substr(parens + 2);
    // A call site logs one format: the one it logged last is tried first.
    std::vector<Site>& sites = mSites[source % kSites];
    for (const Site& site : sites) {
        if (site.source == source && site.name == name) {
            Line line;
            if (match(*site.pattern, message, &line)) {
                fill(*site.pattern, &line);
                *out = line;
                return true;
            }
        }
    }
    const auto* function = std::find_if(std::begin(kFunctions), std::end(kFunctions),
                                        [name](const auto& f) { return f.name == name; });
    if (function == std::end(kFunctions)) {
        return false;
    }
    for (const Compiled& compiled : table().byFunction[static_cast<int>(function->function)]) {
        Line line;
        if (match(compiled, message, &line)) {
            fill(compiled, &line);
            *out = line;
            auto known = std::find_if(sites.begin(), sites.end(), [&](const Site& site) {
                return site.source == source && site.name == name;
            });
            if (known != sites.end()) {
                known->pattern = &compiled;
            } else if (sites.size() < 8) {
                sites.push_back({source, std::string(name), &compiled});
            }
            return true;
        }
    }
    return false;
}

bool looksLikeLibrary(std::string_view text) {
    const size_t first = text.find(' ');
    const size_t second = first == std::string_view::npos ? first : text.find(' ', first + 1);
    if (second == std::string_view::npos) {
        return false;
    }
    const std::string_view place = text.substr(first + 1, second - first - 1);
    const size_t colon = place.rfind(':');
    return colon != std::string_view::npos && colon >= 4 && place.substr(colon - 4, 4) == ".cpp" &&
           text.find("()", second) != std::string_view::npos;
}

}  // namespace logcheck
