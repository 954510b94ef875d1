#include "zdr/logging/testing/test_environment.h"

#include <cstdlib>

#include "zdr/logging/os_log_destination.h"

namespace zdr::testing {

JournalReceiver& journal() {
    static JournalReceiver* receiver = [] {
        auto* r = new JournalReceiver();
        OSLogDestination::setJournalSocketPath(r->path());
        return r;
    }();
    return *receiver;
}

namespace {
// Installs the stand-in before the first test runs, so that every category
// logger of the program is made with a journal destination.
struct Install : ::testing::Environment {
    void SetUp() override {
        (void)journal();
        ::setenv("ZDR_LOG", "env.category=warning", 1);
    }
};
[[maybe_unused]] auto* const gInstall = ::testing::AddGlobalTestEnvironment(new Install);
}  // namespace

std::vector<JournalEntry> entriesFor(const std::string& category) {
    std::vector<JournalEntry> result;
    for (auto& e : journal().drain()) {
        if (e["ZDR_CATEGORY"] == category) result.push_back(std::move(e));
    }
    return result;
}

}  // namespace zdr::testing
