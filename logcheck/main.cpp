// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck: rebuilds libpostprocinfo's ledger from a phone's log
// and names the host rule that a leak, a double destroy or an underflow
// most likely broke.
#include <errno.h>
#include <getopt.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "logcheck.h"

namespace {

volatile sig_atomic_t gInterrupted = 0;

void onInterrupt(int) {
    gInterrupted = 1;
}

const char kUsage[] =
        "usage: postproc-logcheck [-v FORMAT] [-B] [--json | --jsonl] [--all] [--html FILE]\n"
        "                         [--trace FILE] [-j N] [--from LIST] [LOG...]\n"
        "Rebuilds libpostprocinfo's ledger from a log and reports what its host broke:\n"
        "leaks, double destroys, references below zero.\n"
        "\n"
        "  -v, --format=FORMAT  logcat's -v words: threadtime, brief, time, long, tag,\n"
        "                       process, thread, with any modifiers (color, uid, year,\n"
        "                       usec, nsec, zone, UTC, epoch, monotonic, printable,\n"
        "                       descriptive); default: recognised line by line\n"
        "  -B, --binary         the input is adb logcat -B (default: recognised)\n"
        "      --json           one JSON object on standard output (one log)\n"
        "      --jsonl          one JSON object per log, one per line\n"
        "      --all            every finding, also past a screenful\n"
        "      --html=FILE      a page a browser opens: objects alive over time, findings\n"
        "                       marked, and by rule (one log)\n"
        "      --trace=FILE     the same in the Trace Event Format, for ui.perfetto.dev\n"
        "                       and chrome://tracing (one log)\n"
        "  -j, --jobs=N         check N logs at a time (default 1)\n"
        "      --from=LIST      also check the logs listed in LIST, one path a line\n"
        "                       (\"-\": standard input)\n"
        "  -h, --help           this text\n"
        "\n"
        "A LOG is a log (adb logcat's output, -B's too), a bug report (its text, or its\n"
        "zip), either gzipped, or a directory of them; \"-\" or none is standard input.\n"
        "Reading a pipe, findings are printed as they are found; the summary follows at\n"
        "the end of input or on Ctrl-C. Several logs: one line each, then a summary by\n"
        "rule across them.\n"
        "Exit status: 0 clean, 1 findings, 2 usage error or unreadable input,\n"
        "3 nothing checked (no line of the library's in the input); of several logs,\n"
        "the worst: 2, then 1, then 3.\n";

int usageError(const std::string& reason) {
    fprintf(stderr, "postproc-logcheck: %s\n%s", reason.c_str(), kUsage);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    enum { kJson = 256, kJsonl, kAll, kHtml, kTrace, kFrom };
    static const option kOptions[] = {{"format", required_argument, nullptr, 'v'},
                                      {"binary", no_argument, nullptr, 'B'},
                                      {"json", no_argument, nullptr, kJson},
                                      {"jsonl", no_argument, nullptr, kJsonl},
                                      {"all", no_argument, nullptr, kAll},
                                      {"html", required_argument, nullptr, kHtml},
                                      {"trace", required_argument, nullptr, kTrace},
                                      {"jobs", required_argument, nullptr, 'j'},
                                      {"from", required_argument, nullptr, kFrom},
                                      {"help", no_argument, nullptr, 'h'},
                                      {nullptr, 0, nullptr, 0}};
    logcheck::RunOptions options;
    std::vector<std::string> lists;
    int jobs = 1;
    int option;
    while ((option = getopt_long(argc, argv, "v:Bj:h", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'v': {
                logcheck::Format named;
                if (!logcheck::parseFormat(optarg, &named)) {
                    return usageError(std::string("unknown format: ") + optarg);
                }
                // logcat takes -v once per word: a format named before stays.
                options.format = named != logcheck::Format::Auto ? named : options.format;
                break;
            }
            case 'B':
                options.format = logcheck::Format::Binary;
                break;
            case kJson:
                options.json = true;
                break;
            case kJsonl:
                options.jsonl = true;
                break;
            case kAll:
                options.all = true;
                break;
            case kHtml:
                options.html = optarg;
                break;
            case kTrace:
                options.trace = optarg;
                break;
            case 'j':
                jobs = atoi(optarg);
                if (jobs < 1 || jobs > 256) {
                    return usageError(std::string("jobs must be 1 to 256: ") + optarg);
                }
                break;
            case kFrom:
                lists.push_back(optarg);
                break;
            case 'h':
                fputs(kUsage, stdout);
                return 0;
            default:
                return usageError("unknown option");
        }
    }
    std::vector<std::string> named(argv + optind, argv + argc);
    if (named.empty() && lists.empty()) {
        named.push_back("-");
    }
    std::vector<std::string> logs;
    std::string error;
    if (!logcheck::listLogs(named, lists, &logs, &error)) {
        fprintf(stderr, "postproc-logcheck: %s\n", error.c_str());
        return 2;
    }
    if (options.json && options.jsonl) {
        return usageError("--json is one log's object, --jsonl one per log: take one");
    }
    const bool one = logs.size() == 1 && !options.jsonl;
    if (!one && (options.html != nullptr || options.trace != nullptr)) {
        return usageError("--html and --trace draw one log; " + std::to_string(logs.size()) +
                          " are named");
    }
    if (!one && options.json) {
        return usageError("--json is one log's object; for several, --jsonl");
    }

    struct sigaction action = {};
    action.sa_handler = onInterrupt;  // no SA_RESTART: a blocked read returns
    sigaction(SIGINT, &action, nullptr);

    if (!one) {
        return logcheck::checkLogs(logs, options, jobs, stdout, &gInterrupted);
    }
    struct stat status = {};
    const bool live = !options.json && logs[0] == "-" && fstat(STDIN_FILENO, &status) == 0 &&
                      !S_ISREG(status.st_mode);
    const logcheck::LogResult result = logcheck::checkLog(
            logs[0], options, stdout, &gInterrupted, [live](const logcheck::Finding& finding) {
                if (live) {
                    printf("finding: %s\n", logcheck::describe(finding).c_str());
                    fflush(stdout);
                }
            });
    if (result.status == 2) {
        fprintf(stderr, "postproc-logcheck: %s: %s\n",
                logs[0] == "-" ? "standard input" : logs[0].c_str(), result.sentence.c_str());
    }
    return result.status;
}
