#pragma once

// Closing what a child must not inherit, between fork and exec: only async-signal-safe calls.

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>

// Closes descriptors `first` to `last`. The kernel's call by number, since glibc before 2.34 does
// not name close_range; a kernel before 5.9 lacks it, and the descriptors below the file limit
// are closed one by one.
inline void close_descriptors(unsigned first, unsigned last) {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, last, 0) == 0) {
        return;
    }
#endif
    rlimit limit{};
    const unsigned end = getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY
                             ? static_cast<unsigned>(limit.rlim_cur)
                             : 65536;
    for (unsigned fd = first; fd <= std::min(last, end - 1); ++fd) {
        close(static_cast<int>(fd));
    }
}

// Closes every descriptor from `first` on.
inline void close_from(int first) {
    close_descriptors(static_cast<unsigned>(first), ~0U);
}

// Closes every descriptor above the standard streams but `keep`.
inline void close_all_but(int keep) {
    if (keep > 3) {
        close_descriptors(3, static_cast<unsigned>(keep) - 1);
    }
    close_from(keep + 1);
}
