// SPDX-License-Identifier: Apache-2.0
#include <errno.h>
#include <inttypes.h>

#include <algorithm>

#include "logcheck.h"

namespace logcheck {

namespace {

std::vector<Finding> sortedFindings(const Checker& checker) {
    std::vector<Finding> all;
    for (const Process& process : checker.processes()) {
        all.insert(all.end(), process.findings.begin(), process.findings.end());
    }
    std::stable_sort(all.begin(), all.end(), [](const Finding& a, const Finding& b) {
        return a.kind != b.kind ? a.kind < b.kind : a.certain > b.certain;
    });
    return all;
}

std::string pointer(uint64_t object) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, object);
    return text;
}

// The checks the log's lines could not support, and why.
std::vector<std::string> notChecked(const Checker& checker) {
    const Seen& seen = checker.seen();
    std::vector<std::string> missing;
    if (checker.libraryLines() == 0) {
        return missing;
    }
    if (!seen.lifetime) {
        missing.push_back("record-leak, debug-data-leak: no Debug line of group 128");
    }
    if (!seen.metaInfo) {
        missing.push_back(
                "chi-meta-leak, chi-meta-double-destroy, reference-underflow: no Info line of "
                "group 64");
    }
    if (seen.lifetime && !seen.metaDebug) {
        missing.push_back("debug-data-leak of freed buffers: no Debug line of group 64");
    }
    if (!seen.threadIds) {
        missing.push_back(
                "certain findings: no thread ids (brief and time have none; use -v threadtime)");
    }
    if (seen.metaInfo && !seen.traces) {
        missing.push_back(
                "reference-underflow in result reconciliation: no reference trace (gKyCamLogLevel "
                "below 3)");
    }
    return missing;
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

void jsonTotals(FILE* out, const Totals& totals) {
    const std::pair<const char*, const Count*> families[] = {{"records", &totals.records},
                                                             {"chi_metas", &totals.chiMetas},
                                                             {"debug_data", &totals.debugData}};
    for (const auto& [name, count] : families) {
        fprintf(out,
                "%s\"%s\": {\"created\": %" PRIu64 ", \"before\": %" PRIu64 ", \"ended\": %" PRIu64
                ", \"alive\": %" PRIu64 "}",
                name == families[0].first ? "{" : ", ", name, count->created, count->before,
                count->ended, count->alive());
    }
    fputc('}', out);
}

const char* plural(size_t n, const char* one, const char* many) {
    return n == 1 ? one : many;
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
        for (BinaryReader::Result result;
             !*stop && (result = binary.next(&entry)) != BinaryReader::Result::End;) {
            entry.line = ++stats.lines;
            if (result == BinaryReader::Result::Entry) {
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
            const auto result =
                    cut ? TextParser::Result::Skipped : parser.feed(line, ++stats.lines, &entry);
            stats.lines += cut ? 1 : 0;
            stats.markers += result == TextParser::Result::Marker ? 1 : 0;
            stats.skipped += result == TextParser::Result::Skipped ? 1 : 0;
            if (result == TextParser::Result::Entry) {
                checker.add(entry);
            }
        }
        stats.format = parser.seen() != Format::Auto ? parser.seen() : stats.format;
    }
    *error = reader.error();
    return *error == 0 || (*error == EINTR && *stop);
}

std::string describe(const Finding& f) {
    char where[96];
    snprintf(where, sizeof(where), " pid %d tid %d lines %" PRIu64 "-%" PRIu64, f.pid, f.tid,
             f.firstLine, f.lastLine);
    return std::string(kindName(f.kind)) + " " + pointer(f.object) + where +
           (f.rule != nullptr ? std::string(" rule ") + f.rule : "") +
           (f.certain ? "" : " (uncertain)") + (f.processEnded ? " (process ended)" : "") +
           (f.detail.empty() ? "" : ": " + f.detail);
}

void printHuman(FILE* out, const Checker& checker, const InputStats& input) {
    const std::vector<Finding> findings = sortedFindings(checker);
    const size_t processes = checker.processes().size();
    const size_t uncertain = static_cast<size_t>(std::count_if(
            findings.begin(), findings.end(), [](const Finding& f) { return !f.certain; }));
    if (findings.empty()) {
        fprintf(out, "postproc-logcheck: no finding in %zu %s\n", processes,
                plural(processes, "process", "processes"));
    } else {
        fprintf(out, "postproc-logcheck: %zu %s (%zu uncertain) in %zu %s\n", findings.size(),
                plural(findings.size(), "finding", "findings"), uncertain, processes,
                plural(processes, "process", "processes"));
    }
    if (checker.libraryLines() == 0) {
        fprintf(out, "no KyCamAdapter line: nothing was checked\n");
    }
    for (const Process& p : checker.processes()) {
        fprintf(out, "\npid %d, lines %" PRIu64 "-%" PRIu64 "%s, %zu %s\n", p.pid, p.firstLine,
                p.lastLine, p.ended ? ", process ended" : "", p.findings.size(),
                plural(p.findings.size(), "finding", "findings"));
        fprintf(out, "  %-12s %8s %8s %8s %8s\n", "family", "created", "before", "ended", "alive");
        const std::pair<const char*, const Count*> rows[] = {{"records", &p.totals.records},
                                                             {"chi metas", &p.totals.chiMetas},
                                                             {"debug data", &p.totals.debugData}};
        for (const auto& [name, c] : rows) {
            fprintf(out, "  %-12s %8" PRIu64 " %8" PRIu64 " %8" PRIu64 " %8" PRIu64 "\n", name,
                    c->created, c->before, c->ended, c->alive());
        }
    }
    if (!findings.empty()) {
        fprintf(out, "\nfindings, most severe first:\n");
        for (const Finding& finding : findings) {
            fprintf(out, "  %s\n", describe(finding).c_str());
        }
    }
    const std::vector<std::string> missing = notChecked(checker);
    if (!missing.empty()) {
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
    for (const Finding& f : findings) {
        fprintf(out,
                "%s{\"kind\": \"%s\", \"object\": \"%s\", \"pid\": %d, \"tid\": %d, "
                "\"first_line\": %" PRIu64 ", \"last_line\": %" PRIu64 ", \"rule\": ",
                &f == &findings[0] ? "" : ", ", kindName(f.kind), pointer(f.object).c_str(), f.pid,
                f.tid, f.firstLine, f.lastLine);
        f.rule != nullptr ? jsonString(out, f.rule) : (void)fputs("null", out);
        fprintf(out, ", \"certain\": %s, \"process_ended\": %s, \"detail\": ",
                f.certain ? "true" : "false", f.processEnded ? "true" : "false");
        jsonString(out, f.detail);
        fputc('}', out);
    }
    Totals totals;
    for (const Process& process : checker.processes()) {
        totals += process.totals;
    }
    fprintf(out, "], \"totals\": ");
    jsonTotals(out, totals);
    fprintf(out, ", \"processes\": [");
    for (const Process& p : checker.processes()) {
        fprintf(out,
                "%s{\"pid\": %d, \"ended\": %s, \"first_line\": %" PRIu64
                ", \"last_line\": %" PRIu64 ", \"findings\": %zu, \"totals\": ",
                &p == &checker.processes()[0] ? "" : ", ", p.pid, p.ended ? "true" : "false",
                p.firstLine, p.lastLine, p.findings.size());
        jsonTotals(out, p.totals);
        fputc('}', out);
    }
    fprintf(out, "], \"not_checked\": [");
    const std::vector<std::string> missing = notChecked(checker);
    for (const std::string& reason : missing) {
        fputs(&reason == &missing[0] ? "" : ", ", out);
        jsonString(out, reason);
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
