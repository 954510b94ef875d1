// The environment the code runs in: test-runner detection, the developers'
// own machines, release-dependent constants and the build date.
//
// - TestUtils::runningInTest(): whether a test runner started the process.
//   Computed once, on first use, from the environment ("XCInjectBundle",
//   "XCTestBundlePath", "XCTestConfigurationFilePath"); a test harness that
//   sets none of these (GoogleTest, ctest) sets the answer with
//   setRunningInTest(), which holds for the rest of the process.
// - Application::isAKnownDevMachine(): whether the machine's serial number
//   (Serial::serialNumber(), read once and cached) is one of the developer
//   machines the host lists with setKnownDevMachineSerialNumbers(); false
//   when the serial number cannot be read.
// - OSConstants::shared(): made on first use; making it sets
//   Highlighting::windowRadius (the corner radius, in points, of a window
//   highlight) to 10 when the system is at least 10.16.0 and to 5 otherwise.
//   Before that, and unless set, the radius is 5.
// - BuildDate::buildDate(): the modification time of the running executable,
//   the current time when it cannot be read.
//
// Threads: every member may be called from any thread.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace zdr {

class TestUtils {
 public:
    static bool runningInTest();
    static void setRunningInTest(bool value);
    /// The computed answer for an explicit environment (NAME=value strings).
    static bool runningInTest(const std::vector<std::string>& environment);
};

class Application {
 public:
    static bool isAKnownDevMachine();
    /// The answer for a given serial number (none: it could not be read).
    static bool isAKnownDevMachine(const std::optional<std::string>& serialNumber);
    /// The developer machines' serial numbers, as the host configures them.
    static void setKnownDevMachineSerialNumbers(std::vector<std::string> serialNumbers);
    static std::vector<std::string> knownDevMachineSerialNumbers();
};

class OSConstants {
 public:
    static OSConstants& shared();

    struct Highlighting {
        static double windowRadius();
        static void setWindowRadius(double radius);
    };

    OSConstants(const OSConstants&) = delete;
    OSConstants& operator=(const OSConstants&) = delete;

 private:
    OSConstants();
};

class BuildDate {
 public:
    static std::chrono::system_clock::time_point buildDate();
};

}  // namespace zdr
