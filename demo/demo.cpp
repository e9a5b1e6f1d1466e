// A short host session against the simulated platform: what a camera HAL
// engineer sees of the record, its log lines and the platform's books.
#include <QcomPostProcInfo.h>
#include <sim/camera_metadata.h>
#include <sim/chi.h>
#include <sim/iqbm.h>
#include <sim/journal.h>
#include <sim/kycam.h>

#include <stdio.h>

#include <memory>

using adapter::QcomPostProcInfo;

namespace {

void heading(const char* title) {
    printf("\n== %s ==\n", title);
}

// The books of every simulated library; balanced means nothing is left
// alive or referenced and no misuse was seen.
bool printLedger() {
    const sim::chi::Totals chi = sim::chi::totals();
    const sim::camera_metadata::Totals meta = sim::camera_metadata::totals();
    const sim::iqbm::Counters iqbm = sim::iqbm::counters();
    printf("-- ledger --\n");
    printf("records alive (mSum)          %llu\n",
           static_cast<unsigned long long>(QcomPostProcInfo::mSum));
    printf("CHI metas alive (mChiMetaSum) %llu\n",
           static_cast<unsigned long long>(QcomPostProcInfo::mChiMetaSum.load()));
    printf("CHI metas created/destroyed   %zu/%zu, alive %zu\n", chi.created, chi.destroyed,
           chi.alive);
    printf("camera metadata alloc/free    %zu/%zu, alive %zu\n", meta.allocated, meta.freed,
           meta.alive);
    printf("IQBM register/unregister      %zu/%zu, registered %s\n", iqbm.registers,
           iqbm.unregisters, iqbm.registered ? "yes" : "no");
    printf("IQBM add/drop references      %zu/%zu\n", iqbm.addRefs, iqbm.decRefs);
    const std::vector<std::string> misuses = sim::misuses();
    for (const std::string& misuse : misuses) {
        printf("MISUSE: %s\n", misuse.c_str());
    }
    const bool balanced = QcomPostProcInfo::mSum == 0 && chi.alive == 0 && meta.alive == 0 &&
                          !iqbm.registered && iqbm.addRefs == iqbm.decRefs && misuses.empty();
    printf("balanced: %s\n", balanced ? "yes" : "NO");
    return balanced;
}

void recordsComeAndGo() {
    heading("records come and go: KYHAL registers at the first, unregisters at the last");
    auto first = std::make_unique<QcomPostProcInfo>();
    auto second = std::make_unique<QcomPostProcInfo>();
    printf("two records, IQBM registered: %s\n", sim::iqbm::counters().registered ? "yes" : "no");
    first.reset();
    printf("one record left, IQBM registered: %s\n",
           sim::iqbm::counters().registered ? "yes" : "no");
    second.reset();
    printf("none left, IQBM registered: %s\n", sim::iqbm::counters().registered ? "yes" : "no");
}

}  // namespace

int main() {
    // Every group, every level, both sinks, echoed here.
    sim::kycam::setLogConfig(0, 0xFFFFFFFF, 1);
    sim::kycam::setLogOutput(false, stdout);

    recordsComeAndGo();

    heading("end of session");
    return printLedger() ? 0 : 1;
}
