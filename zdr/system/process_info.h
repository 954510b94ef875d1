// ProcessInfo: which operating-system release the process runs on, and the
// machine it runs on.
//
// operatingSystemVersion() is what every version check answers against. The
// host may set it (an application that keeps its own notion of the release,
// a test); by default it is the kernel release ("6.1.0-13-amd64" is 6.1.0),
// since that is what decides the system's abilities on Linux. The
// distribution's own release from /etc/os-release is offered beside it.
//
// The checks keep the release numbers of the system this library first ran
// on (isSonomaOrLater() is "at least 14.0.0"); on Linux they are meaningful
// only against a version the host sets. Choices that depend on the system's
// abilities should test the ability itself.
//
// machineModel() is the model identifier analytics reports: the firmware's
// product name, else the device tree's model, else the processor
// architecture.
//
// Threads: every member may be called from any thread.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zdr {

struct OperatingSystemVersion {
    long majorVersion = 0;
    long minorVersion = 0;
    long patchVersion = 0;
    auto operator<=>(const OperatingSystemVersion&) const = default;
};

/// The distribution's release, as /etc/os-release describes it.
struct OSRelease {
    std::string id;          // ID ("debian")
    std::string name;        // NAME ("Debian GNU/Linux")
    std::string prettyName;  // PRETTY_NAME
    std::string versionID;   // VERSION_ID ("12")
    /// VERSION_ID as numbers ("22.04" is 22.4.0), when it is numeric.
    std::optional<OperatingSystemVersion> version;
    std::map<std::string, std::string> fields;  // every field, unquoted
};

class ProcessInfo {
 public:
    /// The version the checks answer against (see the header comment).
    static OperatingSystemVersion operatingSystemVersion();
    /// Sets the version for the rest of the process; none restores the
    /// kernel's.
    static void setOperatingSystemVersion(std::optional<OperatingSystemVersion> version);
    static bool isOperatingSystemAtLeastVersion(const OperatingSystemVersion& version);

    /// At least 10.16.0 (the compatibility number of release 11).
    static bool isBigSurOrLater();
    /// At least 10.15.0 and not at least 10.16.0.
    static bool isCatalina();
    static bool isMontereyOrLater();  // at least 12.0.0
    static bool isVenturaOrLater();   // at least 13.0.0
    static bool isSonomaOrLater();    // at least 14.0.0
    /// At least 14.4.4: patch 4, deliberately, whatever the name suggests.
    static bool isSonoma144OrLater();

    /// Whether the process runs under the development environment: the
    /// environment holds "__XCODE_BUILT_PRODUCTS_DIR_PATHS" or
    /// "OS_ACTIVITY_DT_MODE" (an IDE sets one to mark its debug runs).
    static bool isWithinXCode();
    /// The same over an explicit environment (NAME=value strings).
    static bool isWithinXCode(const std::vector<std::string>& environment);

    /// The kernel release text (uname), such as "6.1.0-13-amd64".
    static std::string kernelRelease();
    /// The leading numbers of a kernel release; none when it does not start
    /// with one. Missing minor and patch numbers are 0.
    static std::optional<OperatingSystemVersion> parseKernelRelease(std::string_view release);

    /// /etc/os-release, else /usr/lib/os-release; none when neither can be read.
    static std::optional<OSRelease> distributionRelease();
    /// Parses os-release text (KEY=value lines, values optionally quoted);
    /// malformed lines are skipped and named in `problems` when given.
    static OSRelease parseOSRelease(std::string_view text,
                                    std::vector<std::string>* problems = nullptr);

    /// The machine model identifier (see the header comment); never empty.
    static std::string machineModel();
    /// The first of `files` that holds a real model name, else `fallback`.
    /// Firmware placeholders ("To Be Filled By O.E.M.", "System Product Name")
    /// do not count.
    static std::string machineModelFrom(const std::vector<std::string>& files,
                                        const std::string& fallback);
};

}  // namespace zdr
