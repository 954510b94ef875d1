#include "zdr/system/process_info.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <mutex>
#include <sstream>

#include "zdr/logging/shared2.h"

extern char** environ;

namespace zdr {

namespace {

struct VersionState {
    std::mutex mutex;
    std::optional<OperatingSystemVersion> hostVersion;
    std::optional<OperatingSystemVersion> kernelVersion;  // read once
};

VersionState& versionState() {
    static auto* state = new VersionState();  // lives to the end of the process
    return *state;
}

std::string_view trimmed(std::string_view s) {
    while (!s.empty() && std::isspace(static_cast<unsigned char>(s.front()))) s.remove_prefix(1);
    while (!s.empty() && (std::isspace(static_cast<unsigned char>(s.back())) || s.back() == '\0')) {
        s.remove_suffix(1);
    }
    return s;
}

// Reads up to three dot-separated numbers from the start of `text`.
std::optional<OperatingSystemVersion> leadingVersion(std::string_view text) {
    long parts[3] = {0, 0, 0};
    std::size_t i = 0;
    for (int part = 0; part < 3; ++part) {
        if (i >= text.size() || !std::isdigit(static_cast<unsigned char>(text[i]))) {
            if (part == 0) return std::nullopt;
            break;
        }
        long value = 0;
        while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
            value = value * 10 + (text[i] - '0');
            if (value > 1'000'000'000L) return std::nullopt;
            ++i;
        }
        parts[part] = value;
        if (i + 1 < text.size() && text[i] == '.' &&
            std::isdigit(static_cast<unsigned char>(text[i + 1]))) {
            ++i;
        } else {
            break;
        }
    }
    return OperatingSystemVersion{parts[0], parts[1], parts[2]};
}

std::optional<std::string> readWholeFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::stringstream buffer;
    buffer << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return buffer.str();
}

// Undoes the shell-like quoting os-release allows: "..." with backslash
// escapes, '...' literally, or a bare word.
std::optional<std::string> unquote(std::string_view value) {
    if (value.empty()) return std::string();
    const char q = value.front();
    if (q != '"' && q != '\'') {
        if (value.find_first_of(" \t\"'`$") != std::string_view::npos) return std::nullopt;
        return std::string(value);
    }
    if (value.size() < 2 || value.back() != q) return std::nullopt;
    std::string out;
    for (std::size_t i = 1; i + 1 < value.size(); ++i) {
        if (q == '"' && value[i] == '\\' && i + 2 < value.size()) {
            out += value[++i];
        } else {
            out += value[i];
        }
    }
    return out;
}

}  // namespace

OperatingSystemVersion ProcessInfo::operatingSystemVersion() {
    auto& s = versionState();
    std::lock_guard lock(s.mutex);
    if (s.hostVersion) return *s.hostVersion;
    if (!s.kernelVersion) {
        const std::string release = kernelRelease();
        s.kernelVersion = parseKernelRelease(release);
        if (!s.kernelVersion) {
            Shared2::general()->error("Could not read a version from the kernel release \"{}\"",
                                      release);
            s.kernelVersion = OperatingSystemVersion{};
        }
    }
    return *s.kernelVersion;
}

void ProcessInfo::setOperatingSystemVersion(std::optional<OperatingSystemVersion> version) {
    auto& s = versionState();
    std::lock_guard lock(s.mutex);
    s.hostVersion = version;
}

bool ProcessInfo::isOperatingSystemAtLeastVersion(const OperatingSystemVersion& version) {
    return operatingSystemVersion() >= version;
}

bool ProcessInfo::isBigSurOrLater() { return isOperatingSystemAtLeastVersion({10, 16, 0}); }
bool ProcessInfo::isCatalina() {
    const auto v = operatingSystemVersion();
    return v >= OperatingSystemVersion{10, 15, 0} && !(v >= OperatingSystemVersion{10, 16, 0});
}
bool ProcessInfo::isMontereyOrLater() { return isOperatingSystemAtLeastVersion({12, 0, 0}); }
bool ProcessInfo::isVenturaOrLater() { return isOperatingSystemAtLeastVersion({13, 0, 0}); }
bool ProcessInfo::isSonomaOrLater() { return isOperatingSystemAtLeastVersion({14, 0, 0}); }
bool ProcessInfo::isSonoma144OrLater() { return isOperatingSystemAtLeastVersion({14, 4, 4}); }

