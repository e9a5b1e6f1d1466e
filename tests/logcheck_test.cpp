// SPDX-License-Identifier: Apache-2.0
// The log checker against the simulation's ledger: the library's own lines,
// written as logcat writes them, rebuild the books the simulation kept, and
// each host rule broken on purpose comes back as exactly the finding
// expected, on the object expected.
#include <logcheck.h>
#include <sim/iqbm.h>
#include <sim/logcat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <thread>

#include "support/sim_test.h"

using adapter::QcomPostProcInfo;
using logcheck::Kind;
using Lines = std::vector<sim::kycam::LogLine>;
using namespace testsupport;

namespace {

// A finding as the tests name it: kind, object, rule, certainty, process.
std::string finding(Kind kind, const void* object, const char* rule, bool certain = true,
                    int32_t pid = 1234, bool ended = false) {
    char text[160];
    snprintf(text, sizeof(text), "%s %p %s%s pid %d%s", logcheck::kindName(kind), object,
             rule != nullptr ? rule : "-", certain ? "" : " uncertain", pid, ended ? " ended" : "");
    return text;
}

std::string counts(const logcheck::Count& count) {
    return std::to_string(count.created) + " " + std::to_string(count.before) + " " +
           std::to_string(count.ended);
}

struct Checked {
    std::vector<std::string> findings;  // sorted
    logcheck::Totals totals;
    size_t processes = 0;
    logcheck::InputStats stats;
    logcheck::Seen seen;
};

// The log through the checker, from a file as the tool reads it.
Checked check(const std::string& log) {
    FILE* file = tmpfile();
    fwrite(log.data(), 1, log.size(), file);
    fflush(file);
    lseek(fileno(file), 0, SEEK_SET);
    logcheck::Checker checker;
    Checked checked;
    int error = 0;
    const volatile sig_atomic_t stop = 0;
    logcheck::readLog(fileno(file), logcheck::Format::Auto, checker, checked.stats, &error, &stop);
    fclose(file);
    checker.finish();
    checked.seen = checker.seen();
    for (const logcheck::Process& process : checker.processes()) {
        ++checked.processes;
        checked.totals += process.totals;
        for (const logcheck::Finding& f : process.findings) {
            checked.findings.push_back(finding(f.kind, reinterpret_cast<const void*>(f.object),
                                               f.rule, f.certain, f.pid, f.processEnded));
        }
    }
    std::sort(checked.findings.begin(), checked.findings.end());
    return checked;
}

std::string log(const Lines& lines, const char* format = "threadtime") {
    return sim::logcat::write(lines, format);
}

char gBuffers[8][64];
std::set<std::string> gTwo = {"0", "1"};
adapter::PostProcInfoMetaAttributes gNone = {};

adapter::DebugData buffer(int i) {
    return {64, gBuffers[i % 8]};
}

// A request kept by every host rule: private results attached and filled
// (the HAL's own object for camera 1), debug data, a deep clone with its own
// references, a shallow clone that lets go, an offline step that exports and
// imports, a reset. Four records.
void session() {
    auto record = std::make_unique<QcomPostProcInfo>();
    adapter::PostProcInfoMetaAttributes attributes = {0, 1, 0, 0};
    record->createPrivResultMeta(gTwo, true, attributes);
    camera3_capture_request request = {};
    record->setHalRequestPrivResultMeta(&request);
    // The HAL references what it is handed; camera 1's object it replaces.
    sim::hal::reference(request);
    void* own = sim::hal::newMeta(true);
    Result result(7, request.priv_result, {{"0", request.priv_physcam_result[0]}, {"1", own}});
    record->checkAndUpdatePrivResult(result.get());
    for (void* meta : {request.priv_result, request.priv_physcam_result[0], own}) {
        unref(meta);  // the pipeline is done with them
    }
    adapter::DebugData aec = buffer(0);
    record->keep3aDebugData(0, &aec, false);
    record->keep3aDebugData(1, &aec, false);
    adapter::DebugDataTuningMetaArray tuning = {2, {buffer(1), buffer(2)}};
    record->keepTuningDDArray(1, &tuning, false);
    record->clone(true).reset();
    std::shared_ptr<PostProcInfo> shallow = record->shallowClone(false);
    shallow->releaseTuningMetaBufs(false);
    shallow.reset();
    auto offline = std::make_unique<QcomPostProcInfo>();
    std::shared_ptr<kycam::TuningParamsBase> params = offline->createTuningParams();
    params->mTransAllMetas = true;
    record->getTuningMetaBufs(*params, nullptr, false);
    for (auto& entry : params->mTuningMetas) {
        free_camera_metadata(entry.second);
    }
    params->mTuningMetas.clear();
    params->mDebug3ABuffers = {{0, {128, malloc(128)}}};
    offline->mSupportPrivMeta = true;
    offline->mPhyCamIdSet = gTwo;
    offline->createTuningMetaBufs();
    offline->setTuningMetaBufs(*params);
    offline.reset();
    record->reset();
}

class LogcheckTest : public SimTest {
  protected:
    void SetUp() override {
        SimTest::SetUp();
        sim::iqbm::clearBuffers();
        // Every line reaches logcat, the reference traces included.
        sim::kycam::setLogConfig(0, KYA_LOG_GROUP_META | KYA_LOG_GROUP_POSTPROC, 0);
    }
    void TearDown() override {
        leftovers.clear();
        SimTest::TearDown();
    }
    // The simulation's books: objects createChiMeta made (its one tag), and
    // the HAL's that the library ended.
    static std::string chiBooks() {
        size_t created = 0;
        for (void* meta : sim::chi::objects()) {
            sim::chi::MetaState state;
            sim::chi::state(meta, &state);
            created += state.args.tagCount == 1;
        }
        const size_t destroyed = sim::count("Destroy");
        EXPECT_EQ(sim::chi::totals().alive, 0u);
        return std::to_string(created) + " " + std::to_string(destroyed - created) + " " +
               std::to_string(destroyed);
    }

