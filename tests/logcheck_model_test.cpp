// SPDX-License-Identifier: Apache-2.0
// The log checker against the simulation's books on random camera sessions:
// several request threads and a result thread, records reused, cloned and
// shallow-cloned, debug buffers from a small pool, addresses reused at once,
// zero or one host rule broken. Each log is written in a random logcat form
// among other processes' lines, and sometimes cut at its start or with lines
// lost. The checker's totals must be the simulation's, and its findings the
// broken rule's, no more; a log cut at its start finds nothing; uncertain
// only where the log lost lines.
// LOGCHECK_MODEL_SESSIONS sets how many (make fuzz runs thousands).
#include <gtest/gtest.h>
#include <sim/logcat.h>
#include <sim/session.h>
#include <stdlib.h>

#include <random>

#include "support/logcheck_support.h"

using sim::session::Rule;
using testsupport::check;
using testsupport::Checked;

namespace {

const char* const kFormats[] = {"threadtime",
                                "threadtime,year,usec",
                                "threadtime,UTC,zone",
                                "threadtime,uid",
                                "threadtime,epoch",
                                "threadtime,nsec,printable",
                                "threadtime,color",
                                "threadtime,monotonic,descriptive",
                                "long",
                                "long,uid,color",
                                "thread",
                                "thread,uid",
                                "binary",
                                "brief",
                                "time,usec",
                                "process,uid",
                                "tag,color"};

bool threadIds(const std::string& format) {
    return format.rfind("threadtime", 0) == 0 || format.rfind("long", 0) == 0 ||
           format.rfind("thread", 0) == 0 || format == "binary";
}

int sessions() {
    const char* wanted = getenv("LOGCHECK_MODEL_SESSIONS");
    return wanted != nullptr ? atoi(wanted) : 300;
}

// What a session's log is made into.
enum class Damage { None, Cut, Lost };

struct Session {
    uint64_t seed;
    sim::session::Options options;
    std::string format;
    Damage damage;
    sim::session::Truth truth;
    std::string log;
};

Session model(uint64_t seed) {
    std::mt19937_64 rng(seed);
    auto roll = [&rng](int n) { return static_cast<int>(rng() % static_cast<uint64_t>(n)); };
    Session run;
    run.seed = seed;
    run.options.seed = seed;
    run.options.requestThreads = 1 + roll(3);
    run.options.inFlight = 1 + roll(4);
    run.options.requests = 6 + roll(20);
    run.options.traces = roll(4) != 0;
    run.options.broken =
            roll(5) < 2 ? Rule::None : static_cast<Rule>(1 + roll(sim::session::kRules - 1));
    if (run.options.broken == Rule::HalReferences) {
        run.options.traces = true;  // the count it breaks is only in the traces
    }
    run.format = kFormats[roll(static_cast<int>(std::size(kFormats)))];
    run.damage = run.options.broken != Rule::None ? Damage::None
                 : roll(4) == 0                   ? static_cast<Damage>(1 + roll(2))
                                                  : Damage::None;
    run.truth = sim::session::run(run.options);
    std::vector<sim::kycam::LogLine> lines = run.truth.lines;
    if (run.damage == Damage::Cut) {
        lines.erase(lines.begin(), lines.begin() + roll(static_cast<int>(lines.size()) / 2 + 1));
    } else if (run.damage == Damage::Lost) {
        // In the middle of the session, every n-th line.
        const size_t from = lines.size() / 5;
        const size_t to = lines.size() * 7 / 10;
        const size_t every = 5 + static_cast<size_t>(roll(26));
        std::vector<sim::kycam::LogLine> kept;
        for (size_t i = 0; i < lines.size(); ++i) {
            if (i < from || i >= to || (i - from) % every != every - 1) {
                kept.push_back(lines[i]);
            }
        }
        lines = std::move(kept);
    }
    sim::logcat::Phone phone;
    phone.seed = seed;
    phone.format = run.format;
    phone.noise = run.format == "binary" ? 0 : roll(4);
    phone.chatty = roll(2) == 0;
    phone.carriageReturns = run.format != "binary" && roll(5) == 0;
    run.log = sim::logcat::phoneLog(lines, phone);
    return run;
}

std::string describe(const Session& run) {
    return "seed " + std::to_string(run.seed) + ", rule " +
           sim::session::ruleName(run.options.broken) + ", format " + run.format + ", damage " +
           std::to_string(static_cast<int>(run.damage)) + ", threads " +
           std::to_string(run.options.requestThreads) + ", in flight " +
           std::to_string(run.options.inFlight) + ", requests " +
           std::to_string(run.options.requests) + ", traces " + std::to_string(run.options.traces);
}

// The failing log, kept for a person to read it.
std::string keep(const Session& run) {
    const std::string path = "/tmp/logcheck-model-" + std::to_string(run.seed) + ".log";
    if (FILE* file = fopen(path.c_str(), "w")) {
        fwrite(run.log.data(), 1, run.log.size(), file);
        fclose(file);
    }
    if (FILE* file = fopen((path + ".expected").c_str(), "w")) {
        for (const sim::session::Expected& e : run.truth.findings) {
            fprintf(file, "%s 0x%llx %s\n", e.kind.c_str(),
                    static_cast<unsigned long long>(e.object), e.rule.c_str());
        }
        for (const std::string& misuse : run.truth.misuses) {
            fprintf(file, "misuse: %s\n", misuse.c_str());
        }
        fclose(file);
    }
    return path;
}

std::vector<std::string> expected(const sim::session::Truth& truth) {
    std::vector<std::string> texts;
    for (const sim::session::Expected& e : truth.findings) {
        texts.push_back(
                testsupport::Found{e.kind, e.object, e.rule, true, false, 0, {}, {}}.text());
    }
    std::sort(texts.begin(), texts.end());
    texts.erase(std::unique(texts.begin(), texts.end()), texts.end());
    return texts;
}

TEST(LogcheckModelTest, TotalsAreTheSimulationsAndFindingsWhatTheSessionBroke) {
    const int count = sessions();
    int checked = 0;
    int broken = 0;
    int damaged = 0;
    int lost = 0;
    int lossesSeen = 0;
    int failures = 0;
    for (int i = 0; i < count && failures < 5; ++i) {
        const Session run = model(static_cast<uint64_t>(i) * 2654435761u + 17);
        if (!run.truth.applied) {
            printf("not applied: %s\n", describe(run).c_str());
            continue;  // no address came back for the rule to break
        }
        ++checked;
        broken += run.options.broken != Rule::None ? 1 : 0;
        damaged += run.damage != Damage::None ? 1 : 0;
        lost += run.damage == Damage::Lost ? 1 : 0;
        const Checked got = check(run.log);
        const bool tids = threadIds(run.format);
        std::vector<std::string> certain;
        std::vector<std::string> found;
        for (const testsupport::Found& f : got.findings) {
            testsupport::Found asserted = f;
            asserted.certain = true;
            if (f.certain) {
                certain.push_back(f.text());
            }
            found.push_back(asserted.text());
        }
        std::sort(found.begin(), found.end());
        found.erase(std::unique(found.begin(), found.end()), found.end());
        std::sort(certain.begin(), certain.end());
        // What the timeline ends on is what the ledger ends on, in bounded points.
        bool ok = true;
        for (size_t p = 0; p < got.timelines.size(); ++p) {
            const auto& points = got.timelines[p].points();
            const logcheck::Totals& end = got.endings[p];
            ok = ok && !points.empty() && points.size() <= logcheck::Timeline::kMost &&
                 points.back().last[logcheck::Timeline::Records] == end.records.alive() &&
                 points.back().last[logcheck::Timeline::ChiMetas] == end.chiMetas.alive() &&
                 points.back().last[logcheck::Timeline::DebugData] == end.debugData.alive();
        }
        EXPECT_TRUE(ok) << "timeline: " << describe(run);
        if (run.damage == Damage::None) {
            // Every finding the rule brings, and nothing else.
            ok = found == expected(run.truth) && (!tids || certain == expected(run.truth));
            const sim::session::Truth& t = run.truth;
            const logcheck::Totals& g = got.totals;
            ok = ok && g.records.created == t.records.created && g.records.before == 0 &&
                 g.records.ended == t.records.ended;
            ok = ok && g.chiMetas.created == t.chiMetas.created &&
                 g.chiMetas.before == t.chiMetas.before && g.chiMetas.ended == t.chiMetas.ended;
            ok = ok && (!t.debugDataComparable || (g.debugData.created == t.debugData.created &&
                                                   g.debugData.before == t.debugData.before &&
                                                   g.debugData.ended == t.debugData.ended));
            if (run.options.broken == Rule::None) {
                EXPECT_EQ(run.truth.misuses, std::vector<std::string>()) << describe(run);
            }
            if (!ok) {
                ADD_FAILURE() << describe(run) << "\nlog: " << keep(run) << "\nexpected:\n  "
                              << ::testing::PrintToString(expected(run.truth)) << "\nfound:\n  "
                              << ::testing::PrintToString(got.texts) << "\nrecords "
                              << testsupport::counts(g.records) << " / " << t.records.created
                              << " 0 " << t.records.ended << "\nchi "
                              << testsupport::counts(g.chiMetas) << " / " << t.chiMetas.created
                              << " " << t.chiMetas.before << " " << t.chiMetas.ended << "\ndebug "
                              << testsupport::counts(g.debugData) << " / " << t.debugData.created
                              << " " << t.debugData.before << " " << t.debugData.ended;
            }
        } else if (run.damage == Damage::Cut) {
            // The phone's usual log, its start rotated away: what was alive
            // before it ends within it, and nothing is found.
            auto alive = [](const logcheck::Count& c) { return c.created + c.before - c.ended; };
            const logcheck::Totals& g = got.totals;
            ok = got.findings.empty() && alive(g.records) == 0 && alive(g.chiMetas) == 0 &&
                 alive(g.debugData) == 0;
            if (!ok) {
                ADD_FAILURE() << describe(run) << "\nlog: " << keep(run) << "\nfound:\n  "
                              << ::testing::PrintToString(got.texts) << "\nrecords "
                              << testsupport::counts(g.records) << "\nchi "
                              << testsupport::counts(g.chiMetas) << "\ndebug "
                              << testsupport::counts(g.debugData);
            }
        } else {
            // A clean session that lost lines: nothing asserted but the
            // loss, once the log shows it. A loss that changes nothing the
            // log can check stays unseen.
            const bool seen = std::any_of(got.findings.begin(), got.findings.end(),
                                          [](const auto& f) { return f.kind == "lines-lost"; });
            lossesSeen += seen ? 1 : 0;
            for (const testsupport::Found& f : got.findings) {
                ok = ok && (!f.certain || f.kind == "lines-lost" || !seen);
            }
            if (!ok) {
                ADD_FAILURE() << describe(run) << "\nlog: " << keep(run) << "\nfound:\n  "
                              << ::testing::PrintToString(got.texts);
            }
        }
        failures += ok ? 0 : 1;
    }
    printf("model: %d sessions checked, %d with a broken rule, %d with lines cut or lost, "
           "%d of %d losses seen\n",
           checked, broken, damaged, lossesSeen, lost);
    EXPECT_GE(checked, count * 9 / 10);
    EXPECT_GE(lossesSeen, lost * 8 / 10);
}

}  // namespace
