// SPDX-License-Identifier: Apache-2.0
#include "logcheck.h"

#include <errno.h>

#include <inttypes.h>

#include <algorithm>
#include <vector>

namespace logcheck {

namespace {

std::vector<Finding> sortedFindings(const Checker& checker) {
    std::vector<Finding> all;
    for (const Process& process : checker.processes()) {
        all.insert(all.end(), process.findings.begin(), process.findings.end());
    }
    std::stable_sort(all.begin(), all.end(), [](const Finding& a, const Finding& b) {
        if (a.kind != b.kind) {
            return a.kind < b.kind;
        }
        return a.certain > b.certain;
    });
    return all;
}

std::string pointer(uint64_t object) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, object);
    return text;
}

// The checks the log's lines could not support, and why.
std::vector<std::string> notChecked(const Seen& seen) {
    std::vector<std::string> missing;
    if (!seen.lifetime) {
        missing.push_back(
                "record-leak, debug-data-leak: no Debug line of group 128 (record lifetime, "
                "debug data references)");
    }
    if (!seen.metaInfo) {
        missing.push_back(
                "chi-meta-leak, chi-meta-double-destroy, reference-underflow: no Info line of "
                "group 64 (CHI metadata objects and references)");
    }
    if (seen.lifetime && !seen.metaDebug) {
        missing.push_back("debug-data-leak of freed buffers: no Debug line of group 64");
    }
    if (seen.tracesOff) {
        missing.push_back(
                "reference-underflow in result reconciliation: its reference traces need "
                "gKyCamLogLevel below 3");
    }
    return missing;
}

void jsonCount(FILE* out, const char* name, const Count& count, bool last) {
    fprintf(out,
            "\"%s\": {\"created\": %" PRIu64 ", \"before\": %" PRIu64 ", \"ended\": %" PRIu64
            ", \"alive\": %" PRIu64 "}%s",
            name, count.created, count.before, count.ended, count.alive(), last ? "" : ", ");
}

void jsonTotals(FILE* out, const Totals& totals) {
    fprintf(out, "{");
    jsonCount(out, "records", totals.records, false);
    jsonCount(out, "chi_metas", totals.chiMetas, false);
    jsonCount(out, "debug_data", totals.debugData, true);
    fprintf(out, "}");
}

void jsonString(FILE* out, const std::string& text) {
    fputc('"', out);
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') {
            fprintf(out, "\\%c", c);
        } else if (c < 0x20) {
            fprintf(out, "\\u%04x", c);
        } else {
            fputc(c, out);
        }
    }
    fputc('"', out);
}

}  // namespace

bool readLog(int fd, Format format, Checker& checker, InputStats& stats, int* error,
             const volatile sig_atomic_t* stop) {
    Reader reader(fd);
    Entry entry;
    // Binary entries carry NUL bytes at once; logcat's text never does.
    if (format == Format::Binary ||
        (format == Format::Auto && reader.peek(64).find('\0') != std::string_view::npos)) {
        if (!BinaryReader::available()) {
            *error = ENOTSUP;
            return false;
        }
        stats.format = Format::Binary;
        BinaryReader binary(reader);
        BinaryReader::Result result;
        while (!*stop && (result = binary.next(&entry)) != BinaryReader::Result::End) {
            ++stats.lines;
            if (result == BinaryReader::Result::Entry) {
                entry.line = stats.lines;
                checker.add(entry);
            } else {
                ++stats.skipped;
            }
        }
    } else {
        TextParser parser(format);
        std::string_view line;
        bool cut = false;
        while (!*stop && reader.line(&line, &cut)) {
            ++stats.lines;
            switch (cut ? TextParser::Result::Skipped : parser.feed(line, stats.lines, &entry)) {
                case TextParser::Result::Entry:
                    checker.add(entry);
                    break;
                case TextParser::Result::Marker:
                    ++stats.markers;
                    break;
                case TextParser::Result::Skipped:
                    ++stats.skipped;
                    break;
                case TextParser::Result::Continuation:
                    break;
            }
        }
        if (parser.seen() != Format::Auto) {
            stats.format = parser.seen();
        }
    }
    *error = reader.error();
    return *error == 0 || (*error == EINTR && *stop);
}

std::string describe(const Finding& f) {
    char where[160];
    snprintf(where, sizeof(where), " pid %d tid %d lines %" PRIu64 "-%" PRIu64, f.pid, f.tid,
             f.firstLine, f.lastLine);
    std::string text = std::string(kindName(f.kind)) + " " + pointer(f.object) + where;
    text += f.rule != nullptr ? std::string(" rule ") + f.rule : std::string();
    text += f.certain ? "" : " (uncertain)";
    text += f.processEnded ? " (process ended)" : "";
    return text + (f.detail.empty() ? "" : ": " + f.detail);
}