  public:
    // Records a scenario leaves alive until the log was checked.
    std::vector<std::unique_ptr<QcomPostProcInfo>> leftovers;
};

TEST_F(LogcheckTest, EveryFormatRebuildsTheSimulationsBooks) {
    session();
    ASSERT_THAT(sim::misuses(), IsEmpty());
    const Lines lines = sim::logcat::androidLines();
    // Other tags, a marker, carriage returns and garbled lines are skipped.
    const std::string threadtime = log(lines);
    std::string noisy = "--------- beginning of main\r\n";
    size_t garbled = 0;
    for (size_t at = 0, end; (end = threadtime.find('\n', at)) != std::string::npos; at = end + 1) {
        noisy += threadtime.substr(at, end - at) + "\r\n";
        if (at % 5 == 0) {
            noisy += "11-14 22:13:20.123  1234  1301 I CameraProvider: frame 12\n" +
                     threadtime.substr(at, 20) + "\n\x01\x7f garbage\n. \n";
            garbled += 3;
        }
    }
    for (const char* format : {"threadtime", "threadtime,year,usec", "threadtime,UTC,zone",
                               "threadtime,uid", "threadtime,epoch", "brief", "brief,uid",
                               "time,usec,zone", "long", "long,uid,monotonic", "binary", "noisy"}) {
        SCOPED_TRACE(format);
        const bool isNoisy = strcmp(format, "noisy") == 0;
        const Checked checked = check(isNoisy ? noisy : log(lines, format));
        EXPECT_THAT(checked.findings, IsEmpty());
        EXPECT_EQ(checked.stats.skipped, isNoisy ? garbled : 0u);
        EXPECT_EQ(checked.stats.markers, isNoisy ? 1u : 0u);
        EXPECT_EQ(counts(checked.totals.records), "4 0 4");
        EXPECT_EQ(counts(checked.totals.chiMetas), chiBooks());
        // aec, the two tuning buffers and the one the import adopted.
        EXPECT_EQ(counts(checked.totals.debugData), "4 0 4");
        EXPECT_TRUE(checked.seen.lifetime && checked.seen.metaInfo && checked.seen.metaDebug &&
                    checked.seen.traces);
        EXPECT_EQ(checked.seen.threadIds,
                  strncmp(format, "brief", 5) && strncmp(format, "time", 4));
    }
}

TEST_F(LogcheckTest, RecordsOnManyThreadsBalanceWhereThreadIdsShow) {
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([t] {
            for (int i = 0; i < 150; ++i) {
                auto record = std::make_unique<QcomPostProcInfo>();
                if (i % 2 == 0) {
                    record->createPrivResultMeta(gTwo, true, gNone);
                }
                adapter::DebugData data = buffer(t + i);
                record->keep3aDebugData(t, &data, false);
                if (i % 4 == 1) {
                    record->reset();
                }
                record->clone(true).reset();
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    const Checked checked = check(log(sim::logcat::androidLines()));
    EXPECT_THAT(checked.findings, IsEmpty());
    EXPECT_EQ(counts(checked.totals.records), "1200 0 1200");
    EXPECT_EQ(counts(checked.totals.chiMetas), chiBooks());
    EXPECT_EQ(checked.totals.debugData.alive(), 0u);
    // brief has no thread ids: the interleaved lines cannot be told apart,
    // and nothing found in them is certain.
    const Checked brief = check(log(sim::logcat::androidLines(), "brief"));
    EXPECT_FALSE(brief.seen.threadIds);
    EXPECT_THAT(brief.findings, ::testing::Each(::testing::HasSubstr(" uncertain ")));
}

TEST_F(LogcheckTest, EachBrokenRuleIsNamedOnItsObject) {
    using Expected = std::vector<std::string>;
    using Record = std::unique_ptr<QcomPostProcInfo>;
    const std::function<Expected(Record&, LogcheckTest&)> seeded[] = {
            [](Record& record, LogcheckTest& test) -> Expected {
                // A record never destroyed, holding what it made.
                record->createPrivResultMeta(gTwo, true, gNone);
                adapter::DebugData data = buffer(0);
                record->keep3aDebugData(0, &data, false);
                test.leftovers.push_back(std::move(record));
                return {finding(Kind::RecordLeak, test.leftovers[0].get(), "record-lifetime")};
            },
            [](Record& record, LogcheckTest&) -> Expected {
                // Camera 1 becomes 3 in a rebuild that keeps camera 0's object:
                // held and parked, it is ended by reset() and again at the end.
                record->createPrivResultMeta(gTwo, true, gNone);
                camera3_capture_request request = {};
                record->setHalRequestPrivResultMeta(&request);
                sim::hal::reference(request);
                void* kept = record->mPrivPhyResultMap.at(0);
                Result result(1, request.priv_result,
                              {{"0", kept}, {"3", sim::hal::newMeta(true)}});
                record->checkAndUpdatePrivResult(result.get());
                record->reset();
                return {finding(Kind::ChiMetaDoubleDestroy, kept, "held-and-parked")};
            },
            [](Record& record, LogcheckTest&) -> Expected {
                // Debug data handed over to nobody.
                adapter::DebugData data = buffer(3);
                record->keep3aDebugData(0, &data, false);
                record->releaseTuningMetaBufs(true);
                return {finding(Kind::DebugDataLeak, data.pData, "release-hands-over")};
            },
            [](Record& record, LogcheckTest&) -> Expected {
                // A shallow clone's twin not told to let go. The shared arrays
                // go with the source only: deleting them twice would end this
                // process before its log is read.
                record->createPrivResultMeta(gTwo, true, gNone);
                Expected expected;
                for (void* meta : {record->m_pPrivResult, record->mPrivPhyResultMap.at(0),
                                   record->mPrivPhyResultMap.at(1)}) {
                    expected.push_back(
                            finding(Kind::ChiMetaDoubleDestroy, meta, "shallow-clone-owner"));
                }
                std::shared_ptr<PostProcInfo> clone = record->shallowClone(false);
                static_cast<QcomPostProcInfo&>(*clone).m_pPrivPhyCamIds = nullptr;
                static_cast<QcomPostProcInfo&>(*clone).m_pPrivPhyResults = nullptr;
                return expected;
            },
            [](Record& record, LogcheckTest&) -> Expected {
                // A HAL that takes no reference on what it is handed.
                std::set<std::string> none;
                record->createPrivResultMeta(none, true, gNone);
                void* requested = record->m_pPrivResult;
                Result result(1, sim::hal::newMeta(true), {});
                record->checkAndUpdatePrivResult(result.get());
                return {finding(Kind::ReferenceUnderflow, requested, "hal-references")};
            },
    };
    for (const auto& run : seeded) {
        SCOPED_TRACE(&run - seeded);
        SetUp();
        auto record = std::make_unique<QcomPostProcInfo>();
        Expected expected = run(record, *this);
        record.reset();
        std::sort(expected.begin(), expected.end());
        EXPECT_EQ(check(log(sim::logcat::androidLines())).findings, expected);
        leftovers.clear();
        sim::clearJournal();  // the misuses seeded on purpose
    }
}

TEST_F(LogcheckTest, ALogCutAtTheStartCalibratesInsteadOfFinding) {
    session();
    const Lines all = sim::logcat::androidLines();
    for (size_t cut : {all.size() / 4, all.size() / 2, all.size() * 3 / 4}) {
        SCOPED_TRACE(cut);
        const Checked checked = check(log(Lines(all.begin() + static_cast<long>(cut), all.end())));
        EXPECT_THAT(checked.findings, IsEmpty());
        EXPECT_EQ(checked.totals.records.alive() + checked.totals.chiMetas.alive(), 0u);
    }
}

TEST_F(LogcheckTest, LinesDroppedInTheMiddleAreReportedAndLaterFindingsUncertain) {
    // Records at fixed addresses, so that none reuses another's.
    alignas(QcomPostProcInfo) static unsigned char storage[7][sizeof(QcomPostProcInfo)];
    QcomPostProcInfo* records[7];
    for (int i = 0; i < 6; ++i) {
        records[i] = new (storage[i]) QcomPostProcInfo();
        adapter::DebugData data = buffer(i);
        records[i]->keep3aDebugData(0, &data, false);
    }
    for (int i = 0; i < 3; ++i) {
        records[i]->~QcomPostProcInfo();
    }
    records[6] = new (storage[6]) QcomPostProcInfo();
    for (int i = 3; i < 7; ++i) {
        records[i]->~QcomPostProcInfo();
    }
    // logd drops record 1's destructor lines.
    Lines lines;
    for (const sim::kycam::LogLine& line : sim::logcat::androidLines()) {
        if (line.text.find(hex(records[1])) == std::string::npos ||
            line.text.find("Construct") != std::string::npos) {
            lines.push_back(line);
        }
    }
    EXPECT_THAT(check(log(lines, "long")).findings,
                ElementsAre(finding(Kind::LinesLost, records[6], nullptr),
                            finding(Kind::RecordLeak, records[1], "record-lifetime", false)));
}

TEST_F(LogcheckTest, ProcessesKeepLedgersOfTheirOwnAndARestartEndsOne) {
    leftovers.push_back(std::make_unique<QcomPostProcInfo>());
    const void* leaked = leftovers[0].get();
    const Lines crashed = sim::logcat::androidLines(1234);
    sim::kycam::clearLines();
    session();
    Lines clean = sim::logcat::androidLines(2345);
    // Interleaved, both live; one after the other, the first was replaced.
    Lines both = clean;
    both.insert(both.begin() + 10, crashed.begin(), crashed.end());
    EXPECT_THAT(check(log(both)).findings,
                ElementsAre(finding(Kind::RecordLeak, leaked, "record-lifetime")));
    Lines restarted = crashed;
    restarted.insert(restarted.end(), clean.begin(), clean.end());
    const std::string ended =
            finding(Kind::RecordLeak, leaked, "record-lifetime", true, 1234, true);
    EXPECT_THAT(check(log(restarted)).findings, ElementsAre(ended));
    // The same pid again after its death line.
    for (sim::kycam::LogLine& line : clean) {
        line.pid = 1234;
    }
    const Checked checked =
            check(log(crashed) +
                  "11-14 22:13:21.000  1234  1301 F libc    : Fatal signal 6 (SIGABRT), code -1 "
                  "(SI_QUEUE) in tid 1301 (HwBinder:1234_1), pid 1234 (provider@2.4-se)\n" +
                  log(clean));
    EXPECT_THAT(checked.findings, ElementsAre(ended));
    EXPECT_EQ(checked.processes, 2u);
}

// The program as scripts run it: its exit status and the first line of its
// output (the verdict), or all of it.
std::pair<int, std::string> program(const std::string& arguments, const std::string& input = "",
                                    bool firstLine = true) {
    char path[] = "/tmp/logcheck-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_EQ(write(fd, input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(fd);
    const std::string command = std::string(LOGCHECK_RUNNER " " LOGCHECK_PROGRAM " ") + arguments +
                                " " + path + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    std::string output;
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
        output.append(chunk, n);
    }
    const int status = WEXITSTATUS(pclose(pipe));
    unlink(path);
    return {status, firstLine ? output.substr(0, output.find('\n')) : output};
}

TEST_F(LogcheckTest, ProgramAnswersWithVerdictFirstAndAnExitStatus) {
    session();
    const std::string clean = log(sim::logcat::androidLines());
    leftovers.push_back(std::make_unique<QcomPostProcInfo>());
    const std::string leaking = log(sim::logcat::androidLines());
    using Answer = std::pair<int, std::string>;
    EXPECT_EQ(program("", clean), Answer(0, "postproc-logcheck: no finding in 1 process"));
    auto [status, json] = program("--json", leaking, false);
    EXPECT_EQ(status, 1);
    EXPECT_THAT(json, ::testing::StartsWith("{\"verdict\": \"findings\", \"findings\": "
                                            "[{\"kind\": \"record-leak\", \"object\": \"" +
                                            hex(leftovers[0].get()) + "\", \"pid\": 1234"));
    EXPECT_THAT(json, ::testing::HasSubstr("\"totals\": {\"records\": {\"created\": 5, "
                                           "\"before\": 0, \"ended\": 4, \"alive\": 1}"));
    EXPECT_EQ(program("-v nonsense", clean),
              Answer(2, "postproc-logcheck: unknown format: nonsense"));
    EXPECT_EQ(program("/nonexistent/log"),
              Answer(2, "postproc-logcheck: /nonexistent/log: No such file or directory"));
}

}  // namespace
