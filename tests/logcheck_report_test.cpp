// SPDX-License-Identifier: Apache-2.0
// postproc-logcheck for people and fleets: logcat's time stamps read in
// every form, the timeline bounded and true where it ends, the page and the
// trace of a phone's session with a leak seeded, and many logs at once with
// one line each, the same whatever the jobs, and the worst status.
#include <gmock/gmock.h>
#include <math.h>
#include <sim/logcat.h>
#include <sim/session.h>
#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support/logcheck_support.h"

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;
using testsupport::program;

namespace {

TEST(TimeStampTest, EveryFormLogcatPrintsIsReadInSeconds) {
    using logcheck::stampSeconds;
    const struct {
        const char* later;
        const char* earlier;
        double seconds;
    } kDifferences[] = {
            {"11-23 10:00:01.500", "11-23 10:00:00.250", 1.25},
            {"11-24 00:00:00.000", "11-23 23:59:59.000", 1},
            {"12-01 00:00:00.000", "11-30 23:59:59.000", 1},
            {"03-01 00:00:00.000", "02-28 00:00:00.000", 86400},  // no year: a common one
            {"2024-03-01 00:00:00.000000", "2024-02-28 00:00:00.000000", 2 * 86400},
            {"2026-01-01 00:00:00.000", "2025-12-31 23:59:59.999", 0.001},
            {"11-23 10:00:00.000123456", "11-23 10:00:00.000", 0.000123456},
            {"11-23 10:00:00.000 +0100", "11-23 09:59:59.000 +0100", 1},
            {"1700000001.250", "1700000000.000", 1.25},     // epoch
            {"   12345.678901", "     345.678901", 12000},  // monotonic
    };
    for (const auto& d : kDifferences) {
        EXPECT_NEAR(stampSeconds(d.later) - stampSeconds(d.earlier), d.seconds, 1e-6)
                << d.later << " - " << d.earlier;
    }
    EXPECT_NEAR(stampSeconds("1700000000.5"), 1700000000.5, 1e-6);
    EXPECT_NEAR(stampSeconds("1970-01-02 00:00:01.000"), 86401, 1e-6);
    for (const char* none : {"", "  ", "garbage", "13-01 00:00:00.000", "11-23", "11-23 10:00",
                             "11-32 10:00:00.000", "-5 10:00:00.000"}) {
        EXPECT_TRUE(isnan(stampSeconds(none))) << '"' << none << '"';
    }
}

logcheck::Totals alive(uint64_t records, uint64_t chiMetas = 0, uint64_t debugData = 0) {
    logcheck::Totals totals;
    totals.records.created = records;
    totals.chiMetas.before = chiMetas;
    totals.debugData.created = debugData + 5;
    totals.debugData.ended = 5;
    return totals;
}

TEST(TimelineTest, StaysBoundedAndKeepsTheMostAndLeastOfEverySpan) {
    logcheck::Timeline timeline;
    constexpr uint64_t kLines = 200000;
    constexpr uint64_t kSpike = 123457;
    for (uint64_t line = 1; line <= kLines; ++line) {
        const uint64_t records = line == kSpike ? 1000 : line % 7;
        timeline.add(line, double(line) / 1000, alive(records, line / 1000, line % 3));
    }
    const auto& points = timeline.points();
    ASSERT_LE(points.size(), logcheck::Timeline::kMost);
    EXPECT_GE(points.size(), logcheck::Timeline::kMost / 2);
    EXPECT_TRUE(timeline.timed());
    uint64_t most = 0;
    for (size_t i = 0; i < points.size(); ++i) {
        most = std::max(most, points[i].high[logcheck::Timeline::Records]);
        if (i != 0) {
            EXPECT_LT(points[i - 1].line, points[i].line);
            EXPECT_LT(points[i - 1].time, points[i].time);
        }
        EXPECT_EQ(points[i].low[logcheck::Timeline::Records], 0u);
    }
    EXPECT_EQ(most, 1000u);
    EXPECT_EQ(timeline.at(kSpike)->high[logcheck::Timeline::Records], 1000u);
    EXPECT_EQ(timeline.at(0), &points.front());
    EXPECT_EQ(points.back().high[logcheck::Timeline::ChiMetas], kLines / 1000);
    EXPECT_EQ(points.back().high[logcheck::Timeline::DebugData], 2u);
    EXPECT_EQ(points.front().low[logcheck::Timeline::DebugData], 0u);
    EXPECT_EQ(points.front().high[logcheck::Timeline::DebugData], 2u);
    EXPECT_EQ(points.back().lastLine, kLines);
    EXPECT_EQ(points.back().last[logcheck::Timeline::DebugData], kLines % 3);
    EXPECT_NEAR(timeline.timeAt(kLines), double(kLines) / 1000, 1e-9);
    EXPECT_NEAR(timeline.timeAt(kSpike), double(kSpike) / 1000, 1e-9);

    // A log without years runs on past New Year; one without times is drawn
    // over its lines.
    logcheck::Timeline newYear;
    newYear.add(1, logcheck::stampSeconds("12-31 23:59:59.000"), alive(1));
    newYear.add(2, logcheck::stampSeconds("01-01 00:00:01.000"), alive(2));
    ASSERT_EQ(newYear.points().size(), 2u);
    EXPECT_NEAR(newYear.points()[1].time - newYear.points()[0].time, 2, 1e-6);
    logcheck::Timeline untimed;
    untimed.add(1, NAN, alive(1));
    untimed.add(2, 5, alive(1));
    EXPECT_FALSE(untimed.timed());
}

// A phone's session (threads, noise, chatty) whose host never destroys some
// records.
struct Leaky {
    sim::session::Truth truth;
    std::string log;
};

const Leaky& leaky() {
    static const Leaky session = [] {
        sim::session::Options options;
        options.seed = 11;
        options.broken = sim::session::Rule::RecordLifetime;
        options.requests = 300;
        options.requestThreads = 3;
        options.inFlight = 3;
        Leaky made{sim::session::run(options), {}};
        sim::logcat::Phone phone;
        phone.seed = 11;
        phone.noise = 3;
        made.log = sim::logcat::phoneLog(made.truth.lines, phone);
        return made;
    }();
    return session;
}

std::string readAll(const std::string& path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

std::string scratch(const char* name) {
    return "/tmp/logcheck-report-test-" + std::to_string(getpid()) + "-" + name;
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
        ++n;
    }
    return n;
}

// The first record leak of the human report: its object and the line that made it.
std::pair<std::string, std::string> firstLeak(const std::string& report) {
    const size_t at = report.find("  record-leak 0x");
    if (at == std::string::npos) {
        return {};
    }
    const size_t object = at + 14;
    const size_t line = report.find_first_not_of(' ', report.find('\n', at) + 1);
    return {report.substr(object, report.find(' ', object) - object),
            report.substr(line, report.find(' ', line) - line)};
}

TEST(TimelineTest, AliveAtTheEndOfEveryFormatsTimelineIsTheLedgers) {
    ASSERT_FALSE(leaky().truth.findings.empty());
    for (const char* format : {"threadtime", "time", "long", "threadtime,epoch",
                               "threadtime,monotonic", "brief", "thread", "binary"}) {
        const std::string log = sim::logcat::write(leaky().truth.lines, format);
        const testsupport::Checked got = testsupport::check(log);
        ASSERT_EQ(got.timelines.size(), 1u) << format;
        const logcheck::Timeline& timeline = got.timelines[0];
        const bool stamped = std::string(format) != "brief" && std::string(format) != "thread";
        EXPECT_EQ(timeline.timed(), stamped) << format;
        const logcheck::Timeline::Point& last = timeline.points().back();
        const logcheck::Totals& end = got.endings[0];
        EXPECT_EQ(last.last[logcheck::Timeline::Records], end.records.alive()) << format;
        EXPECT_EQ(last.last[logcheck::Timeline::Records], leaky().truth.findings.size()) << format;
        EXPECT_EQ(last.last[logcheck::Timeline::ChiMetas], end.chiMetas.alive()) << format;
        EXPECT_EQ(last.last[logcheck::Timeline::DebugData], end.debugData.alive()) << format;
        EXPECT_LE(last.low[logcheck::Timeline::Records], end.records.alive()) << format;
        EXPECT_GE(last.high[logcheck::Timeline::Records], end.records.alive()) << format;
        // An entry a millisecond, as the simulation stamps them: a line each
        // but in long's three.
        if (stamped) {
            const double lines = std::string(format) == "long" ? 3 : 1;
            EXPECT_NEAR(last.lastTime - timeline.points().front().time,
                        double(last.lastLine - timeline.points().front().line) / lines / 1000,
                        0.002)
                    << format;
        }
    }
}

TEST(ReportTest, TheTraceHasTheCountersAndEveryFindingInTraceEventFormat) {
    const std::string trace = scratch("trace.json");
    const auto [status, output] = program("--trace " + trace, leaky().log);
    ASSERT_EQ(status, 1) << output;
    const nlohmann::json json = nlohmann::json::parse(readAll(trace));
    unlink(trace.c_str());
    ASSERT_TRUE(json["traceEvents"].is_array());
    EXPECT_EQ(json["otherData"]["axis"], "time");
    size_t instants = 0;
    size_t names = 0;
    double lastTs = -1;
    nlohmann::json lastCounter;
    for (const nlohmann::json& event : json["traceEvents"]) {
        ASSERT_TRUE(event["name"].is_string()) << event;
        ASSERT_TRUE(event["pid"].is_number_integer()) << event;
        ASSERT_TRUE(event["tid"].is_number_integer()) << event;
        const std::string phase = event["ph"];
        if (phase == "M") {
            EXPECT_EQ(event["name"], "process_name");
            EXPECT_TRUE(event["args"]["name"].is_string());
            ++names;
            continue;
        }
        ASSERT_TRUE(event["ts"].is_number()) << event;
        EXPECT_GE(event["ts"].get<double>(), 0) << event;
        if (phase == "C") {
            EXPECT_GT(event["ts"].get<double>(), lastTs) << "counters in time order, one a time";
            lastTs = event["ts"];
            for (const char* family : {"records", "chi_metas", "debug_data"}) {
                EXPECT_TRUE(event["args"][family].is_number_unsigned()) << event;
            }
            lastCounter = event;
        } else {
            ASSERT_EQ(phase, "i") << event;
            EXPECT_EQ(event["s"], "p");
            EXPECT_EQ(event["cat"], "finding");
            EXPECT_EQ(event["name"], "record-leak");
            EXPECT_EQ(event["args"]["rule"], "record-lifetime");
            ++instants;
        }
    }
    EXPECT_EQ(names, 1u);
    EXPECT_EQ(instants, leaky().truth.findings.size());
    EXPECT_EQ(lastCounter["args"]["records"], leaky().truth.findings.size());
}

TEST(ReportTest, ThePageIsSelfContainedWithSeriesMarksAndTheFirstLeakCalledOut) {
    const std::string page = scratch("page.html");
    const auto [status, output] = program("--html " + page, leaky().log);
    ASSERT_EQ(status, 1) << output;
    const std::string html = readAll(page);
    unlink(page.c_str());
    EXPECT_THAT(html, Not(HasSubstr("http")));
    EXPECT_THAT(html, Not(HasSubstr(" src=")));
    EXPECT_THAT(html, Not(HasSubstr(" href=")));
    EXPECT_EQ(count(html, "<section class=\"process\""), 1u);
    for (const char* family : {"records", "chi-metas", "debug-data"}) {
        EXPECT_EQ(count(html, std::string("<g class=\"family ") + family), 1u) << family;
    }
    // Each leak is marked; marks of one column are one element.
    const std::string mark = "data-kind=\"record-leak\" data-count=\"";
    size_t marked = 0;
    for (size_t at = html.find(mark); at != std::string::npos; at = html.find(mark, at + 1)) {
        marked += std::stoul(html.substr(at + mark.size(), 12));
    }
    EXPECT_EQ(marked, leaky().truth.findings.size());
    // The first leaked record, by the line that made it.
    const auto [object, line] = firstLeak(program("", leaky().log).second);
    ASSERT_FALSE(object.empty());
    EXPECT_THAT(html, HasSubstr("first record-lifetime: record-leak " + object + ", line " + line +
                                "</text>"));
    EXPECT_THAT(html, HasSubstr("what to do: destroy every record exactly once"));
}

TEST(ReportTest, APageOfTwentyThousandLeaksStaysSmall) {
    std::string log;
    char line[200];
    for (int i = 0; i < 20000; ++i) {
        snprintf(line, sizeof(line),
                 "11-14 22:%02d:%02d.%03d  1234  1300 D KyCamAdapter: KYA_RECORD "
                 "QcomPostProcInfo.cpp:1 QcomPostProcInfo()Construct QcomPostProcInfo 0x7f%08x, "
                 "after sum %d\n",
                 i / 60000, i / 1000 % 60, i % 1000, 0x1000 + 0x400 * i, i + 1);
        log += line;
    }
    const std::string page = scratch("big.html");
    ASSERT_EQ(program("--html " + page, log).first, 1);
    struct stat status;
    ASSERT_EQ(stat(page.c_str(), &status), 0);
    const std::string html = readAll(page);
    unlink(page.c_str());
    EXPECT_LT(status.st_size, 512 * 1024);
    EXPECT_THAT(html, HasSubstr("and 19980 more (--json has every one)"));
    EXPECT_EQ(count(html, "<tr class=\"finding\""), 20u);
    // Each listed with the text of its evidence line.
    EXPECT_THAT(html, HasSubstr("       1  11-14 22:00:00.000  1234  1300 D KyCamAdapter: "
                                "KYA_RECORD QcomPostProcInfo.cpp:1 QcomPostProcInfo()Construct "
                                "QcomPostProcInfo 0x7f00001000, after sum 1\n"));
    // A mark stands for the findings of its column, named by the first.
    EXPECT_THAT(html, HasSubstr(" record-leak, the first 0x7f00001000 at line 1: never destroyed"));
    EXPECT_THAT(html, HasSubstr("first record-lifetime: record-leak 0x7f00001000, line 1</text>"));
}

// The program on logs named in its arguments.
std::pair<int, std::string> run(const std::string& arguments) {
    return program(arguments, "", testsupport::From::None);
}

// Logs in a directory of their own, removed at the end.
class FleetTest : public ::testing::Test {
  protected:
    void SetUp() override {
        mDir = scratch("fleet");
        mkdir(mDir.c_str(), 0700);
    }
    void TearDown() override {
        for (const std::string& path : mMade) {
            unlink(path.c_str());
        }
        rmdir((mDir + "/more").c_str());
        rmdir(mDir.c_str());
    }
    std::string add(const std::string& name, const std::string& text) {
        const std::string path = mDir + "/" + name;
        std::ofstream(path) << text;
        mMade.push_back(path);
        return path;
    }
    std::string mDir;
    std::vector<std::string> mMade;
};

std::string clean() {
    sim::session::Options options;
    options.seed = 3;
    return sim::logcat::write(sim::session::run(options).lines);
}

TEST_F(FleetTest, OneLinePerLogThenTheSummaryByRuleAndTheWorstStatus) {
    const std::string leak = add("leak.log", leaky().log);
    const std::string ok = add("clean.log", clean());
    const std::string none = add("none.log", "11-23 10:00:00.000  1100  1187 I Camera: hi\n");
    const std::string missing = mDir + "/missing.log";
    const struct {
        std::vector<std::string> logs;
        int status;
    } kCases[] = {
            {{ok, ok}, 0},        {{ok, none}, 3},          {{none, leak}, 1},
            {{leak, missing}, 2}, {{missing, ok, none}, 2}, {{ok, leak, none}, 1},
    };
    for (const auto& c : kCases) {
        std::string arguments;
        for (const std::string& log : c.logs) {
            arguments += log + " ";
        }
        const auto [status, output] = run(arguments + "--jobs 2 --all");
        EXPECT_EQ(status, c.status) << output;
        std::istringstream lines(output);
        std::string line;
        for (const std::string& log : c.logs) {
            std::getline(lines, line);
            EXPECT_EQ(line.substr(0, log.size() + 2), log + ": ") << output;
        }
    }
    const auto [status, output] =
            run(leak + " " + ok + " " + none + " " + missing + " " + leak + " " + missing + "2");
    const size_t leaks = leaky().truth.findings.size();
    EXPECT_THAT(output, HasSubstr(ok + ": clean: "));
    EXPECT_THAT(output, HasSubstr(none + ": nothing checked: no KyCamAdapter line in 1 lines\n"));
    EXPECT_THAT(output, HasSubstr(missing + ": unreadable: No such file or directory\n"));
    EXPECT_THAT(output, HasSubstr("\npostproc-logcheck: 6 logs: 2 with findings, 1 clean, 1 "
                                  "nothing checked, 2 unreadable\n"));
    const std::string first = firstLeak(run(leak).second).second;
    ASSERT_FALSE(first.empty());
    EXPECT_THAT(output,
                HasSubstr("\nby rule:\n  rule                         logs  findings  first "
                          "seen\n  record-lifetime                 2 " +
                          std::string(9 - std::to_string(2 * leaks).size(), ' ') +
                          std::to_string(2 * leaks) + "  " + leak + " line " + first + "\n"));
}

TEST_F(FleetTest, DirectoriesListsAndJobsChangeNothingButTheTime) {
    std::vector<std::string> names;
    for (int i = 0; i < 9; ++i) {
        sim::session::Options options;
        options.seed = uint64_t(40 + i);
        options.broken = i % 3 == 0 ? sim::session::Rule::RecordLifetime : sim::session::Rule::None;
        names.push_back(add("log" + std::to_string(i),
                            sim::logcat::write(sim::session::run(options).lines)));
    }
    mkdir((mDir + "/more").c_str(), 0700);
    names.push_back(add("more/last", clean()));
    const std::string list = scratch("list");
    std::ofstream(list) << names[3] << "\n\n" << names[0] << "\r\n";
    const std::string one = run(mDir + " -j 1").second;
    EXPECT_EQ(run(mDir + " -j 3").second, one);
    EXPECT_EQ(run(mDir + " --jobs=8").second, one);
    // A directory's logs in name order, its subdirectories' too.
    std::istringstream lines(one);
    std::string line;
    for (const std::string& name : names) {
        std::getline(lines, line);
        EXPECT_EQ(line.substr(0, name.size() + 1), name + ":");
    }
    // Named logs first, then the list's, each line as the directory's run wrote it.
    auto lineOf = [&one](const std::string& name) {
        const size_t at = one.find(name + ": ");
        return one.substr(at, one.find('\n', at) - at + 1);
    };
    const std::string listed = run("--from " + list + " " + names[5]).second;
    EXPECT_EQ(listed.substr(0, listed.find("\n\n") + 1),
              lineOf(names[5]) + lineOf(names[3]) + lineOf(names[0]));
    unlink(list.c_str());
}

TEST_F(FleetTest, JsonlIsOneObjectPerLogAndOneLogsOutputsRefuseMany) {
    const std::string leak = add("leak.log", leaky().log);
    const std::string ok = add("clean.log", clean());
    const std::string missing = mDir + "/missing.log";
    const auto [status, output] = run("--jsonl -j 2 " + leak + " " + missing + " " + ok);
    EXPECT_EQ(status, 2);
    std::istringstream lines(output);
    std::vector<std::string> verdicts;
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json json = nlohmann::json::parse(line);
        verdicts.push_back(json["log"].get<std::string>() + " " +
                           json["verdict"].get<std::string>());
    }
    EXPECT_THAT(verdicts, ElementsAre(leak + " findings", missing + " unreadable", ok + " clean"));
    // One log gives one line too, for a pipeline.
    const auto single = run("--jsonl " + leak);
    EXPECT_EQ(single.first, 1);
    EXPECT_EQ(std::count(single.second.begin(), single.second.end(), '\n'), 1);
    EXPECT_EQ(nlohmann::json::parse(single.second)["log"], leak);

