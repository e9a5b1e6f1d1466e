// SPDX-License-Identifier: Apache-2.0
// The log checker against the simulation's ledger: the library's own lines,
// written as logcat writes them, must rebuild the books the simulation kept,
// and each host rule broken on purpose must come back as exactly the finding
// expected, on the object expected.
#include <QcomPostProcInfo.h>
#include <chi/chxmetadata.h>
#include <sim/iqbm.h>
#include <sys/wait.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "support/logcat.h"
#include "support/record_test.h"

using adapter::QcomPostProcInfo;
using logcheck::Kind;
using ::testing::IsEmpty;
using testsupport::hex;

namespace {

char gBuffers[8][64];

adapter::DebugData buffer(int i) {
    return {64, gBuffers[i % 8]};
}

ChiMetadata* chi(void* meta) {
    return static_cast<ChiMetadata*>(meta);
}

// An object the HAL made, with the HAL's reference on it.
void* halObject() {
    void* meta = ChiMetadata::Create(nullptr, 0, false, nullptr, 0, 0, 0, nullptr);
    chi(meta)->AddReference(nullptr);
    return meta;
}

// A request kept by every host rule: private results attached and filled
// (the HAL's own object for camera 1), debug data, a deep clone with its own
// references, a shallow clone that lets go, an offline step that exports and
// imports, a reset. Four records.
void session() {
    auto record = std::make_unique<QcomPostProcInfo>();
    std::set<std::string> cameras = {"0", "1"};
    adapter::PostProcInfoMetaAttributes attributes = {0, 1, 0, 0};
    record->createPrivResultMeta(cameras, true, attributes);
    camera3_capture_request request = {};
    record->setHalRequestPrivResultMeta(&request);
    void* handed[] = {request.priv_result, request.priv_physcam_result[0],
                      request.priv_physcam_result[1]};
    for (void* meta : handed) {
        chi(meta)->AddReference(nullptr);
    }
    void* own = halObject();
    testsupport::Result result(7, handed[0], {{"0", handed[1]}, {"1", own}});
    record->checkAndUpdatePrivResult(result.get());
    for (void* meta : {handed[0], handed[1], own}) {
        chi(meta)->ReleaseReference(nullptr);  // the pipeline is done with them
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
    offline->mPhyCamIdSet = cameras;
    offline->createTuningMetaBufs();
    offline->setTuningMetaBufs(*params);
    offline.reset();
    record->reset();
}

// Records made, kept on, cloned and dropped on several threads at once.
void threads(int rounds) {
    std::vector<std::thread> workers;
    for (int t = 0; t < 4; ++t) {
        workers.emplace_back([t, rounds] {
            std::set<std::string> ids = {"0", "2"};
            adapter::PostProcInfoMetaAttributes attributes = {1, 0, 0, 1};
            for (int i = 0; i < rounds; ++i) {
                auto record = std::make_unique<QcomPostProcInfo>();
                if (i % 2 == 0) {
                    record->createPrivResultMeta(ids, true, attributes);
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
}

std::string describe(Kind kind, const void* object, const char* rule, bool certain,
                     int32_t pid = 1234, bool ended = false) {
    return std::string(logcheck::kindName(kind)) + " " + hex(object) + " " +
           (rule != nullptr ? rule : "-") + (certain ? "" : " uncertain") + " pid " +
           std::to_string(pid) + (ended ? " ended" : "");
}

std::vector<std::string> described(const std::vector<logcheck::Finding>& findings) {
    std::vector<std::string> out;
    for (const logcheck::Finding& f : findings) {
        out.push_back(describe(f.kind, reinterpret_cast<const void*>(f.object), f.rule, f.certain,
                               f.pid, f.processEnded));
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Everything the checker said, for a failure's message.
std::string details(const std::vector<logcheck::Finding>& findings) {
    std::string text;
    for (const logcheck::Finding& finding : findings) {
        text += logcheck::describe(finding) + "\n";
    }
    return text;
}

void expectCount(const logcheck::Count& count, uint64_t created, uint64_t before, uint64_t ended) {
    EXPECT_EQ(count.created, created);
    EXPECT_EQ(count.before, before);
    EXPECT_EQ(count.ended, ended);
}

class LogcheckTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::chi::reset();
        sim::camera_metadata::reset();
        sim::kycam::resetDebugData();
        sim::iqbm::clearBuffers();
        sim::clearJournal();
        sim::kycam::setLogOutput(true, nullptr);
        sim::kycam::clearLines();
        // Every line reaches logcat, the reference traces included.
        sim::kycam::setLogConfig(0, KYA_LOG_GROUP_META | KYA_LOG_GROUP_POSTPROC, 0);
    }
    void TearDown() override {
        leftovers.clear();
        sim::kycam::setLogOutput(false, nullptr);
        sim::clearJournal();
    }
    // The library's objects by the simulation's books: made by createChiMeta
    // (its one tag), and the HAL's that the library ended.
    void expectChiBooks(const logcheck::Count& count) {
        size_t created = 0;
        for (void* meta : sim::chi::objects()) {
            sim::chi::MetaState state;
            sim::chi::state(meta, &state);
            created += state.args.tagCount == 1;
        }
        expectCount(count, created, sim::count("Destroy") - created, sim::count("Destroy"));
        EXPECT_EQ(sim::chi::totals().alive, 0u);
    }

  public:
    // Records a scenario leaves alive until the log was checked.
    std::vector<std::unique_ptr<QcomPostProcInfo>> leftovers;
};

TEST_F(LogcheckTest, EveryFormatRebuildsTheSimulationsBooks) {
    session();
    ASSERT_THAT(sim::misuses(), IsEmpty());
    const std::vector<sim::kycam::LogLine> lines = testsupport::androidLines();
    const char* formats[] = {"threadtime",        "threadtime,year,usec", "threadtime,UTC,zone",
                             "threadtime,uid",    "threadtime,epoch",     "brief",
                             "brief,uid",         "time,usec,zone",       "long",
                             "long,uid,monotonic"};
    std::vector<std::string> logs;
    for (const char* format : formats) {
        logs.push_back(testsupport::logcat(lines, format));
    }
    logs.push_back(testsupport::logcatBinary(lines));
    for (size_t i = 0; i < logs.size(); ++i) {
        SCOPED_TRACE(i < std::size(formats) ? formats[i] : "binary");
        const testsupport::Checked checked = testsupport::check(logs[i]);
        EXPECT_THAT(described(checked.findings), IsEmpty());
        EXPECT_EQ(checked.stats.skipped, 0u);
        expectCount(checked.totals.records, 4, 0, 4);
        expectChiBooks(checked.totals.chiMetas);
        // aec, the two tuning buffers and the one the import adopted.
        expectCount(checked.totals.debugData, 4, 0, 4);
        EXPECT_TRUE(checked.seen.lifetime && checked.seen.metaInfo && checked.seen.metaDebug &&
                    checked.seen.traces);
    }
}

TEST_F(LogcheckTest, OtherTagsMarkersCarriageReturnsAndGarbleAreSkipped) {
    session();
    std::string log = "--------- beginning of main\r\n";
    std::string threadtime = testsupport::logcat(testsupport::androidLines(), "threadtime");
    size_t lines = 0;
    for (size_t at = 0, end; (end = threadtime.find('\n', at)) != std::string::npos; at = end + 1) {
        const std::string line = threadtime.substr(at, end - at);
        log += line + "\r\n";
        if (++lines % 5 == 0) {
            log += "11-14 22:13:20.123  1234  1301 I CameraProvider: frame 12\n";
            log += line.substr(0, 20) + "\n";  // cut short
            log += "\x01\x7f garbage\n";
        }
    }
    const testsupport::Checked checked = testsupport::check(log);
    EXPECT_THAT(described(checked.findings), IsEmpty());
    EXPECT_EQ(checked.stats.markers, 1u);
    EXPECT_EQ(checked.stats.skipped, lines / 5 * 2);
    expectChiBooks(checked.totals.chiMetas);
}

TEST_F(LogcheckTest, RecordsOnManyThreadsBalance) {
    threads(150);
    ASSERT_THAT(sim::misuses(), IsEmpty());
    const std::string log = testsupport::logcat(testsupport::androidLines(), "threadtime");
    const testsupport::Checked checked = testsupport::check(log);
    EXPECT_THAT(described(checked.findings), IsEmpty()) << details(checked.findings);
    if (!checked.findings.empty() && getenv("LOGCHECK_KEEP") != nullptr) {
        FILE* kept = fopen(getenv("LOGCHECK_KEEP"), "w");
        fwrite(log.data(), 1, log.size(), kept);
        fclose(kept);
    }
    expectCount(checked.totals.records, 4 * 150 * 2, 0, 4 * 150 * 2);
    expectChiBooks(checked.totals.chiMetas);
    EXPECT_EQ(checked.totals.debugData.alive(), 0u);
}

TEST_F(LogcheckTest, EachBrokenRuleIsNamedOnItsObject) {
    struct Seeded {
        const char* name;
        std::function<std::vector<std::string>(LogcheckTest&)> run;
    };
    const Seeded seeded[] = {
            {"a record never destroyed, holding what it made",
             [](LogcheckTest& test) -> std::vector<std::string> {
                 test.leftovers.push_back(std::make_unique<QcomPostProcInfo>());
                 std::set<std::string> ids = {"0"};
                 adapter::PostProcInfoMetaAttributes none = {};
                 test.leftovers[0]->createPrivResultMeta(ids, true, none);
                 adapter::DebugData data = buffer(0);
                 test.leftovers[0]->keep3aDebugData(0, &data, false);
                 return {describe(Kind::RecordLeak, test.leftovers[0].get(), "record-lifetime",
                                  true)};
             }},
            {"an object held and parked is ended twice",
             [](LogcheckTest&) -> std::vector<std::string> {
                 auto record = std::make_unique<QcomPostProcInfo>();
                 std::set<std::string> ids = {"0", "1"};
                 adapter::PostProcInfoMetaAttributes none = {};
                 record->createPrivResultMeta(ids, true, none);
                 void* kept = record->mPrivPhyResultMap.at(0);
                 for (void* meta : {record->m_pPrivResult, kept, record->mPrivPhyResultMap.at(1)}) {
                     chi(meta)->AddReference(nullptr);
                 }
                 // Camera 1 becomes 3: a rebuild that keeps camera 0's object.
                 testsupport::Result result(1, record->m_pPrivResult,
                                            {{"0", kept}, {"3", halObject()}});
                 record->checkAndUpdatePrivResult(result.get());
                 record->reset();
                 record.reset();
                 return {describe(Kind::ChiMetaDoubleDestroy, kept, "held-and-parked", true)};
             }},
            {"debug data handed over to nobody",
             [](LogcheckTest&) -> std::vector<std::string> {
                 auto record = std::make_unique<QcomPostProcInfo>();
                 adapter::DebugData data = buffer(3);
                 record->keep3aDebugData(0, &data, false);
                 record->releaseTuningMetaBufs(true);
                 record.reset();
                 return {describe(Kind::DebugDataLeak, data.pData, "release-hands-over", true)};
             }},
            {"a shallow clone's twin not told to let go",
             [](LogcheckTest&) -> std::vector<std::string> {
                 auto record = std::make_unique<QcomPostProcInfo>();
                 std::set<std::string> ids = {"0", "1"};
                 adapter::PostProcInfoMetaAttributes none = {};
                 record->createPrivResultMeta(ids, true, none);
                 std::vector<void*> shared = {record->m_pPrivResult,
                                              record->mPrivPhyResultMap.at(0),
                                              record->mPrivPhyResultMap.at(1)};
                 std::shared_ptr<PostProcInfo> clone = record->shallowClone(false);
                 // The shared arrays go with the source only: deleting them
                 // twice would end this process before its log is read.
                 auto& twin = static_cast<QcomPostProcInfo&>(*clone);
                 twin.m_pPrivPhyCamIds = nullptr;
                 twin.m_pPrivPhyResults = nullptr;
                 clone.reset();
                 record.reset();
                 std::vector<std::string> expected;
                 for (void* meta : shared) {
                     expected.push_back(describe(Kind::ChiMetaDoubleDestroy, meta,
                                                 "shallow-clone-owner", true));
                 }
                 return expected;
             }},
            {"a HAL that takes no reference",
             [](LogcheckTest&) -> std::vector<std::string> {
                 auto record = std::make_unique<QcomPostProcInfo>();
                 std::set<std::string> none;
                 adapter::PostProcInfoMetaAttributes attributes = {};
                 record->createPrivResultMeta(none, true, attributes);
                 void* requested = record->m_pPrivResult;
                 testsupport::Result result(1, halObject(), {});
                 record->checkAndUpdatePrivResult(result.get());
                 record.reset();
                 return {describe(Kind::ReferenceUnderflow, requested, "hal-references", true)};
             }},
    };
    for (const Seeded& s : seeded) {
        SCOPED_TRACE(s.name);
        SetUp();
        const std::vector<std::string> expected = s.run(*this);
        const testsupport::Checked checked =
                testsupport::check(testsupport::logcat(testsupport::androidLines(), "threadtime"));
        std::vector<std::string> sorted = expected;
        std::sort(sorted.begin(), sorted.end());
        EXPECT_EQ(described(checked.findings), sorted);
        TearDown();
    }
}

TEST_F(LogcheckTest, ALogCutAtTheStartCalibratesInsteadOfFinding) {
    session();
    const std::vector<sim::kycam::LogLine> all = testsupport::androidLines();
    for (size_t cut : {all.size() / 4, all.size() / 2, all.size() * 3 / 4}) {
        SCOPED_TRACE(cut);
        const std::vector<sim::kycam::LogLine> tail(all.begin() + static_cast<long>(cut),
                                                    all.end());
        const testsupport::Checked checked =
                testsupport::check(testsupport::logcat(tail, "threadtime"));
        EXPECT_THAT(described(checked.findings), IsEmpty());
        EXPECT_EQ(checked.totals.records.alive(), 0u);
        EXPECT_EQ(checked.totals.chiMetas.alive(), 0u);
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
    std::vector<sim::kycam::LogLine> lines;
    for (const sim::kycam::LogLine& line : testsupport::androidLines()) {
        if (line.text.find(hex(records[1])) == std::string::npos ||
            line.text.find("Construct") != std::string::npos) {
            lines.push_back(line);
        }
    }
    const testsupport::Checked checked = testsupport::check(testsupport::logcat(lines, "brief"));
    EXPECT_THAT(described(checked.findings),
                ::testing::ElementsAre(
                        describe(Kind::LinesLost, records[6], nullptr, true),
                        describe(Kind::RecordLeak, records[1], "record-lifetime", false)));
}

TEST_F(LogcheckTest, ProcessesKeepLedgersOfTheirOwnAndARestartEndsOne) {
    leftovers.push_back(std::make_unique<QcomPostProcInfo>());
    const void* leaked = leftovers[0].get();
    const std::vector<sim::kycam::LogLine> crashed = testsupport::androidLines(1234);
    sim::kycam::clearLines();
    session();
    std::vector<sim::kycam::LogLine> clean = testsupport::androidLines(2345);
    // Interleaved: both live, neither ended.
    std::vector<sim::kycam::LogLine> both = clean;
    both.insert(both.begin() + 10, crashed.begin(), crashed.end());
    EXPECT_THAT(
            described(testsupport::check(testsupport::logcat(both, "threadtime")).findings),
            ::testing::ElementsAre(describe(Kind::RecordLeak, leaked, "record-lifetime", true)));
    // One after the other: the first was replaced.
    std::vector<sim::kycam::LogLine> restarted = crashed;
    restarted.insert(restarted.end(), clean.begin(), clean.end());
    EXPECT_THAT(
            described(testsupport::check(testsupport::logcat(restarted, "threadtime")).findings),
            ::testing::ElementsAre(
                    describe(Kind::RecordLeak, leaked, "record-lifetime", true, 1234, true)));
    // The same pid again after its death line.
    for (sim::kycam::LogLine& line : clean) {
        line.pid = 1234;
    }
    std::string log = testsupport::logcat(crashed, "threadtime") +
                      "11-14 22:13:21.000  1234  1301 F libc    : Fatal signal 6 (SIGABRT), code "
                      "-1 (SI_QUEUE) in tid 1301 (HwBinder:1234_1), pid 1234 (provider@2.4-se)\n" +
                      testsupport::logcat(clean, "threadtime");
    const testsupport::Checked checked = testsupport::check(log);
    EXPECT_THAT(described(checked.findings),
                ::testing::ElementsAre(
                        describe(Kind::RecordLeak, leaked, "record-lifetime", true, 1234, true)));
    EXPECT_EQ(checked.processes.size(), 2u);
}

// The program: verdict, exit status and JSON as scripts use them.
struct Exit {
    int status;
    std::string output;
};

Exit program(const std::string& arguments, const std::string& input = std::string()) {
    char path[] = "/tmp/logcheck-XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_EQ(write(fd, input.data(), input.size()), static_cast<ssize_t>(input.size()));
    close(fd);
    const std::string command = std::string(LOGCHECK_RUNNER " " LOGCHECK_PROGRAM " ") + arguments +
                                " " + path + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    Exit run{0, std::string()};
    char chunk[4096];
    for (size_t n; (n = fread(chunk, 1, sizeof(chunk), pipe)) > 0;) {
        run.output.append(chunk, n);
    }
    run.status = WEXITSTATUS(pclose(pipe));
    unlink(path);
    return run;
}

TEST_F(LogcheckTest, ProgramAnswersWithVerdictFirstAndAnExitStatus) {
    session();
    const std::string clean = testsupport::logcat(testsupport::androidLines(), "threadtime");
    leftovers.push_back(std::make_unique<QcomPostProcInfo>());
    const std::string leaking = testsupport::logcat(testsupport::androidLines(), "threadtime");

    Exit run = program("", clean);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output.substr(0, run.output.find('\n')),
              "postproc-logcheck: no finding in 1 process");
    run = program("--json", leaking);
    EXPECT_EQ(run.status, 1);
    EXPECT_THAT(run.output, ::testing::StartsWith("{\"verdict\": \"findings\", \"findings\": "
                                                  "[{\"kind\": \"record-leak\", \"object\": \"" +
                                                  hex(leftovers[0].get()) + "\", \"pid\": 1234"));
    EXPECT_THAT(run.output, ::testing::HasSubstr("\"totals\": {\"records\": {\"created\": 5, "
                                                 "\"before\": 0, \"ended\": 4, \"alive\": 1}"));
    run = program("-v nonsense", clean);
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.output, ::testing::StartsWith("postproc-logcheck: unknown format: nonsense\n"));
    run = program("/nonexistent/log");
    EXPECT_EQ(run.status, 2);
    EXPECT_THAT(run.output,
                ::testing::StartsWith("postproc-logcheck: /nonexistent/log: No such file or "
                                      "directory\n"));
}

}  // namespace
