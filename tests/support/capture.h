// What goes to standard output or standard error while this lives, caught in memory. One thread at a time.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

class Capture {
public:
    explicit Capture(int fd) : fd_(fd) {
        std::fflush(stdout);
        dup2(file_, fd);
    }
    // What nobody took is passed on: it may be the report of a failed test.
    ~Capture() {
        dprintf(before_, "%s", take().c_str());
        dup2(before_, fd_);
        close(before_);
        close(file_);
    }
    Capture(const Capture &) = delete;

    std::string peek() const {
        std::fflush(stdout);
        std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END) - taken_), '\0');
        return pread(file_, text.data(), text.size(), taken_) < 0 ? "" : text;
    }
    std::string take() {  // since the last time
        std::string text = peek();
        taken_ += static_cast<off_t>(text.size());
        return text;
    }

private:
    const int fd_, before_ = fcntl(fd_, F_DUPFD_CLOEXEC, 3), file_ = memfd_create("said", MFD_CLOEXEC);
    off_t taken_ = 0;
};