    const struct {
        std::string arguments;
        std::string error;
    } kRefused[] = {
            {"--html /tmp/x.html " + leak + " " + ok,
             "postproc-logcheck: --html and --trace draw one log; 2 are named"},
            {"--trace /tmp/x.json " + mDir,
             "postproc-logcheck: --html and --trace draw one log; 2 are named"},
            {"--json " + leak + " " + ok,
             "postproc-logcheck: --json is one log's object; for several, --jsonl"},
            {"--json --jsonl " + leak,
             "postproc-logcheck: --json is one log's object, --jsonl one per log: take one"},
            {"-j 0 " + leak, "postproc-logcheck: jobs must be 1 to 256: 0"},
            {"--from " + missing, "postproc-logcheck: " + missing + ": No such file or directory"},
    };
    for (const auto& r : kRefused) {
        const auto [refused, text] = run(r.arguments);
        EXPECT_EQ(refused, 2) << r.arguments;
        EXPECT_EQ(text.substr(0, text.find('\n')), r.error);
    }
    const auto unwritable = run("--html /nonexistent/dir/page.html " + leak);
    EXPECT_EQ(unwritable.first, 2);
    EXPECT_THAT(
            unwritable.second,
            HasSubstr(": cannot write /nonexistent/dir/page.html: No such file or directory\n"));
}

TEST(WorseTest, AScriptSeesTheWorstOfTheLogs) {
    // unreadable, findings, nothing checked, clean
    const int kOrder[] = {2, 1, 3, 0};
    for (int i = 0; i < 4; ++i) {
        for (int j = 0; j < 4; ++j) {
            EXPECT_EQ(logcheck::worse(kOrder[i], kOrder[j]), kOrder[std::min(i, j)]);
        }
    }
}

}  // namespace
