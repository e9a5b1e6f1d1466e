// SPDX-License-Identifier: Apache-2.0
#include <inttypes.h>
#include <string.h>

#include <algorithm>

#include "report.h"

namespace logcheck {

namespace {

// Findings past this many get a summary by rule first, and each rule shows
// its first few unless every one is asked for.
constexpr size_t kScreenful = 20;
constexpr size_t kShownPerRule = 5;

}  // namespace

const char* ruleName(const Finding& f) {
    return f.rule != nullptr ? f.rule : "(no rule)";
}

const char* whatToDo(const Finding& f) {
    const char* what = advice(f.rule);
    return what != nullptr ? what
                           : "lines are missing from the log: keep logd from dropping them (adb "
                             "logcat -G 16M, logcat -P '') and check again";
}

std::vector<const Finding*> grouped(const Checker& checker) {
    std::vector<const Finding*> all;
    for (const Process& process : checker.processes()) {
        for (const Finding& f : process.findings) {
            all.push_back(&f);
        }
    }
    std::map<std::string, std::pair<Kind, uint64_t>> rank;  // rule: most severe, first line
    for (const Finding* f : all) {
        const uint64_t line = f->evidence.empty() ? 0 : f->evidence.front();
        auto [it, fresh] = rank.try_emplace(ruleName(*f), f->kind, line);
        if (!fresh) {
            it->second = std::min(it->second, {f->kind, line});
        }
    }
    std::stable_sort(all.begin(), all.end(), [&rank](const Finding* a, const Finding* b) {
        const auto& ra = rank.at(ruleName(*a));
        const auto& rb = rank.at(ruleName(*b));
        if (ra != rb) {
            return ra < rb;
        }
        if (strcmp(ruleName(*a), ruleName(*b)) != 0) {
            return strcmp(ruleName(*a), ruleName(*b)) < 0;
        }
        if (a->kind != b->kind) {
            return a->kind < b->kind;
        }
        if (a->certain != b->certain) {
            return a->certain;
        }
        return a->evidence < b->evidence;
    });
    return all;
}

std::string pointer(uint64_t object) {
    char text[24];
    snprintf(text, sizeof(text), "0x%" PRIx64, object);
    return text;
}

namespace {

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
                "lines that name no record are placed by guess: the format has no thread ids "
                "(use -v threadtime)");
    }
    if (seen.metaInfo && !seen.traces) {
        missing.push_back(
                "reference-underflow in result reconciliation: no reference trace (it needs "
                "gKyCamLogLevel 2 or less)");
    }
    return missing;
}

// Why nothing was checked, as far as the input shows.
std::string nothingReason(const InputStats& input) {
    if (input.lines == 0) {
        return "the input is empty";
    }
    if (input.rawLibraryLines != 0) {
        return std::to_string(input.rawLibraryLines) +
               " line(s) hold the library's messages without logcat's header (-v raw?): read "
               "the log with -v threadtime";
    }
    if (input.format == Format::Binary) {
        return "no KyCamAdapter entry in " + std::to_string(input.lines) + " binary entries";
    }
    if (input.bugReport) {
        return "no KyCamAdapter line in the bug report's logs";
    }
    return "no KyCamAdapter line in " + std::to_string(input.lines) + " lines";
}

}  // namespace

size_t utf8Length(std::string_view text, size_t i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
        return 1;
    }
    const size_t length = c >= 0xf0 && c <= 0xf4 ? 4 : c >= 0xe0 ? 3 : c >= 0xc2 ? 2 : 0;
    bool valid = length != 0 && i + length <= text.size() && c <= 0xf4;
    for (size_t k = 1; valid && k < length; ++k) {
        valid = (static_cast<unsigned char>(text[i + k]) & 0xc0) == 0x80;
    }
    if (valid && length == 3) {  // no overlong form, no surrogate
        const unsigned char next = static_cast<unsigned char>(text[i + 1]);
        valid = !(c == 0xe0 && next < 0xa0) && !(c == 0xed && next >= 0xa0);
    } else if (valid && length == 4) {
        const unsigned char next = static_cast<unsigned char>(text[i + 1]);
        valid = !(c == 0xf0 && next < 0x90) && !(c == 0xf4 && next >= 0x90);
    }
    return valid ? length : 0;
}

