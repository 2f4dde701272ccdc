// Caps the size of files this process writes, as a full disk would: writes
// past the limit fail with EFBIG (SIGXFSZ is ignored meanwhile).
#pragma once

#include <signal.h>
#include <sys/resource.h>

// The limit is lifted when the guard goes.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t bytes) {
        getrlimit(RLIMIT_FSIZE, &old_);
        old_handler_ = signal(SIGXFSZ, SIG_IGN);
        rlimit lim{bytes, old_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &lim);
    }
    ~FileSizeLimit() {
        setrlimit(RLIMIT_FSIZE, &old_);
        signal(SIGXFSZ, old_handler_);
    }

  private:
    rlimit old_{};
    sighandler_t old_handler_;
};
