// Test helper: captures what is written to standard error (file descriptor 2)
// while it lives.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

namespace zdr::testing {

class StderrCapture {
 public:
    StderrCapture() {
        std::fflush(stderr);
        file_ = std::tmpfile();
        saved_ = ::dup(STDERR_FILENO);
        ::dup2(::fileno(file_), STDERR_FILENO);
    }
    ~StderrCapture() { restore(); }

    /// Stops capturing and returns everything written meanwhile.
    std::string text() {
        restore();
        std::string out;
        std::rewind(file_);
        char buffer[4096];
        std::size_t n;
        while ((n = std::fread(buffer, 1, sizeof buffer, file_)) > 0) out.append(buffer, n);
        return out;
    }

 private:
    void restore() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        ::dup2(saved_, STDERR_FILENO);
        ::close(saved_);
        saved_ = -1;
    }
    std::FILE* file_ = nullptr;
    int saved_ = -1;
};

}  // namespace zdr::testing