// Control characters escaped, bytes that are not UTF-8 replaced by U+FFFD.
void jsonString(FILE* out, std::string_view text) {
    fputc('"', out);
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = utf8Length(text, i);
        if (length == 0) {
            fputs("\\ufffd", out);
            ++i;
            continue;
        }
        if (c == '"' || c == '\\') {
            fprintf(out, "\\%c", c);
        } else if (c < 0x20 || c == 0x7f) {
            fprintf(out, "\\u%04x", c);
        } else {
            fwrite(text.data() + i, 1, length, out);
        }
        i += length;
    }
    fputc('"', out);
}

namespace {

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

struct RuleSummary {
    std::string rule;
    bool named = false;  // no host rule explains the unnamed group
    size_t findings = 0;
    size_t uncertain = 0;
    std::vector<Kind> kinds;
};

std::vector<RuleSummary> byRule(const std::vector<const Finding*>& findings) {
    std::vector<RuleSummary> rules;
    for (const Finding* f : findings) {
        if (rules.empty() || rules.back().rule != ruleName(*f)) {
            rules.push_back({ruleName(*f), f->rule != nullptr, 0, 0, {}});
        }
        RuleSummary& r = rules.back();
        ++r.findings;
        r.uncertain += f->certain ? 0 : 1;
        if (std::find(r.kinds.begin(), r.kinds.end(), f->kind) == r.kinds.end()) {
            r.kinds.push_back(f->kind);
        }
    }
    return rules;
}

void printEvidence(FILE* out, const Finding& f, const ReportOptions& options) {
    for (uint64_t line : f.evidence) {
        const auto text = options.texts != nullptr
                                  ? options.texts->find(line)
                                  : std::map<uint64_t, std::string>::const_iterator();
        if (options.texts != nullptr && text != options.texts->end()) {
            fprintf(out, "    %8" PRIu64 "  %s\n", line, text->second.c_str());
        } else {
            fprintf(out, "    %8" PRIu64 "\n", line);
        }
    }
}

}  // namespace

Verdict verdict(const Checker& checker) {
    if (checker.libraryLines() == 0) {
        return Verdict::NothingChecked;
    }
    for (const Process& process : checker.processes()) {
        if (!process.findings.empty()) {
            return Verdict::Findings;
        }
    }
    return Verdict::Clean;
}

int exitStatus(Verdict verdict) {
    switch (verdict) {
        case Verdict::Clean:
            return 0;
        case Verdict::Findings:
            return 1;
        case Verdict::NothingChecked:
            return 3;
    }
    return 1;
}

std::string describe(const Finding& f) {
    char where[64];
    snprintf(where, sizeof(where), " pid %d tid %d", f.pid, f.tid);
    std::string lines;
    for (uint64_t line : f.evidence) {
        lines += (lines.empty() ? " line " : ",") + std::to_string(line);
    }
    return std::string(kindName(f.kind)) + " " + pointer(f.object) + where + lines +
           (f.boot != 0 ? " (boot -" + std::to_string(f.boot) + ")" : "") +
           (f.rule != nullptr ? std::string(" rule ") + f.rule : "") +
           (f.certain ? "" : " (uncertain)") + (f.processEnded ? " (process ended)" : "") +
           (f.detail.empty() ? "" : ": " + f.detail);
}

std::vector<uint64_t> citedLines(const Checker& checker) {
    std::vector<uint64_t> lines;
    for (const Process& process : checker.processes()) {
        for (const Finding& f : process.findings) {
            lines.insert(lines.end(), f.evidence.begin(), f.evidence.end());
        }
    }
    std::sort(lines.begin(), lines.end());
    lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
    return lines;
}

std::string verdictSentence(const Checker& checker, const InputStats& input) {
    const std::vector<const Finding*> findings = grouped(checker);
    const size_t processes = checker.processes().size();
    const size_t uncertain = static_cast<size_t>(std::count_if(
            findings.begin(), findings.end(), [](const Finding* f) { return !f->certain; }));
    switch (verdict(checker)) {
        case Verdict::NothingChecked:
            return "nothing checked: " + nothingReason(input);
        case Verdict::Clean:
            return "clean: " + std::to_string(checker.libraryLines()) + " library " +
                   plural(checker.libraryLines(), "line", "lines") + " in " +
                   std::to_string(processes) + " " + plural(processes, "process", "processes") +
                   ", no finding";
        case Verdict::Findings: {
            std::string kinds;
            for (int k = 0; k <= static_cast<int>(Kind::LinesLost); ++k) {
                const size_t n = static_cast<size_t>(std::count_if(
                        findings.begin(), findings.end(),
                        [k](const Finding* f) { return static_cast<int>(f->kind) == k; }));
                if (n != 0) {
                    kinds += (kinds.empty() ? ": " : ", ") + std::to_string(n) + " " +
                             kindName(static_cast<Kind>(k));
                }
            }
            return std::to_string(findings.size()) + " " +
                   plural(findings.size(), "finding", "findings") + " (" +
                   std::to_string(uncertain) + " uncertain) in " + std::to_string(processes) + " " +
                   plural(processes, "process", "processes") + kinds;
        }
    }
    return {};
}