void printHuman(FILE* out, const Checker& checker, const InputStats& input) {
    const std::vector<Finding> findings = sortedFindings(checker);
    const size_t uncertain = static_cast<size_t>(std::count_if(
            findings.begin(), findings.end(), [](const Finding& f) { return !f.certain; }));
    const size_t processes = checker.processes().size();
    if (findings.empty()) {
        fprintf(out, "postproc-logcheck: no finding in %zu process%s\n", processes,
                processes == 1 ? "" : "es");
    } else {
        fprintf(out, "postproc-logcheck: %zu finding%s (%zu uncertain) in %zu process%s\n",
                findings.size(), findings.size() == 1 ? "" : "s", uncertain, processes,
                processes == 1 ? "" : "es");
    }
    if (checker.libraryLines() == 0) {
        fprintf(out, "no KyCamAdapter line: nothing was checked\n");
    }
    for (const Process& process : checker.processes()) {
        fprintf(out, "\npid %d, lines %" PRIu64 "-%" PRIu64 "%s, %zu finding%s\n", process.pid,
                process.firstLine, process.lastLine, process.ended ? ", process ended" : "",
                process.findings.size(), process.findings.size() == 1 ? "" : "s");
        fprintf(out, "  %-12s %8s %8s %8s %8s\n", "family", "created", "before", "ended", "alive");
        const std::pair<const char*, const Count*> rows[] = {
                {"records", &process.totals.records},
                {"chi metas", &process.totals.chiMetas},
                {"debug data", &process.totals.debugData}};
        for (const auto& [name, count] : rows) {
            fprintf(out, "  %-12s %8" PRIu64 " %8" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n", name,
                    count->created, count->before, count->ended, count->alive());
        }
    }
    if (!findings.empty()) {
        fprintf(out, "\nfindings, most severe first:\n");
        for (const Finding& finding : findings) {
            fprintf(out, "  %s\n", describe(finding).c_str());
        }
    }
    const std::vector<std::string> missing = notChecked(checker.seen());
    if (checker.libraryLines() != 0 && !missing.empty()) {
        fprintf(out, "\nnot checked:\n");
        for (const std::string& reason : missing) {
            fprintf(out, "  %s\n", reason.c_str());
        }
        fprintf(out,
                "for every check: gKyCamLogLevel 2 or less, gKyCamLogGroup with 64 and 128 "
                "(0xc0); gKyCamDebugMask does not matter (it feeds the framework's own log)\n");
    }
    fprintf(out,
            "\ninput: %" PRIu64 " %s (%s), %" PRIu64 " of KyCamAdapter (%" PRIu64
            " without a ledger event), %" PRIu64 " of other tags, %" PRIu64 " markers, %" PRIu64
            " skipped%s\n",
            input.lines, input.format == Format::Binary ? "entries" : "lines",
            formatName(input.format), checker.libraryLines(), checker.unknownLines(),
            checker.otherLines(), input.markers, input.skipped,
            input.interrupted ? "; interrupted" : "");
}

void printJson(FILE* out, const Checker& checker, const InputStats& input) {
    const std::vector<Finding> findings = sortedFindings(checker);
    fprintf(out, "{\"verdict\": \"%s\", \"findings\": [", findings.empty() ? "clean" : "findings");
    for (size_t i = 0; i < findings.size(); ++i) {
        const Finding& f = findings[i];
        fprintf(out,
                "%s{\"kind\": \"%s\", \"object\": \"%s\", \"pid\": %d, \"tid\": %d, "
                "\"first_line\": %" PRIu64 ", \"last_line\": %" PRIu64 ", \"rule\": ",
                i == 0 ? "" : ", ", kindName(f.kind), pointer(f.object).c_str(), f.pid, f.tid,
                f.firstLine, f.lastLine);
        if (f.rule != nullptr) {
            jsonString(out, f.rule);
        } else {
            fprintf(out, "null");
        }
        fprintf(out, ", \"certain\": %s, \"process_ended\": %s, \"detail\": ",
                f.certain ? "true" : "false", f.processEnded ? "true" : "false");
        jsonString(out, f.detail);
        fprintf(out, "}");
    }
    Totals totals;
    for (const Process& process : checker.processes()) {
        totals += process.totals;
    }
    fprintf(out, "], \"totals\": ");
    jsonTotals(out, totals);
    fprintf(out, ", \"processes\": [");
    for (size_t i = 0; i < checker.processes().size(); ++i) {
        const Process& p = checker.processes()[i];
        fprintf(out,
                "%s{\"pid\": %d, \"ended\": %s, \"first_line\": %" PRIu64
                ", \"last_line\": %" PRIu64 ", \"findings\": %zu, \"totals\": ",
                i == 0 ? "" : ", ", p.pid, p.ended ? "true" : "false", p.firstLine, p.lastLine,
                p.findings.size());
        jsonTotals(out, p.totals);
        fprintf(out, "}");
    }
    fprintf(out, "], \"not_checked\": [");
    const std::vector<std::string> missing = notChecked(checker.seen());
    for (size_t i = 0; i < missing.size() && checker.libraryLines() != 0; ++i) {
        fprintf(out, "%s", i == 0 ? "" : ", ");
        jsonString(out, missing[i]);
    }
    fprintf(out,
            "], \"input\": {\"format\": \"%s\", \"lines\": %" PRIu64 ", \"library_lines\": %" PRIu64
            ", \"unknown_library_lines\": %" PRIu64 ", \"other_lines\": %" PRIu64
            ", \"markers\": %" PRIu64 ", \"skipped\": %" PRIu64 ", \"interrupted\": %s}}\n",
            formatName(input.format), input.lines, checker.libraryLines(), checker.unknownLines(),
            checker.otherLines(), input.markers, input.skipped,
            input.interrupted ? "true" : "false");
}

}  // namespace logcheck
