// SPDX-License-Identifier: Apache-2.0
// The ledger over time: a page a browser opens by itself, and a trace
// Perfetto opens. Both draw from each process's timeline, a bounded number
// of points whatever the log's length.
#include <inttypes.h>
#include <math.h>
#include <string.h>

#include <algorithm>
#include <map>

#include "report.h"

namespace logcheck {

namespace {

constexpr const char* kFamilyClasses[Timeline::kFamilies] = {"records", "chi-metas", "debug-data"};
constexpr const char* kFamilyTitles[Timeline::kFamilies] = {
        "live records", "live CHI metadata objects", "held debug buffer references"};

// The page stays a few MiB: this many processes drawn (those with findings
// first), this many findings listed per rule; --json has every one.
constexpr size_t kChartedProcesses = 24;
constexpr size_t kListedPerRule = 20;

// The chart, in SVG's units: the plot's box and its columns.
constexpr int kWidth = 960;
constexpr int kHeight = 250;
constexpr int kLeft = 56;
constexpr int kRight = 12;
constexpr int kTop = 40;
constexpr int kBottom = 28;
constexpr int kColumns = 450;

bool isLeak(Kind kind) {
    return kind == Kind::RecordLeak || kind == Kind::ChiMetaLeak || kind == Kind::DebugDataLeak;
}

// Text for HTML: markup characters escaped, bytes that are not UTF-8
// replaced by U+FFFD, control characters dropped.
void html(FILE* out, std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        const size_t length = utf8Length(text, i);
        if (length == 0) {
            fputs("\xef\xbf\xbd", out);
            ++i;
            continue;
        }
        switch (c) {
            case '&':
                fputs("&amp;", out);
                break;
            case '<':
                fputs("&lt;", out);
                break;
            case '>':
                fputs("&gt;", out);
                break;
            case '"':
                fputs("&quot;", out);
                break;
            default:
                if (c >= 0x20 && c != 0x7f) {
                    fwrite(text.data() + i, 1, length, out);
                }
        }
        i += length;
    }
}

std::string processName(const Process& p) {
    return "pid " + std::to_string(p.pid) +
           (p.boot == 1  ? " (the boot before)"
            : p.boot > 1 ? " (" + std::to_string(p.boot) + " boots before)"
                         : "");
}

// Where a process's lines lie along the chart's axis: its seconds, or its
// line numbers where the format prints no time.
struct Axis {
    bool timed;
    double from;
    double to;
    explicit Axis(const Process& p) : timed(p.timeline.timed()) {
        const auto& points = p.timeline.points();
        from = points.empty() ? 0 : timed ? points.front().time : double(points.front().line);
        to = points.empty() ? 1 : timed ? points.back().time : double(p.lastLine);
        if (to <= from) {
            to = from + 1;
        }
    }
    double of(const Timeline& timeline, uint64_t line) const {
        if (!timed) {
            return double(line);
        }
        const double time = timeline.timeAt(line);
        return isnan(time) ? from : time;
    }
    double x(double value) const {
        return kLeft + (value - from) / (to - from) * (kWidth - kLeft - kRight);
    }
    std::string label(double value) const {
        char text[32];
        if (!timed) {
            snprintf(text, sizeof(text), "line %.0f", value);
        } else {
            const double day = fmod(value, 86400);
            snprintf(text, sizeof(text), "%02d:%02d:%02d", int(day / 3600),
                     int(fmod(day, 3600) / 60), int(fmod(day, 60)));
        }
        return text;
    }
};

// A scale's top: a round number at least the value.
uint64_t niceTop(uint64_t value) {
    for (uint64_t unit = 1;; unit *= 10) {
        for (uint64_t step : {10, 12, 15, 20, 25, 30, 40, 50, 60, 80}) {
            if (step * unit >= value * 10) {
                return step * unit / 10 != 0 ? step * unit / 10 : 1;
            }
        }
    }
}

void chart(FILE* out, const Process& p) {
    const Axis axis(p);
    const Timeline& timeline = p.timeline;
    // Points into pixel columns: the least and most of each family.
    struct Column {
        int index;
        double x;
        uint64_t low[Timeline::kFamilies];
        uint64_t high[Timeline::kFamilies];
    };
    std::vector<Column> columns;
    uint64_t top = 1;
    for (const Timeline::Point& point : timeline.points()) {
        const double x = axis.x(axis.timed ? point.time : double(point.line));
        const int index = int((x - kLeft) / (kWidth - kLeft - kRight) * kColumns);
        if (columns.empty() || columns.back().index != index) {
            columns.push_back({index, x, {}, {}});
            std::copy(point.low, point.low + Timeline::kFamilies, columns.back().low);
        }
        for (int f = 0; f < Timeline::kFamilies; ++f) {
            columns.back().low[f] = std::min(columns.back().low[f], point.low[f]);
            columns.back().high[f] = std::max(columns.back().high[f], point.high[f]);
            top = std::max(top, point.high[f]);
        }
    }
    top = niceTop(top);
    const double bottom = kHeight - kBottom;
    auto y = [&](uint64_t value) { return bottom - double(value) / double(top) * (bottom - kTop); };

    fprintf(out,
            "<svg class=\"chart\" viewBox=\"0 0 %d %d\" width=\"%d\" height=\"%d\" "
            "role=\"img\" aria-label=\"objects alive in %s\">\n",
            kWidth, kHeight, kWidth, kHeight, processName(p).c_str());
    // Axes and their ticks.
    for (int i = 0; i <= 4; ++i) {
        const uint64_t value = top * uint64_t(i) / 4;
        if (i != 0 && value == top * uint64_t(i - 1) / 4) {
            continue;  // a small scale has fewer ticks
        }
        fprintf(out,
                "<line class=\"grid\" x1=\"%d\" x2=\"%d\" y1=\"%.1f\" y2=\"%.1f\"/>"
                "<text class=\"tick\" x=\"%d\" y=\"%.1f\" text-anchor=\"end\">%" PRIu64 "</text>\n",
                kLeft, kWidth - kRight, y(value), y(value), kLeft - 6, y(value) + 4, value);
    }
    for (int i = 0; i <= 4; ++i) {
        const double at = axis.from + (axis.to - axis.from) * i / 4;
        fprintf(out, "<text class=\"tick\" x=\"%.1f\" y=\"%d\" text-anchor=\"%s\">%s</text>\n",
                axis.x(at), kHeight - 8,
                i == 0   ? "start"
                : i == 4 ? "end"
                         : "middle",
                axis.label(at).c_str());
    }
    // Each family: the band between least and most, and the most as a line.
    for (int f = 0; f < Timeline::kFamilies; ++f) {
        fprintf(out,
                "<g class=\"family %s\" data-family=\"%s\"><title>%s</title>\n<polygon points=\"",
                kFamilyClasses[f], kFamilyClasses[f], kFamilyTitles[f]);
        for (const Column& c : columns) {
            fprintf(out, "%.1f,%.1f ", c.x, y(c.high[f]));
        }
        for (auto c = columns.rbegin(); c != columns.rend(); ++c) {
            fprintf(out, "%.1f,%.1f ", c->x, y(c->low[f]));
        }
        fputs("\"/>\n<polyline class=\"series\" points=\"", out);
        for (const Column& c : columns) {
            fprintf(out, "%.1f,%.1f ", c.x, y(c.high[f]));
        }
        fputs("\"/></g>\n", out);
    }
    // Findings where their evidence begins: one mark per kind and column,
    // with how many and the first of them.
    struct Mark {
        size_t count = 0;
        const Finding* first = nullptr;
        bool certain = false;
    };
    std::map<std::pair<int, int>, Mark> marks;  // kind, column
    std::map<std::string, const Finding*> firstLeaks;
    for (const Finding& f : p.findings) {
        const uint64_t line = f.evidence.empty() ? p.lastLine : f.evidence.front();
        const double x = axis.x(axis.of(timeline, line));
        Mark& mark = marks[{int(f.kind), int((x - kLeft) / 2)}];
        ++mark.count;
        mark.certain = mark.certain || f.certain;
        if (mark.first == nullptr || line < mark.first->evidence.front()) {
            mark.first = &f;
        }
        const Finding*& first = firstLeaks[ruleName(f)];
        if (isLeak(f.kind) && !f.evidence.empty() &&
            (first == nullptr || line < first->evidence.front())) {
            first = &f;
        }
    }
    for (const auto& [where, mark] : marks) {
        const Finding& f = *mark.first;
        const double x =
                axis.x(axis.of(timeline, f.evidence.empty() ? p.lastLine : f.evidence.front()));
        const double row = 8 + where.first * 5;
        fprintf(out,
                "<g class=\"marker%s\" data-kind=\"%s\" data-count=\"%zu\" data-line=\"%" PRIu64
                "\"><title>",
                mark.certain ? "" : " uncertain", kindName(f.kind), mark.count,
                f.evidence.empty() ? p.lastLine : f.evidence.front());
        fprintf(out, "%zu %s, the first %s at line %" PRIu64 ": ", mark.count, kindName(f.kind),
                pointer(f.object).c_str(), f.evidence.empty() ? p.lastLine : f.evidence.front());
        html(out, f.detail);
        fprintf(out,
                "</title><path d=\"M%.1f %.1fl-4 -6h8z\"/><line x1=\"%.1f\" x2=\"%.1f\" "
                "y1=\"%.1f\" y2=\"%.1f\"/></g>\n",
                x, row + 6, x, x, row + 6, bottom);
    }
    // The first leaked object of each rule, called out.
    int callout = 0;
    for (const auto& [rule, f] : firstLeaks) {
        if (f == nullptr) {
            continue;
        }
        const double x = axis.x(axis.of(timeline, f->evidence.front()));
        const bool right = x > kWidth * 0.6;
        fprintf(out,
                "<g class=\"callout\" data-rule=\"%s\"><text x=\"%.1f\" y=\"%d\" "
                "text-anchor=\"%s\">first %s: %s %s, line %" PRIu64 "</text></g>\n",
                rule.c_str(), right ? x - 4 : x + 4, kTop + 14 + 14 * callout,
                right ? "end" : "start", rule.c_str(), kindName(f->kind),
                pointer(f->object).c_str(), f->evidence.front());
        ++callout;
    }
    fputs("</svg>\n", out);
}

const char kStyle[] =
        "body{font:14px/1.4 system-ui,sans-serif;margin:24px;color:#202124;max-width:1000px}"
        "h1{font-size:20px;margin:0 0 4px}h2{font-size:16px;margin:24px 0 4px}"
        ".verdict{font-size:16px;font-weight:600;padding:8px 12px;border-radius:4px}"
        ".verdict.clean{background:#e6f4ea}.verdict.findings{background:#fce8e6}"
        ".verdict.nothing-checked{background:#fef7e0}"
        ".legend span{margin-right:16px;cursor:pointer}.legend i{display:inline-block;width:12px;"
        "height:12px;margin-right:4px;vertical-align:-1px}.legend .off{opacity:.35}"
        ".legend i.records{background:#1a73e8}.legend i.chi-metas{background:#e8710a}"
        ".legend i.debug-data{background:#188038}"
        "svg{display:block;background:#fff;border:1px solid #dadce0;margin:4px 0}"
        ".grid{stroke:#eee}.tick{font-size:11px;fill:#5f6368}"
        ".family polygon{opacity:.18}.family polyline{fill:none;stroke-width:1.5}"
        ".records{fill:#1a73e8;stroke:#1a73e8}.chi-metas{fill:#e8710a;stroke:#e8710a}"
        ".debug-data{fill:#188038;stroke:#188038}"
        ".marker path{fill:#d93025}.marker line{stroke:#d93025;stroke-width:.6;opacity:.25}"
        ".marker.uncertain path{fill:#fff;stroke:#d93025}"
        ".callout text{font-size:12px;font-weight:600;fill:#a50e0e}"
        "table{border-collapse:collapse;width:100%;margin-top:8px}"
        "td,th{text-align:left;vertical-align:top;padding:3px 8px;border-bottom:1px solid #eee}"
        ".rule th{background:#f1f3f4}.evidence{font:12px monospace;white-space:pre-wrap;"
        "word-break:break-all;color:#3c4043}";

// Legend items switch their family on and off; the page's only script.
const char kScript[] =
        "document.querySelectorAll('.legend span').forEach(function(item){"
        "item.addEventListener('click',function(){item.classList.toggle('off');"
        "var off=item.classList.contains('off');"
        "document.querySelectorAll('.family.'+item.dataset.family).forEach(function(g){"
        "g.style.display=off?'none':'';});});});"
        "document.documentElement.dataset.ready='1';";

void findingsTable(FILE* out, const std::vector<const Finding*>& findings,
                   const ReportOptions& options) {
    fputs("<table class=\"findings\">\n", out);
    for (size_t i = 0; i < findings.size();) {
        const char* rule = ruleName(*findings[i]);
        size_t end = i;
        while (end < findings.size() && strcmp(ruleName(*findings[end]), rule) == 0) {
            ++end;
        }
        fprintf(out, "<tr class=\"rule\" data-rule=\"%s\"><th colspan=\"3\">%s: %zu %s<br>", rule,
                rule, end - i, end - i == 1 ? "finding" : "findings");
        fputs("what to do: ", out);
        html(out, whatToDo(*findings[i]));
        fputs("</th></tr>\n", out);
        for (size_t k = i; k < end && k < i + kListedPerRule; ++k) {
            const Finding& f = *findings[k];
            fprintf(out,
                    "<tr class=\"finding\" data-kind=\"%s\"><td>%s %s</td><td>pid %d%s%s</td><td>",
                    kindName(f.kind), kindName(f.kind), pointer(f.object).c_str(), f.pid,
                    f.certain ? "" : " (uncertain)", f.processEnded ? " (process ended)" : "");
            html(out, f.detail);
            fputs("<div class=\"evidence\">", out);
            for (uint64_t line : f.evidence) {
                fprintf(out, "%8" PRIu64 "  ", line);
                if (options.texts != nullptr) {
                    auto text = options.texts->find(line);
                    if (text != options.texts->end()) {
                        html(out, text->second);
                    }
                }
                fputc('\n', out);
            }
            fputs("</div></td></tr>\n", out);
        }
        if (end - i > kListedPerRule) {
            fprintf(out, "<tr><td colspan=\"3\">and %zu more (--json has every one)</td></tr>\n",
                    end - i - kListedPerRule);
        }
        i = end;
    }
    fputs("</table>\n", out);
}

}  // namespace

