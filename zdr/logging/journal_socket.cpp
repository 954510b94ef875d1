#include "zdr/logging/detail/journal_socket.h"

#include <cstdint>

namespace zdr::detail {

void encodeJournalEntry(const std::vector<JournalField>& fields, std::string& out) {
    for (const auto& field : fields) {
        out.append(field.name);
        if (field.value.find('\n') == std::string_view::npos) {
            out.push_back('=');
            out.append(field.value);
        } else {
            out.push_back('\n');
            std::uint64_t size = field.value.size();
            for (int i = 0; i < 8; ++i) out.push_back(static_cast<char>((size >> (8 * i)) & 0xff));
            out.append(field.value);
        }
        out.push_back('\n');
    }
}

void appendValidUtf8(std::string_view text, std::string& out) {
    static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            // Runs of ASCII are by far the common case: copy them in one go.
            std::size_t start = i;
            while (i < n && s[i] < 0x80) ++i;
            out.append(text.data() + start, i - start);
            continue;
        }
        std::size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            if (c == 0xE0) low = 0xA0;   // no overlong forms
            if (c == 0xED) high = 0x9F;  // no UTF-16 surrogates
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            if (c == 0xF0) low = 0x90;
            if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
        }
        bool valid = length > 0 && i + length <= n;
        for (std::size_t k = 1; valid && k < length; ++k) {
            unsigned char b = s[i + k];
            valid = k == 1 ? (b >= low && b <= high) : (b >= 0x80 && b <= 0xBF);
        }
        if (valid) {
            out.append(text.data() + i, length);
            i += length;
        } else {
            out.append(kReplacement);
            ++i;
        }
    }
}

void appendIdentifierText(std::string_view text, std::string& out) {
    static constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    std::string valid;
    appendValidUtf8(text, valid);
    const auto* s = reinterpret_cast<const unsigned char*>(valid.data());
    for (std::size_t i = 0; i < valid.size(); ++i) {
        unsigned char c = s[i];
        if (c < 0x20 || c == 0x7F) {
            out.append(kReplacement);
        } else if (c == 0xC2 && i + 1 < valid.size() && s[i + 1] >= 0x80 && s[i + 1] <= 0x9F) {
            out.append(kReplacement);  // U+0080 to U+009F
            ++i;
        } else {
            out.push_back(static_cast<char>(c));
        }
    }
}

}  // namespace zdr::detail
