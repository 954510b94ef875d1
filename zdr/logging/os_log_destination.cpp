#include "zdr/logging/os_log_destination.h"

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "zdr/logging/detail/internal_log.h"
#include "zdr/logging/detail/journal_socket.h"
#include "zdr/runtime/bundle.h"

namespace zdr {

namespace {

std::string currentSubsystem() {
    if (auto identifier = Bundle::main().bundleIdentifier(); identifier && !identifier->empty()) {
        return *identifier;
    }
    return "com.tallpinecraft";
}

bool isWithinXCode() {
    return std::getenv("__XCODE_BUILT_PRODUCTS_DIR_PATHS") != nullptr ||
           std::getenv("OS_ACTIVITY_DT_MODE") != nullptr;
}

}  // namespace

OSLogDestination::OSLogDestination(std::string identifier)
    : BaseQueuedDestination(std::move(identifier)) {
    pinOption(kDate, true);  // a journal line keeps the library's own date
    subsystem_ = currentSubsystem();
    // The bundle identifier and the category come from the host and may be
    // anything; what goes to the journal is cleaned once, here.
    detail::appendIdentifierText(subsystem_, subsystemField_);
    detail::appendIdentifierText(this->identifier(), categoryField_);
    fromWithinXCode_ = isWithinXCode();
}

OSLogDestination::~OSLogDestination() {
    std::string text = "Deinit OSLogDestination for " + identifier() + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
}

int OSLogDestination::priorityFor(LogLevel level) {
    switch (level) {
        case LogLevel::verbose:
        case LogLevel::debug:
            return 7;  // debug
        case LogLevel::info:
            return 6;            // info
        case LogLevel::warning:  // deliberately the error type, as error itself
        case LogLevel::error:
            return 3;
        default:
            return 5;  // the default type: notice, severe and above
    }
}

std::string OSLogDestination::journalSocketPath() { return detail::JournalSocket::shared().path(); }

void OSLogDestination::setJournalSocketPath(std::string path) {
    detail::JournalSocket::shared().setPath(std::move(path));
}

bool OSLogDestination::journalAvailable() { return detail::JournalSocket::shared().exists(); }

void OSLogDestination::output(const LogDetails& logDetails, std::string_view message) {
    nextLogLevel_.store(static_cast<std::uint8_t>(logDetails.level), std::memory_order_relaxed);
    // The base writes through write(), so a subclass that overrides it sees
    // every line; write() then finds this line's own level and place.
    BaseQueuedDestination::output(logDetails, message);
}

void OSLogDestination::write(std::string_view message) {
    // The level and code location travel with the line itself, so two
    // threads logging at once can never swap each other's priority.
    if (const LogDetails* details = currentLogDetails()) {
        emit(details->level, details->fileName, details->lineNumber, details->functionName,
             message);
        return;
    }
    emit(nextLogLevel(), {}, 0, {}, message);
}

void OSLogDestination::emit(LogLevel level, std::string_view file, long line,
                            std::string_view function, std::string_view message) const {
    // The journal wants UTF-8; replace whatever is not before it gets there.
    std::string text, codeFile, codeFunc;
    text.reserve(message.size());
    detail::appendValidUtf8(message, text);
    detail::appendValidUtf8(file, codeFile);
    detail::appendValidUtf8(function, codeFunc);
    char priority[4];
    auto p = std::to_chars(priority, priority + sizeof priority, priorityFor(level)).ptr;
    char lineText[24];
    auto l = std::to_chars(lineText, lineText + sizeof lineText, line).ptr;

    std::vector<detail::JournalField> fields = {
        {"MESSAGE", text},
        {"PRIORITY", std::string_view(priority, static_cast<std::size_t>(p - priority))},
        {"SYSLOG_IDENTIFIER", subsystemField_},
        {"ZDR_SUBSYSTEM", subsystemField_},
        {"ZDR_CATEGORY", categoryField_},
    };
    if (!codeFile.empty()) {
        fields.push_back({"CODE_FILE", codeFile});
        fields.push_back(
            {"CODE_LINE", std::string_view(lineText, static_cast<std::size_t>(l - lineText))});
    }
    if (!codeFunc.empty()) fields.push_back({"CODE_FUNC", codeFunc});
    std::string datagram;
    datagram.reserve(text.size() + codeFile.size() + codeFunc.size() + 160);
    detail::encodeJournalEntry(fields, datagram);
    detail::JournalSocket::shared().send(datagram);
}

}  // namespace zdr
