#include "zdr/system/desktop_entries.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>

#include "zdr/logging/shared2.h"

namespace zdr {

namespace fs = std::filesystem;

namespace {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t' || s.front() == '\r')) {
        s.remove_prefix(1);
    }
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) {
        s.remove_suffix(1);
    }
    return s;
}

std::string baseName(std::string_view path) {
    const auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        auto lower = [](char c) { return (c >= 'A' && c <= 'Z') ? char(c - 'A' + 'a') : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

// Splits an Exec value into its words: double quotes group, a backslash
// escapes the next character (the desktop-entry quoting rules).
std::vector<std::string> execWords(std::string_view exec) {
    std::vector<std::string> words;
    std::string word;
    bool inWord = false, quoted = false;
    for (std::size_t i = 0; i < exec.size(); ++i) {
        const char c = exec[i];
        if (c == '\\' && i + 1 < exec.size()) {
            word += exec[++i];
            inWord = true;
        } else if (c == '"') {
            quoted = !quoted;
            inWord = true;
        } else if ((c == ' ' || c == '\t') && !quoted) {
            if (inWord) words.push_back(std::move(word));
            word.clear();
            inWord = false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) words.push_back(std::move(word));
    return words;
}

std::timespec folderStamp(const std::string& folder) {
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0) return {0, 0};
    return st.st_mtim;
}

}  // namespace

DesktopEntries::DesktopEntries(std::vector<std::string> applicationFolders)
    : folders_(std::move(applicationFolders)) {}

std::vector<std::string> DesktopEntries::defaultApplicationFolders() {
    std::vector<std::string> folders;
    const char* dataHome = std::getenv("XDG_DATA_HOME");
    if (dataHome && *dataHome == '/') {
        folders.push_back(std::string(dataHome) + "/applications");
    } else if (const char* home = std::getenv("HOME"); home && *home) {
        folders.push_back(std::string(home) + "/.local/share/applications");
    }
    const char* dataDirs = std::getenv("XDG_DATA_DIRS");
    std::string dirs = (dataDirs && *dataDirs) ? dataDirs : "/usr/local/share:/usr/share";
    std::stringstream stream(dirs);
    std::string dir;
    while (std::getline(stream, dir, ':')) {
        // Relative entries are invalid in the variable; skip them.
        if (!dir.empty() && dir[0] == '/') folders.push_back(dir + "/applications");
    }
    return folders;
}

std::shared_ptr<DesktopEntries> DesktopEntries::shared() {
    static const auto instance = std::make_shared<DesktopEntries>(defaultApplicationFolders());
    return instance;
}

std::optional<std::string> DesktopEntries::programOfExec(std::string_view exec) {
    auto words = execWords(exec);
    std::size_t i = 0;
    if (i < words.size() && baseName(words[i]) == "env") {
        ++i;
        while (i < words.size() && words[i].find('=') != std::string::npos) ++i;
        // env's own options take arguments of their own; rather than guess
        // which word is the program, give no answer.
        if (i < words.size() && !words[i].empty() && words[i][0] == '-') return std::nullopt;
    }
    if (i >= words.size() || words[i].empty() || words[i][0] == '%') return std::nullopt;
    return baseName(words[i]);
}

std::optional<DesktopEntries::Entry> DesktopEntries::parseDesktopFile(std::string_view text,
                                                                      std::string* error) {
    Entry entry;
    bool inGroup = false, sawGroup = false;
    while (!text.empty()) {
        const auto eol = text.find('\n');
        std::string_view line = trim(text.substr(0, eol));
        text.remove_prefix(eol == std::string_view::npos ? text.size() : eol + 1);
        if (line.empty() || line[0] == '#') continue;
        if (line[0] == '[') {
            if (inGroup) break;  // the main group is over
            inGroup = line == "[Desktop Entry]";
            sawGroup = sawGroup || inGroup;
            continue;
        }
        if (!inGroup) continue;
        const auto eq = line.find('=');
        if (eq == std::string_view::npos) continue;  // not a key: skipped, as other readers do
        const std::string_view key = trim(line.substr(0, eq));
        const std::string value(trim(line.substr(eq + 1)));
        if (key == "Name") {
            entry.name = value;
        } else if (key == "Exec") {
            entry.program = programOfExec(value);
        } else if (key == "TryExec") {
            if (!value.empty()) entry.tryExec = baseName(value);
        } else if (key == "StartupWMClass") {
            if (!value.empty()) entry.startupWMClass = value;
        } else if (key == "Hidden") {
            entry.hidden = value == "true";
        }
    }
    if (!sawGroup) {
        if (error) *error = "no [Desktop Entry] group";
        return std::nullopt;
    }
    return entry;
}

void DesktopEntries::refreshIfChanged() {
    std::vector<std::timespec> stamps;
    stamps.reserve(folders_.size());
    for (const auto& folder : folders_) stamps.push_back(folderStamp(folder));
    const bool same =
        loaded_ && std::equal(stamps.begin(), stamps.end(), stamps_.begin(), stamps_.end(),
                              [](const std::timespec& a, const std::timespec& b) {
                                  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
                              });
    if (same) return;

    std::map<std::string, Entry> byID;
    for (const auto& folder : folders_) {
        std::error_code ec;
        fs::recursive_directory_iterator it(folder, fs::directory_options::skip_permission_denied,
                                            ec);
        if (ec) continue;  // a folder that does not exist is normal
        for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
            if (ec) break;
            const fs::path& path = it->path();
            if (path.extension() != ".desktop" || !it->is_regular_file(ec)) continue;
            std::string relative = fs::relative(path, folder, ec).string();
            if (ec) continue;
            relative.resize(relative.size() - std::string_view(".desktop").size());
            std::replace(relative.begin(), relative.end(), '/', '-');
            if (byID.count(relative)) continue;  // hidden by an earlier folder
            std::ifstream in(path, std::ios::binary);
            std::stringstream buffer;
            buffer << in.rdbuf();
            if (!in) {
                Shared2::general()->warning("Could not read the desktop file {}", path.string());
                continue;
            }
            std::string reason;
            auto entry = parseDesktopFile(buffer.str(), &reason);
            if (!entry) {
                Shared2::general()->warning("Skipping the desktop file {}: {}", path.string(),
                                            reason);
                continue;
            }
            entry->desktopFileID = relative;
            entry->path = path.string();
            byID.emplace(relative, std::move(*entry));
        }
    }
    entries_.clear();
    for (auto& [id, entry] : byID) entries_.push_back(std::move(entry));
    stamps_ = std::move(stamps);
    loaded_ = true;
}

