#include "zdr/logging/detail/printf_format.h"

#include <sys/types.h>
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>

namespace zdr::detail {

namespace {

constexpr long kMaxWidth = 4096;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
template <class T>
void appendOne(std::string& out, const std::string& spec, T value) {
    char buffer[256];
    int n = std::snprintf(buffer, sizeof buffer, spec.c_str(), value);
    if (n < 0) return;
    if (static_cast<std::size_t>(n) < sizeof buffer) {
        out.append(buffer, static_cast<std::size_t>(n));
        return;
    }
    std::size_t old = out.size();
    out.resize(old + static_cast<std::size_t>(n) + 1);
    std::snprintf(&out[old], static_cast<std::size_t>(n) + 1, spec.c_str(), value);
    out.resize(old + static_cast<std::size_t>(n));
}
#pragma GCC diagnostic pop

enum class Length { none, hh, h, l, ll, j, z, t, L };

long readNumber(const char*& p) {
    long value = 0;
    while (std::isdigit(static_cast<unsigned char>(*p))) {
        if (value <= kMaxWidth) value = value * 10 + (*p - '0');
        ++p;
    }
    return value > kMaxWidth ? kMaxWidth : value;
}

}  // namespace

void appendPrintf(std::string& out, const char* format, va_list args) {
    if (format == nullptr) return;
    va_list ap;
    va_copy(ap, args);
    const char* p = format;
    while (*p != '\0') {
        const char* percent = std::strchr(p, '%');
        if (percent == nullptr) {
            out.append(p);
            break;
        }
        out.append(p, static_cast<std::size_t>(percent - p));
        const char* q = percent + 1;
        if (*q == '%') {
            out.push_back('%');
            p = q + 1;
            continue;
        }
        // Rebuild the directive piece by piece so that '*' widths become
        // numbers and every call below passes exactly one argument.
        std::string spec = "%";
        while (*q != '\0' && std::strchr("-+ #0'", *q) != nullptr) spec.push_back(*q++);
        bool malformed = false;
        if (*q == '*') {
            long width = va_arg(ap, int);
            if (width < -kMaxWidth) width = -kMaxWidth;
            if (width > kMaxWidth) width = kMaxWidth;
            spec += std::to_string(width);
            ++q;
        } else if (std::isdigit(static_cast<unsigned char>(*q))) {
            spec += std::to_string(readNumber(q));
            if (*q == '$') malformed = true;  // positional arguments are not supported
        }
        if (!malformed && *q == '.') {
            ++q;
            spec.push_back('.');
            if (*q == '*') {
                long precision = va_arg(ap, int);
                if (precision > kMaxWidth) precision = kMaxWidth;
                // A negative precision means "none", as printf says.
                if (precision >= 0) {
                    spec += std::to_string(precision);
                } else {
                    spec.pop_back();
                }
                ++q;
            } else {
                spec += std::to_string(readNumber(q));
            }
        }
        Length length = Length::none;
        if (!malformed) {
            if (q[0] == 'h' && q[1] == 'h') {
                length = Length::hh;
                q += 2;
            } else if (q[0] == 'l' && q[1] == 'l') {
                length = Length::ll;
                q += 2;
            } else if (*q == 'h') {
                length = Length::h;
                ++q;
            } else if (*q == 'l') {
                length = Length::l;
                ++q;
            } else if (*q == 'q') {  // BSD spelling of ll
                length = Length::ll;
                ++q;
            } else if (*q == 'j') {
                length = Length::j;
                ++q;
            } else if (*q == 'z') {
                length = Length::z;
                ++q;
            } else if (*q == 't') {
                length = Length::t;
                ++q;
            } else if (*q == 'L') {
                length = Length::L;
                ++q;
            }
        }
        char conversion = malformed ? '\0' : *q;
        // glibc reads L with an integer conversion as ll (a long long); so
        // must we, or the argument is read half and every later one shifted.
        if (length == Length::L && conversion != '\0' && std::strchr("diouxX", conversion))
            length = Length::ll;
        auto lengthText = [&]() -> const char* {
            switch (length) {
                case Length::hh:
                    return "hh";
                case Length::h:
                    return "h";
                case Length::l:
                    return "l";
                case Length::ll:
                    return "ll";
                case Length::j:
                    return "j";
                case Length::z:
                    return "z";
                case Length::t:
                    return "t";
                case Length::L:
                    return "L";
                default:
                    return "";
            }
        };
        switch (conversion) {
            case 'd':
            case 'i': {
                spec += lengthText();
                spec.push_back(conversion);
                switch (length) {
                    case Length::l:
                        appendOne(out, spec, va_arg(ap, long));
                        break;
                    case Length::ll:
                        appendOne(out, spec, va_arg(ap, long long));
                        break;
                    case Length::j:
                        appendOne(out, spec, va_arg(ap, intmax_t));
                        break;
                    case Length::z:
                        appendOne(out, spec, va_arg(ap, ssize_t));
                        break;
                    case Length::t:
                        appendOne(out, spec, va_arg(ap, ptrdiff_t));
                        break;
                    default:
                        appendOne(out, spec, va_arg(ap, int));
                        break;  // hh, h promote
                }
                break;
            }
            case 'u':
            case 'o':
            case 'x':
            case 'X': {
                spec += lengthText();
                spec.push_back(conversion);
                switch (length) {
                    case Length::l:
                        appendOne(out, spec, va_arg(ap, unsigned long));
                        break;
                    case Length::ll:
                        appendOne(out, spec, va_arg(ap, unsigned long long));
                        break;
                    case Length::j:
                        appendOne(out, spec, va_arg(ap, uintmax_t));
                        break;
                    case Length::z:
                        appendOne(out, spec, va_arg(ap, size_t));
                        break;
                    case Length::t:
                        appendOne(out, spec, va_arg(ap, ptrdiff_t));
                        break;
                    default:
                        appendOne(out, spec, va_arg(ap, unsigned int));
                        break;
                }
                break;
            }
            case 'c':
                if (length == Length::l) {
                    spec += "lc";
                    appendOne(out, spec, static_cast<wint_t>(va_arg(ap, wint_t)));
                } else {
                    spec.push_back('c');
                    appendOne(out, spec, va_arg(ap, int));
                }
                break;
            case 's':
            case '@': {
                if (length == Length::l && conversion == 's') {
                    const wchar_t* text = va_arg(ap, const wchar_t*);
                    if (text == nullptr) {
                        spec.push_back('s');
                        appendOne(out, spec, "(null)");
                    } else {
                        spec += "ls";
                        appendOne(out, spec, text);
                    }
                } else {
                    const char* text = va_arg(ap, const char*);
                    spec.push_back('s');
                    appendOne(out, spec, text != nullptr ? text : "(null)");
                }
                break;
            }
            case 'p':
                spec.push_back('p');
                appendOne(out, spec, va_arg(ap, void*));
                break;
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (length == Length::L) {
                    spec.push_back('L');
                    spec.push_back(conversion);
                    appendOne(out, spec, va_arg(ap, long double));
                } else {
                    spec.push_back(conversion);
                    appendOne(out, spec, va_arg(ap, double));
                }
                break;
            case 'n':
                (void)va_arg(ap, void*);  // never write through a logged pointer
                break;
            default:
                // Unknown, positional or cut short: the directive stays text.
                if (conversion == '\0' && !malformed) {
                    out.append(percent);
                    va_end(ap);
                    return;
                }
                out.append(percent, static_cast<std::size_t>(q - percent) + (malformed ? 0 : 1));
                p = malformed ? q : q + 1;
                continue;
        }
        p = q + 1;
    }
    va_end(ap);
}

void appendPrintfWithoutArguments(std::string& out, const char* format) {
    if (format == nullptr) return;
    for (const char* p = format; *p != '\0'; ++p) {
        out.push_back(*p);
        if (*p == '%' && p[1] == '%') ++p;
    }
}

std::string stringWithFormat(const char* format, ...) {
    std::string out;
    va_list args;
    va_start(args, format);
    appendPrintf(out, format, args);
    va_end(args);
    return out;
}

}  // namespace zdr::detail