void printHtml(FILE* out, const Checker& checker, const InputStats& input,
               const ReportOptions& options) {
    static const char* const kVerdicts[] = {"clean", "findings", "nothing-checked"};
    const std::string sentence = verdictSentence(checker, input);
    fputs("<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n<title>", out);
    html(out, "postproc-logcheck: " + sentence);
    fprintf(out, "</title>\n<style>%s</style></head>\n<body>\n<h1>postproc-logcheck</h1>\n",
            kStyle);
    fprintf(out, "<p class=\"verdict %s\">", kVerdicts[int(verdict(checker))]);
    html(out, sentence);
    fprintf(out,
            "</p>\n<p class=\"input\">%" PRIu64 " %s (%s%s), %" PRIu64 " of KyCamAdapter</p>\n",
            input.lines, input.format == Format::Binary ? "entries" : "lines",
            formatName(input.format), input.bugReport ? ", bug report" : "",
            checker.libraryLines());
    if (options.log != nullptr) {
        fputs("<p class=\"log\">", out);
        html(out, options.log);
        fputs("</p>\n", out);
    }

    // Processes with findings first, then in the log's order.
    std::vector<const Process*> drawn;
    for (bool withFindings : {true, false}) {
        for (const Process& p : checker.processes()) {
            if (!p.findings.empty() == withFindings && drawn.size() < kChartedProcesses) {
                drawn.push_back(&p);
            }
        }
    }
    if (!drawn.empty()) {
        fputs("<p class=\"legend\">", out);
        for (int f = 0; f < Timeline::kFamilies; ++f) {
            fprintf(out, "<span data-family=\"%s\"><i class=\"%s\"></i>%s</span>",
                    kFamilyClasses[f], kFamilyClasses[f], kFamilyTitles[f]);
        }
        fputs("<span>&#9660; a finding where its evidence begins (hollow: uncertain)</span></p>\n",
              out);
    }
    for (const Process* p : drawn) {
        fprintf(out, "<section class=\"process\" data-pid=\"%d\" data-boot=\"%d\">\n<h2>", p->pid,
                p->boot);
        html(out, processName(*p));
        fprintf(out,
                ", lines %" PRIu64 "&ndash;%" PRIu64 "%s: %zu %s; alive at the end: %" PRIu64
                " records, %" PRIu64 " CHI metadata objects, %" PRIu64 " debug buffers</h2>\n",
                p->firstLine, p->lastLine, p->ended ? ", process ended" : "", p->findings.size(),
                p->findings.size() == 1 ? "finding" : "findings", p->totals.records.alive(),
                p->totals.chiMetas.alive(), p->totals.debugData.alive());
        chart(out, *p);
        fputs("</section>\n", out);
    }
    if (checker.processes().size() > drawn.size()) {
        fprintf(out,
                "<p class=\"undrawn\">%zu more processes without findings are not drawn.</p>\n",
                checker.processes().size() - drawn.size());
    }

    const std::vector<const Finding*> findings = grouped(checker);
    if (!findings.empty()) {
        fputs("<h2 id=\"findings\">Findings by rule</h2>\n", out);
        findingsTable(out, findings, options);
    }
    const std::vector<std::string> reasons = notCheckedReasons(checker, input);
    if (!reasons.empty()) {
        fputs("<h2 id=\"not-checked\">Not checked</h2>\n<ul>\n", out);
        for (const std::string& reason : reasons) {
            fputs("<li>", out);
            html(out, reason);
            fputs("</li>\n", out);
        }
        fputs("</ul>\n", out);
    }
    fprintf(out, "<script>%s</script>\n</body></html>\n", kScript);
}

