#include "zdr/system/environment.h"

#include <algorithm>
#include <atomic>
#include <mutex>

#include "zdr/runtime/bundle.h"
#include "zdr/system/process_info.h"
#include "zdr/timing/serial.h"

extern char** environ;

namespace zdr {

namespace {

// -1: not computed yet; 0 or 1 once computed or set.
std::atomic<int> gRunningInTest{-1};
std::atomic<double> gWindowRadius{5.0};

struct DevMachines {
    std::mutex mutex;
    std::vector<std::string> serialNumbers;
};
DevMachines& devMachines() {
    static auto* machines = new DevMachines();  // lives to the end of the process
    return *machines;
}

}  // namespace

bool TestUtils::runningInTest(const std::vector<std::string>& environment) {
    for (const auto& entry : environment) {
        const std::string_view name = std::string_view(entry).substr(0, entry.find('='));
        if (name == "XCInjectBundle" || name == "XCTestBundlePath" ||
            name == "XCTestConfigurationFilePath") {
            return true;
        }
    }
    return false;
}

bool TestUtils::runningInTest() {
    int value = gRunningInTest.load(std::memory_order_acquire);
    if (value >= 0) return value == 1;
    std::vector<std::string> environment;
    for (char** e = environ; e && *e; ++e) environment.emplace_back(*e);
    const int computed = runningInTest(environment) ? 1 : 0;
    // A value set meanwhile wins over the computed one.
    gRunningInTest.compare_exchange_strong(value, computed, std::memory_order_acq_rel);
    return gRunningInTest.load(std::memory_order_acquire) == 1;
}

void TestUtils::setRunningInTest(bool value) {
    gRunningInTest.store(value ? 1 : 0, std::memory_order_release);
}

bool Application::isAKnownDevMachine() { return isAKnownDevMachine(Serial::serialNumber()); }

bool Application::isAKnownDevMachine(const std::optional<std::string>& serialNumber) {
    if (!serialNumber || serialNumber->empty()) return false;
    auto& machines = devMachines();
    std::lock_guard lock(machines.mutex);
    return std::find(machines.serialNumbers.begin(), machines.serialNumbers.end(), *serialNumber) !=
           machines.serialNumbers.end();
}

void Application::setKnownDevMachineSerialNumbers(std::vector<std::string> serialNumbers) {
    auto& machines = devMachines();
    std::lock_guard lock(machines.mutex);
    machines.serialNumbers = std::move(serialNumbers);
}

std::vector<std::string> Application::knownDevMachineSerialNumbers() {
    auto& machines = devMachines();
    std::lock_guard lock(machines.mutex);
    return machines.serialNumbers;
}

OSConstants::OSConstants() {
    Highlighting::setWindowRadius(ProcessInfo::isBigSurOrLater() ? 10.0 : 5.0);
}

OSConstants& OSConstants::shared() {
    static OSConstants* instance = new OSConstants();
    return *instance;
}

double OSConstants::Highlighting::windowRadius() {
    return gWindowRadius.load(std::memory_order_relaxed);
}

void OSConstants::Highlighting::setWindowRadius(double radius) {
    gWindowRadius.store(radius, std::memory_order_relaxed);
}

std::chrono::system_clock::time_point BuildDate::buildDate() {
    if (auto date = Bundle::main().buildDate()) return *date;
    return std::chrono::system_clock::now();
}

}  // namespace zdr
