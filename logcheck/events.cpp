// SPDX-License-Identifier: Apache-2.0
#include "events.h"

#include <string.h>

namespace logcheck {

namespace {

// How the conversions of a format land in a LibraryLine: R record, O object,
// T other record, C count, S id, x not kept.
struct Pattern {
    const char* function;
    const char* format;
    Event event;
    uint8_t group;
    const char* fields;
};

// The library's messages, as it formats them.
constexpr const char* kPrivResults =
        "PostProcsInfo %p m_pPrivResult %p request phyCamIdSet size %u mSamelogical_PhyResult %d";
constexpr const char* kRefLogical = "PostProcsInfo %p m_pPrivResult %p ref %u";
constexpr const char* kRefPhysical = "PostProcsInfo %p phyCamId %u privResult %p ref %u";
constexpr const char* kDestructDebugData =
        "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d destruct debugData pData:%p after dec "
        "ref is %d";
constexpr const char* kFree = "PostProcsInfo %p free data:%p";
constexpr const char* kPhysical = "PostProcsInfo %p PrivPhyCamId %s PrivPhyResult %p";

const Pattern kPatterns[] = {
        {"QcomPostProcInfo", "Construct QcomPostProcInfo %p, after sum %d", Event::Construct, 128,
         "RC"},
        {"QcomPostProcInfo",
         "Deep Construct QcomPostProcInfo %p m_pPrivResult %p, after sum %d, info from "
         "QcomPostProcInfo %p m_pPrivResult %p",
         Event::Construct, 64, "RxCTx"},
        {"QcomPostProcInfo",
         "%p deep Construct, m_pPrivPhyResults %p index is %d from other.m_pPrivPhyResults[%d] %p",
         Event::CopyMeta, 64, "R"},
        {"QcomPostProcInfo", "%p deep Construct, m_pPrivResult %p from other.m_pPrivResult %p",
         Event::CopyMeta, 64, "RO"},
        {"~QcomPostProcInfo", "Destruct  QcomPostProcInfo %p, before sum %d", Event::Destruct, 128,
         "RC"},
        {"~QcomPostProcInfo", kDestructDebugData, Event::DebugDec, 128, "RxOC"},
        {"~QcomPostProcInfo", kFree, Event::DebugFree, 64, "RO"},
        {"shallowClone",
         "shallow copy QcomPostProcInfo %p m_pPrivResult %p, info from QcomPostProcInfo %p "
         "m_pPrivResult %p",
         Event::ShallowCopy, 64, "RxTx"},
        {"createChiMeta",
         "Create ChiMeta %p ref %u isMultiTypeContextMeta %d isMultiCameraContextMeta %d "
         "ChimetaSum %d",
         Event::MetaCreate, 64, "OxxxC"},
        {"destroyChiMeta", "Destroy ChiMeta %p ref %u ChimetaSum %d", Event::MetaDestroy, 64,
         "OxC"},
        {"destroyChiMeta", "chiMetaHandle %p is destroyed, no need to destroy", Event::MetaRefused,
         64, "O"},
        {"addChiMetasRef", kRefLogical, Event::RefAdd, 64, "ROC"},
        {"addChiMetasRef", kRefPhysical, Event::RefAdd, 64, "RxOC"},
        {"releaseChiMetasRef", kRefLogical, Event::RefRelease, 64, "ROC"},
        {"releaseChiMetasRef", kRefPhysical, Event::RefRelease, 64, "RxOC"},
        {"releaseChiMetasRefWithCameraId", kRefLogical, Event::RefRelease, 64, "ROC"},
        {"releaseChiMetasRefWithCameraId", kRefPhysical, Event::RefRelease, 64, "RxOC"},
        {"isMetaUsedInQC", "PostProcInfo %p ChiMeta %p ref %u", Event::RefRead, 64, "ROC"},
        {"resetChiMetas", "PostProcInfo %p ChiMeta %p ref %u be reset!", Event::RefRead, 64, "ROC"},
        {"resetChiMetas", "PostProcInfo %p ChiMeta %p ref %u still in use, cannot be reset!",
         Event::RefRead, 64, "ROC"},
        {"checkAndUpdatePrivResult", "PostProcsInfo %p the chi meta: %p AddReference ref: %d",
         Event::TraceAdd, 64, "ROC"},
        {"checkAndUpdatePrivResult", "PostProcsInfo %p the chi meta: %p ReleaseReference ref: %d",
         Event::TraceRelease, 64, "ROC"},
        {"checkAndUpdatePrivResult",
         "PostProcsInfo %p vndFrame:%u update phycam %d result->priv_physcam_metadata[%d] %p",
         Event::Adopted, 64, "RxxxO"},
        {"checkAndUpdatePrivResult",
         "PostProcsInfo %p vndFrame:%u m_pPrivResult %p not same as result->priv_metadata %p",
         Event::Displacing, 64, "RxOT"},
        {"createPrivResultMeta", kPrivResults, Event::PrivCreate, 64, "RO"},
        {"createPrivResultMeta", kPhysical, Event::PrivPhy, 64, "RSO"},
        {"createTuningMetaBufs", kPrivResults, Event::PrivCreate, 64, "RO"},
        {"createTuningMetaBufs", kPhysical, Event::PrivPhy, 64, "RSO"},
        {"destroyTuningMetaBufs", kPrivResults, Event::DestroyTuning, 64, "R"},
        {"destroyTuningMetaBufs", kDestructDebugData, Event::DebugDec, 64, "RxOC"},
        {"releaseTuningMetaBufs", kPrivResults, Event::ReleaseTuning, 64, "R"},
        {"addDebugDataAndRef", "PostProcsInfo %p add DebugDataPtr %p ref %d", Event::DebugAdd, 128,
         "ROC"},
        {"keep3aDebugData",
         "[Offline DebugData] PostProcsInfo %p add phycamId %d 3adebugData pData:%p after add ref "
         "is %d",
         Event::DebugKeep, 128, "RxOC"},
        {"keepTuningDDArray",
         "[Offline DebugData] PostProcsInfo %p add phycamId %d DebugDataArrayTuning index %u "
         "pData:%p after add ref is %d",
         Event::DebugKeep, 128, "RxxOC"},
        {"setTuningMetaBufs", "PostProcsInfo %p add DebugDataPtr %p", Event::DebugAdopt, 64, "RO"},
        {"reset",
         "[Offline DebugData] PostProcsInfo %p mEnableIQBM %d reset debugData pData:%p after dec "
         "ref is %d",
         Event::DebugDec, 128, "RxOC"},
        {"reset", kFree, Event::DebugFree, 64, "RO"},
        // Lines that only name their record, of the group each belongs to.
        {"createTuningParams", "PostProcsInfo %p mTuningParam:%p", Event::Other, 64, "R"},
        {"getTuningMetaBufs", "PostProcsInfo %p", Event::Other, 64, "R"},
        {"setTuningMetaBufs", "PostProcsInfo %p", Event::Other, 64, "R"},
        {"setHalRequestPrivResultMeta",
         "PostProcsInfo %p halRequest priv_result %p priv_physcam_result %p", Event::Other, 64,
         "R"},
        {"checkAndUpdatePrivResult",
         "PostProcsInfo %p mSupportPrivMeta %d vndFrame:%u m_pPrivResult %p result->priv_metadata "
         "%p",
         Event::Other, 64, "R"},
};

struct Value {
    int64_t number;
    std::string_view text;
};

bool hexDigit(char c, int* value) {
    if (c >= '0' && c <= '9') {
        *value = c - '0';
    } else if (c >= 'a' && c <= 'f') {
        *value = c - 'a' + 10;
    } else {
        return false;
    }
    return true;
}

// Reads one conversion at text[*pos].
bool convert(char conversion, std::string_view text, size_t* pos, Value* out) {
    size_t i = *pos;
    out->number = 0;
    if (conversion == 'p') {
        // glibc prints a null pointer as "(nil)", bionic as "0x0".
        if (text.compare(i, 5, "(nil)") == 0) {
            *pos = i + 5;
            return true;
        }
        if (text.compare(i, 2, "0x") != 0) {
            return false;
        }
        i += 2;
        int digit = 0;
        uint64_t value = 0;
        const size_t start = i;
        for (; i < text.size() && i - start < 16 && hexDigit(text[i], &digit); ++i) {
            value = value << 4 | static_cast<uint64_t>(digit);
        }
        out->number = static_cast<int64_t>(value);
        *pos = i;
        return i > start;
    }
    if (conversion == 's') {
        const size_t end = std::min(text.find(' ', i), text.size());
        out->text = text.substr(i, end - i);
        *pos = end;
        return end > i;
    }
    const bool negative = conversion == 'd' && i < text.size() && text[i] == '-';
    i += negative ? 1 : 0;
    const size_t start = i;
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9' && i - start < 10; ++i) {
        value = value * 10 + (text[i] - '0');
    }
    out->number = negative ? -value : value;
    *pos = i;
    return i > start;
}

// Matches text against a format of the library: literal text byte for byte,
// %p, %d, %u and %s read into values.
bool scan(const char* format, std::string_view text, Value* values, size_t* count) {
    size_t pos = 0;
    *count = 0;
    for (const char* f = format; *f != '\0'; ++f) {
        if (f[0] == '%' && f[1] != '\0') {
            if (*count == 6 || !convert(*++f, text, &pos, &values[(*count)++])) {
                return false;
            }
        } else if (pos >= text.size() || text[pos++] != *f) {
            return false;
        }
    }
    return pos == text.size();
}

// "<group> <file>:<line> <function>()": the function ends at the first "()"
// after it, except that a function object's is "operator()".
bool splitPrefix(std::string_view text, std::string_view* function, std::string_view* message) {
    size_t at = text.find(' ');
    at = at == std::string_view::npos ? at : text.find(' ', at + 1);
    if (at == std::string_view::npos || text.rfind(':', at) == std::string_view::npos) {
        return false;
    }
    const size_t start = at + 1;
    const size_t from = text.compare(start, 10, "operator()") == 0 ? start + 10 : start;
    const size_t parens = text.find("()", from);
    if (parens == std::string_view::npos) {
        return false;
    }
    *function = text.substr(start, parens - start);
    *message = text.substr(parens + 2);
    return true;
}

}  // namespace

bool classify(std::string_view text, LibraryLine* out) {
    std::string_view function;
    std::string_view message;
    if (!splitPrefix(text, &function, &message)) {
        return false;
    }
    Value values[6];
    for (const Pattern& pattern : kPatterns) {
        size_t count = 0;
        if (function != pattern.function || !scan(pattern.format, message, values, &count)) {
            continue;
        }
        *out = LibraryLine{};
        out->event = pattern.event;
        out->group = pattern.group;
        out->function = function;
        for (size_t k = 0; k < count && pattern.fields[k] != '\0'; ++k) {
            const uint64_t pointer = static_cast<uint64_t>(values[k].number);
            switch (pattern.fields[k]) {
                case 'R':
                    out->record = pointer;
                    break;
                case 'O':
                    out->object = pointer;
                    break;
                case 'T':
                    out->other = pointer;
                    break;
                case 'C':
                    out->count = values[k].number;
                    break;
                case 'S':
                    out->id = values[k].text;
                    break;
                default:
                    break;
            }
        }
        return true;
    }
    return false;
}

}  // namespace logcheck
