// SPDX-License-Identifier: Apache-2.0
// One log read and reported, or many: a fleet's bug reports, each its own
// ledger, a few at a time, one line each and a summary by rule.
#include <errno.h>
#include <ftw.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "report.h"

namespace logcheck {

namespace {

// A report written to a file of its own; false with the reason.
bool writeFile(const char* path, const std::function<void(FILE*)>& write, std::string* error) {
    FILE* file = fopen(path, "w");
    if (file == nullptr) {
        *error = std::string("cannot write ") + path + ": " + strerror(errno);
        return false;
    }
    write(file);
    if (ferror(file) != 0 || fclose(file) != 0) {
        *error = std::string("cannot write ") + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

// What a report prints into a string (a log's line of --jsonl).
std::string captured(const std::function<void(FILE*)>& write) {
    char* buffer = nullptr;
    size_t size = 0;
    FILE* memory = open_memstream(&buffer, &size);
    if (memory == nullptr) {
        return {};
    }
    write(memory);
    fclose(memory);
    std::string text(buffer, size);
    free(buffer);
    return text;
}

// nftw's callback has no context of its own.
std::vector<std::string>* gFound = nullptr;

int found(const char* path, const struct stat* status, int type, FTW*) {
    if (type == FTW_F && S_ISREG(status->st_mode)) {
        gFound->push_back(path);
    }
    return 0;
}

bool expand(const std::string& path, std::vector<std::string>* logs, std::string* error) {
    struct stat status;
    if (path == "-" || stat(path.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
        logs->push_back(path);  // a file, or one the check reports unreadable
        return true;
    }
    std::vector<std::string> inside;
    gFound = &inside;
    const int result = nftw(path.c_str(), found, 16, FTW_PHYS);
    gFound = nullptr;
    if (result != 0) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    std::sort(inside.begin(), inside.end());
    logs->insert(logs->end(), inside.begin(), inside.end());
    return true;
}

const char* const kUnreadable = "unreadable";

}  // namespace

int worse(int a, int b) {
    // Unreadable, findings, nothing checked, clean: a script sees the worst.
    static const int kRank[] = {0, 2, 3, 1};  // by status 0 1 2 3
    auto rank = [](int status) { return status >= 0 && status <= 3 ? kRank[status] : 3; };
    return rank(a) >= rank(b) ? a : b;
}

bool listLogs(const std::vector<std::string>& named, const std::vector<std::string>& lists,
              std::vector<std::string>* logs, std::string* error) {
    for (const std::string& path : named) {
        if (!expand(path, logs, error)) {
            return false;
        }
    }
    for (const std::string& list : lists) {
        FILE* file = list == "-" ? stdin : fopen(list.c_str(), "r");
        if (file == nullptr) {
            *error = list + ": " + strerror(errno);
            return false;
        }
        char* line = nullptr;
        size_t capacity = 0;
        bool ok = true;
        for (ssize_t n; ok && (n = getline(&line, &capacity, file)) >= 0;) {
            std::string path(line, static_cast<size_t>(n));
            while (!path.empty() && (path.back() == '\n' || path.back() == '\r')) {
                path.pop_back();
            }
            ok = path.empty() || expand(path, logs, error);
        }
        free(line);
        if (file != stdin) {
            fclose(file);
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

LogResult checkLog(const std::string& path, const RunOptions& options, FILE* out,
                   const volatile sig_atomic_t* stop,
                   const std::function<void(const Finding&)>& live) {
    LogResult result;
    result.path = path;
    const bool standardInput = path == "-";
    int error = 0;
    std::string reason;
    std::unique_ptr<Source> source = openLog(path.c_str(), &error, &reason);
    Checker checker(live);
    InputStats stats;
    stats.format = options.format;
    if (!source || !readLog(*source, options.format, checker, stats, &reason, stop)) {
        result.status = 2;
        result.sentence = !reason.empty() ? reason : strerror(error);
        return result;
    }
    stats.interrupted = *stop != 0;
    checker.finish();

    result.status = exitStatus(verdict(checker));
    result.sentence = verdictSentence(checker, stats);
    for (const Finding* f : grouped(checker)) {
        const uint64_t line = f->evidence.empty() ? 0 : f->evidence.front();
        if (result.rules.empty() || result.rules.back().rule != ruleName(*f)) {
            result.rules.push_back({ruleName(*f), 0, line});
        }
        ++result.rules.back().findings;
        result.rules.back().firstLine = std::min(result.rules.back().firstLine, line);
    }

    // The evidence lines' texts, where the log can be read again.
    std::map<uint64_t, std::string> texts;
    const bool reported = out != nullptr || options.jsonl || options.html || options.trace;
    const std::vector<uint64_t> cited = reported ? citedLines(checker) : std::vector<uint64_t>();
    std::unique_ptr<Source> again;
    if (!cited.empty() && !standardInput && (again = openLog(path.c_str(), &error, &reason))) {
        texts = evidenceLines(*again, cited);
    }
    ReportOptions report;
    report.all = options.all;
    report.texts = &texts;
    if (out != nullptr) {
        (options.json ? printJson : printHuman)(out, checker, stats, report);
    }
    if (options.jsonl) {
        report.log = path.c_str();
        result.json = captured([&](FILE* f) { printJson(f, checker, stats, report); });
        report.log = nullptr;
    }
    std::string failure;
    if ((options.html &&
         !writeFile(
                 options.html, [&](FILE* f) { printHtml(f, checker, stats, report); }, &failure)) ||
        (options.trace &&
         !writeFile(
                 options.trace, [&](FILE* f) { printTrace(f, checker); }, &failure))) {
        result.status = 2;
        result.sentence = failure;
    }
    return result;
}

int checkLogs(const std::vector<std::string>& logs, const RunOptions& options, int jobs, FILE* out,
              const volatile sig_atomic_t* stop) {
    std::vector<LogResult> results(logs.size());
    std::vector<char> done(logs.size(), 0);
    std::mutex lock;
    std::condition_variable finished;
    size_t next = 0;
    int running = std::max(jobs, 1);
    // Each worker takes the next log; a log interrupted half read is dropped.
    auto work = [&] {
        for (;;) {
            size_t index;
            {
                std::lock_guard<std::mutex> hold(lock);
                if (next == logs.size() || *stop) {
                    break;
                }
                index = next++;
            }
            LogResult result = checkLog(logs[index], options, nullptr, stop);
            std::lock_guard<std::mutex> hold(lock);
            if (!*stop) {
                results[index] = std::move(result);
                done[index] = 1;
            }
            finished.notify_all();
        }
        std::lock_guard<std::mutex> hold(lock);
        --running;
        finished.notify_all();
    };
    std::vector<std::thread> workers;
    for (int i = 0; i < std::max(jobs, 1); ++i) {
        workers.emplace_back(work);
    }

    // Each log's line in the order given, as soon as it and those before are done.
    int status = 0;
    size_t checked = 0;
    size_t counts[4] = {};
    for (; checked < logs.size(); ++checked) {
        std::unique_lock<std::mutex> hold(lock);
        finished.wait(hold, [&] { return done[checked] != 0 || running == 0; });
        if (done[checked] == 0) {
            break;
        }
        LogResult& r = results[checked];
        hold.unlock();
        status = worse(status, r.status);
        ++counts[r.status >= 0 && r.status <= 3 ? r.status : 2];
        if (options.jsonl) {
            if (r.status == 2) {
                fputs("{\"log\": ", out);
                jsonString(out, r.path);
                fprintf(out, ", \"verdict\": \"%s\", \"reason\": ", kUnreadable);
                jsonString(out, r.sentence);
                fputs("}\n", out);
            } else {
                fputs(r.json.c_str(), out);
            }
            r.json.clear();
            r.json.shrink_to_fit();
        } else {
            fprintf(out, "%s: %s%s\n", r.path == "-" ? "standard input" : r.path.c_str(),
                    r.status == 2 ? "unreadable: " : "", r.sentence.c_str());
        }
        fflush(out);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    if (options.jsonl) {
        return status;
    }

    // Across the logs: each rule, how many logs and findings, and where first.
    struct Across {
        std::string rule;
        size_t logs = 0;
        size_t findings = 0;
        const LogResult* first = nullptr;
        uint64_t firstLine = 0;
    };
    std::vector<Across> rules;
    for (size_t i = 0; i < checked; ++i) {
        for (const LogResult::RuleCount& r : results[i].rules) {
            auto it = std::find_if(rules.begin(), rules.end(),
                                   [&r](const Across& a) { return a.rule == r.rule; });
            if (it == rules.end()) {
                rules.push_back({r.rule, 0, 0, &results[i], r.firstLine});
                it = rules.end() - 1;
            }
            ++it->logs;
            it->findings += r.findings;
        }
    }
    std::stable_sort(rules.begin(), rules.end(),
                     [](const Across& a, const Across& b) { return a.logs > b.logs; });
    fprintf(out,
            "\npostproc-logcheck: %zu %s: %zu with findings, %zu clean, %zu nothing checked, %zu "
            "unreadable%s\n",
            checked, checked == 1 ? "log" : "logs", counts[1], counts[0], counts[3], counts[2],
            checked < logs.size()
                    ? ("; interrupted, " + std::to_string(logs.size() - checked) + " not checked")
                              .c_str()
                    : "");
    if (!rules.empty()) {
        fprintf(out, "\nby rule:\n  %-26s %6s %9s  %s\n", "rule", "logs", "findings", "first seen");
        for (const Across& a : rules) {
            fprintf(out, "  %-26s %6zu %9zu  %s line %" PRIu64 "\n", a.rule.c_str(), a.logs,
                    a.findings, a.first->path.c_str(), a.firstLine);
        }
    }
    return status;
}

}  // namespace logcheck