std::vector<std::string> notCheckedReasons(const Checker& checker, const InputStats& input) {
    std::vector<std::string> reasons = notChecked(checker);
    for (const Caveat& caveat : checker.caveats()) {
        reasons.push_back(caveat.text);
    }
    if (verdict(checker) == Verdict::NothingChecked) {
        reasons.push_back("every check: " + nothingReason(input));
    }
    return reasons;
}

void printHuman(FILE* out, const Checker& checker, const InputStats& input,
                const ReportOptions& options) {
    const std::vector<const Finding*> findings = grouped(checker);
    const std::vector<RuleSummary> rules = byRule(findings);
    fprintf(out, "postproc-logcheck: %s\n", verdictSentence(checker, input).c_str());
    const bool long_ = findings.size() > kScreenful;
    if (long_) {
        fprintf(out, "\nby rule:\n  %-26s %9s %9s  %s\n", "rule", "findings", "uncertain", "kinds");
        for (const RuleSummary& r : rules) {
            std::string kinds;
            for (Kind k : r.kinds) {
                kinds += (kinds.empty() ? "" : ", ") + std::string(kindName(k));
            }
            fprintf(out, "  %-26s %9zu %9zu  %s\n", r.rule.c_str(), r.findings, r.uncertain,
                    kinds.c_str());
        }
    }
    size_t shown = 0;
    for (size_t i = 0; i < findings.size(); ++i) {
        const Finding& f = *findings[i];
        const bool first = i == 0 || ruleName(*findings[i - 1]) != std::string(ruleName(f));
        if (first) {
            const RuleSummary& r = *std::find_if(rules.begin(), rules.end(), [&f](const auto& r) {
                return r.rule == ruleName(f);
            });
            fprintf(out, "\n%s: %zu %s\n", r.rule.c_str(), r.findings,
                    plural(r.findings, "finding", "findings"));
            fprintf(out, "  what to do: %s\n", whatToDo(f));
            shown = 0;
        }
        if (!options.all && long_ && shown == kShownPerRule) {
            const size_t more = static_cast<size_t>(std::count_if(
                    findings.begin() + static_cast<long>(i), findings.end(),
                    [&f](const Finding* g) { return strcmp(ruleName(*g), ruleName(f)) == 0; }));
            fprintf(out, "  ... and %zu more (--all, or --json for every one)\n", more);
            i += more - 1;
            continue;
        }
        ++shown;
        fprintf(out, "  %s %s pid %d%s%s%s: %s\n", kindName(f.kind), pointer(f.object).c_str(),
                f.pid, f.boot != 0 ? " (the boot before)" : "", f.certain ? "" : " (uncertain)",
                f.processEnded ? " (process ended)" : "", f.detail.c_str());
        printEvidence(out, f, options);
    }
    for (const Process& p : checker.processes()) {
        fprintf(out, "\npid %d%s, lines %" PRIu64 "-%" PRIu64 "%s, %zu %s\n", p.pid,
                p.boot != 0 ? " (the boot before)" : "", p.firstLine, p.lastLine,
                p.ended ? ", process ended" : "", p.findings.size(),
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
    const std::vector<std::string> missing = notChecked(checker);
    if (!missing.empty() || !checker.caveats().empty()) {
        fprintf(out, "\nnot checked:\n");
        for (const std::string& reason : missing) {
            fprintf(out, "  %s\n", reason.c_str());
        }
        for (const Caveat& caveat : checker.caveats()) {
            fprintf(out, "  %s\n", caveat.text.c_str());
        }
        if (!missing.empty()) {
            fprintf(out,
                    "for every check: gKyCamLogLevel 2 or less, gKyCamLogGroup with 64 and 128 "
                    "(0xc0); gKyCamDebugMask does not matter (it feeds the framework's own log)\n");
        }
    }
    fprintf(out,
            "\ninput: %" PRIu64 " %s (%s%s), %" PRIu64 " of KyCamAdapter (%" PRIu64
            " without a ledger event), %" PRIu64 " of other tags, %" PRIu64 " markers, %" PRIu64
            " skipped%s%s\n",
            input.lines, input.format == Format::Binary ? "entries" : "lines",
            formatName(input.format), input.bugReport ? ", bug report" : "", checker.libraryLines(),
            checker.unknownLines(), checker.otherLines(), input.markers, input.skipped,
            input.bugReport ? (", " + std::to_string(input.outside) + " outside its logs").c_str()
                            : "",
            input.interrupted ? "; interrupted" : "");
}

void printJson(FILE* out, const Checker& checker, const InputStats& input,
               const ReportOptions& options) {
    const std::vector<const Finding*> findings = grouped(checker);
    static const char* const kVerdicts[] = {"clean", "findings", "nothing-checked"};
    const Verdict v = verdict(checker);
    fputc('{', out);
    if (options.log != nullptr) {
        fputs("\"log\": ", out);
        jsonString(out, options.log);
        fputs(", ", out);
    }
    fprintf(out, "\"verdict\": \"%s\", ", kVerdicts[static_cast<int>(v)]);
    if (v == Verdict::NothingChecked) {
        fputs("\"reason\": ", out);
        jsonString(out, nothingReason(input));
        fputs(", ", out);
    }
    fputs("\"findings\": [", out);
    for (const Finding* f : findings) {
        fprintf(out,
                "%s{\"kind\": \"%s\", \"object\": \"%s\", \"pid\": %d, \"tid\": %d, \"boot\": %d, "
                "\"first_line\": %" PRIu64 ", \"last_line\": %" PRIu64 ", \"evidence\": [",
                f == findings[0] ? "" : ", ", kindName(f->kind), pointer(f->object).c_str(), f->pid,
                f->tid, f->boot, f->evidence.empty() ? 0 : f->evidence.front(),
                f->evidence.empty() ? 0 : f->evidence.back());
        for (uint64_t line : f->evidence) {
            fprintf(out, "%s{\"line\": %" PRIu64, line == f->evidence[0] ? "" : ", ", line);
            const auto text = options.texts != nullptr
                                      ? options.texts->find(line)
                                      : std::map<uint64_t, std::string>::const_iterator();
            if (options.texts != nullptr && text != options.texts->end()) {
                fputs(", \"text\": ", out);
                jsonString(out, text->second);
            }
            fputc('}', out);
        }
        fputs("], \"rule\": ", out);
        f->rule != nullptr ? jsonString(out, f->rule) : (void)fputs("null", out);
        fputs(", \"advice\": ", out);
        advice(f->rule) != nullptr ? jsonString(out, advice(f->rule)) : (void)fputs("null", out);
        fprintf(out, ", \"certain\": %s, \"process_ended\": %s, \"detail\": ",
                f->certain ? "true" : "false", f->processEnded ? "true" : "false");
        jsonString(out, f->detail);
        fputc('}', out);
    }
    fputs("], \"by_rule\": [", out);
    const std::vector<RuleSummary> rules = byRule(findings);
    for (const RuleSummary& r : rules) {
        fputs(&r == &rules[0] ? "{\"rule\": " : ", {\"rule\": ", out);
        r.named ? jsonString(out, r.rule) : (void)fputs("null", out);
        fprintf(out, ", \"findings\": %zu, \"uncertain\": %zu}", r.findings, r.uncertain);
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
                "%s{\"pid\": %d, \"boot\": %d, \"ended\": %s, \"first_line\": %" PRIu64
                ", \"last_line\": %" PRIu64 ", \"findings\": %zu, \"totals\": ",
                &p == &checker.processes()[0] ? "" : ", ", p.pid, p.boot,
                p.ended ? "true" : "false", p.firstLine, p.lastLine, p.findings.size());
        jsonTotals(out, p.totals);
        fputc('}', out);
    }
    fprintf(out, "], \"not_checked\": [");
    const std::vector<std::string> missing = notCheckedReasons(checker, input);
    for (const std::string& reason : missing) {
        fputs(&reason == &missing[0] ? "" : ", ", out);
        jsonString(out, reason);
    }
    fprintf(out,
            "], \"input\": {\"format\": \"%s\", \"bug_report\": %s, \"lines\": %" PRIu64
            ", \"library_lines\": %" PRIu64 ", \"unknown_library_lines\": %" PRIu64
            ", \"other_lines\": %" PRIu64 ", \"markers\": %" PRIu64 ", \"skipped\": %" PRIu64
            ", \"outside_logs\": %" PRIu64 ", \"interrupted\": %s}}\n",
            formatName(input.format), input.bugReport ? "true" : "false", input.lines,
            checker.libraryLines(), checker.unknownLines(), checker.otherLines(), input.markers,
            input.skipped, input.outside, input.interrupted ? "true" : "false");
}

}  // namespace logcheck
