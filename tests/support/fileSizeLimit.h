// A full disk that every test can have: a limit on the size of the files this process (and the
// programs it starts) write. A write past it fails with EFBIG ("File too large") instead of
// raising SIGXFSZ, just as a write to a full disk fails with ENOSPC.
#pragma once

#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <string>

class zycFileSizeLimit {
 public:
  explicit zycFileSizeLimit(uint64_t bytes) {
    getrlimit(RLIMIT_FSIZE, &saved_);
    previous_ = std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit = saved_;
    limit.rlim_cur = rlim_t(bytes);
    ok_ = setrlimit(RLIMIT_FSIZE, &limit) == 0;
  }
  ~zycFileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &saved_);
    std::signal(SIGXFSZ, previous_);
  }
  zycFileSizeLimit(const zycFileSizeLimit&) = delete;
  zycFileSizeLimit& operator=(const zycFileSizeLimit&) = delete;
  bool ok() const { return ok_; }

 private:
  rlimit saved_ = {};
  void (*previous_)(int) = SIG_DFL;
  bool ok_ = false;
};

// Catches what the process prints on standard output through a pipe, which no file size limit
// reaches (up to the pipe's 64 kB). errno is kept across Take.
class zycPipedStdout {
 public:
  zycPipedStdout() {
    if (pipe(ends_) != 0) return;
    std::fflush(stdout);
    saved_ = dup(1);
    dup2(ends_[1], 1);
  }
  // Ends the catch and returns what was printed.
  std::string Take() {
    const int reason = errno;
    std::string text;
    if (saved_ >= 0) {
      std::fflush(stdout);
      dup2(saved_, 1);
      close(saved_);
      close(ends_[1]);
      char buffer[4096];
      for (ssize_t got; (got = read(ends_[0], buffer, sizeof buffer)) > 0;)
        text.append(buffer, size_t(got));
      close(ends_[0]);
      saved_ = -1;
    }
    errno = reason;
    return text;
  }
  ~zycPipedStdout() { Take(); }

 private:
  int ends_[2] = {-1, -1};
  int saved_ = -1;
};