void printTrace(FILE* out, const Checker& checker) {
    // Boots of a bug report share pids: each earlier boot's get their own
    // range above Linux's largest pid (2^22).
    auto tracePid = [](const Process& p) { return int64_t(p.pid) + (int64_t(p.boot) << 22); };
    double from = INFINITY;
    bool timed = true;
    for (const Process& p : checker.processes()) {
        timed = timed && (p.timeline.points().empty() || p.timeline.timed());
        if (!p.timeline.points().empty()) {
            from = std::min(from, timed ? p.timeline.points().front().time
                                        : double(p.timeline.points().front().line));
        }
    }
    // Microseconds from the first point; a line is a microsecond in a log
    // without time stamps.
    auto ts = [&](const Timeline& timeline, uint64_t line) {
        const double value = timed ? timeline.timeAt(line) : double(line);
        return timed ? (value - from) * 1e6 : value - from;
    };
    fprintf(out,
            "{\"displayTimeUnit\": \"ms\", \"otherData\": {\"axis\": \"%s\"}, \"traceEvents\": [",
            timed ? "time" : "line");
    const char* separator = "\n";
    for (const Process& p : checker.processes()) {
        fprintf(out,
                "%s{\"name\": \"process_name\", \"ph\": \"M\", \"pid\": %" PRId64
                ", \"tid\": 0, \"args\": {\"name\": \"%s\"}}",
                separator, tracePid(p), processName(p).c_str());
        separator = ",\n";
        // Each span's most where it begins, and what it left where it ends.
        auto counter = [&](uint64_t line, const uint64_t* alive) {
            fprintf(out,
                    ",\n{\"name\": \"live objects\", \"ph\": \"C\", \"ts\": %.3f, \"pid\": %" PRId64
                    ", \"tid\": 0, \"args\": {\"records\": %" PRIu64 ", \"chi_metas\": %" PRIu64
                    ", \"debug_data\": %" PRIu64 "}}",
                    ts(p.timeline, line), tracePid(p), alive[Timeline::Records],
                    alive[Timeline::ChiMetas], alive[Timeline::DebugData]);
        };
        for (const Timeline::Point& point : p.timeline.points()) {
            counter(point.line, point.high);
            if (point.lastLine != point.line) {
                counter(point.lastLine, point.last);
            }
        }
        for (const Finding& f : p.findings) {
            const uint64_t line = f.evidence.empty() ? p.lastLine : f.evidence.front();
            fprintf(out,
                    ",\n{\"name\": \"%s\", \"cat\": \"finding\", \"ph\": \"i\", \"s\": \"p\", "
                    "\"ts\": %.3f, \"pid\": %" PRId64
                    ", \"tid\": %d, \"args\": {\"object\": \"%s\", "
                    "\"rule\": ",
                    kindName(f.kind), ts(p.timeline, line), tracePid(p), f.tid,
                    pointer(f.object).c_str());
            f.rule != nullptr ? jsonString(out, f.rule) : (void)fputs("null", out);
            fprintf(out, ", \"certain\": %s, \"line\": %" PRIu64 ", \"detail\": ",
                    f.certain ? "true" : "false", line);
            jsonString(out, f.detail);
            fputs("}}", out);
        }
    }
    fputs("\n]}\n", out);
}

}  // namespace logcheck