bool ProcessInfo::isWithinXCode() {
    std::vector<std::string> environment;
    for (char** e = environ; e && *e; ++e) environment.emplace_back(*e);
    return isWithinXCode(environment);
}

bool ProcessInfo::isWithinXCode(const std::vector<std::string>& environment) {
    for (const auto& entry : environment) {
        const std::string_view name = std::string_view(entry).substr(0, entry.find('='));
        if (name == "__XCODE_BUILT_PRODUCTS_DIR_PATHS" || name == "OS_ACTIVITY_DT_MODE") {
            return true;
        }
    }
    return false;
}

std::string ProcessInfo::kernelRelease() {
    utsname names{};
    if (::uname(&names) != 0) return {};
    return names.release;
}

std::optional<OperatingSystemVersion> ProcessInfo::parseKernelRelease(std::string_view release) {
    return leadingVersion(trimmed(release));
}

std::optional<OSRelease> ProcessInfo::distributionRelease() {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        if (auto text = readWholeFile(path)) {
            std::vector<std::string> problems;
            OSRelease release = parseOSRelease(*text, &problems);
            for (const auto& problem : problems) {
                Shared2::general()->warning("{}: {}", path, problem);
            }
            return release;
        }
    }
    Shared2::general()->warning("Neither /etc/os-release nor /usr/lib/os-release can be read");
    return std::nullopt;
}

OSRelease ProcessInfo::parseOSRelease(std::string_view text, std::vector<std::string>* problems) {
    OSRelease release;
    int lineNumber = 0;
    while (!text.empty()) {
        const auto eol = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, eol));
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        ++lineNumber;
        if (line.empty() || line.front() == '#') continue;
        const auto eq = line.find('=');
        const std::string_view key = eq == std::string_view::npos ? line : line.substr(0, eq);
        const bool keyOK = eq != std::string_view::npos && !key.empty() &&
                           std::all_of(key.begin(), key.end(), [](char c) {
                               return std::isupper(static_cast<unsigned char>(c)) ||
                                      std::isdigit(static_cast<unsigned char>(c)) || c == '_';
                           });
        auto value = keyOK ? unquote(line.substr(eq + 1)) : std::nullopt;
        if (!value) {
            if (problems) {
                problems->push_back("line " + std::to_string(lineNumber) +
                                    " is not KEY=value and was skipped");
            }
            continue;
        }
        release.fields[std::string(key)] = *value;
    }
    auto field = [&](const char* key) {
        auto it = release.fields.find(key);
        return it == release.fields.end() ? std::string() : it->second;
    };
    release.id = field("ID");
    release.name = field("NAME");
    release.prettyName = field("PRETTY_NAME");
    release.versionID = field("VERSION_ID");
    if (release.id.empty()) release.id = "linux";  // the documented default
    if (release.name.empty()) release.name = "Linux";
    if (release.prettyName.empty()) release.prettyName = "Linux";
    if (auto v = leadingVersion(release.versionID);
        v && release.versionID.find_first_not_of("0123456789.") == std::string::npos) {
        release.version = v;
    }
    return release;
}

std::string ProcessInfo::machineModel() {
    utsname names{};
    const std::string architecture = ::uname(&names) == 0 ? names.machine : "";
    return machineModelFrom(
        {"/sys/class/dmi/id/product_name", "/sys/firmware/devicetree/base/model"},
        architecture.empty() ? "Linux" : architecture);
}

std::string ProcessInfo::machineModelFrom(const std::vector<std::string>& files,
                                          const std::string& fallback) {
    static const char* const kPlaceholders[] = {
        "to be filled by o.e.m.",
        "system product name",
        "default string",
        "not specified",
        "none",
        "0123456789",
    };
    for (const auto& path : files) {
        auto text = readWholeFile(path);
        if (!text) continue;
        std::string model(trimmed(*text));
        // A device-tree string ends at its NUL.
        if (auto nul = model.find('\0'); nul != std::string::npos) {
            model = std::string(trimmed(model.substr(0, nul)));
        }
        std::string lower = model;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return char(std::tolower(c)); });
        const bool placeholder = std::any_of(std::begin(kPlaceholders), std::end(kPlaceholders),
                                             [&](const char* p) { return lower == p; });
        if (!model.empty() && !placeholder) return model;
    }
    return fallback;
}

}  // namespace zdr