bool DesktopEntries::matches(const Entry& entry, const std::string& name,
                             bool allowTruncated) const {
    auto same = [&](const std::optional<std::string>& candidate) {
        if (!candidate) return false;
        if (*candidate == name) return true;
        // The kernel's 15-byte name of a longer program.
        return allowTruncated && name.size() == 15 && candidate->size() > 15 &&
               candidate->compare(0, 15, name) == 0;
    };
    if (same(entry.program) || same(entry.tryExec)) return true;
    return !allowTruncated && entry.startupWMClass &&
           equalsIgnoringCase(*entry.startupWMClass, name);
}

std::optional<DesktopEntries::Entry> DesktopEntries::entryForProgramName(const std::string& name) {
    if (name.empty()) return std::nullopt;
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    // An exact match anywhere beats a truncated one.
    for (bool truncated : {false, true}) {
        for (const auto& entry : entries_) {
            if (!entry.hidden && matches(entry, name, truncated)) return entry;
        }
    }
    return std::nullopt;
}

std::vector<DesktopEntries::Entry> DesktopEntries::entries() {
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    std::vector<Entry> visible;
    for (const auto& entry : entries_) {
        if (!entry.hidden) visible.push_back(entry);
    }
    return visible;
}

std::optional<std::string> DesktopEntries::fullPathForApplication(const std::string& name) {
    auto entry = entryForProgramName(name);
    if (!entry) return std::nullopt;
    return entry->path;
}

std::optional<std::string> DesktopEntries::bundleIdentifierAtPath(const std::string& path) {
    std::lock_guard lock(mutex_);
    refreshIfChanged();
    for (const auto& entry : entries_) {
        if (entry.path == path) return entry.desktopFileID;
    }
    return std::nullopt;
}

}  // namespace zdr
